#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/platform/Inotify.h"

namespace tarvolin::platform {
namespace {

using testing::TempTree;

std::vector<uint8_t> record(int watch, uint32_t mask, uint32_t cookie, std::string name,
                            uint32_t padTo) {
  std::vector<uint8_t> bytes(16 + padTo, 0);
  uint32_t fields[4] = {static_cast<uint32_t>(watch), mask, cookie, padTo};
  std::memcpy(bytes.data(), fields, 16);
  std::memcpy(bytes.data() + 16, name.data(), std::min<size_t>(name.size(), padTo));
  return bytes;
}

TEST(InotifyTest, ParseSplitsRecordsAndStopsAtATruncatedOne) {
  std::vector<uint8_t> bytes = record(3, Inotify::kCreate, 0, "name.txt", 16);
  auto second = record(4, Inotify::kMovedTo, 99, "", 0);
  bytes.insert(bytes.end(), second.begin(), second.end());
  auto unterminated = record(5, Inotify::kDelete, 0, "abcdefgh", 8);  // name fills its room
  bytes.insert(bytes.end(), unterminated.begin(), unterminated.end());
  size_t whole = bytes.size();
  auto truncated = record(6, Inotify::kCreate, 0, "cut", 32);
  bytes.insert(bytes.end(), truncated.begin(), truncated.begin() + 24);

  std::vector<InotifyEvent> events;
  EXPECT_EQ(parseInotifyEvents(bytes, events), whole);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].watch, 3);
  EXPECT_EQ(events[0].name, "name.txt");
  EXPECT_EQ(events[1].cookie, 99u);
  EXPECT_EQ(events[1].name, "");
  EXPECT_EQ(events[2].name, "abcdefgh");
  EXPECT_EQ(parseInotifyEvents(std::span<const uint8_t>(bytes.data(), 10), events), 0u);
  EXPECT_TRUE(events.empty());
}

TEST(InotifyTest, AddWatchReportsErrorsAndTheCap) {
  TempTree tree{"one/", "two/", "file.txt"};
  Inotify inotify(1);
  EXPECT_EQ(inotify.addWatch((tree / "missing").c_str(), Inotify::kCreate), -ENOENT);
  EXPECT_EQ(
      inotify.addWatch((tree / "file.txt").c_str(), Inotify::kCreate | Inotify::kOnlyDirectory),
      -ENOTDIR);
  int one = inotify.addWatch((tree / "one").c_str(), Inotify::kCreate);
  ASSERT_GE(one, 0);
  EXPECT_EQ(inotify.addWatch((tree / "two").c_str(), Inotify::kCreate), -ENOSPC);
  inotify.removeWatch(one);
  EXPECT_EQ(inotify.watchCount(), 0u);
  EXPECT_GE(inotify.addWatch((tree / "two").c_str(), Inotify::kCreate), 0);
}

TEST(InotifyTest, ReadReturnsQueuedEventsAndZeroWhenNone) {
  TempTree tree{"dir/"};
  Inotify inotify;
  int watch = inotify.addWatch((tree / "dir").c_str(), Inotify::kCreate);
  ASSERT_GE(watch, 0);
  std::vector<uint8_t> buffer(8192);
  EXPECT_EQ(inotify.read(buffer), 0u);
  testing::writeFile(tree / "dir/new.txt", "x");
  size_t got = inotify.read(buffer);
  std::vector<InotifyEvent> events;
  parseInotifyEvents(std::span<const uint8_t>(buffer.data(), got), events);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].watch, watch);
  EXPECT_EQ(events[0].mask, Inotify::kCreate);
  EXPECT_EQ(events[0].name, "new.txt");
}

}  // namespace
}  // namespace tarvolin::platform
