#pragma once
// Turns one document file into searchable text: plain-text files are read directly, PDF files
// through the PDF worker processes, Office Open XML documents and the archive-based office formats
// ("pages", "key", "numbers") through the zip reader. Every operation is a pure function of the
// file and its arguments: any number of threads may call them at once. None of them throws; every
// failure (unreadable file, not text, no matching archive entry, a PDF the reader rejects) is an
// absent result, and callers drop such documents.

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarvolin::TextExtraction {

/// Extensions (lower case) whose text is extracted rather than read as plain text.
inline constexpr std::array<std::string_view, 7> extractedExtensions = {
    "pdf", "docx", "pptx", "xlsx", "pages", "key", "numbers"};

/// The most bytes read from a plain-text file.
inline constexpr size_t maxBytesPerFile = 2'097'152;

/// The first `maxBytesPerFile` bytes of the file decoded as UTF-8 (invalid sequences become
/// U+FFFD); nothing when the file cannot be read, is empty, or holds a zero byte in its first
/// 4,096 bytes.
std::optional<std::string> plainText(const std::filesystem::path& path);

/// The text of a PDF or archive document, chosen by the path's extension (any case); nothing for
/// other extensions and for documents that cannot be read.
std::optional<std::string> extractedText(const std::filesystem::path& path);

/// The character data of an XML part: every tag and every run of white space becomes one space;
/// entity references stay as written. Invalid UTF-8 becomes U+FFFD.
std::string textFromXML(std::span<const uint8_t> xml);

/// The readable runs of binary bytes (printable ASCII or >= 0x80) of at least `minimumLength`
/// bytes that decode without replacement and are at least half letters, digits or spaces,
/// joined by single spaces.
std::string printableRuns(std::span<const uint8_t> bytes, size_t minimumLength);

}  // namespace tarvolin::TextExtraction
