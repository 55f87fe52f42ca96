#pragma once
// Finds, in one left-to-right pass over a regular expression, the longest run of literal
// characters that every match must contain. The matcher scans names for that run first (a cheap
// byte search, helped by the trigram blocks) and runs the expression only where it occurs.
// Stateless; any thread.
//
// The contract is the prefilter's: the run, compared with ASCII case folding, is a substring of
// every text the expression matches that holds none of the run's partners (below), so skipping
// names without either never loses a match. Hence the pass is conservative and leaves out whatever
// it cannot vouch for:
//   - a top-level alternative ("a|b"), or extended mode set inline ("(?x)"), gives no run;
//   - an atom made optional by "?", "*", "{0,n}" or "{,n}" is left out; "+" and "{n}" keep one
//     copy of their atom and end the run, and the braces of a counted repetition are skipped
//     ("a{2}" does not yield "a{2}", which "aa" does not contain);
//   - classes, groups, escapes with letters or digits (\d, \b, \x41, \p{L}, \k<name>, \1)
//     end the run and are skipped whole, quoted text (\Q...\E) counts as literal;
//   - a character that joins an ASCII metacharacter with a combining mark gives no run, since
//     the expression engine reads code points.
// A CR LF pair is one character and contributes both bytes.
//
// Names are matched caselessly with Unicode rules, under which a few ASCII letters stand for
// more than their two ASCII forms: "k" also matches U+212A (Kelvin sign) and "s" U+017F (long
// s). A name spelled with those matches without holding the run's ASCII bytes. The run keeps
// such letters all the same ("kelvin" yields "kelvin"), and `partners` names the characters that
// stand in for them: every text the expression matches holds the run, or one of its partners.
// Partners are rare in names, so a second look for them costs little, while a run cut at every
// "s" and "k" ("json" down to "on") would let through a large share of all names.

#include <bitset>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::RegexLiteral {

/// The longest required run of `pattern`, lower-cased ASCII (other bytes unchanged), at least 2
/// bytes long; among runs of equal length the first. Nothing when there is no such run.
std::optional<std::string> required(std::string_view pattern);

/// The UTF-8 spellings of the characters beyond ASCII that caseless matching takes for a byte of
/// `run` (U+212A for "k", U+017F for "s"), each once, in the order their bytes first occur in
/// the run. Empty for a run without such bytes.
std::vector<std::string> partners(std::string_view run);

/// The ASCII bytes whose caseless class, as the expression engine compiles names' expressions,
/// holds a character beyond ASCII (bit b for byte b). Asked of the engine, with the partners,
/// once per process.
const std::bitset<128>& caselessBeyondAscii();

/// True when `pattern` has a "|" outside a class, escape, comment or quoted text (inside a group
/// counts too).
bool containsAlternation(std::string_view pattern);

/// True when the atom just before `characters[index]` may be absent: the character at `index`
/// is "?" or "*", or a "{" followed by no digits or by zeros only ("{0,3}", "{,2}"). False past
/// the end, for "+" and for "{2}", "{1,}".
bool isQuantified(std::span<const std::string_view> characters, size_t index);

}  // namespace tarvolin::RegexLiteral
