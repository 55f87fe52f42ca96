#include "tarvolin/scan/detail/TextCompare.h"

#include <cstdint>
#include <cstring>

#include "tarvolin/platform/Unicode.h"

namespace tarvolin::detail {

bool isAscii(std::string_view bytes) {
  const char* p = bytes.data();
  size_t n = bytes.size();
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t word;
    std::memcpy(&word, p + i, sizeof word);
    if (word & 0x8080808080808080ull) return false;
  }
  for (; i < n; ++i) {
    if (static_cast<unsigned char>(p[i]) >= 0x80) return false;
  }
  return true;
}

std::string_view comparableText(std::string_view bytes, std::string& scratch) {
  if (isAscii(bytes)) return bytes;
  scratch = platform::nfc(bytes);
  return scratch;
}

bool hasSuffixAsText(std::string_view text, std::string_view suffix) {
  if (!text.ends_with(suffix)) return false;
  std::string_view head = text.substr(0, text.size() - suffix.size());
  // An ASCII character never joins the character after it (carriage return joins only a line
  // feed, which `suffix` does not start with), so only a non-ASCII one needs the full rules.
  if (head.empty() || static_cast<unsigned char>(head.back()) < 0x80) return true;
  return platform::graphemeCount(text) ==
         platform::graphemeCount(head) + platform::graphemeCount(suffix);
}

bool hasPrefixAsText(std::string_view text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  std::string_view tail = text.substr(prefix.size());
  if (tail.empty() || prefix.empty()) return true;
  // A following ASCII character starts a new character unless it is a line feed after a
  // carriage return.
  if (static_cast<unsigned char>(tail.front()) < 0x80 &&
      !(prefix.back() == '\r' && tail.front() == '\n')) {
    return true;
  }
  return platform::graphemeCount(text) ==
         platform::graphemeCount(prefix) + platform::graphemeCount(tail);
}

}  // namespace tarvolin::detail
