// Any bytes as a trigram side file: load either refuses them or gives an index whose lookups
// stay inside its arrays. The fuzzer's bytes get a valid header in front half of the time, so
// the array checks behind the header are reached too.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tarvolin/query/TrigramIndex.h"

namespace {

const std::filesystem::path& scratchPath() {
  static const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                            ("tarvolin-fuzz-trigram-" + std::to_string(getpid()));
  return path;
}

void tryLoad(const std::vector<uint8_t>& bytes) {
  FILE* file = std::fopen(scratchPath().c_str(), "wb");
  if (!file) std::abort();
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
  auto index = tarvolin::TrigramIndex::load(scratchPath(), 42);
  if (!index) return;
  for (const char* needle : {"abc", "ABCD", "aaaa", "\xff\xff\xff", "zzzzzz"}) {
    auto blocks = index->candidateBlocks(needle);
    if (blocks) {
      for (uint32_t block : *blocks) tarvolin::TrigramIndex::range(block, 5000);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tryLoad(std::vector<uint8_t>(data, data + size));
  if (size < 12) return 0;
  // Header: magic, version, checksum 42, then blockCount, K, P from the input; the arrays follow.
  uint32_t blockCount, k, p;
  std::memcpy(&blockCount, data, 4);
  std::memcpy(&k, data + 4, 4);
  std::memcpy(&p, data + 8, 4);
  k %= 64;
  p %= 256;
  blockCount %= 16;
  uint32_t header[8] = {tarvolin::TrigramIndex::fileMagic, 1, 42, 0, blockCount, k, p, 0};
  std::vector<uint8_t> file(reinterpret_cast<uint8_t*>(header),
                            reinterpret_cast<uint8_t*>(header) + 32);
  file.insert(file.end(), data + 12, data + size);
  file.resize(32 + 4 * (2 * size_t{k} + 1 + p), 0);
  tryLoad(file);
  return 0;
}
