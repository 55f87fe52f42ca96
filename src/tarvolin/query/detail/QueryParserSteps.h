#pragma once
// The steps of QueryParser::parse, in the order parse uses them; exposed for tests only. Input
// texts are valid UTF-8 (parse repairs its input first). Stateless; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarvolin/query/Query.h"

namespace tarvolin::QueryParser::detail {

/// `text` without leading and trailing tabs and Unicode space separators (not line breaks).
std::string_view trimmingWhitespace(std::string_view text);

/// Splits at blanks (U+0020) and "|" outside double quotes and outside a /regex/ that starts a
/// token; "|" becomes a token of its own. Quotes and slashes stay in the tokens; unbalanced ones
/// run to the end of the text.
std::vector<std::string> tokenize(std::string_view text);

/// Joins a token "key:" of a value operator with the token after it (unless that is "|").
std::vector<std::string> joinDanglingOperators(std::vector<std::string> tokens);

/// Splits the tokens at "|" tokens, dropping empty groups.
std::vector<std::vector<std::string>> splitOnPipes(const std::vector<std::string>& tokens);

/// The number of leading "!" and the rest of the token.
std::pair<size_t, std::string_view> strippingNegations(std::string_view token);

/// The terms of one token: negated type operators with values first, then the type operators,
/// then parseToken. Empty when the token means nothing (an empty quoted phrase).
std::vector<Term> parseTerms(std::string_view token);
/// parseTerms appending to `terms`, which saves a list per token.
void appendTerms(std::string_view token, std::vector<Term>& terms);

/// "folder:", "app:" or "file:" (any case) with an optional value: the type term, followed by
/// the value's term when there is a value. Nothing for other tokens.
std::optional<std::vector<Term>> typeOperatorWithValue(std::string_view token);

/// The term of one token by the first matching rule, or nothing (empty token, empty phrase).
std::optional<Term> parseToken(std::string_view token);

/// Whether a token of at least two characters that starts and ends with "/" is a pattern: its
/// inner text has a regex metacharacter or no "/" at all.
bool looksLikeRegex(std::string_view token);

/// "Md,.PNG" gives "md,png"; nothing when no extension remains.
std::optional<std::string> parseExtensions(std::string_view value);

/// ">10mb", "<1kb", "42": units gb, mb, kb, b in powers of 1024; whole numbers only; nothing on
/// 64-bit overflow or any other malformed text.
std::optional<SizeComparison> parseSize(std::string_view value);

/// "today", "<7d", "2024-5": nothing for anything else.
std::optional<DateConstraint> parseDate(std::string_view value);

/// Decimal numbers as the size and date values accept them: ASCII digits with an optional "+"
/// (unsigned: a "-" only before zeros); nothing when empty, malformed or out of range.
std::optional<uint64_t> parseUnsigned(std::string_view text);
std::optional<int64_t> parseSigned(std::string_view text);

}  // namespace tarvolin::QueryParser::detail
