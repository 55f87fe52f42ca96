#include "tarvolin/content/TextExtraction.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tarvolin/content/PdfWorkerPool.h"
#include "tarvolin/content/ZipReader.h"
#include "tarvolin/platform/FileDescriptor.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::TextExtraction {

namespace {

// A zero byte this close to the start marks a file as binary data, not text.
constexpr size_t kBinaryProbeBytes = 4'096;
// Runs in the archive-based office formats' binary entries shorter than this are noise.
constexpr size_t kMinimumRunBytes = 4;

std::string_view asChars(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && s.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// Which entries of an office archive hold its text, and how they become text.
struct OfficeRule {
  bool (*accepts)(std::string_view name);
  bool binaryEntries;  // true: printableRuns; false: textFromXML
};

std::optional<OfficeRule> officeTextEntries(std::string_view extension) {
  if (extension == "docx") {
    return OfficeRule{[](std::string_view name) {
                        return name == "word/document.xml" || startsWith(name, "word/footnotes");
                      },
                      false};
  }
  if (extension == "pptx") {
    return OfficeRule{[](std::string_view name) {
                        return startsWith(name, "ppt/slides/slide") && endsWith(name, ".xml");
                      },
                      false};
  }
  if (extension == "xlsx") {
    return OfficeRule{[](std::string_view name) { return name == "xl/sharedStrings.xml"; }, false};
  }
  if (extension == "pages" || extension == "key" || extension == "numbers") {
    return OfficeRule{
        [](std::string_view name) { return startsWith(name, "Index/") && endsWith(name, ".iwa"); },
        true};
  }
  return std::nullopt;
}

bool isSpaceByte(uint8_t b) { return b == 0x09 || b == 0x0A || b == 0x0D || b == 0x20; }

bool isRunByte(uint8_t b) { return (b >= 0x20 && b <= 0x7E) || b >= 0x80; }

// Whether one run of printableRuns is kept: it must decode without replacement and be at
// least half letters, digits or spaces.
bool keepsRun(std::string_view run) {
  if (!platform::isValidUtf8(run)) return false;
  size_t scalars = 0, readable = 0;
  for (size_t i = 0; i < run.size();) {
    char32_t codePoint = platform::decodeCodePoint(run, i);
    if (codePoint == 0xFFFD) return false;  // a replacement character written out as such
    ++scalars;
    if (codePoint == U' ' || platform::isAlphanumeric(codePoint)) ++readable;
  }
  return scalars <= 2 * readable;
}

}  // namespace

std::optional<std::string> plainText(const std::filesystem::path& path) {
  // Copied, not mapped: a file shortened while it is read must not fault the reader.
  std::optional<std::vector<uint8_t>> read = platform::readFilePrefix(path, maxBytesPerFile);
  if (!read || read->empty()) return std::nullopt;
  std::span<const uint8_t> bytes = *read;
  if (std::memchr(bytes.data(), 0, std::min(bytes.size(), kBinaryProbeBytes)) != nullptr) {
    return std::nullopt;
  }
  return platform::decodeUtf8Lossy(asChars(bytes));
}

std::optional<std::string> extractedText(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  if (extension.empty()) return std::nullopt;
  extension = platform::lowercase(std::string_view(extension).substr(1));
  if (std::find(extractedExtensions.begin(), extractedExtensions.end(), extension) ==
      extractedExtensions.end()) {
    return std::nullopt;
  }
  if (extension == "pdf") return PdfWorkerPool::shared().text(path);

  std::optional<OfficeRule> rule = officeTextEntries(extension);
  if (!rule) return std::nullopt;
  std::vector<ZipReader::Entry> parts = ZipReader::entries(path, rule->accepts);
  if (parts.empty()) return std::nullopt;
  std::string text;
  for (const ZipReader::Entry& part : parts) {
    if (&part != &parts.front()) text += '\n';
    text +=
        rule->binaryEntries ? printableRuns(part.data, kMinimumRunBytes) : textFromXML(part.data);
  }
  return text;
}

std::string textFromXML(std::span<const uint8_t> xml) {
  // The output is never longer than the input: write through a pointer into a buffer of the
  // input's size, and skip a tag's inside in one search for its end (inside a tag nothing is
  // output and the last output is already a space).
  std::string out(xml.size(), '\0');
  char* write = out.data();
  const uint8_t* at = xml.data();
  const uint8_t* const end = at + xml.size();
  bool lastWasSpace = false;
  while (at < end) {
    uint8_t b = *at++;
    if (b == '<') {
      if (!lastWasSpace) *write++ = ' ';
      lastWasSpace = true;
      const void* close = std::memchr(at, '>', static_cast<size_t>(end - at));
      if (close == nullptr) break;
      at = static_cast<const uint8_t*>(close) + 1;
    } else if (b == '>') {
      continue;
    } else if (isSpaceByte(b)) {
      if (!lastWasSpace) *write++ = ' ';
      lastWasSpace = true;
    } else {
      *write++ = static_cast<char>(b);
      lastWasSpace = false;
    }
  }
  out.resize(static_cast<size_t>(write - out.data()));
  if (platform::isValidUtf8(out)) return out;
  return platform::decodeUtf8Lossy(out);
}

std::string printableRuns(std::span<const uint8_t> bytes, size_t minimumLength) {
  std::string out;
  size_t runStart = 0;
  for (size_t i = 0; i <= bytes.size(); ++i) {
    if (i < bytes.size() && isRunByte(bytes[i])) continue;
    std::string_view run = asChars(bytes.subspan(runStart, i - runStart));
    if (!run.empty() && run.size() >= minimumLength && keepsRun(run)) {
      if (!out.empty()) out += ' ';
      out += run;
    }
    runStart = i + 1;
  }
  return out;
}

}  // namespace tarvolin::TextExtraction
