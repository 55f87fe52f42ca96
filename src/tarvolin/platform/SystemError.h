#pragma once
// The one place where errno becomes an exception. Every file-system failure in the library is a
// std::system_error in the generic category whose code is the errno value, so callers and tests
// can compare `error.code() == std::errc::...`.

#include <string>
#include <system_error>

namespace tarvolin::platform {

/// Throws std::system_error for `errorNumber` with `what` (usually the call and the path).
[[noreturn]] void throwSystemError(int errorNumber, const std::string& what);

/// Throws std::system_error for the current errno.
[[noreturn]] void throwErrno(const std::string& what);

}  // namespace tarvolin::platform
