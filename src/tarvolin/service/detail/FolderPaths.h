#pragma once
// Absolute folder paths as text, for the service's updaters: the pieces of a path, its parent,
// a child's path, and whether one path lies at or below another. No file-system access.

#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::service_detail {

/// The components of an absolute path, empty ones skipped ("/a//b/" gives "a", "b").
inline std::vector<std::string_view> componentsOf(std::string_view path) {
  std::vector<std::string_view> parts;
  size_t at = 0;
  while (at < path.size()) {
    size_t end = path.find('/', at);
    if (end == std::string_view::npos) end = path.size();
    if (end > at) parts.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

/// `folder` + "/" + `name`, without doubling a trailing "/".
inline std::string joinPath(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (path.empty() || path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

/// The folder holding `path` ("/" for a top-level path or one without a "/").
inline std::string_view parentPath(std::string_view path) {
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

/// True when `path` is `folder` or lies below it ("/a/bc" is not below "/a/b").
inline bool isBelowOrAt(std::string_view path, std::string_view folder) {
  if (folder == "/") return true;
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace tarvolin::service_detail
