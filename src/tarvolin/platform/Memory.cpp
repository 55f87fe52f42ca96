#include "tarvolin/platform/Memory.h"

#include <malloc.h>

namespace tarvolin::platform {

void releaseFreeMemory() { ::malloc_trim(0); }

}  // namespace tarvolin::platform
