#include "tarvolin/catalog/CatalogLayout.h"

#include <algorithm>
#include <system_error>

#include "tarvolin/catalog/detail/NewUUID.h"
#include "tarvolin/platform/HomeDirectory.h"

namespace tarvolin {

std::filesystem::path CatalogLayout::defaultRoot() { return rootIn(platform::homeDirectory()); }

std::filesystem::path CatalogLayout::rootIn(const std::filesystem::path& home) {
  return home / "Library" / "Application Support" / "Tarvolin" / "Catalogs";
}

std::string CatalogLayout::newID() { return detail::newUUIDString(); }

std::filesystem::path CatalogLayout::directory(std::string_view id) const { return root / id; }

std::filesystem::path CatalogLayout::infoURL(std::string_view id) const {
  return directory(id) / infoFileName;
}

std::filesystem::path CatalogLayout::indexURL(std::string_view id) const {
  return directory(id) / indexFileName;
}

std::filesystem::path CatalogLayout::markerURL(std::string_view id) const {
  return directory(id) / markerFileName;
}

std::filesystem::path CatalogLayout::trigramURL(std::string_view id) const {
  return directory(id) / trigramFileName;
}

std::vector<std::string> CatalogLayout::catalogIDs() const {
  std::vector<std::string> ids;
  std::error_code error;
  std::filesystem::directory_iterator it(root, error);
  if (error) return ids;
  // Stepped with an error code: a listing that fails half-way keeps what it found.
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    std::string name = it->path().filename().string();
    std::error_code missing;
    if (std::filesystem::exists(root / name / infoFileName, missing)) ids.push_back(name);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

}  // namespace tarvolin
