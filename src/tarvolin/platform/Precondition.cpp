#include "tarvolin/platform/Precondition.h"

#include <cstdio>
#include <cstdlib>

namespace tarvolin::platform {

void preconditionFailure(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "precondition failed: %s (%s:%d)\n", condition, file, line);
  std::abort();
}

}  // namespace tarvolin::platform
