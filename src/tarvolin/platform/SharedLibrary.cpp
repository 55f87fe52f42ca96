#include "tarvolin/platform/SharedLibrary.h"

#include <dlfcn.h>

namespace tarvolin::platform {

void* openSharedLibrary(std::initializer_list<const char*> names, std::string& failure) {
  failure.clear();
  for (const char* name : names) {
    if (void* library = dlopen(name, RTLD_NOW | RTLD_LOCAL); library != nullptr) return library;
    if (failure.empty()) {
      const char* reason = dlerror();
      failure = reason != nullptr ? reason : name;
    }
  }
  return nullptr;
}

void* symbolAddress(void* library, const char* name) { return dlsym(library, name); }

}  // namespace tarvolin::platform
