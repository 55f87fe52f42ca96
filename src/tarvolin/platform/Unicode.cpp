#include "tarvolin/platform/Unicode.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace tarvolin::platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Length of the well-formed sequence starting at bytes[i], or the length of the maximal invalid
// subpart (at least 1) negated.
int sequenceLength(std::string_view bytes, size_t i, char32_t& codePoint) {
  const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t n = bytes.size();
  unsigned char b0 = s[i];
  if (b0 < 0x80) {
    codePoint = b0;
    return 1;
  }
  int length;
  unsigned char lo = 0x80, hi = 0xBF;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;
  } else {
    return -1;
  }
  char32_t value = b0 & (0xFF >> (length + 1));
  for (int k = 1; k < length; ++k) {
    if (i + k >= n) return -k;
    unsigned char b = s[i + k];
    unsigned char low = k == 1 ? lo : 0x80, high = k == 1 ? hi : 0xBF;
    if (b < low || b > high) return -k;
    value = (value << 6) | (b & 0x3F);
  }
  codePoint = value;
  return length;
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// The end of the well-formed run of text that starts at `from`.
size_t wellFormedEnd(std::string_view bytes, size_t from) {
  size_t i = from;
  while (i < bytes.size()) {
    if (static_cast<unsigned char>(bytes[i]) < 0x80) {
      ++i;
      continue;
    }
    char32_t cp;
    int length = sequenceLength(bytes, i, cp);
    if (length < 0) break;
    i += static_cast<size_t>(length);
  }
  return i;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) { return wellFormedEnd(bytes, 0) == bytes.size(); }

char32_t decodeCodePoint(std::string_view bytes, size_t& index) {
  char32_t cp;
  int length = sequenceLength(bytes, index, cp);
  if (length < 0) {
    index += static_cast<size_t>(-length);
    return kReplacement;
  }
  index += static_cast<size_t>(length);
  return cp;
}

void appendCodePoint(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void appendUtf8Lossy(std::string& out, std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    // Copy runs of well-formed text in one append.
    size_t runStart = i;
    i = wellFormedEnd(bytes, i);
    out.append(bytes.data() + runStart, i - runStart);
    if (i < bytes.size()) {
      char32_t cp;
      int length = sequenceLength(bytes, i, cp);
      i += static_cast<size_t>(-length);
      appendCodePoint(out, kReplacement);
    }
  }
}

std::string decodeUtf8Lossy(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  appendUtf8Lossy(out, bytes);
  return out;
}

std::string nfc(std::string_view text) {
  std::string valid = decodeUtf8Lossy(text);
  bool ascii = true;
  for (char c : valid) {
    if (static_cast<unsigned char>(c) >= 0x80) {
      ascii = false;
      break;
    }
  }
  if (ascii) return valid;
  std::unique_ptr<utf8proc_uint8_t, FreeDeleter> composed(
      utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t*>(valid.c_str())));
  if (!composed) return valid;
  return std::string(reinterpret_cast<const char*>(composed.get()));
}

bool equalAsText(std::string_view a, std::string_view b) {
  if (a == b) return true;
  return nfc(a) == nfc(b);
}

std::string lowercase(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      out.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c));
      ++i;
      continue;
    }
    char32_t cp = decodeCodePoint(text, i);
    if (cp == 0x130) {
      out.push_back('i');
      appendCodePoint(out, 0x307);
    } else {
      appendCodePoint(out,
                      static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(cp))));
    }
  }
  return out;
}

std::string caseFold(std::string_view text) {
  std::string valid = decodeUtf8Lossy(text);
  bool ascii = true;
  for (char& c : valid) {
    if (static_cast<unsigned char>(c) >= 0x80) ascii = false;
  }
  if (ascii) {
    for (char& c : valid) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return valid;
  }
  utf8proc_uint8_t* folded = nullptr;
  utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(valid.data()),
                   static_cast<utf8proc_ssize_t>(valid.size()), &folded,
                   static_cast<utf8proc_option_t>(UTF8PROC_CASEFOLD | UTF8PROC_COMPOSE));
  if (length < 0 || folded == nullptr) return valid;
  std::string out(reinterpret_cast<const char*>(folded), static_cast<size_t>(length));
  std::free(folded);
  return out;
}

std::vector<std::string> graphemeClusters(std::string_view text) {
  std::string valid = decodeUtf8Lossy(text);
  std::vector<std::string> clusters;
  for (size_t at = 0; at < valid.size();) {
    size_t end = graphemeClusterEnd(valid, at);
    clusters.emplace_back(valid, at, end - at);
    at = end;
  }
  return clusters;
}

size_t graphemeCount(std::string_view text) {
  size_t count = 0;
  for (size_t at = 0; at < text.size(); at = graphemeClusterEnd(text, at)) ++count;
  return count;
}

size_t graphemeClusterEnd(std::string_view text, size_t start) {
  size_t i = start;
  auto first = static_cast<unsigned char>(text[i]);
  // Two ASCII characters are always split, except CR LF: the rules that join need marks,
  // joiners or prepended characters, all outside ASCII.
  if (first < 0x80) {
    if (i + 1 >= text.size()) return i + 1;
    auto next = static_cast<unsigned char>(text[i + 1]);
    if (next < 0x80) return first == '\r' && next == '\n' ? i + 2 : i + 1;
  }
  utf8proc_int32_t state = 0;
  auto previous = static_cast<utf8proc_int32_t>(decodeCodePoint(text, i));
  while (i < text.size()) {
    size_t at = i;
    auto current = static_cast<utf8proc_int32_t>(decodeCodePoint(text, i));
    if (utf8proc_grapheme_break_stateful(previous, current, &state)) return at;
    previous = current;
  }
  return text.size();
}

namespace {

utf8proc_category_t categoryOf(char32_t codePoint) {
  if (codePoint > 0x10FFFF) return UTF8PROC_CATEGORY_CN;
  return utf8proc_category(static_cast<utf8proc_int32_t>(codePoint));
}

}  // namespace

bool isLetter(char32_t codePoint) {
  if (codePoint < 0x80) {
    return (codePoint | 0x20) >= 'a' && (codePoint | 0x20) <= 'z';
  }
  utf8proc_category_t category = categoryOf(codePoint);
  return category >= UTF8PROC_CATEGORY_LU && category <= UTF8PROC_CATEGORY_LO;
}

bool isDecimalDigit(char32_t codePoint) {
  if (codePoint < 0x80) return codePoint >= '0' && codePoint <= '9';
  return categoryOf(codePoint) == UTF8PROC_CATEGORY_ND;
}

bool isAlphanumeric(char32_t codePoint) {
  if (codePoint < 0x80) return isLetter(codePoint) || isDecimalDigit(codePoint);
  utf8proc_category_t category = categoryOf(codePoint);
  return category >= UTF8PROC_CATEGORY_LU && category <= UTF8PROC_CATEGORY_NO;
}

bool isHorizontalWhitespace(char32_t codePoint) {
  if (codePoint < 0x80) return codePoint == ' ' || codePoint == '\t';
  return categoryOf(codePoint) == UTF8PROC_CATEGORY_ZS;
}

bool isWhitespaceOrNewline(char32_t codePoint) {
  if (codePoint < 0x80) return codePoint == ' ' || (codePoint >= '\t' && codePoint <= '\r');
  if (codePoint == 0x85) return true;
  utf8proc_category_t category = categoryOf(codePoint);
  return category == UTF8PROC_CATEGORY_ZS || category == UTF8PROC_CATEGORY_ZL ||
         category == UTF8PROC_CATEGORY_ZP;
}

}  // namespace tarvolin::platform
