#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "support/DeepChain.h"
#include "support/TempTree.h"
#include "tarvolin/platform/DirectoryReader.h"

namespace tarvolin::platform {
namespace {

using testing::TempTree;

std::map<std::string, EntryType> listAll(DirectoryReader& reader, const std::string& path) {
  std::map<std::string, EntryType> entries;
  EXPECT_EQ(reader.open(path.c_str()), 0) << path;
  EXPECT_EQ(reader.forEach([&](const DirectoryEntry& entry) {
    entries[std::string(entry.name)] = entry.type;
  }),
            0);
  return entries;
}

TEST(DirectoryReaderTest, ListsNamesAndTypesWithoutDotEntries) {
  TempTree tree{"file.txt", "dir/", "link -> dir", "dangling -> nowhere"};
  ASSERT_EQ(mkfifo((tree / "fifo").c_str(), 0600), 0);
  std::string odd = "bad\xFFname\nwith newline";
  testing::writeFile(tree / odd, "");
  std::string longest(255, 'n');
  testing::writeFile(tree / longest, "");

  DirectoryReader reader;
  auto entries = listAll(reader, tree.root().string());
  std::map<std::string, EntryType> expected = {
      {"file.txt", EntryType::regular}, {"dir", EntryType::directory}, {"link", EntryType::symlink},
      {"dangling", EntryType::symlink}, {"fifo", EntryType::fifo},     {odd, EntryType::regular},
      {longest, EntryType::regular}};
  EXPECT_EQ(entries, expected);
}

TEST(DirectoryReaderTest, SmallBufferStillDeliversEveryEntry) {
  TempTree tree;
  for (int i = 0; i < 600; ++i) testing::writeFile(tree / ("entry-" + std::to_string(i)), "");
  DirectoryReader reader(4096);  // many reads for one directory
  EXPECT_EQ(listAll(reader, tree.root().string()).size(), 600u);
}

TEST(DirectoryReaderTest, OpenFailuresReportTheErrorNumber) {
  TempTree tree{"file"};
  DirectoryReader reader;
  EXPECT_EQ(reader.open((tree / "missing").c_str()), ENOENT);
  EXPECT_EQ(reader.open((tree / "file").c_str()), ENOTDIR);
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(reader.open(""), 0) << "the empty path is /";
}

TEST(DirectoryReaderTest, OpensPathsLongerThanPathMax) {
  TempTree tree;
  std::string name(200, 'd');
  std::string deep = testing::makeDeepChain(tree.root().string(), name, 30);
  ASSERT_GT(deep.size(), 6000u);

  DirectoryReader reader;
  EXPECT_EQ(listAll(reader, deep),
            (std::map<std::string, EntryType>{{"leaf", EntryType::regular}}));
  std::string parent = deep.substr(0, deep.size() - name.size() - 1);
  EXPECT_EQ(listAll(reader, parent),
            (std::map<std::string, EntryType>{{name, EntryType::directory}}));
  EXPECT_EQ(reader.open((deep + "/missing").c_str()), ENOENT);
  EXPECT_EQ(reader.open((deep + "/leaf").c_str()), ENOTDIR);
  reader.close();
  testing::removeDeepChain(tree.root().string(), name, 30);
}

TEST(DirectoryReaderTest, OpenAtAKeptParentDoesNotFollowLinks) {
  TempTree tree{"dir/inner", "link -> dir", "file"};
  DirectoryReader reader;
  ASSERT_EQ(reader.open(tree.root().c_str()), 0);
  FileDescriptor parent = reader.detach();
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(reader.openAt(parent, "dir"), 0);
  int count = 0;
  reader.forEach([&](const DirectoryEntry& entry) { count += entry.name == "inner"; });
  EXPECT_EQ(count, 1);
  EXPECT_EQ(reader.openAt(parent, "link"), ENOTDIR) << "a link is not a directory";
  EXPECT_EQ(reader.openAt(parent, "file"), ENOTDIR);
  EXPECT_EQ(reader.openAt(parent, "missing"), ENOENT);
}

TEST(DirectoryReaderTest, StatEntryDoesNotFollowLinks) {
  TempTree tree{"dir/", "link -> dir"};
  testing::writeFile(tree / "file", std::string(1234, 'x'));
  timespec times[2] = {{0, UTIME_OMIT}, {1'000'000'000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (tree / "file").c_str(), times, 0), 0);

  DirectoryReader reader;
  ASSERT_EQ(reader.open(tree.root().c_str()), 0);
  EXPECT_EQ(reader.statEntry("file"), (EntryStatus{EntryType::regular, 1234, 1'000'000'000}));
  EXPECT_EQ(reader.statEntry("link")->type, EntryType::symlink);
  EXPECT_EQ(reader.statEntry("link")->size, 3) << "the length of the target text";
  EXPECT_EQ(reader.statEntry("dir")->type, EntryType::directory);
  EXPECT_FALSE(reader.statEntry("missing"));
}

}  // namespace
}  // namespace tarvolin::platform
