#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/watch/FileSystemWatcher.h"

namespace tarvolin {
namespace {

namespace fs = std::filesystem;
using testing::TempTree;
using testing::writeFile;
using Kind = FileSystemWatcherSignal::Kind;

constexpr auto kWait = std::chrono::seconds(5);

// Gathers the signals a watcher delivers and lets a test wait, with a deadline, until they
// satisfy a condition.
class Recorder {
 public:
  FileSystemWatcher::SignalHandler handler() {
    return [this](const FileSystemWatcherSignal& signal) {
      std::lock_guard guard(lock_);
      signals_.push_back(signal);
      changed_.notify_all();
    };
  }

  bool waitFor(const std::function<bool(const std::vector<FileSystemWatcherSignal>&)>& done) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, kWait, [&] { return done(signals_); });
  }
  /// Waits until some changedPaths signal names `path`.
  bool waitForPath(const fs::path& path) {
    return waitFor([&](const auto& signals) { return countPath(signals, path.string()) > 0; });
  }
  bool waitForRescan() {
    return waitFor([](const auto& signals) {
      return std::any_of(signals.begin(), signals.end(),
                         [](const auto& s) { return s.kind == Kind::mustFullRescan; });
    });
  }

  std::vector<FileSystemWatcherSignal> signals() {
    std::lock_guard guard(lock_);
    return signals_;
  }
  size_t count() {
    std::lock_guard guard(lock_);
    return signals_.size();
  }

  static size_t countPath(const std::vector<FileSystemWatcherSignal>& signals,
                          const std::string& path) {
    size_t count = 0;
    for (const auto& signal : signals)
      count += std::count(signal.paths.begin(), signal.paths.end(), path);
    return count;
  }
  /// True when any reported path is `path` or lies below it.
  static bool mentions(const std::vector<FileSystemWatcherSignal>& signals,
                       const std::string& path) {
    for (const auto& signal : signals) {
      for (const auto& reported : signal.paths) {
        if (reported == path || reported.starts_with(path + "/")) return true;
      }
    }
    return false;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<FileSystemWatcherSignal> signals_;
};

FileSystemWatcher::Options inotifyOnly(size_t cap = SIZE_MAX) {
  FileSystemWatcher::Options options;
  options.backend = WatchBackend::inotify;
  options.watchCap = cap;
  return options;
}

class FileSystemWatcherTest : public ::testing::Test {
 public:  // the table of changes below reaches the trees
  void startWatching(double latency = 0, FileSystemWatcher::Options options = inotifyOnly()) {
    watcher_ = std::make_unique<FileSystemWatcher>(std::vector<std::string>{tree_.root().string()},
                                                   FileSystemWatcher::sinceNow, latency, queue_,
                                                   recorder_.handler(), options);
    watcher_->start();
    ASSERT_TRUE(watcher_->isStarted());
  }
  std::string at(const std::string& relative) const { return (tree_ / relative).string(); }

  // Declared first so it is destroyed last: the watcher delivers onto it.
  platform::SerialQueue queue_;
  TempTree tree_{"a/keep.txt", "a/b/c/deep.txt", "d/", "e/old.txt"};
  TempTree outside_{"incoming/file.txt", "incoming/sub/x.txt"};
  Recorder recorder_;
  std::unique_ptr<FileSystemWatcher> watcher_;
};

// Each change names the folder whose listing it changed (and, for new folders, the folders
// themselves).
TEST_F(FileSystemWatcherTest, EachChangeNamesTheFolderThatHoldsIt) {
  struct Case {
    const char* what;
    std::function<void(FileSystemWatcherTest&)> change;
    std::vector<std::string> expected;  // relative to the root; "" is the root
  };
  const std::vector<Case> cases = {
      {"file made", [](auto& t) { writeFile(t.tree_ / "a/new.txt", "x"); }, {"a"}},
      {"file written", [](auto& t) { writeFile(t.tree_ / "a/b/c/deep.txt", "more"); }, {"a/b/c"}},
      {"file deleted", [](auto& t) { fs::remove(t.tree_ / "e/old.txt"); }, {"e"}},
      {"file renamed across folders",
       [](auto& t) { fs::rename(t.tree_ / "a/keep.txt", t.tree_ / "d/kept.txt"); },
       {"a", "d"}},
      {"file moved in",
       [](auto& t) { fs::rename(t.outside_ / "incoming/file.txt", t.tree_ / "d/in.txt"); },
       {"d"}},
      {"file moved out",
       [](auto& t) { fs::rename(t.tree_ / "d/in.txt", t.outside_ / "out.txt"); },
       {"d"}},
      {"folder with contents moved in",
       [](auto& t) { fs::rename(t.outside_ / "incoming", t.tree_ / "d/incoming"); },
       {"d", "d/incoming", "d/incoming/sub"}},
      {"folder deleted", [](auto& t) { fs::remove_all(t.tree_ / "d/incoming"); }, {"d"}},
  };
  startWatching();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    c.change(*this);
    for (const std::string& relative : c.expected) {
      std::string path = relative.empty() ? tree_.root().string() : at(relative);
      EXPECT_TRUE(recorder_.waitForPath(path)) << path;
    }
  }
  for (const auto& signal : recorder_.signals()) {
    EXPECT_EQ(signal.kind, Kind::changedPaths);
    EXPECT_FALSE(signal.paths.empty());
  }
}

// mkdir -p and a file at the bottom, faster than the watcher can add watches: the listing of
// each new folder when it is watched finds what its events missed.
TEST_F(FileSystemWatcherTest, NestedFoldersMadeQuicklyLoseNothing) {
  startWatching();
  std::vector<std::string> leaves;
  for (int i = 0; i < 30; ++i) {
    fs::path leaf = tree_ / ("n" + std::to_string(i)) / "x" / "y" / "z";
    fs::create_directories(leaf);
    writeFile(leaf / "f.txt", "f");
    leaves.push_back(leaf.string());
  }
  for (const std::string& leaf : leaves) EXPECT_TRUE(recorder_.waitForPath(leaf)) << leaf;
  // The folders are watched now: a later file in one is seen through its own watch.
  writeFile(fs::path(leaves[7]) / "later.txt", "l");
  recorder_.waitFor([&](const auto& s) { return Recorder::countPath(s, leaves[7]) >= 2; });
  EXPECT_GE(Recorder::countPath(recorder_.signals(), leaves[7]), 2u);
}

// A folder renamed inside the tree keeps its watches; what happens below it afterwards is
// reported under the new name, never the old one.
TEST_F(FileSystemWatcherTest, FolderRenamedInsideTheTreeReportsItsNewPath) {
  startWatching();
  fs::rename(tree_ / "a/b", tree_ / "d/renamed");
  ASSERT_TRUE(recorder_.waitForPath(at("d")));
  ASSERT_TRUE(recorder_.waitForPath(at("a")));
  size_t before = recorder_.count();
  writeFile(tree_ / "d/renamed/c/made-after.txt", "x");
  EXPECT_TRUE(recorder_.waitForPath(at("d/renamed/c")));
  auto signals = recorder_.signals();
  signals.erase(signals.begin(), signals.begin() + static_cast<long>(before));
  EXPECT_FALSE(Recorder::mentions(signals, at("a/b")));
}

// A folder moved out of the tree is no longer watched: changes in it are not reported.
TEST_F(FileSystemWatcherTest, FolderMovedOutIsForgotten) {
  startWatching();
  fs::rename(tree_ / "a/b", outside_ / "gone");
  ASSERT_TRUE(recorder_.waitForPath(at("a")));
  writeFile(outside_ / "gone/c/after.txt", "x");
  // Events are read in order: once the marker's folder is reported, the earlier change would
  // have been too.
  writeFile(tree_ / "d/marker.txt", "m");
  ASSERT_TRUE(recorder_.waitForPath(at("d")));
  EXPECT_FALSE(Recorder::mentions(recorder_.signals(), at("a/b")));
  EXPECT_FALSE(Recorder::mentions(recorder_.signals(), outside_.root().string()));
}

TEST_F(FileSystemWatcherTest, WatchCapAtStartGivesMustFullRescan) {
  startWatching(0, inotifyOnly(2));  // the tree has six folders
  EXPECT_TRUE(recorder_.waitForRescan());
}

TEST_F(FileSystemWatcherTest, NewFolderPastTheWatchCapGivesMustFullRescan) {
  startWatching(0, inotifyOnly(6));  // exactly the six folders there are
  ASSERT_EQ(recorder_.count(), 0u);
  fs::create_directories(tree_ / "d/new");
  EXPECT_TRUE(recorder_.waitForRescan());
  // The batch still names the folder where the new one appeared.
  EXPECT_TRUE(recorder_.waitForPath(at("d")));
}

TEST_F(FileSystemWatcherTest, StartFromAStoredIdGivesRescanThenHistoryDone) {
  FileSystemWatcher watcher({tree_.root().string()}, 12345, 0, queue_, recorder_.handler(),
                            inotifyOnly());
  uint64_t before = FileSystemWatcher::currentEventID();
  watcher.start();
  ASSERT_TRUE(recorder_.waitFor([](const auto& s) { return s.size() >= 2; }));
  auto signals = recorder_.signals();
  EXPECT_EQ(signals[0], FileSystemWatcherSignal::mustFullRescan());
  EXPECT_EQ(signals[1], FileSystemWatcherSignal::historyDone());
  EXPECT_GE(watcher.lastKnownEventID(), before);
}

TEST_F(FileSystemWatcherTest, EventIdsNeverDecreaseAcrossBatchesAndRestarts) {
  std::vector<uint64_t> ids;
  FileSystemWatcher* self = nullptr;
  FileSystemWatcher watcher(
      {tree_.root().string()}, FileSystemWatcher::sinceNow, 0, queue_,
      [&](const FileSystemWatcherSignal& signal) {
        ids.push_back(self->lastKnownEventID());  // on the queue only
        recorder_.handler()(signal);
      },
      inotifyOnly());
  self = &watcher;
  EXPECT_EQ(watcher.lastKnownEventID(), 0u);
  for (int round = 0; round < 2; ++round) {
    watcher.start();
    for (int i = 0; i < 5; ++i) {
      fs::path folder = tree_ / ("r" + std::to_string(round) + "-" + std::to_string(i));
      fs::create_directory(folder);
      ASSERT_TRUE(recorder_.waitForPath(folder));
    }
    watcher.stop();
  }
  queue_.waitUntilIdle();
  ASSERT_GE(ids.size(), 10u);
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
  EXPECT_GT(ids.front(), 0u);
  EXPECT_LE(ids.back(), FileSystemWatcher::currentEventID());
}

// start twice is one stream; stop twice is harmless; after stop nothing arrives; a stopped
// watcher starts again.
TEST_F(FileSystemWatcherTest, StartAndStopAreIdempotentAndRestartable) {
  startWatching();
  watcher_->start();
  fs::create_directory(tree_ / "once");
  ASSERT_TRUE(recorder_.waitForPath(at("once")));
  writeFile(tree_ / "d/marker.txt", "m");
  ASSERT_TRUE(recorder_.waitForPath(at("d")));
  EXPECT_EQ(Recorder::countPath(recorder_.signals(), at("once")), 1u);

  watcher_->stop();
  watcher_->stop();
  EXPECT_FALSE(watcher_->isStarted());
  size_t afterStop = recorder_.count();
  writeFile(tree_ / "d/while-stopped.txt", "x");
  queue_.waitUntilIdle();
  EXPECT_EQ(recorder_.count(), afterStop);

  watcher_->start();
  writeFile(tree_ / "e/again.txt", "x");
  EXPECT_TRUE(recorder_.waitForPath(at("e")));
}

TEST_F(FileSystemWatcherTest, StopFromTheHandlerDoesNotDeadlock) {
  std::unique_ptr<FileSystemWatcher> watcher;
  watcher = std::make_unique<FileSystemWatcher>(
      std::vector<std::string>{tree_.root().string()}, FileSystemWatcher::sinceNow, 0, queue_,
      [&](const FileSystemWatcherSignal& signal) {
        watcher->stop();
        recorder_.handler()(signal);
      },
      inotifyOnly());
  watcher->start();
  writeFile(tree_ / "d/x.txt", "x");
  ASSERT_TRUE(recorder_.waitForPath(at("d")));
  queue_.waitUntilIdle();
  EXPECT_FALSE(watcher->isStarted());
}

TEST_F(FileSystemWatcherTest, MissingRootGivesMustFullRescan) {
  FileSystemWatcher watcher({at("no/such/folder"), tree_.root().string()},
                            FileSystemWatcher::sinceNow, 0, queue_, recorder_.handler(),
                            inotifyOnly());
  watcher.start();
  ASSERT_TRUE(watcher.isStarted());
  EXPECT_TRUE(recorder_.waitForRescan());
  writeFile(tree_ / "d/still-watched.txt", "x");  // the other root is watched all the same
  EXPECT_TRUE(recorder_.waitForPath(at("d")));
}

TEST_F(FileSystemWatcherTest, RootDeletedWhileWatchedGivesItsPathAndRescan) {
  FileSystemWatcher watcher({at("a")}, FileSystemWatcher::sinceNow, 0, queue_, recorder_.handler(),
                            inotifyOnly());
  watcher.start();
  fs::remove_all(tree_ / "a");
  EXPECT_TRUE(recorder_.waitForPath(at("a")));
  EXPECT_TRUE(recorder_.waitForRescan());
}

// With a latency, the first change after a quiet period comes at once and the ones right after
// it are gathered into one batch.
TEST_F(FileSystemWatcherTest, LatencyGathersTheEventsAfterTheFirst) {
  startWatching(0.5);
  writeFile(tree_ / "a/first.txt", "1");
  ASSERT_TRUE(recorder_.waitForPath(at("a")));
  writeFile(tree_ / "d/second.txt", "2");
  writeFile(tree_ / "e/third.txt", "3");
  ASSERT_TRUE(recorder_.waitForPath(at("e")));
  auto signals = recorder_.signals();
  ASSERT_GE(signals.size(), 2u);
  const auto& gathered = signals.back();
  EXPECT_NE(std::find(gathered.paths.begin(), gathered.paths.end(), at("d")), gathered.paths.end());
}

}  // namespace
}  // namespace tarvolin
