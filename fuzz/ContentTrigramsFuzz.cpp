// Any bytes as a content.tri side file: the reader either refuses it or answers candidate queries
// with ascending ordinals below its document count, never reading outside the bytes. The
// identity is taken from the input's own header so that the lists behind it are reached.
//
// Inputs whose first byte is odd are instead taken as document texts (split at 0x00 bytes): their
// side file is built, read back, and every needle cut from the texts must list each document that
// holds it, in ascending order (the filter may keep too many documents, never too few).

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentTrigrams.h"

namespace {

using tarvolin::ContentTrigrams;

uint64_t load64(const uint8_t* bytes) {
  uint64_t value;
  std::memcpy(&value, bytes, 8);
  return value;
}

void checkAnswer(const std::optional<std::vector<uint32_t>>& found, uint32_t documentCount) {
  if (!found) return;
  for (size_t i = 0; i < found->size(); ++i) {
    if ((*found)[i] >= documentCount) __builtin_trap();
    if (i > 0 && (*found)[i] <= (*found)[i - 1]) __builtin_trap();
  }
}

std::span<const uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

void readSideFile(std::span<const uint8_t> file) {
  if (file.size() < ContentTrigrams::headerBytes) return;
  uint32_t documentCount;
  std::memcpy(&documentCount, file.data() + 24, 4);
  const ContentTrigrams::Identity identity{load64(file.data() + 8), load64(file.data() + 16),
                                           documentCount};
  std::optional<ContentTrigrams> trigrams = ContentTrigrams::view(file, identity);
  if (!trigrams) return;
  for (std::string_view needle : {"abc", "abcd", "the needle", "\xC3\xA9t\xC3\xA9", "\n\n\n"}) {
    checkAnswer(trigrams->candidates(bytesOf(needle)), documentCount);
  }
  // A needle made of the file's last bytes meets keys that exist in it more often.
  size_t tail = std::min<size_t>(file.size(), 6);
  checkAnswer(trigrams->candidates(file.last(tail)), documentCount);
}

void buildAndQuery(std::span<const uint8_t> data) {
  std::vector<tarvolin::ContentIndex::Document> documents;
  size_t start = 0;
  for (size_t i = 0; i <= data.size(); ++i) {
    if (i == data.size() || data[i] == 0) {
      documents.push_back({"/d", 0, static_cast<int64_t>(start), static_cast<int64_t>(i - start)});
      start = i + 1;
    }
  }
  const auto documentCount = static_cast<uint32_t>(documents.size());
  const ContentTrigrams::Identity identity{data.size(), 7, documentCount};
  std::vector<uint8_t> file = ContentTrigrams::encode(documents, data, identity);
  std::optional<ContentTrigrams> trigrams = ContentTrigrams::view(file, identity);
  if (!trigrams) __builtin_trap();
  for (size_t at = 0; at + 3 <= data.size(); at += 5) {
    std::span<const uint8_t> needle = data.subspan(at, std::min<size_t>(4, data.size() - at));
    std::optional<std::vector<uint32_t>> found = trigrams->candidates(needle);
    checkAnswer(found, documentCount);
    if (!found) continue;
    for (uint32_t d = 0; d < documentCount; ++d) {
      auto text = data.subspan(static_cast<size_t>(documents[d].offset),
                               static_cast<size_t>(documents[d].length));
      bool holds =
          std::search(text.begin(), text.end(), needle.begin(), needle.end()) != text.end();
      if (holds && !std::binary_search(found->begin(), found->end(), d)) __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0 && data[0] % 2 == 1) {
    buildAndQuery({data + 1, size - 1});
    return 0;
  }
  readSideFile({data, size});
  return 0;
}
