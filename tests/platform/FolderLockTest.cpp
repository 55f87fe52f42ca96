#include <gtest/gtest.h>

#include <system_error>

#include "support/TempTree.h"
#include "tarvolin/platform/FolderLock.h"

namespace tarvolin::platform {
namespace {

TEST(FolderLockTest, HeldLockRefusesOthersUntilReleased) {
  testing::TempTree tree{"a/"};
  {
    FolderLock held(tree / "a");
    EXPECT_FALSE(FolderLock::tryLock(tree / "a").has_value());
    EXPECT_TRUE(FolderLock::tryLock(tree.root()).has_value()) << "another folder is free";
  }
  EXPECT_TRUE(FolderLock::tryLock(tree / "a").has_value());
  EXPECT_THROW(FolderLock(tree / "missing"), std::system_error);
}

}  // namespace
}  // namespace tarvolin::platform
