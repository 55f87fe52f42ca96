#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/platform/AtomicFile.h"

namespace tarvolin::platform {
namespace {

// A gathered write of more parts than one system call takes, empty ones among them, lands in
// order; a file never committed leaves nothing behind, and the old target stays whole.
TEST(AtomicFileTest, GatheredPartsLandInOrderAndOnlyOnCommit) {
  testing::TempTree tree;
  std::vector<std::string> texts;
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    texts.push_back(i % 7 == 0 ? std::string() : std::to_string(i) + std::string(i % 13, 'x'));
    expected += texts.back();
  }
  std::vector<std::span<const uint8_t>> parts;
  for (const std::string& text : texts) {
    parts.emplace_back(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  }
  AtomicFile::replaceContents(tree / "target", std::span<const uint8_t>());
  {
    AtomicFile file(tree / "target");
    file.write(parts);
    EXPECT_EQ(testing::readFile(tree / "target"), "") << "not replaced before the commit";
    file.commit();
  }
  EXPECT_EQ(testing::readFile(tree / "target"), expected);
  {
    AtomicFile abandoned(tree / "target");
    abandoned.write(std::string_view("partial"));
  }
  EXPECT_EQ(testing::readFile(tree / "target"), expected);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree.root()), {}), 1);
}

}  // namespace
}  // namespace tarvolin::platform
