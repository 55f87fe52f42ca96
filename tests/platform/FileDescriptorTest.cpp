#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/TempTree.h"
#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {
namespace {

std::string asText(const std::vector<uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

// Documents are copied, not mapped, so that a file shortened while it is read cannot fault the
// reader; what is not a readable regular file gives nothing, and a pipe gives it at once.
TEST(FileDescriptorTest, ReadFilePrefixCopiesRegularFilesOnly) {
  testing::TempTree tree{"folder/"};
  testing::writeFile(tree / "ten", "0123456789");
  testing::writeFile(tree / "empty", "");
  ::mkfifo((tree / "pipe").c_str(), 0600);
  struct Case {
    const char* name;
    size_t maxBytes;
    std::optional<std::string> expected;
  } cases[] = {
      {"ten", 100, "0123456789"},
      {"ten", 10, "0123456789"},
      {"ten", 4, "0123"},
      {"ten", 0, ""},
      {"empty", 10, ""},
      {"missing", 10, std::nullopt},
      {"folder", 10, std::nullopt},
      {"pipe", 10, std::nullopt},
  };
  for (const Case& c : cases) {
    std::optional<std::vector<uint8_t>> bytes = readFilePrefix(tree / c.name, c.maxBytes);
    ASSERT_EQ(bytes.has_value(), c.expected.has_value()) << c.name << " " << c.maxBytes;
    if (bytes) {
      EXPECT_EQ(asText(*bytes), *c.expected) << c.name << " " << c.maxBytes;
    }
  }
}

}  // namespace
}  // namespace tarvolin::platform
