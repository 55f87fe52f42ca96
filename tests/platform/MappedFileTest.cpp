#include <gtest/gtest.h>
#include <sys/stat.h>

#include <system_error>

#include "support/TempTree.h"
#include "tarvolin/platform/MappedFile.h"

namespace tarvolin::platform {
namespace {

using testing::TempTree;

// What cannot be mapped is a std::system_error carrying the errno, so callers can tell a missing
// file from a folder without a type of our own.
TEST(MappedFileTest, FailuresAreSystemErrorsWithTheErrno) {
  TempTree tree{"folder/", "file.txt"};
  ::mkfifo((tree / "pipe").c_str(), 0600);
  struct Case {
    const char* name;
    std::errc expected;
  } cases[] = {{"missing", std::errc::no_such_file_or_directory},
               {"folder", std::errc::is_a_directory},
               {"pipe", std::errc::is_a_directory}};
  for (const Case& c : cases) {
    try {
      MappedFile::open(tree / c.name, false);
      ADD_FAILURE() << c.name << " mapped";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), c.expected) << c.name;
      EXPECT_NE(std::string(error.what()).find(c.name), std::string::npos) << error.what();
    }
  }
}

TEST(MappedFileTest, MapsTheWholeFileAndAnEmptyOneWithoutBytes) {
  TempTree tree;
  testing::writeFile(tree / "data", "0123456789");
  testing::writeFile(tree / "empty", "");
  MappedFile data = MappedFile::open(tree / "data", true);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.data()), data.size()), "0123456789");
  MappedFile empty = MappedFile::open(tree / "empty", false);
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_EQ(empty.data(), nullptr);
}

}  // namespace
}  // namespace tarvolin::platform
