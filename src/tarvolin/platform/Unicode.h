#pragma once
// Unicode text services over UTF-8 strings, backed by utf8proc. Everything here is a pure
// function and safe to call from any thread.
//
// Names on disk are raw bytes; whenever they become text, invalid UTF-8 is replaced by U+FFFD
// (one replacement per maximal invalid subpart, the usual practice), never rejected.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::platform {

/// True when `bytes` is well-formed UTF-8 (no surrogates, no overlongs, at most U+10FFFF).
bool isValidUtf8(std::string_view bytes);

/// `bytes` as UTF-8 text, each maximal invalid subpart replaced by U+FFFD.
std::string decodeUtf8Lossy(std::string_view bytes);
/// The same, appended to `out` (no allocation when `out` has room).
void appendUtf8Lossy(std::string& out, std::string_view bytes);

/// Canonical composition (NFC) of the lossily decoded text.
std::string nfc(std::string_view text);

/// True when the two texts are canonically equivalent (equal after NFC). Byte-equal texts are
/// equal without any normalisation work.
bool equalAsText(std::string_view a, std::string_view b);

/// Full Unicode lower-casing (U+0130 becomes "i" + U+0307; everything else by the simple
/// mapping, which equals the full one for every other character).
std::string lowercase(std::string_view text);

/// Full Unicode case folding (no locale) of the lossily decoded text, for caseless comparison.
std::string caseFold(std::string_view text);

/// The extended grapheme clusters ("characters") of the lossily decoded text, in order. A CR LF
/// pair is one cluster.
std::vector<std::string> graphemeClusters(std::string_view text);

/// Number of grapheme clusters in `text`.
size_t graphemeCount(std::string_view text);

/// Decodes one code point at `bytes[index]`, advancing `index`; invalid bytes give U+FFFD and
/// advance past the maximal invalid subpart. REQUIRES: index < bytes.size().
char32_t decodeCodePoint(std::string_view bytes, size_t& index);

/// Appends the UTF-8 form of `codePoint` to `out`.
void appendCodePoint(std::string& out, char32_t codePoint);

/// Byte offset just past the grapheme cluster ("character") that starts at `text[start]`, so a
/// caller can walk the characters of a text in place. Invalid bytes count as U+FFFD, as in
/// graphemeClusters; `start` must itself be a cluster boundary. Allocates nothing.
/// REQUIRES: start < text.size().
size_t graphemeClusterEnd(std::string_view text, size_t start);

/// Letters: general category L (Lu, Ll, Lt, Lm, Lo).
bool isLetter(char32_t codePoint);
/// Decimal digits: general category Nd (ASCII "0"-"9" and the other scripts' digits).
bool isDecimalDigit(char32_t codePoint);
/// Letters, marks and numbers: general categories L, M and N (the usual "alphanumeric" set, which
/// counts combining accents and non-decimal numbers such as Roman numerals too).
bool isAlphanumeric(char32_t codePoint);
/// Horizontal white space: general category Zs or the tab. Line breaks are not included, so
/// trimming with it keeps them.
bool isHorizontalWhitespace(char32_t codePoint);

/// White space and line breaks: general category Z (Zs, Zl, Zp), the tab, U+000A to U+000D and
/// U+0085. Trimming with it removes line terminators as well.
bool isWhitespaceOrNewline(char32_t codePoint);

}  // namespace tarvolin::platform
