#pragma once
// Preconditions that stay on in release builds: crossing one is a bug of the caller, and going on
// would corrupt data silently (a wrapped 32-bit offset, say). Prints the condition and aborts.

namespace tarvolin::platform {

[[noreturn]] void preconditionFailure(const char* condition, const char* file, int line);

}  // namespace tarvolin::platform

#define TARVOLIN_PRECONDITION(condition)                                         \
  do {                                                                           \
    if (!(condition)) [[unlikely]]                                               \
      ::tarvolin::platform::preconditionFailure(#condition, __FILE__, __LINE__); \
  } while (0)
