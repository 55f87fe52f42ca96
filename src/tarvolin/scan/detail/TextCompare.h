#pragma once
// Comparisons of names and paths as Unicode text: canonically equivalent strings are equal,
// case matters, and prefix and suffix tests respect character (grapheme cluster) boundaries.
// Pure functions, safe from any thread. ASCII input, the common case, costs no normalisation.

#include <string>
#include <string_view>

namespace tarvolin::detail {

/// True when every byte is below 0x80.
bool isAscii(std::string_view bytes);

/// The form in which texts are compared: the bytes themselves when they are ASCII, else the NFC
/// of their lossy UTF-8 decoding (stored in `scratch`, which the result then views).
std::string_view comparableText(std::string_view bytes, std::string& scratch);

/// Suffix test on whole characters. Both arguments in comparable form; `suffix` is ASCII and
/// does not start with a line feed.
bool hasSuffixAsText(std::string_view text, std::string_view suffix);

/// Prefix test on whole characters. Both arguments in comparable form.
bool hasPrefixAsText(std::string_view text, std::string_view prefix);

}  // namespace tarvolin::detail
