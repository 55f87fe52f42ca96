#pragma once
// Where catalogs live: one folder per catalog, named by its id, under a catalogs root
// ("~/Library/Application Support/Tarvolin/Catalogs" by default), each holding "info.json",
// "index.bin", the marker "index.bin.inprogress" while an index is written, and the trigram side
// file "trigram.cache". A folder without "info.json" (a first build that never finished) is not
// a catalog. A plain value; any thread.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin {

struct CatalogLayout {
  static constexpr std::string_view infoFileName = "info.json";
  static constexpr std::string_view indexFileName = "index.bin";
  static constexpr std::string_view markerFileName = "index.bin.inprogress";
  static constexpr std::string_view trigramFileName = "trigram.cache";

  std::filesystem::path root;  // the folder holding every catalog

  /// The home folder + "Library/Application Support/Tarvolin/Catalogs".
  static std::filesystem::path defaultRoot();
  /// The default root below another home folder.
  static std::filesystem::path rootIn(const std::filesystem::path& home);

  /// A fresh catalog id: a random UUID string, upper case with dashes.
  static std::string newID();

  /// root / id. The id is appended as given: callers take ids from catalogIDs() or make them.
  std::filesystem::path directory(std::string_view id) const;
  std::filesystem::path infoURL(std::string_view id) const;
  std::filesystem::path indexURL(std::string_view id) const;
  std::filesystem::path markerURL(std::string_view id) const;
  std::filesystem::path trigramURL(std::string_view id) const;

  /// The names of the folders in root that hold an "info.json", ascending; empty when root
  /// cannot be listed. Never throws for file-system reasons.
  std::vector<std::string> catalogIDs() const;

  friend bool operator==(const CatalogLayout&, const CatalogLayout&) = default;
};

}  // namespace tarvolin
