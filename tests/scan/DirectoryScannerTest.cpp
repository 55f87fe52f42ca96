#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>

#include "support/DeepChain.h"
#include "support/RecordPaths.h"
#include "support/TempTree.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/scan/detail/ScanTally.h"

namespace tarvolin {
namespace {

using testing::pathOf;
using testing::TempTree;

// Every record below `root` by path relative to it, with its flags; fails on duplicates.
std::map<std::string, uint8_t> entriesBelow(const IndexBuilder& builder, const std::string& root) {
  std::map<std::string, uint8_t> entries;
  for (uint32_t id = 0; id < builder.recordCount(); ++id) {
    std::string path = pathOf(builder, id);
    if (!path.starts_with(root + "/")) continue;
    bool added = entries.emplace(path.substr(root.size() + 1), builder[id].flags.rawValue).second;
    EXPECT_TRUE(added) << "recorded twice: " << path;
  }
  return entries;
}

DirectoryScanner scannerWith(int64_t seedDepth, ScanPolicy policy = ScanPolicy{}) {
  return DirectoryScanner(std::move(policy), seedDepth, 0, "/nonexistent-home");
}

constexpr uint8_t kDir = 0x01, kApp = 0x02, kLink = 0x04, kHidden = 0x08;

// Depth of a record below the scan root (its entries are at depth 1).
int depthBelow(const IndexBuilder& builder, uint32_t id, uint32_t rootID) {
  int depth = 0;
  for (uint32_t at = id; at != rootID; at = builder[at].parentID) ++depth;
  return depth;
}

TEST(DirectoryScannerTest, RecordsEveryEntryOnceInTheOrderOfSeedingAndJobs) {
  TempTree tree{"a/a1/a11/f1", "a/a1/a12/", "a/a2/f2",          "a/f3", "b/b1/b11/f4",
                "b/b2/",       "c",         "d/d1/d11/d111/f5", ".e/f6"};
  const std::map<std::string, uint8_t> expected = {{"a", kDir},
                                                   {"a/a1", kDir},
                                                   {"a/a1/a11", kDir},
                                                   {"a/a1/a11/f1", 0},
                                                   {"a/a1/a12", kDir},
                                                   {"a/a2", kDir},
                                                   {"a/a2/f2", 0},
                                                   {"a/f3", 0},
                                                   {"b", kDir},
                                                   {"b/b1", kDir},
                                                   {"b/b1/b11", kDir},
                                                   {"b/b1/b11/f4", 0},
                                                   {"b/b2", kDir},
                                                   {"c", 0},
                                                   {"d", kDir},
                                                   {"d/d1", kDir},
                                                   {"d/d1/d11", kDir},
                                                   {"d/d1/d11/d111", kDir},
                                                   {"d/d1/d11/d111/f5", 0},
                                                   {".e", kDir | kHidden},
                                                   {".e/f6", 0}};
  const std::string root = tree.root().string();
  for (int64_t seedDepth : {0, 1, 2, 3, 10}) {
    SCOPED_TRACE("seed depth " + std::to_string(seedDepth));
    ScanResult result = scannerWith(seedDepth).scan(root, 7);
    const IndexBuilder& builder = result.builder;
    EXPECT_EQ(entriesBelow(builder, root), expected);
    EXPECT_EQ(result.entriesScanned, static_cast<int64_t>(expected.size()));
    EXPECT_EQ(result.directoriesDenied, 0);
    EXPECT_FALSE(result.cancelled);

    // The root chain comes first, then everything below the root.
    size_t chain = 0;
    for (size_t at = 0; at < root.size(); at = root.find('/', at + 1)) ++chain;
    ASSERT_EQ(builder.recordCount(), chain + 1 + expected.size());
    uint32_t rootID = static_cast<uint32_t>(chain);
    EXPECT_EQ(pathOf(builder, rootID), root);
    std::vector<int> depth(builder.recordCount(), 0);
    for (uint32_t id = rootID + 1; id < builder.recordCount(); ++id) {
      EXPECT_LT(builder[id].parentID, id) << "parents come first";
      EXPECT_EQ(builder[id].volumeIndex, 7);
      depth[id] = depthBelow(builder, id, rootID);
    }
    // Seeding: levels 1 ... seedDepth breadth-first, before any deeper record.
    uint32_t seeded = rootID + 1;
    while (seeded < builder.recordCount() && depth[seeded] <= seedDepth) {
      if (seeded > rootID + 1) {
        EXPECT_GE(depth[seeded], depth[seeded - 1]);
      }
      ++seeded;
    }
    // Jobs: below each frontier directory one contiguous block, in frontier order.
    auto frontierOf = [&](uint32_t id) {
      while (depth[id] > seedDepth) id = builder[id].parentID;
      return id;
    };
    for (uint32_t id = seeded; id < builder.recordCount(); ++id) {
      EXPECT_GT(depth[id], seedDepth) << pathOf(builder, id);
      if (id > seeded) {
        EXPECT_LE(frontierOf(id - 1), frontierOf(id)) << pathOf(builder, id);
      }
    }
    // Deterministic: a second scan gives the same bytes.
    ScanResult again = scannerWith(seedDepth).scan(root, 7);
    EXPECT_EQ(again.builder.records(), builder.records());
    EXPECT_EQ(again.builder.nameBlob(), builder.nameBlob());
  }
}

TEST(DirectoryScannerTest, RootChainForTheFileSystemRootAndTrailingSlashes) {
  for (std::string root : {"/", "//", ""}) {
    std::atomic<int> calls{0};
    // Lists "/" only: the second question stops the scan.
    ScanResult result = scannerWith(1).scan(root, 0, nullptr, [&] { return calls++ == 0; });
    const IndexBuilder& builder = result.builder;
    ASSERT_GT(builder.recordCount(), 1u) << root;
    EXPECT_EQ(builder[0].parentID, FileRecord::rootParentID);
    EXPECT_EQ(builder[0].nameLen, 0);
    EXPECT_EQ(builder[0].flags, RecordFlags::isDirectory);
    bool sawTmp = false;
    for (uint32_t id = 1; id < builder.recordCount(); ++id) {
      EXPECT_EQ(builder[id].parentID, 0u);
      sawTmp |= builder.nameBytes(id) == "tmp";
    }
    EXPECT_TRUE(sawTmp);
    EXPECT_EQ(result.entriesScanned, builder.recordCount() - 1);
  }

  TempTree tree{"x/y/file"};
  std::string root = (tree / "x").string();
  ScanResult result = scannerWith(3).scan(root + "///", 0);
  EXPECT_EQ(pathOf(result.builder, 0), "");
  std::map<std::string, uint8_t> expected = {{"y", kDir}, {"y/file", 0}};
  EXPECT_EQ(entriesBelow(result.builder, root), expected);
}

TEST(DirectoryScannerTest, PolicyStoresLinksAndBundles) {
  TempTree tree{"Photos.noindex/inner", "Backups.backupdb/inner",
                "skip/inner",           "Mail.app/Contents/Info",
                ".hidden/inner",        "dir/inner",
                "link -> dir",          "loop -> .",
                "dir/up -> .."};
  std::string root = tree.root().string();
  ScanResult result = scannerWith(1, ScanPolicy{{root + "/skip"}}).scan(root, 0);
  std::map<std::string, uint8_t> expected = {{"Photos.noindex", kDir},
                                             {"Backups.backupdb", kDir},
                                             {"skip", kDir},
                                             {"Mail.app", kDir | kApp},
                                             {"Mail.app/Contents", kDir},
                                             {"Mail.app/Contents/Info", 0},
                                             {".hidden", kDir | kHidden},
                                             {".hidden/inner", 0},
                                             {"dir", kDir},
                                             {"dir/inner", 0},
                                             {"dir/up", kLink},
                                             {"link", kLink},
                                             {"loop", kLink}};
  EXPECT_EQ(entriesBelow(result.builder, root), expected);

  // A root inside a store is listed, but nothing below it is entered.
  TempTree store{"Old.sparsebundle/bands/0", "Old.sparsebundle/Info"};
  std::string storeRoot = (store / "Old.sparsebundle").string();
  result = scannerWith(3).scan(storeRoot, 0);
  expected = {{"bands", kDir}, {"Info", 0}};
  EXPECT_EQ(entriesBelow(result.builder, storeRoot), expected);
}

TEST(DirectoryScannerTest, OddNamesAreRecordedByteForByte) {
  TempTree tree;
  const std::string odd = "bad\xFF\xFEname\nwith newline";
  const std::string longest = std::string(254, 'l') + "\xC3";  // ends inside a character
  std::filesystem::create_directories(tree / odd / "child");
  std::filesystem::create_directories(tree / longest / "child");
  std::string root = tree.root().string();
  ScanResult result = scannerWith(2).scan(root, 0);
  std::map<std::string, uint8_t> expected = {
      {odd, kDir}, {odd + "/child", kDir}, {longest, kDir}, {longest + "/child", kDir}};
  EXPECT_EQ(entriesBelow(result.builder, root), expected);
}

TEST(DirectoryScannerTest, TreesDeeperThan256LevelsAndLongerThanPathMax) {
  TempTree tree;
  std::string root = tree.root().string();
  std::string name(24, 'n');
  testing::makeDeepChain(root, name, 300);
  ScanResult result = scannerWith(3).scan(root, 0);
  EXPECT_EQ(result.entriesScanned, 301);
  EXPECT_EQ(result.directoriesDenied, 0);
  testing::removeDeepChain(root, name, 300);
}

TEST(DirectoryScannerTest, UnopenableRootGivesTheChainAndOneDenial) {
  TempTree tree{"file"};
  for (const std::string& root : {(tree / "missing").string(), (tree / "file").string()}) {
    ScanResult result = scannerWith(3).scan(root, 0);
    EXPECT_EQ(pathOf(result.builder, result.builder.recordCount() - 1), root);
    EXPECT_EQ(result.entriesScanned, 0);
    EXPECT_EQ(result.directoriesDenied, 1);
    EXPECT_EQ(result.directoriesDeniedInHome, 0);
    EXPECT_FALSE(result.cancelled);
  }
}

TEST(DirectoryScannerTest, CancellationKeepsWhatWasRecorded) {
  TempTree tree;
  for (int i = 0; i < 40; ++i) tree.add("d" + std::to_string(i) + "/e/f/file");
  std::string root = tree.root().string();

  ScanResult none = scannerWith(3).scan(root, 0, nullptr, [] { return false; });
  EXPECT_TRUE(none.cancelled);
  EXPECT_EQ(pathOf(none.builder, none.builder.recordCount() - 1), root) << "only the root chain";
  EXPECT_EQ(none.entriesScanned, 0);

  std::atomic<int> calls{0};
  ScanResult part = scannerWith(3).scan(root, 0, nullptr, [&] { return ++calls <= 30; });
  EXPECT_TRUE(part.cancelled);
  EXPECT_GT(part.entriesScanned, 0);
  EXPECT_LT(part.entriesScanned, 160);
  for (uint32_t id = 1; id < part.builder.recordCount(); ++id) {
    EXPECT_LT(part.builder[id].parentID, id);
  }
}

TEST(DirectoryScannerTest, ProgressIsThrottledAndReachesTheTotal) {
  TempTree tree;
  for (int i = 0; i < 30; ++i) tree.add("d" + std::to_string(i) + "/e/file");
  std::string root = tree.root().string();
  std::mutex lock;
  std::vector<int64_t> counts;
  auto record = [&](int64_t count) {
    std::lock_guard guard(lock);
    counts.push_back(count);
  };
  ScanResult result =
      DirectoryScanner(ScanPolicy{}, 1, 0, "").scan(root, 0, record, [] { return true; });
  ASSERT_FALSE(counts.empty());
  EXPECT_EQ(*std::max_element(counts.begin(), counts.end()), result.entriesScanned);

  counts.clear();
  DirectoryScanner(ScanPolicy{}, 1, 1e9, "").scan(root, 0, record, [] { return true; });
  EXPECT_EQ(counts, std::vector<int64_t>{30}) << "only the first directory fires";
}

TEST(DirectoryScannerTest, DirectoryVanishingDuringTheScanIsCounted) {
  TempTree tree{"gone/a/b", "kept/c"};
  std::string root = tree.root().string();
  std::mutex lock;
  int calls = 0;
  ScanResult result = scannerWith(1).scan(root, 0, nullptr, [&] {
    // Asked before the root (seeding) and before each of the two jobs; the lock makes the other
    // job wait until the folder is gone.
    std::lock_guard guard(lock);
    if (++calls == 2) std::filesystem::remove_all(tree / "gone");
    return true;
  });
  std::map<std::string, uint8_t> entries = entriesBelow(result.builder, root);
  EXPECT_TRUE(entries.contains("gone"));
  EXPECT_FALSE(entries.contains("gone/a"));
  EXPECT_TRUE(entries.contains("kept/c"));
  EXPECT_EQ(result.directoriesDenied, 1);
  EXPECT_FALSE(result.cancelled);
}

// Root reads every directory, so this runs the scan in a child that has become an ordinary user.
TEST(DirectoryScannerTest, UnreadableDirectoriesAreCountedNotFatal) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch to an unprivileged user";
  TempTree tree{"open/a", "locked/b", "locked/c/d"};
  chmod(tree.root().c_str(), 0755);
  chmod((tree / "locked").c_str(), 0);
  std::string root = tree.root().string();

  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipeFds[0]);
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    // The home is the tree itself: EACCES inside it is still not a fixable denial.
    ScanResult result = DirectoryScanner(ScanPolicy{}, 1, 0, root).scan(root, 0);
    std::string report = std::to_string(result.entriesScanned) + " " +
                         std::to_string(result.directoriesDenied) + " " +
                         std::to_string(result.directoriesDeniedInHome);
    ssize_t written = write(pipeFds[1], report.data(), report.size());
    _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 3);
  }
  close(pipeFds[1]);
  char buffer[64];
  ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
  close(pipeFds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0), "3 1 0");
}

TEST(ScanTallyTest, OnlyPermissionDenialsInsideTheHomeAreSampled) {
  const std::string home = "/home/bob";
  detail::ScanTally tally;
  for (int i = 0; i < 20; ++i) {
    tally.account(false, EPERM, 0, home + "/private" + std::to_string(i), home);
  }
  tally.account(false, EPERM, 0, home, home);
  tally.account(false, EPERM, 0, "/home/bobby/x", home);
  tally.account(false, EPERM, 0, "/etc/x", home);
  tally.account(false, EACCES, 0, home + "/y", home);
  tally.account(false, ENOENT, 0, home + "/z", home);
  tally.account(true, 0, 5, home + "/ok", home);
  EXPECT_EQ(tally.entries, 5);
  EXPECT_EQ(tally.denied, 25);
  EXPECT_EQ(tally.deniedInHome, 21);
  ASSERT_EQ(tally.sample.size(), detail::ScanTally::sampleCap);
  EXPECT_EQ(tally.sample.front(), home + "/private0");

  detail::ScanTally noHome;
  noHome.account(false, EPERM, 0, "/anything", "");
  EXPECT_EQ(noHome.deniedInHome, 0);

  detail::ScanTally total = noHome;
  total.add(tally);
  EXPECT_EQ(total.denied, 26);
  EXPECT_EQ(total.sample.size(), detail::ScanTally::sampleCap);
}

}  // namespace
}  // namespace tarvolin
