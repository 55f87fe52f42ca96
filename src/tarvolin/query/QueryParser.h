#pragma once
// Turns the text a user types into a Query. Parsing never fails: text that does not form a valid
// operator becomes a plain substring term holding the token as typed, so every keystroke yields a
// usable query. Stateless; any thread (the constant sets are built once, thread-safely).
//
// The language, token by token (tokens are split at blanks outside quotes and slashes, and "|"
// separates alternatives):
//   word              substring of the name, ASCII case folded
//   "two words"       exact phrase (quotes removed)
//   /pattern/         regular expression; /usr/lib/ (slashes inside, no metacharacter) is a
//                     plain substring
//   .md               extension (2 to 9 characters, letters and digits, at least one letter)
//   ext:md,png        extensions; path:text, contains:text (or in:text), size:>10mb,
//                     size:<1kb, size:42, dm:today, dm:<7d, dm:2024-5, folder:, file:, app:
//   folder:src        a folder whose name contains "src" (likewise file: and app:)
//   !token            negation; an even number of "!" cancels out
// "ext: md" is read as "ext:md" for the value operators ext, path, contains, in, size and dm.

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/query/Query.h"

namespace tarvolin::QueryParser {

/// The query for `text`. `raw` keeps `text` exactly; invalid UTF-8 is read as U+FFFD in the
/// terms. A text of blanks and tabs only gives an empty query.
Query parse(std::string_view text);

/// The alternatives of `text` as texts: trimmed, tokenized, split at "|" tokens (empty groups
/// dropped), each group's tokens joined by one blank. "ext: md" is not joined here.
std::vector<std::string> splitTopLevelOr(std::string_view text);

/// The operator keys (before the colon, lower case): ext, path, contains, in, folder, app, file,
/// size, dm. A token with another key before its first colon is plain text.
const std::set<std::string, std::less<>>& operatorKeys();

}  // namespace tarvolin::QueryParser
