#include "tarvolin/content/ContentIndexTable.h"

#include <emmintrin.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

#include "tarvolin/content/ContentIndexError.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::ContentIndexTable {

namespace {

void appendEscaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  size_t runStart = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text.data() + runStart, i - runStart);
    runStart = i + 1;
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      case '\b':
        out.append("\\b");
        break;
      case '\f':
        out.append("\\f");
        break;
      default:
        out.append("\\u00");
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xF]);
    }
  }
  out.append(text.data() + runStart, text.size() - runStart);
  out.push_back('"');
}

template <typename Number>
void appendNumber(std::string& out, Number value) {
  char buffer[32];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, end);
}

// Accepts exactly an array of objects; inside an object the four known members are typed and
// stored, other members (of any shape) are skipped.
class TableReader : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::vector<ContentIndex::Document> documents;

  bool null() override { return scalar(); }
  bool boolean(bool) override { return scalar(); }
  bool number_integer(number_integer_t value) override {
    if (skipping()) return true;
    switch (member_) {
      case Member::path:
        return false;
      case Member::modified:
        document_.modified = static_cast<double>(value);
        return mark(kModified);
      case Member::offset:
        document_.offset = value;
        return mark(kOffset);
      case Member::length:
        document_.length = value;
        return mark(kLength);
      case Member::other:
        return inObject();
    }
    return false;
  }
  bool number_unsigned(number_unsigned_t value) override {
    if (skipping()) return true;
    if (member_ == Member::modified) {
      document_.modified = static_cast<double>(value);
      return mark(kModified);
    }
    if (member_ == Member::offset || member_ == Member::length) {
      if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
      return number_integer(static_cast<int64_t>(value));
    }
    return member_ == Member::other && inObject();
  }
  bool number_float(number_float_t value, const string_t&) override {
    if (skipping()) return true;
    if (member_ == Member::modified) {
      document_.modified = value;
      return mark(kModified);
    }
    return member_ == Member::other && inObject();
  }
  bool string(string_t& value) override {
    if (skipping()) return true;
    if (member_ == Member::path) {
      document_.path = std::move(value);
      return mark(kPath);
    }
    return member_ == Member::other && inObject();
  }
  bool binary(binary_t&) override { return false; }

  bool start_object(std::size_t) override {
    if (skipping() || (depth_ == 2 && member_ == Member::other)) return enterSkipped();
    if (depth_ != 1) return false;
    depth_ = 2;
    seen_ = 0;
    member_ = Member::other;
    document_ = {};
    return true;
  }
  bool key(string_t& name) override {
    if (skipping()) return true;
    if (depth_ != 2) return false;
    member_ = name.size() != 1 ? Member::other
              : name[0] == 'p' ? Member::path
              : name[0] == 'm' ? Member::modified
              : name[0] == 'o' ? Member::offset
              : name[0] == 'l' ? Member::length
                               : Member::other;
    return true;
  }
  bool end_object() override {
    if (skipping()) return leaveSkipped();
    if (depth_ != 2 || seen_ != kAll) return false;
    documents.push_back(std::move(document_));
    depth_ = 1;
    member_ = Member::other;
    return true;
  }
  bool start_array(std::size_t) override {
    if (skipping() || (depth_ == 2 && member_ == Member::other)) return enterSkipped();
    if (depth_ != 0 || started_) return false;
    depth_ = 1;
    started_ = true;
    return true;
  }
  bool end_array() override {
    if (skipping()) return leaveSkipped();
    if (depth_ != 1) return false;
    depth_ = 0;
    return true;
  }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception&) override {
    errorAt_ = position;
    return false;
  }

  size_t errorAt() const { return errorAt_; }
  bool complete() const { return started_ && depth_ == 0; }

 private:
  enum class Member { path, modified, offset, length, other };
  static constexpr unsigned kPath = 1, kModified = 2, kOffset = 4, kLength = 8, kAll = 15;

  bool skipping() const { return skipDepth_ > 0; }
  bool inObject() const { return depth_ == 2; }
  bool scalar() { return skipping() || (member_ == Member::other && inObject()); }
  bool enterSkipped() {
    ++skipDepth_;
    return true;
  }
  bool leaveSkipped() {
    --skipDepth_;
    return true;
  }
  bool mark(unsigned bit) {
    if (!inObject()) return false;
    seen_ |= bit;
    return true;
  }

  ContentIndex::Document document_;
  Member member_ = Member::other;
  unsigned seen_ = 0;
  int depth_ = 0;  // 0 outside, 1 in the array, 2 in an object
  size_t skipDepth_ = 0;
  bool started_ = false;
  size_t errorAt_ = 0;
};

// Reads the exact text `encode` writes, one token at a time; any surprise is a refusal that
// sends the text to the general parser.
struct CompactReader {
  std::string_view text;
  size_t at = 0;

  bool atEnd() const { return at == text.size(); }

  bool literal(std::string_view expected) {
    if (text.substr(at, expected.size()) != expected) return false;
    at += expected.size();
    return true;
  }

  bool string(std::string& out) {
    if (!literal("\"")) return false;
    size_t runStart = at;
    out.clear();
    for (;;) {
      skipPlainBytes();
      if (at >= text.size()) return false;
      auto c = static_cast<unsigned char>(text[at]);
      if (c == '"') break;
      if (c < 0x20) return false;
      if (c != '\\') {
        ++at;
        continue;
      }
      out.append(text.data() + runStart, at - runStart);
      if (at + 1 >= text.size()) return false;
      switch (text[at + 1]) {
        case '"':
          out.push_back('"');
          break;
        case '\\':
          out.push_back('\\');
          break;
        case '/':
          out.push_back('/');
          break;
        case 'b':
          out.push_back('\b');
          break;
        case 'f':
          out.push_back('\f');
          break;
        case 'n':
          out.push_back('\n');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case 't':
          out.push_back('\t');
          break;
        default:
          return false;  // \u escapes and errors: the general parser decides
      }
      at += 2;
      runStart = at;
    }
    out.append(text.data() + runStart, at - runStart);
    ++at;
    return platform::isValidUtf8(out);
  }

  // Moves `at` past the bytes a string copies as they are, 16 at a time: all but the closing
  // quote, the backslash and control characters.
  void skipPlainBytes() {
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i lastControl = _mm_set1_epi8(0x1F);
    while (at + 16 <= text.size()) {
      __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
      __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, lastControl), bytes);
      __m128i special = _mm_or_si128(
          _mm_or_si128(_mm_cmpeq_epi8(bytes, quote), _mm_cmpeq_epi8(bytes, backslash)), control);
      auto mask = static_cast<uint32_t>(_mm_movemask_epi8(special));
      if (mask != 0) {
        at += static_cast<size_t>(__builtin_ctz(mask));
        return;
      }
      at += 16;
    }
  }

  // The span of a JSON number at `at`: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
  std::string_view numberText(bool& integral) {
    size_t start = at;
    auto digits = [&] {
      size_t from = at;
      while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
      return at - from;
    };
    if (at < text.size() && text[at] == '-') ++at;
    size_t first = at;
    size_t whole = digits();
    if (whole == 0 || (whole > 1 && text[first] == '0')) return {};
    integral = true;
    if (at < text.size() && text[at] == '.') {
      ++at;
      integral = false;
      if (digits() == 0) return {};
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
      ++at;
      integral = false;
      if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
      if (digits() == 0) return {};
    }
    return text.substr(start, at - start);
  }

  bool number(double& out) {
    bool integral = false;
    std::string_view number = numberText(integral);
    if (number.empty()) return false;
    if (integral) {
      // The general parser keeps integers as 64-bit integers and converts them; do the same.
      int64_t value;
      auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
      if (error != std::errc() || end != number.data() + number.size()) return false;
      out = static_cast<double>(value);
      return true;
    }
    auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), out);
    return error == std::errc() && end == number.data() + number.size() && std::isfinite(out);
  }

  bool integer(int64_t& out) {
    bool integral = false;
    std::string_view number = numberText(integral);
    if (number.empty() || !integral) return false;
    auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), out);
    return error == std::errc() && end == number.data() + number.size();
  }
};

}  // namespace

std::string encode(const std::vector<ContentIndex::Document>& documents) {
  std::string out;
  out.reserve(documents.size() * 96 + 2);
  std::string valid;
  out.push_back('[');
  for (size_t i = 0; i < documents.size(); ++i) {
    const ContentIndex::Document& document = documents[i];
    if (!std::isfinite(document.modified)) throw ContentIndexError::unencodableTime();
    if (i > 0) out.push_back(',');
    out.append("{\"p\":");
    if (platform::isValidUtf8(document.path)) {
      appendEscaped(out, document.path);
    } else {
      valid = platform::decodeUtf8Lossy(document.path);
      appendEscaped(out, valid);
    }
    out.append(",\"m\":");
    appendNumber(out, document.modified);
    out.append(",\"o\":");
    appendNumber(out, document.offset);
    out.append(",\"l\":");
    appendNumber(out, document.length);
    out.push_back('}');
  }
  out.push_back(']');
  return out;
}

std::vector<ContentIndex::Document> decode(std::string_view json) {
  if (std::optional<std::vector<ContentIndex::Document>> documents = decodeCompact(json)) {
    return std::move(*documents);
  }
  return decodeGeneral(json);
}

std::optional<std::vector<ContentIndex::Document>> decodeCompact(std::string_view json) {
  CompactReader reader{json};
  std::vector<ContentIndex::Document> documents;
  // Every object opens with "{" (a path may hold more): one allocation, its pages faulted in
  // one call rather than one fault per page as the table fills it.
  documents.reserve(static_cast<size_t>(std::count(json.begin(), json.end(), '{')));
  platform::prefaultForWriting(documents.data(),
                               documents.capacity() * sizeof(ContentIndex::Document));
  if (!reader.literal("[")) return std::nullopt;
  if (reader.literal("]")) {
    if (!reader.atEnd()) return std::nullopt;
    return documents;
  }
  do {
    ContentIndex::Document& document = documents.emplace_back();
    if (!reader.literal("{\"p\":") || !reader.string(document.path) || !reader.literal(",\"m\":") ||
        !reader.number(document.modified) || !reader.literal(",\"o\":") ||
        !reader.integer(document.offset) || !reader.literal(",\"l\":") ||
        !reader.integer(document.length) || !reader.literal("}")) {
      return std::nullopt;
    }
  } while (reader.literal(","));
  if (!reader.literal("]") || !reader.atEnd()) return std::nullopt;
  return documents;
}

std::vector<ContentIndex::Document> decodeGeneral(std::string_view json) {
  TableReader reader;
  bool parsed = nlohmann::json::sax_parse(json.begin(), json.end(), &reader,
                                          nlohmann::json::input_format_t::json, true, false);
  if (!parsed || !reader.complete()) throw ContentIndexError::malformedTable(reader.errorAt());
  return std::move(reader.documents);
}

}  // namespace tarvolin::ContentIndexTable
