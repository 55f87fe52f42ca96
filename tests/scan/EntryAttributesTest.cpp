#include <gtest/gtest.h>

#include <algorithm>

#include "support/TempTree.h"
#include "tarvolin/scan/detail/EntryAttributes.h"

namespace tarvolin::detail {
namespace {

using testing::TempTree;

// The filler's fast path (stat each child record by name) against the plain one (list, then
// stat what is listed), over a folder that changed since its records were made.
TEST(EntryAttributesTest, StatByNameAgreesWithListing) {
  TempTree tree{"file", "dir/inner", "link -> dir", "dangling -> nowhere", "deleted", ".hidden"};
  testing::writeFile(tree / "file", "0123456789");
  std::string odd = "odd\xFF\nname";
  testing::writeFile(tree / odd, "x");

  IndexBuilder builder;
  uint32_t top =
      builder.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  std::vector<uint32_t> childIDs;
  for (std::string name : {"file", "dir", "link", "dangling", "deleted", ".hidden", "twice",
                           "twice", "never-there", "", ".", "..", "dir/inner", odd.c_str()}) {
    childIDs.push_back(builder.addEntry(std::string_view(name), top, RecordFlags(), 0));
  }
  childIDs.push_back(builder.addEntry(std::string_view(odd), top, RecordFlags(), 0));
  testing::writeFile(tree / "twice", "22");
  std::filesystem::remove(tree / "deleted");
  testing::writeFile(tree / "created", "");

  NameTable table;
  table.reset(childIDs.size());
  for (uint32_t id : childIDs) table.insert(builder.nameBytes(id), id);
  platform::DirectoryReader reader;
  std::string path = tree.root().string();
  std::vector<EntryAttributes> listed, named;
  statByListing(reader, path.c_str(), table, listed);
  statByName(reader, path.c_str(), builder, childIDs, table, named);
  auto byID = [](const EntryAttributes& a, const EntryAttributes& b) { return a.id < b.id; };
  std::sort(listed.begin(), listed.end(), byID);
  std::sort(named.begin(), named.end(), byID);
  EXPECT_EQ(named, listed);

  // file, dir, link, dangling, .hidden, the later "twice", odd.
  ASSERT_EQ(named.size(), 7u);
  EXPECT_EQ(named[0].size, 10u);
  EXPECT_EQ(named[1].size, 0u) << "a directory has size 0";
  EXPECT_EQ(named[5].id, childIDs[7]) << "the later of two same names";
  EXPECT_EQ(named[6].id, childIDs.back());

  std::vector<EntryAttributes> none;
  statByName(reader, (path + "/missing").c_str(), builder, childIDs, table, none);
  statByListing(reader, (path + "/missing").c_str(), table, none);
  EXPECT_TRUE(none.empty());
}

}  // namespace
}  // namespace tarvolin::detail
