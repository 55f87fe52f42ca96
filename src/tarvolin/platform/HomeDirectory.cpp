#include "tarvolin/platform/HomeDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace tarvolin::platform {

std::string homeDirectory() {
  std::string home;
  if (const char* env = std::getenv("HOME"); env != nullptr && env[0] != '\0') {
    home = env;
  } else if (const passwd* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir) {
    home = entry->pw_dir;
  } else {
    home = "/";
  }
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  return home;
}

}  // namespace tarvolin::platform
