// Any bytes at the index path: opening must either succeed or throw IndexError, and a store that
// opens must let every record's path be built without leaving the mapping. The input is used
// twice: as the file as given, and with its checksum fixed up, so the fuzzer also reaches the
// record checks behind the checksum.

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tarvolin/index/ChildrenIndex.h"
#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/IndexError.h"
#include "tarvolin/index/IndexHeader.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/PathResolver.h"

namespace {

const std::filesystem::path& scratchPath() {
  static const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                            ("tarvolin-fuzz-" + std::to_string(getpid()) + ".bin");
  return path;
}

void writeBytes(const std::vector<uint8_t>& bytes) {
  FILE* file = std::fopen(scratchPath().c_str(), "wb");
  if (!file) std::abort();
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
}

void exercise(const std::vector<uint8_t>& bytes) {
  try {
    tarvolin::IndexHeader::decode(bytes);
  } catch (const tarvolin::IndexError&) {
  }
  writeBytes(bytes);
  auto outcome = tarvolin::loadIndex(scratchPath());
  auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&outcome);
  if (!store) return;
  tarvolin::PathResolver resolver(*store);
  uint32_t count = (*store)->count();
  for (uint32_t id = 0; id < count && id < 4096; ++id) {
    resolver.absolutePath(id);
    resolver.containsCycle(id);
  }
  tarvolin::ChildrenIndex children(**store);
  children.children(0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Small inputs grow a valid header in front so the body rules are reached quickly.
  std::vector<uint8_t> bytes(data, data + size);
  exercise(bytes);

  if (size < 16) return 0;
  tarvolin::IndexHeader header;
  uint32_t count, blob;
  std::memcpy(&count, data, 4);
  std::memcpy(&blob, data + 4, 4);
  header.recordCount = count % 64;
  header.nameBlobLength = blob % 256;
  header.volumes = {{"local", "/", 0, true}};
  // A matching checksum where the body is long enough, so the record checks are reached.
  size_t bodyNeeded = sizeof(tarvolin::FileRecord) * header.recordCount + header.nameBlobLength;
  if (size - 8 >= bodyNeeded) {
    header.checksum = tarvolin::FastHash64::hash(std::span<const uint8_t>(data + 8, bodyNeeded));
  }
  std::vector<uint8_t> file = header.encode();
  file.insert(file.end(), data + 8, data + size);
  exercise(file);
  return 0;
}
