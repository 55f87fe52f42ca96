#include "tarvolin/platform/HomeDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace tarvolin::platform {

namespace {

// $HOME, else the password database's entry, else "/".
const char* homeSource() {
  if (const char* env = std::getenv("HOME"); env != nullptr && env[0] != '\0') return env;
  if (const passwd* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir) {
    return entry->pw_dir;
  }
  return "/";
}

}  // namespace

std::string homeDirectory() {
  // Constructed, not assigned: GCC 12 at -O3 takes an assignment from a C string for an
  // overlapping copy (-Wrestrict).
  std::string home(homeSource());
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  return home;
}

}  // namespace tarvolin::platform
