#include "tarvolin/platform/SystemError.h"

#include <cerrno>

namespace tarvolin::platform {

void throwSystemError(int errorNumber, const std::string& what) {
  throw std::system_error(errorNumber, std::generic_category(), what);
}

void throwErrno(const std::string& what) { throwSystemError(errno, what); }

}  // namespace tarvolin::platform
