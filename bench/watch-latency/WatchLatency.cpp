// Times the change watcher as its owner sees it.
//
//   tarvolin_watch_latency burst [--backend inotify|fanotify] [--folders N] [--files N]
//                                [--outside N] [DIR]
//     Watches a fresh folder inside DIR (default /tmp) with latency 0, then makes N folders with
//     the files spread over them as fast as one thread can, and reports, per file, the time from
//     its creation to the first signal naming its folder that was delivered after it: p50, p99,
//     max, and how many files no signal covered (lost) within 10 s, and whether a rescan came.
//     With --outside, N more files are made at the same time in a folder beside the watched one
//     (the same file system, not watched, 100 a folder), as on a busy disk. The CPU time of the
//     watcher (every thread but the one making files) and of the writer is reported too.
//   tarvolin_watch_latency setup [--backend ...] [--folders N] DIR
//     Makes DIR with N folders (kept when it is already there with that many), then times
//     start() of a watcher on it.

#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarvolin/platform/SerialQueue.h"
#include "tarvolin/watch/FileSystemWatcher.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using tarvolin::FileSystemWatcher;
using tarvolin::FileSystemWatcherSignal;
using tarvolin::WatchBackend;

struct Arguments {
  std::string mode;
  WatchBackend backend = WatchBackend::inotify;
  size_t folders = 1000;
  size_t files = 10000;
  size_t outside = 0;
  std::string dir = "/tmp";
};

const char* backendName(WatchBackend backend) {
  return backend == WatchBackend::fanotify ? "fanotify" : "inotify";
}

// When each folder was named by a delivered signal, in delivery order.
class Deliveries {
 public:
  void record(const FileSystemWatcherSignal& signal) {
    auto now = Clock::now();
    std::lock_guard guard(lock_);
    if (signal.kind == FileSystemWatcherSignal::Kind::mustFullRescan) ++rescans_;
    for (const std::string& path : signal.paths) times_[path].push_back(now);
    changed_.notify_all();
  }
  /// The first delivery naming `folder` at or after `since`, waiting until `deadline`.
  std::optional<Clock::time_point> first(const std::string& folder, Clock::time_point since,
                                         Clock::time_point deadline) {
    std::unique_lock guard(lock_);
    std::optional<Clock::time_point> found;
    changed_.wait_until(guard, deadline, [&] {
      auto at = times_.find(folder);
      if (at == times_.end()) return false;
      auto hit = std::lower_bound(at->second.begin(), at->second.end(), since);
      if (hit == at->second.end()) return false;
      found = *hit;
      return true;
    });
    return found;
  }
  size_t rescans() {
    std::lock_guard guard(lock_);
    return rescans_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::unordered_map<std::string, std::vector<Clock::time_point>> times_;
  size_t rescans_ = 0;
};

double milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

/// CPU time (user and system) so far of the whole process, or of the calling thread only.
double cpuMilliseconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * 1000.0 + time.tv_nsec / 1e6;
}

int burst(const Arguments& args) {
  fs::path root = fs::path(args.dir) / ("tarvolin-watch-latency-" + std::to_string(getpid()));
  fs::create_directories(root);
  fs::path beside = root.string() + "-outside";
  fs::create_directories(beside);
  Deliveries deliveries;
  std::vector<std::pair<std::string, Clock::time_point>> made;  // folder, when the file was made
  made.reserve(args.files);
  {
    tarvolin::platform::SerialQueue queue;
    FileSystemWatcher::Options options;
    options.backend = args.backend;
    FileSystemWatcher watcher(
        {root.string()}, FileSystemWatcher::sinceNow, 0, queue,
        [&](const FileSystemWatcherSignal& s) { deliveries.record(s); }, options);
    watcher.start();
    if (!watcher.isStarted() || watcher.activeBackend() != args.backend) {
      std::fprintf(stderr, "%s could not be started\n", backendName(args.backend));
      return 1;
    }
    auto began = Clock::now();
    double processBegan = cpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID);
    double writerBegan = cpuMilliseconds(CLOCK_THREAD_CPUTIME_ID);
    size_t outsideMade = 0;
    size_t perFolder = (args.files + args.folders - 1) / args.folders;
    for (size_t folder = 0, file = 0; folder < args.folders; ++folder) {
      fs::path path = root / ("d" + std::to_string(folder));
      fs::create_directory(path);
      for (size_t i = 0; i < perFolder && file < args.files; ++i, ++file) {
        // Timed from before the file is made: its first event may be delivered before the
        // writing thread gets to read the clock after closing it.
        made.emplace_back(path.string(), Clock::now());
        std::ofstream(path / ("f" + std::to_string(i) + ".txt")) << "x";
        // The outside files keep pace with the watched ones.
        for (; outsideMade * args.files < (file + 1) * args.outside; ++outsideMade) {
          fs::path folder = beside / ("o" + std::to_string(outsideMade / 100));
          if (outsideMade % 100 == 0) fs::create_directory(folder);
          std::ofstream(folder / ("f" + std::to_string(outsideMade % 100) + ".txt")) << "x";
        }
      }
    }
    auto madeAll = Clock::now();
    auto deadline = madeAll + std::chrono::seconds(10);
    std::vector<double> latencies;
    size_t lost = 0;
    for (const auto& [folder, when] : made) {
      auto seen = deliveries.first(folder, when, deadline);
      if (seen) {
        latencies.push_back(milliseconds(*seen - when));
      } else {
        ++lost;
      }
    }
    // Everything but the thread making the files: the watcher's reader and its handler.
    double writer = cpuMilliseconds(CLOCK_THREAD_CPUTIME_ID) - writerBegan;
    double watching = cpuMilliseconds(CLOCK_PROCESS_CPUTIME_ID) - processBegan - writer;
    watcher.stop();
    std::sort(latencies.begin(), latencies.end());
    auto percentile = [&](double p) {
      if (latencies.empty()) return 0.0;
      return latencies[std::min(latencies.size() - 1, static_cast<size_t>(p * latencies.size()))];
    };
    std::printf(
        "%s: %zu files in %zu new folders (and %zu outside) made in %.0f ms; latency p50 %.2f "
        "ms, p99 %.2f ms, max %.2f ms; lost %zu; rescans %zu; cpu: watcher %.0f ms, writer %.0f "
        "ms\n",
        backendName(args.backend), made.size(), args.folders, outsideMade,
        milliseconds(madeAll - began), percentile(0.50), percentile(0.99),
        latencies.empty() ? 0.0 : latencies.back(), lost, deliveries.rescans(), watching, writer);
  }
  fs::remove_all(root);
  fs::remove_all(beside);
  return 0;
}

size_t makeTree(const fs::path& root, size_t folders) {
  fs::path marker = root / ".folders";
  if (std::ifstream in(marker); in) {
    size_t count = 0;
    in >> count;
    if (count == folders) return count;
  }
  fs::remove_all(root);
  // Three levels, about 50 wide at the top and 100 at the bottom, like a large home folder.
  size_t made = 0;
  for (size_t top = 0; made < folders; ++top) {
    fs::path a = root / ("top" + std::to_string(top));
    fs::create_directories(a);
    ++made;
    for (size_t mid = 0; mid < 30 && made < folders; ++mid) {
      fs::path b = a / ("mid" + std::to_string(mid));
      fs::create_directory(b);
      ++made;
      for (size_t leaf = 0; leaf < 100 && made < folders; ++leaf, ++made) {
        fs::create_directory(b / ("leaf" + std::to_string(leaf)));
      }
    }
  }
  std::ofstream(marker) << made;
  return made;
}

int setup(const Arguments& args) {
  size_t folders = makeTree(args.dir, args.folders);
  tarvolin::platform::SerialQueue queue;
  size_t rescans = 0;
  FileSystemWatcher::Options options;
  options.backend = args.backend;
  FileSystemWatcher watcher(
      {args.dir}, FileSystemWatcher::sinceNow, 0, queue,
      [&](const FileSystemWatcherSignal& s) {
        rescans += s.kind == FileSystemWatcherSignal::Kind::mustFullRescan;
      },
      options);
  auto began = Clock::now();
  watcher.start();
  auto started = Clock::now();
  bool ok = watcher.isStarted() && watcher.activeBackend() == args.backend;
  auto stopBegan = Clock::now();
  watcher.stop();
  auto stopped = Clock::now();
  queue.waitUntilIdle();
  std::printf("%s: start on %zu folders %.1f ms (%s), stop %.1f ms, rescans %zu\n",
              backendName(args.backend), folders + 1, milliseconds(started - began),
              ok ? "ok" : "not started", milliseconds(stopped - stopBegan), rescans);
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments args;
  std::vector<std::string> words(argv + 1, argv + argc);
  if (words.empty() || (words[0] != "burst" && words[0] != "setup")) {
    std::fprintf(stderr,
                 "usage: %s burst|setup [--backend inotify|fanotify] [--folders N] "
                 "[--files N] [--outside N] [DIR]\n",
                 argv[0]);
    return 2;
  }
  args.mode = words[0];
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i] == "--backend" && i + 1 < words.size()) {
      args.backend = words[++i] == "fanotify" ? WatchBackend::fanotify : WatchBackend::inotify;
    } else if (words[i] == "--folders" && i + 1 < words.size()) {
      args.folders = std::stoul(words[++i]);
    } else if (words[i] == "--outside" && i + 1 < words.size()) {
      args.outside = std::stoul(words[++i]);
    } else if (words[i] == "--files" && i + 1 < words.size()) {
      args.files = std::stoul(words[++i]);
    } else {
      args.dir = words[i];
    }
  }
  return args.mode == "burst" ? burst(args) : setup(args);
}
