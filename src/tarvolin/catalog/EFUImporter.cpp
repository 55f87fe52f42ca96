#include "tarvolin/catalog/EFUImporter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <unordered_map>

#include "tarvolin/catalog/FolderSizes.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::EFUImporter {

const char* EFUError::what() const noexcept {
  switch (kind_) {
    case Kind::malformedRow:
      return "malformed file-list row";
    case Kind::missingFilenameColumn:
      return "file list has no filename column";
  }
  return "file-list error";
}

namespace {

constexpr uint32_t kAttributeDirectory = 0x10;
constexpr uint32_t kMaxSeconds = std::numeric_limits<uint32_t>::max();
// File times (100 ns since 1601): one second after 1970 began, and the last one below 2^32 s.
constexpr uint64_t kFirstFileTime = 116'444'736'010'000'000ull;
constexpr uint64_t kLastFileTime = 159'394'408'959'999'999ull;
constexpr uint64_t kFileTimeTicksPerSecond = 10'000'000;
constexpr uint64_t kSecondsFrom1601To1970 = 11'644'473'600ull;

std::string_view trim(std::string_view text) {
  auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

// An unsigned 64-bit decimal: an optional "+", or "-" when the value is zero.
std::optional<uint64_t> unsignedDecimal(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    auto digit = static_cast<uint64_t>(c - '0');
    if (value > (std::numeric_limits<uint64_t>::max() - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (negative && value != 0) return std::nullopt;
  return value;
}

// `count` decimal digits at text[at]; false when they are not all there.
bool fixedDigits(std::string_view text, size_t at, size_t count, int& out) {
  if (at + count > text.size()) return false;
  out = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

// "YYYY-MM-DDTHH:MM:SS", optional "." and digits, then "Z" or "+HH:MM" / "-HH:MM". Seconds since
// 1970 (negative before it), and whether a non-zero fraction followed the seconds.
std::optional<int64_t> internetDateTime(std::string_view text, bool& positiveFraction) {
  int year, month, day, hour, minute, second;
  if (text.size() < 20 || !fixedDigits(text, 0, 4, year) || text[4] != '-' ||
      !fixedDigits(text, 5, 2, month) || text[7] != '-' || !fixedDigits(text, 8, 2, day) ||
      text[10] != 'T' || !fixedDigits(text, 11, 2, hour) || text[13] != ':' ||
      !fixedDigits(text, 14, 2, minute) || text[16] != ':' || !fixedDigits(text, 17, 2, second)) {
    return std::nullopt;
  }
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  std::chrono::year_month_day date{std::chrono::year(year),
                                   std::chrono::month(static_cast<unsigned>(month)),
                                   std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;
  size_t at = 19;
  positiveFraction = false;
  if (text[at] == '.') {
    size_t digits = ++at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
      if (text[at] != '0') positiveFraction = true;
      ++at;
    }
    if (at == digits) return std::nullopt;
  }
  int64_t offset = 0;
  if (at < text.size() && text[at] == 'Z') {
    ++at;
  } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    int offsetHours, offsetMinutes;
    if (!fixedDigits(text, at + 1, 2, offsetHours) || at + 3 >= text.size() ||
        text[at + 3] != ':' || !fixedDigits(text, at + 4, 2, offsetMinutes) || offsetHours > 23 ||
        offsetMinutes > 59) {
      return std::nullopt;
    }
    offset = (offsetHours * 3600 + offsetMinutes * 60) * (text[at] == '-' ? -1 : 1);
    at += 6;
  } else {
    return std::nullopt;
  }
  if (at != text.size()) return std::nullopt;
  int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return days * 86400 + hour * 3600 + minute * 60 + second - offset;
}

// The longest prefix of `name` of at most 255 bytes that does not cut a UTF-8 sequence.
std::string_view clampName(std::string_view name) {
  if (name.size() <= IndexBuilder::maxNameBytes) return name;
  size_t cut = IndexBuilder::maxNameBytes;
  while (cut > 0 && (static_cast<uint8_t>(name[cut]) & 0xC0) == 0x80) --cut;
  return name.substr(0, cut);
}

// Splits a listed path into views of `path`; a UNC path's first name is built in `uncHead`,
// which must then outlive the views. False when the path is rejected.
bool splitPath(std::string_view path, std::vector<std::string_view>& out, std::string& uncHead) {
  out.clear();
  bool unc = path.size() >= 2 && path[0] == '\\' && path[1] == '\\';
  if (unc) path.remove_prefix(2);
  size_t at = 0;
  while (at < path.size()) {
    size_t end = path.find('\\', at);
    if (end == std::string_view::npos) end = path.size();
    if (end > at) out.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  if (unc) {
    if (out.size() < 2) {
      out.clear();
      return false;
    }
    uncHead.assign("//").append(out[0]).append("/").append(out[1]);
    out.erase(out.begin());
    out[0] = uncHead;
  }
  if (out.empty()) return false;
  for (size_t k = 0; k < out.size(); ++k) {
    std::string_view name = out[k];
    bool dotted = name == "." || name == "..";
    bool slashed = !(unc && k == 0) && name.find('/') != std::string_view::npos;
    if (dotted || slashed) {
      out.clear();
      return false;
    }
  }
  return true;
}

// A folder by its parent record and its lower-cased name.
struct FolderKey {
  uint32_t parent = 0;
  std::string name;
  friend bool operator==(const FolderKey&, const FolderKey&) = default;
};

struct FolderKeyHash {
  size_t operator()(const FolderKey& key) const {
    return std::hash<std::string>()(key.name) ^
           (static_cast<size_t>(key.parent) * 0x9E3779B97F4A7C15ull);
  }
};

// Lower-cases `name` into `out`, without the Unicode tables when it is ASCII.
void lowercaseInto(std::string& out, std::string_view name) {
  bool ascii =
      std::all_of(name.begin(), name.end(), [](char c) { return static_cast<uint8_t>(c) < 0x80; });
  if (!ascii) {
    out = platform::lowercase(name);
    return;
  }
  out.assign(name);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
}

// The state of one import: the header's columns, the folders made so far and the last parent.
class Importer {
 public:
  explicit Importer(size_t inputBytes)
      : builder_(static_cast<int64_t>(inputBytes / 64), static_cast<int64_t>(inputBytes / 8)) {}

  void row(int64_t line, std::span<const std::string> fields) {
    sawRow_ = true;
    if (!nameColumn_) {
      readHeader(fields);
      return;
    }
    if (fields.size() <= *nameColumn_) throw EFUError::malformedRow(line);
    if (!splitPath(fields[*nameColumn_], parts_, uncHead_)) return;

    uint32_t attributes = 0;
    if (const std::string* field = column(fields, attributesColumn_)) {
      attributes = integer(*field).value_or(0);
    }
    uint64_t size = 0;
    if (const std::string* field = column(fields, sizeColumn_)) {
      size = unsignedDecimal(trim(*field)).value_or(0);
    }
    uint32_t time = 0;
    if (const std::string* field = column(fields, dateColumn_)) time = unixTime(*field).value_or(0);

    std::span<const std::string_view> folders(parts_.data(), parts_.size() - 1);
    uint32_t parent = parentOf(folders);
    std::string_view last = parts_.back();
    uint32_t id;
    if (attributes & kAttributeDirectory) {
      id = walk(parent, std::span<const std::string_view>(&last, 1));
    } else {
      // Files are never merged: a path listed twice gives two records.
      id = builder_.addEntry(clampName(last), parent, RecordFlags(), 0);
    }
    builder_.setAttributes(id, size, time);
  }

  Result finish() {
    if (!sawRow_) throw EFUError::missingFilenameColumn();
    FolderSizes::rollUp(builder_);
    CatalogStats stats = CatalogStats::measure(builder_, std::nullopt);
    return Result{std::move(builder_), stats};
  }

 private:
  void readHeader(std::span<const std::string> fields) {
    auto first = [&](std::string_view title) -> std::optional<size_t> {
      for (size_t k = 0; k < fields.size(); ++k) {
        if (platform::lowercase(trim(fields[k])) == title) return k;
      }
      return std::nullopt;
    };
    nameColumn_ = first("filename");
    if (!nameColumn_) throw EFUError::missingFilenameColumn();
    sizeColumn_ = first("size");
    dateColumn_ = first("date modified");
    attributesColumn_ = first("attributes");
  }

  static const std::string* column(std::span<const std::string> fields,
                                   std::optional<size_t> position) {
    return position && *position < fields.size() ? &fields[*position] : nullptr;
  }

  // The folder holding a row's entry. Rows are usually grouped by folder, so the last folder
  // path is kept and compared (case-sensitively) before any lookup.
  uint32_t parentOf(std::span<const std::string_view> folders) {
    if (folders.empty()) return FileRecord::rootParentID;
    if (cacheValid_ &&
        std::equal(folders.begin(), folders.end(), cachedPath_.begin(), cachedPath_.end())) {
      return cachedID_;
    }
    cachedID_ = walk(FileRecord::rootParentID, folders);
    cachedPath_.resize(folders.size());
    for (size_t k = 0; k < folders.size(); ++k) cachedPath_[k].assign(folders[k]);
    cacheValid_ = true;
    return cachedID_;
  }

  // Finds or makes each folder of `names` in turn below `start`. The first spelling met of a
  // folder's name is the one stored; later spellings differing only in case reach it too.
  uint32_t walk(uint32_t start, std::span<const std::string_view> names) {
    uint32_t current = start;
    for (std::string_view name : names) {
      probe_.parent = current;
      lowercaseInto(probe_.name, name);
      auto found = folders_.find(probe_);
      if (found != folders_.end()) {
        current = found->second;
        continue;
      }
      current = builder_.addEntry(clampName(name), current, RecordFlags::isDirectory, 0);
      folders_.emplace(probe_, current);
    }
    return current;
  }

  IndexBuilder builder_;
  bool sawRow_ = false;
  std::optional<size_t> nameColumn_;
  std::optional<size_t> sizeColumn_;
  std::optional<size_t> dateColumn_;
  std::optional<size_t> attributesColumn_;
  std::unordered_map<FolderKey, uint32_t, FolderKeyHash> folders_;
  FolderKey probe_;
  std::vector<std::string_view> parts_;
  std::string uncHead_;
  std::vector<std::string> cachedPath_;
  uint32_t cachedID_ = FileRecord::rootParentID;
  bool cacheValid_ = false;
};

// Bytes that end a run of plain field data outside quotes.
constexpr std::array<bool, 256> makeSpecial() {
  std::array<bool, 256> table{};
  table['\n'] = table['\r'] = table['"'] = table[','] = true;
  return table;
}
constexpr std::array<bool, 256> kSpecial = makeSpecial();

}  // namespace

void parseCSV(std::string_view bytes, const RowHandler& onRow) {
  size_t at = 0;
  const size_t end = bytes.size();
  if (end >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") at = 3;
  const size_t begin = at;

  std::string raw;                  // the current field's bytes
  std::vector<std::string> fields;  // the current row's fields; the first `count` are in use,
  size_t count = 0;                 // the rest keep their buffers for later rows
  int64_t line = 1;
  int64_t rowLine = 1;
  int64_t quoteLine = 0;
  bool inQuotes = false;

  // Appends to the current field, keeping at most maxFieldBytes of it.
  auto append = [&](const char* data, size_t length) {
    raw.append(data, std::min(length, maxFieldBytes - raw.size()));
  };
  auto endField = [&] {
    if (count == maxRowFields) {
      raw.clear();
      return;
    }
    if (count == fields.size()) fields.emplace_back();
    std::string& field = fields[count++];
    field.clear();
    platform::appendUtf8Lossy(field, raw);
    raw.clear();
  };
  auto endRow = [&] {
    bool blank = count == 1 && fields[0].empty();
    size_t used = count;
    count = 0;
    if (!blank) onRow(rowLine, std::span<const std::string>(fields.data(), used));
  };

  while (at < end) {
    size_t run = at;
    if (!inQuotes) {
      while (at < end && !kSpecial[static_cast<uint8_t>(bytes[at])]) ++at;
      append(bytes.data() + run, at - run);
      if (at == end) break;
      switch (bytes[at++]) {
        case '\n':
          endField();
          endRow();
          rowLine = ++line;
          break;
        case '\r':
          if (at == end || bytes[at] != '\n') append("\r", 1);
          break;
        case '"':
          inQuotes = true;
          quoteLine = line;
          break;
        default:  // ','
          endField();
          break;
      }
    } else {
      while (at < end && bytes[at] != '"' && bytes[at] != '\n') ++at;
      append(bytes.data() + run, at - run);
      if (at == end) break;
      if (bytes[at++] == '\n') {
        append("\n", 1);
        ++line;
      } else if (at < end && bytes[at] == '"') {
        append("\"", 1);
        ++at;
      } else {
        inQuotes = false;
      }
    }
  }
  if (inQuotes) throw EFUError::malformedRow(quoteLine);
  if (end > begin && bytes[end - 1] == '\r' && !raw.empty() && raw.back() == '\r') raw.pop_back();
  if (!raw.empty() || count > 0) {
    endField();
    endRow();
  }
}

Result build(std::string_view data, const std::function<void(int64_t)>& onProgress) {
  constexpr int64_t kProgressRows = 65'536;
  Importer importer(data.size());
  int64_t rows = 0;
  parseCSV(data, [&](int64_t line, std::span<const std::string> fields) {
    importer.row(line, fields);
    if (++rows % kProgressRows == 0 && onProgress) onProgress(rows);
  });
  return importer.finish();
}

Result build(std::span<const uint8_t> data, const std::function<void(int64_t)>& onProgress) {
  return build(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()),
               onProgress);
}

std::vector<std::string> components(std::string_view path) {
  std::vector<std::string_view> parts;
  std::string uncHead;
  if (!splitPath(path, parts, uncHead)) return {};
  return std::vector<std::string>(parts.begin(), parts.end());
}

std::optional<uint32_t> integer(std::string_view text) {
  text = trim(text);
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    std::string_view digits = text.substr(2);
    if (digits.empty()) return std::nullopt;
    uint64_t value = 0;
    for (char c : digits) {
      int digit;
      if (c >= '0' && c <= '9') {
        digit = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        digit = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        digit = c - 'A' + 10;
      } else {
        return std::nullopt;
      }
      value = value * 16 + static_cast<uint64_t>(digit);
      if (value > std::numeric_limits<uint32_t>::max()) return std::nullopt;
    }
    return static_cast<uint32_t>(value);
  }
  if (!text.empty() && text[0] == '-') return std::nullopt;
  std::optional<uint64_t> value = unsignedDecimal(text);
  if (!value || *value > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  return static_cast<uint32_t>(*value);
}

std::optional<uint32_t> unixTime(std::string_view text) {
  text = trim(text);
  if (text.empty()) return std::nullopt;
  if (std::optional<uint64_t> fileTime = unsignedDecimal(text)) {
    if (*fileTime < kFirstFileTime) return std::nullopt;
    if (*fileTime > kLastFileTime) return kMaxSeconds;
    return static_cast<uint32_t>(*fileTime / kFileTimeTicksPerSecond - kSecondsFrom1601To1970);
  }
  bool positiveFraction = false;
  std::optional<int64_t> seconds = internetDateTime(text, positiveFraction);
  if (!seconds || *seconds < 0 || (*seconds == 0 && !positiveFraction)) return std::nullopt;
  return static_cast<uint32_t>(std::min<int64_t>(*seconds, kMaxSeconds));
}

}  // namespace tarvolin::EFUImporter
