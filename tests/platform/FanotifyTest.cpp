#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/platform/Fanotify.h"

namespace tarvolin::platform {
namespace {

using testing::TempTree;

void put(std::vector<uint8_t>& bytes, const void* data, size_t size) {
  // Grown first and copied into: GCC 12 at -O3 misreads an insert at the end of an empty vector
  // as an overflow.
  size_t at = bytes.size();
  bytes.resize(at + size);
  if (size > 0) std::memcpy(bytes.data() + at, data, size);
}

// One event record as the kernel lays it out: metadata (24 bytes), then one information record
// of `infoType` holding the file-system id, a file handle of `handle` bytes and, when given, a
// NUL-terminated name, padded to 4 bytes.
std::vector<uint8_t> record(uint64_t mask, uint8_t infoType, uint64_t fsid, std::string handle,
                            const char* name) {
  std::vector<uint8_t> info(4, 0);
  put(info, &fsid, 8);
  uint32_t handleBytes = static_cast<uint32_t>(handle.size());
  int32_t handleType = 1;
  put(info, &handleBytes, 4);
  put(info, &handleType, 4);
  put(info, handle.data(), handle.size());
  if (name != nullptr) put(info, name, std::strlen(name) + 1);
  info.resize((info.size() + 3) / 4 * 4, 0);
  info[0] = infoType;
  uint16_t infoLength = static_cast<uint16_t>(info.size());
  std::memcpy(&info[2], &infoLength, 2);

  std::vector<uint8_t> bytes;
  uint32_t eventLength = static_cast<uint32_t>(24 + info.size());
  uint8_t version[2] = {3, 0};
  uint16_t metadataLength = 24;
  int32_t fd = -1, pid = 1;
  put(bytes, &eventLength, 4);
  put(bytes, version, 2);
  put(bytes, &metadataLength, 2);
  put(bytes, &mask, 8);
  put(bytes, &fd, 4);
  put(bytes, &pid, 4);
  bytes.insert(bytes.end(), info.begin(), info.end());
  return bytes;
}

TEST(FanotifyTest, ParseReadsHandlesAndNamesAndStopsAtABrokenRecord) {
  const std::string handle("\x11\x22\x33\x44\x55\x66\x77\x88", 8);
  std::vector<uint8_t> bytes = record(Fanotify::kCreate, 2, 0x77, handle, "new.txt");
  auto folderOnly = record(Fanotify::kAttrib | Fanotify::kOnDirectory, 3, 0x78, handle, nullptr);
  bytes.insert(bytes.end(), folderOnly.begin(), folderOnly.end());
  auto otherType = record(Fanotify::kDelete, 1, 0x79, handle, "skipped");  // a plain FID record
  bytes.insert(bytes.end(), otherType.begin(), otherType.end());
  auto lying = record(Fanotify::kCreate, 2, 0x7a, handle, "x");
  uint32_t tooMany = 200;  // the handle claims more bytes than its record holds
  std::memcpy(&lying[24 + 4 + 8], &tooMany, 4);
  bytes.insert(bytes.end(), lying.begin(), lying.end());
  size_t whole = bytes.size();
  auto cut = record(Fanotify::kCreate, 2, 0x7b, handle, "cut");
  bytes.insert(bytes.end(), cut.begin(), cut.end() - 4);

  std::vector<FanotifyEvent> events;
  EXPECT_EQ(parseFanotifyEvents(bytes, events), whole);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].mask, Fanotify::kCreate);
  EXPECT_EQ(events[0].fileSystemID, 0x77u);
  EXPECT_EQ(events[0].handle.size(), 8u + 8u);  // its header and its bytes
  EXPECT_EQ(events[0].handle.substr(8), handle);
  EXPECT_EQ(events[0].name, "new.txt");
  EXPECT_EQ(events[1].handle.substr(8), handle);
  EXPECT_EQ(events[1].name, "");
  EXPECT_TRUE(events[2].handle.empty());
  EXPECT_TRUE(events[3].handle.empty());
  EXPECT_TRUE(events[3].name.empty());
}

// Against the kernel: a folder's handle from a real event opens again as that folder's path.
// The file system's descriptor must be one open_by_handle_at accepts as its mount.
TEST(FanotifyTest, HandleOfARealEventResolvesToItsFolder) {
  std::optional<Fanotify> fanotify = Fanotify::open();
  if (!fanotify) GTEST_SKIP() << "fanotify refused here (needs CAP_SYS_ADMIN)";
  TempTree tree{"folder/"};
  if (fanotify->markFileSystem(tree.root().c_str(), Fanotify::kCreate) != 0) {
    GTEST_SKIP() << "this file system cannot be marked whole";
  }
  auto reference = fileSystemReference(tree.root().c_str());
  ASSERT_TRUE(reference.has_value());
  testing::writeFile(tree / "folder/made.txt", "x");

  std::vector<uint8_t> buffer(64 * 1024);
  std::vector<FanotifyEvent> events;
  std::optional<std::string> found;
  // Events from the rest of the file system may come first; ours is among the next reads.
  for (int round = 0; round < 1000 && !found; ++round) {
    size_t got = fanotify->read(buffer);
    parseFanotifyEvents(std::span<const uint8_t>(buffer.data(), got), events);
    for (const FanotifyEvent& event : events) {
      if (event.name != "made.txt" || event.fileSystemID != reference->fileSystemID) continue;
      found = pathOfHandle(reference->mount, event.handle);
      ASSERT_TRUE(found.has_value());
    }
  }
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(*found, std::filesystem::canonical(tree / "folder").string());
}

}  // namespace
}  // namespace tarvolin::platform
