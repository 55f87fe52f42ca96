#include "tarvolin/platform/CpuFeatures.h"

namespace tarvolin::platform {

bool hasAvx2() {
  static const bool available = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
  }();
  return available;
}

}  // namespace tarvolin::platform
