// IndexUpdater against a real tree: after a change on disk, relisting the folders a watcher would
// name gives the same live paths (and attributes) as a fresh scan, old records keep their IDs,
// and an update with nothing to do returns nothing.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/IndexUpdater.h"

namespace tarvolin {
namespace {

namespace fs = std::filesystem;
using testing::TempTree;

struct Live {
  uint64_t size;
  uint32_t mtime;
  bool folder;
  friend bool operator==(const Live&, const Live&) = default;
};

// Path -> attributes of every record that is not deleted.
std::map<std::string, Live> liveRecords(const std::shared_ptr<const IndexStore>& store) {
  PathResolver paths(store);
  std::map<std::string, Live> live;
  for (uint32_t id = 0; id < store->count(); ++id) {
    const FileRecord& record = (*store)[id];
    if (record.flags.contains(RecordFlags::deleted)) continue;
    live[paths.absolutePath(id)] = {record.size, record.mtime,
                                    record.flags.contains(RecordFlags::isDirectory)};
  }
  return live;
}

class IndexUpdaterTest : public ::testing::Test {
 public:
  IndexUpdaterTest() { resetTree(); }
  void resetTree() {
    tree_ = std::make_unique<TempTree>(std::initializer_list<std::string>{
        "docs/plan.txt", "docs/old/a.txt", "docs/old/deeper/b.txt", "music/song.mp3", "empty/",
        "top.txt"});
  }
  fs::path path(const std::string& relative) const { return *tree_ / relative; }

  std::shared_ptr<const IndexStore> scanned(bool withAttributes) {
    DirectoryScanner scanner(ScanPolicy{}, 1, 0, "/nonexistent");
    ScanResult result = scanner.scan(tree_->root().string(), 0);
    if (withAttributes) {
      AttributeFiller::fill(result.builder, [] { return true; }, false,
                            AttributeFiller::Appetite::working, {});
    }
    return store(result.builder);
  }
  std::shared_ptr<const IndexStore> store(const IndexBuilder& builder) {
    fs::path path = work_ / ("index" + std::to_string(written_++) + ".bin");
    IndexWriter::write(builder, {{"local", tree_->root().string(), 0, true}}, path);
    return std::get<std::shared_ptr<const IndexStore>>(loadIndex(path));
  }
  std::string at(const std::string& relative) const { return path(relative).string(); }

  std::unique_ptr<TempTree> tree_;
  TempTree work_;
  IndexUpdater updater_{ScanPolicy{}, "/nonexistent"};
  int written_ = 0;
};

TEST_F(IndexUpdaterTest, RelistingTheNamedFoldersMatchesAFreshScan) {
  struct Case {
    const char* what;
    std::function<void(IndexUpdaterTest&)> change;
    std::vector<std::string> folders;  // relative; "" is the root
  };
  const Case cases[] = {
      {"file added", [](auto& t) { testing::writeFile(t.path("docs/new.txt"), "x"); }, {"docs"}},
      {"file removed", [](auto& t) { fs::remove(t.path("top.txt")); }, {""}},
      {"folder removed with its subtree",
       [](auto& t) { fs::remove_all(t.path("docs/old")); },
       {"docs"}},
      {"subtree made at once, only its top named",
       [](auto& t) { t.tree_->add("new/a/b/c.txt", "abc"); },
       {""}},
      {"subtree made, every folder named (children skipped once the top is new)",
       [](auto& t) { t.tree_->add("new/a/b/c.txt"); },
       {"", "new", "new/a", "new/a/b"}},
      {"file replaced by a folder",
       [](auto& t) {
         fs::remove(t.path("top.txt"));
         t.tree_->add("top.txt/inner.txt");
       },
       {""}},
      {"folder renamed",
       [](auto& t) { fs::rename(t.path("docs/old"), t.path("docs/older")); },
       {"docs"}},
      {"unknown folder named: its known ancestor is listed",
       [](auto& t) { t.tree_->add("docs/fresh/x/y.txt"); },
       {"docs/fresh/x"}},
      {"file written (size and time refreshed)",
       [](auto& t) {
         testing::writeFile(t.path("music/song.mp3"), "longer contents");
         struct timespec times[2] = {{0, UTIME_OMIT}, {1'000'000'000, 0}};
         utimensat(AT_FDCWD, (t.path("music/song.mp3")).c_str(), times, 0);
       },
       {"music"}},
      {"named folder itself gone", [](auto& t) { fs::remove_all(t.path("music")); }, {"music", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    resetTree();
    std::shared_ptr<const IndexStore> before = scanned(true);
    c.change(*this);
    std::vector<std::string> folders;
    for (const std::string& folder : c.folders) {
      folders.push_back(folder.empty() ? tree_->root().string() : at(folder));
    }
    IndexUpdater::Tally tally;
    std::optional<IndexBuilder> updated = updater_.apply(before, folders, false, &tally);
    ASSERT_TRUE(updated);
    std::shared_ptr<const IndexStore> after = store(*updated);
    EXPECT_EQ(liveRecords(after), liveRecords(scanned(true)));
    // Old records keep their IDs and names.
    for (uint32_t id = 0; id < before->count(); ++id) {
      ASSERT_EQ(after->nameBytes(id), before->nameBytes(id));
    }
  }
}

TEST_F(IndexUpdaterTest, NothingChangedGivesNothing) {
  std::shared_ptr<const IndexStore> before = scanned(true);
  EXPECT_FALSE(updater_.apply(before, {tree_->root().string(), at("docs"), at("nothere")}, false));
  EXPECT_FALSE(updater_.apply(before, {tree_->root().string()}, true));
  // Names that are not absolute paths are ignored.
  EXPECT_FALSE(updater_.apply(before, {"", "docs", "../x"}, false));
}

TEST_F(IndexUpdaterTest, WithoutAttributesInTheIndexNoneAreAdded) {
  std::shared_ptr<const IndexStore> before = scanned(false);
  tree_->add("docs/new.txt", "x");
  testing::writeFile(path("top.txt"), "changed");
  std::optional<IndexBuilder> updated =
      updater_.apply(before, {at("docs"), tree_->root().string()}, false);
  ASSERT_TRUE(updated);
  for (const FileRecord& record : updated->records()) {
    EXPECT_FALSE(record.flags.contains(RecordFlags::attrsFilled));
  }
}

TEST_F(IndexUpdaterTest, RecursiveRelistingFindsChangesDeepBelow) {
  std::shared_ptr<const IndexStore> before = scanned(true);
  tree_->add("docs/old/deeper/c.txt");
  fs::remove(path("docs/old/a.txt"));
  // Only the top is named, as for a subtree no watch covers.
  std::optional<IndexBuilder> updated = updater_.apply(before, {at("docs")}, true);
  ASSERT_TRUE(updated);
  EXPECT_EQ(liveRecords(store(*updated)), liveRecords(scanned(true)));
}

TEST_F(IndexUpdaterTest, RescanCarriesAttributesAndMatchesAFreshScan) {
  std::shared_ptr<const IndexStore> before = scanned(true);
  tree_->add("docs/more/z.txt", "zz");
  fs::remove_all(path("music"));
  std::optional<IndexBuilder> rescanned = updater_.rescan(*before, [] { return true; });
  ASSERT_TRUE(rescanned);
  EXPECT_EQ(liveRecords(store(*rescanned)), liveRecords(scanned(true)));
  EXPECT_FALSE(updater_.rescan(*before, [] { return false; }));
  // A root that is gone keeps its records: there is nothing to publish.
  fs::remove_all(tree_->root());
  EXPECT_FALSE(updater_.rescan(*before, [] { return true; }));
}

TEST_F(IndexUpdaterTest, CompactingDropsDeletedRecordsAndTheirSubtrees) {
  std::shared_ptr<const IndexStore> before = scanned(true);
  fs::remove_all(path("docs"));
  std::optional<IndexBuilder> updated = updater_.apply(before, {tree_->root().string()}, false);
  ASSERT_TRUE(updated);
  std::shared_ptr<const IndexStore> marked = store(*updated);
  std::shared_ptr<const IndexStore> compacted = store(IndexBuilder::compacting(*marked));
  EXPECT_EQ(liveRecords(compacted), liveRecords(marked));
  EXPECT_EQ(compacted->count(), liveRecords(marked).size());
}

TEST_F(IndexUpdaterTest, FindFolderWalksLiveFoldersOnly) {
  std::shared_ptr<const IndexStore> before = scanned(false);
  ChildrenIndex children(*before);
  EXPECT_TRUE(IndexUpdater::findFolder(*before, children, at("docs/old/deeper")));
  EXPECT_TRUE(IndexUpdater::findFolder(*before, children, at("docs//old/")));
  EXPECT_FALSE(IndexUpdater::findFolder(*before, children, at("top.txt")));  // a file
  EXPECT_FALSE(IndexUpdater::findFolder(*before, children, at("docs/nothere")));
}

}  // namespace
}  // namespace tarvolin
