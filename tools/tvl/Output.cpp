#include "Output.h"

#include <cstdio>

namespace tvl::output {

namespace {
// Large enough that a normal run prints with a single write(2).
char stdoutBuffer[1 << 16];
[[maybe_unused]] const bool buffered =
    std::setvbuf(stdout, stdoutBuffer, _IOFBF, sizeof stdoutBuffer) == 0;
}  // namespace

void line(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

void format(const char* pattern, ...) {
  va_list arguments;
  va_start(arguments, pattern);
  std::vfprintf(stdout, pattern, arguments);
  va_end(arguments);
}

void errorLine(std::string_view text) {
  std::fflush(stdout);
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

std::string printable(std::string_view text) {
  std::string shown;
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\%03o", byte);
      shown += escape;
    } else {
      shown.push_back(c);
    }
  }
  return shown;
}

void flush() { std::fflush(stdout); }

}  // namespace tvl::output
