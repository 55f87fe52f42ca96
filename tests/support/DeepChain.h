#pragma once
// Chains of nested folders whose whole path is longer than the kernel takes in one call
// (PATH_MAX), made and removed with *at calls relative to each level, since neither a single
// mkdir nor std::filesystem can reach their bottom.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace tarvolin::testing {

/// Makes `depth` nested folders named `name` below `base`, with an empty file "leaf" at the
/// bottom. Returns the bottom folder's path.
inline std::string makeDeepChain(const std::string& base, const std::string& name, int depth) {
  int fd = ::open(base.c_str(), O_RDONLY | O_DIRECTORY);
  std::string path = base;
  for (int i = 0; i < depth && fd >= 0; ++i) {
    ::mkdirat(fd, name.c_str(), 0755);
    int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    ::close(fd);
    fd = next;
    path += "/" + name;
  }
  if (fd >= 0) {
    ::close(::openat(fd, "leaf", O_CREAT | O_WRONLY, 0644));
    ::close(fd);
  }
  return path;
}

/// Removes what makeDeepChain made.
inline void removeDeepChain(const std::string& base, const std::string& name, int depth) {
  std::vector<int> fds{::open(base.c_str(), O_RDONLY | O_DIRECTORY)};
  for (int i = 0; i < depth && fds.back() >= 0; ++i) {
    fds.push_back(::openat(fds.back(), name.c_str(), O_RDONLY | O_DIRECTORY));
  }
  if (fds.back() >= 0) ::unlinkat(fds.back(), "leaf", 0);
  for (size_t i = fds.size() - 1; i > 0; --i) {
    if (fds[i] >= 0) ::close(fds[i]);
    if (fds[i - 1] >= 0) ::unlinkat(fds[i - 1], name.c_str(), AT_REMOVEDIR);
  }
  if (fds[0] >= 0) ::close(fds[0]);
}

}  // namespace tarvolin::testing
