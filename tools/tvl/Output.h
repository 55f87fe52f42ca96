#pragma once
// Every byte the tool prints goes through here: standard output for reports, standard error
// for the few messages that must not mix with results. Standard output is fully buffered and
// flushed at exit, so a search printing 20 paths costs one write.

#include <cstdarg>
#include <string>
#include <string_view>

namespace tvl::output {

/// Writes `text` and a newline to standard output.
void line(std::string_view text);
/// printf-style formatting to standard output (no newline added).
[[gnu::format(printf, 1, 2)]] void format(const char* pattern, ...);
/// Writes `text` and a newline to standard error (raw UTF-8).
void errorLine(std::string_view text);
/// `text` with control characters written as the mount table writes them ("\012" for a
/// newline), so that a path always stays on one line.
std::string printable(std::string_view text);
/// Flushes standard output; called before exiting.
void flush();

}  // namespace tvl::output
