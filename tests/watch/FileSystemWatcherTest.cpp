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

FileSystemWatcher::Options fanotifyWanted() {
  FileSystemWatcher::Options options;
  options.backend = WatchBackend::fanotify;
  return options;
}

size_t countRescans(const std::vector<FileSystemWatcherSignal>& signals) {
  return static_cast<size_t>(std::count_if(signals.begin(), signals.end(), [](const auto& s) {
    return s.kind == Kind::mustFullRescan;
  }));
}

bool isAtOrBelow(const std::string& path, const std::string& top) {
  return path == top || path.starts_with(top + "/");
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
  std::vector<std::string> atAll(const std::vector<std::string>& relative) const {
    std::vector<std::string> paths;
    for (const std::string& path : relative) paths.push_back(at(path));
    return paths;
  }

  // Each change names the folder whose listing it changed (and, for new folders, the folders
  // themselves), whichever kernel interface delivers it.
  void expectEachChangeNamesTheFolderThatHoldsIt();

  // Declared first so it is destroyed last: the watcher delivers onto it.
  platform::SerialQueue queue_;
  TempTree tree_{"a/keep.txt", "a/b/c/deep.txt", "d/", "e/old.txt"};
  TempTree outside_{"incoming/file.txt", "incoming/sub/x.txt"};
  Recorder recorder_;
  std::unique_ptr<FileSystemWatcher> watcher_;
};

void FileSystemWatcherTest::expectEachChangeNamesTheFolderThatHoldsIt() {
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

TEST_F(FileSystemWatcherTest, EachChangeNamesTheFolderThatHoldsIt) {
  startWatching();
  expectEachChangeNamesTheFolderThatHoldsIt();
}

TEST_F(FileSystemWatcherTest, FanotifyNamesTheSameFoldersAsInotify) {
  startWatching(0, fanotifyWanted());
  if (watcher_->activeBackend() != WatchBackend::fanotify) {
    GTEST_SKIP() << "fanotify refused here (a file-system mark needs CAP_SYS_ADMIN and a kernel "
                    "reporting folder handles and names)";
  }
  EXPECT_TRUE(watcher_->unwatchedFolders().empty());
  expectEachChangeNamesTheFolderThatHoldsIt();
  // mkdir -p and a file at the bottom: every level is named.
  fs::create_directories(tree_ / "p/q/r");
  writeFile(tree_ / "p/q/r/f.txt", "f");
  for (const char* folder : {"", "p", "p/q", "p/q/r"}) {
    EXPECT_TRUE(recorder_.waitForPath(*folder ? at(folder) : tree_.root().string())) << folder;
  }
  // Changes outside the root, on the same file system, are not reported.
  writeFile(outside_ / "elsewhere.txt", "x");
  writeFile(tree_ / "e/marker.txt", "m");
  ASSERT_TRUE(recorder_.waitForPath(at("e")));
  EXPECT_FALSE(Recorder::mentions(recorder_.signals(), outside_.root().string()));
}

// A fanotify request that cannot be served (here: a root that does not exist, so no file system
// can be marked for it) falls back to inotify, which then behaves as asked for directly; the
// automatic choice is inotify.
TEST_F(FileSystemWatcherTest, FanotifyFallsBackToInotifyAndAutomaticChoosesInotify) {
  FileSystemWatcher fallback({at("no/such/folder"), tree_.root().string()},
                             FileSystemWatcher::sinceNow, 0, queue_, recorder_.handler(),
                             fanotifyWanted());
  fallback.start();
  ASSERT_TRUE(fallback.isStarted());
  EXPECT_EQ(fallback.activeBackend(), WatchBackend::inotify);
  EXPECT_TRUE(recorder_.waitForRescan());  // the missing root
  writeFile(tree_ / "d/x.txt", "x");
  EXPECT_TRUE(recorder_.waitForPath(at("d")));
  fallback.stop();

  FileSystemWatcher automatic({tree_.root().string()}, FileSystemWatcher::sinceNow, 0, queue_,
                              recorder_.handler());
  automatic.start();
  ASSERT_TRUE(automatic.isStarted());
  EXPECT_EQ(automatic.activeBackend(), WatchBackend::inotify);
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

// The six folders with a cap of N: the first N have watches, and the unwatched list covers
// exactly the others (a change in a listed subtree is never signalled, one anywhere else always
// is), without a folder twice or below another, after one rescan.
TEST_F(FileSystemWatcherTest, UnwatchedFoldersCoverExactlyTheFoldersWithoutAWatch) {
  const std::vector<std::string> folders = {"a", "a/b", "a/b/c", "d", "e"};  // and the root
  for (size_t cap : {1, 2, 3, 5, 6}) {
    SCOPED_TRACE("cap " + std::to_string(cap));
    Recorder recorder;
    FileSystemWatcher watcher({tree_.root().string()}, FileSystemWatcher::sinceNow, 0, queue_,
                              recorder.handler(), inotifyOnly(cap));
    watcher.start();
    ASSERT_TRUE(watcher.isStarted());
    if (cap < 6) {
      ASSERT_TRUE(recorder.waitForRescan());
    }
    std::vector<std::string> unwatched = watcher.unwatchedFolders();
    ASSERT_TRUE(std::is_sorted(unwatched.begin(), unwatched.end()));
    for (const std::string& one : unwatched) {
      for (const std::string& other : unwatched) {
        if (&one != &other) {
          EXPECT_FALSE(isAtOrBelow(one, other)) << one << " in " << other;
        }
      }
    }

    std::string probe = "probe-" + std::to_string(cap) + ".txt";
    for (const std::string& folder : folders) writeFile(tree_ / folder / probe, "p");
    writeFile(tree_.root() / probe, "p");  // the root is watched first: read after the rest
    ASSERT_TRUE(recorder.waitForPath(tree_.root()));
    auto signals = recorder.signals();
    size_t covered = 0;
    for (const std::string& folder : folders) {
      bool listed = std::any_of(unwatched.begin(), unwatched.end(),
                                [&](const auto& top) { return isAtOrBelow(at(folder), top); });
      covered += listed;
      EXPECT_NE(listed, Recorder::countPath(signals, at(folder)) > 0) << folder;
    }
    EXPECT_EQ(covered, 6 - cap);
    EXPECT_EQ(countRescans(signals), cap < 6 ? 1u : 0u);

    watcher.stop();
    EXPECT_TRUE(watcher.unwatchedFolders().empty());
    watcher.start();  // the same folders again
    EXPECT_EQ(watcher.unwatchedFolders(), unwatched);
    watcher.stop();
  }
}

// At the cap, each new folder is listed with no further rescan; the list follows a rename,
// forgets a deleted or moved-out folder, and asks for a rescan again once it was empty.
TEST_F(FileSystemWatcherTest, FoldersPastTheCapAreListedFollowedAndForgotten) {
  startWatching(0, inotifyOnly(6));  // exactly the six folders there are
  fs::create_directories(tree_ / "d/new/x/y");
  ASSERT_TRUE(recorder_.waitForRescan());
  ASSERT_TRUE(recorder_.waitForPath(at("d")));
  EXPECT_EQ(watcher_->unwatchedFolders(), atAll({"d/new"}));

  fs::create_directory(tree_ / "e/new2");
  ASSERT_TRUE(recorder_.waitForPath(at("e")));
  EXPECT_EQ(watcher_->unwatchedFolders(), atAll({"d/new", "e/new2"}));

  fs::rename(tree_ / "d/new", tree_ / "a/moved");
  ASSERT_TRUE(recorder_.waitForPath(at("a")));
  EXPECT_EQ(watcher_->unwatchedFolders(), atAll({"a/moved", "e/new2"}));

  fs::remove(tree_ / "e/new2");
  ASSERT_TRUE(
      recorder_.waitFor([&](const auto& s) { return Recorder::countPath(s, at("e")) >= 2; }));
  EXPECT_EQ(watcher_->unwatchedFolders(), atAll({"a/moved"}));

  fs::rename(tree_ / "a/moved", outside_ / "moved");
  ASSERT_TRUE(
      recorder_.waitFor([&](const auto& s) { return Recorder::countPath(s, at("a")) >= 2; }));
  EXPECT_TRUE(watcher_->unwatchedFolders().empty());
  EXPECT_EQ(countRescans(recorder_.signals()), 1u);

  fs::create_directory(tree_ / "d/again");
  ASSERT_TRUE(recorder_.waitFor([](const auto& s) { return countRescans(s) == 2; }));
  EXPECT_EQ(watcher_->unwatchedFolders(), atAll({"d/again"}));
  watcher_->stop();
  EXPECT_TRUE(watcher_->unwatchedFolders().empty());
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
