#pragma once
// The writers the reliability tests put under stress, each able to write two versions of its
// file, and the loader that tells which version a file at a target is. Shared by the writer probe
// (a process of its own, killed while it writes) and the tests that run writers in-process (a
// full disk, the order of the system calls of a replacement).
//
// Kinds: "index", "trigrams", "content", "catalog-info", "catalog-index" and "archive". A
// version is a number the loaded file shows: records of an index, documents of a content index
// (times 100), the file count of a catalog description or archive, the files found below a
// catalogued root. The catalog kinds need folders made by `prepare` in a work folder first (the
// trees they scan, the catalogs they export).

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tarvolin/catalog/CatalogArchive.h"
#include "tarvolin/catalog/CatalogInfo.h"
#include "tarvolin/catalog/CatalogScanner.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/query/TrigramIndex.h"
#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin::probe {

inline constexpr std::string_view kinds[] = {"index",        "trigrams",      "content",
                                             "catalog-info", "catalog-index", "archive"};

/// The two versions of a kind: (A, B). A is the smaller.
inline std::pair<uint32_t, uint32_t> versionsOf(std::string_view kind) {
  if (kind == "catalog-index" || kind == "archive") return {300, 600};
  return {30000, 60000};
}

inline std::string nameOf(uint32_t i) { return "file-number-" + std::to_string(i) + ".txt"; }

inline IndexBuilder builderOf(uint32_t count) {
  IndexBuilder builder(count, count * 16);
  uint32_t folder =
      builder.addEntry("folder", FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  for (uint32_t i = 1; i < count; ++i) {
    builder.addEntry(nameOf(i), folder, RecordFlags{}, 0);
  }
  return builder;
}

inline ContentIndex contentOf(uint32_t version) {
  ContentIndex index;
  std::string text(200, 'x');
  for (uint32_t i = 0; i < version / 100; ++i) {
    index.upsert("/documents/" + nameOf(i), 1000.0 + i, text + std::to_string(i));
  }
  return index;
}

inline std::filesystem::path treeOf(const std::filesystem::path& work, uint32_t version) {
  return work / ("tree-" + std::to_string(version));
}
inline std::filesystem::path catalogOf(const std::filesystem::path& work, uint32_t version) {
  return work / ("catalog-" + std::to_string(version));
}

/// Scans the tree of `version` into a catalog index at `target`; returns its description.
inline CatalogInfo scanCatalog(const std::filesystem::path& work, uint32_t version,
                               const std::filesystem::path& target) {
  std::string root = treeOf(work, version).string();
  CatalogScanner::Outcome outcome = CatalogScanner::scan(
      root, "UUID-PROBE", target, ScanPolicy{{}}, AttributeFiller::Appetite::watching,
      [] { return true; }, {}, "/nonexistent");
  return CatalogInfo{.id = "PROBE-" + std::to_string(version),
                     .kind = CatalogInfo::Kind::folder,
                     .volumeUUID = "UUID-PROBE",
                     .relativeRoot = root.substr(1),
                     .name = "probe",
                     .lastMountPath = "/",
                     .fileCount = outcome.fileCount,
                     .folderCount = outcome.folderCount,
                     .totalBytes = outcome.totalBytes,
                     .rootRecordID = outcome.rootRecordID};
}

/// Makes what the catalog kinds read: a tree of A files and one of B files, and a catalog
/// folder of each. Nothing is made again that is already there.
inline void prepare(const std::filesystem::path& work) {
  for (uint32_t version : {300u, 600u}) {
    std::filesystem::path tree = treeOf(work, version);
    if (!std::filesystem::exists(tree)) {
      std::filesystem::create_directories(tree / "sub");
      for (uint32_t i = 0; i < version; ++i) {
        std::ofstream(tree / (i % 2 == 0 ? "sub" : ".") / nameOf(i)) << i;
      }
    }
    std::filesystem::path catalog = catalogOf(work, version);
    if (!std::filesystem::exists(catalog / "info.json")) {
      scanCatalog(work, version, catalog / "index.bin").write(catalog / "info.json");
    }
  }
}

/// Writes `version` of `kind` to `target`. Throws what the writer throws.
inline void writeVersion(std::string_view kind, uint32_t version,
                         const std::filesystem::path& target, const std::filesystem::path& work) {
  if (kind == "index") {
    IndexWriter::write(builderOf(version), {{"probe", "/", 0, true}}, target);
  } else if (kind == "trigrams") {
    // The store checksum a side file is tied to: the version stands in for it.
    TrigramIndex index = TrigramIndex::build(
        [](uint32_t i) {
          static thread_local std::string name;
          name = nameOf(i);
          return std::string_view(name);
        },
        version, [] { return false; });
    index.write(target, version);
  } else if (kind == "content") {
    contentOf(version).write(target);
  } else if (kind == "catalog-info") {
    CatalogInfo info{.id = "PROBE", .name = "probe", .fileCount = version};
    info.write(target);
  } else if (kind == "catalog-index") {
    scanCatalog(work, version, target);
  } else if (kind == "archive") {
    CatalogArchive::exportCatalog(catalogOf(work, version), target);
  } else {
    throw std::invalid_argument("unknown kind " + std::string(kind));
  }
}

/// The version found at `target`, or -1 when it does not load or is neither version.
inline int64_t loadedVersion(std::string_view kind, const std::filesystem::path& target) {
  auto [a, b] = versionsOf(kind);
  try {
    if (kind == "index" || kind == "catalog-index") {
      auto outcome = loadIndex(target);
      const auto* store = std::get_if<std::shared_ptr<const IndexStore>>(&outcome);
      if (store == nullptr) return -1;
      if (kind == "index") return (*store)->count();
      int64_t files = 0;
      for (const FileRecord& record : (*store)->records()) {
        files += !record.flags.contains(RecordFlags::isDirectory);
      }
      return files;
    }
    if (kind == "trigrams") {
      for (uint32_t version : {a, b}) {
        if (TrigramIndex::load(target, version)) return version;
      }
      return -1;
    }
    if (kind == "content") {
      return static_cast<int64_t>(ContentIndex::read(target).documents().size()) * 100;
    }
    if (kind == "catalog-info") return CatalogInfo::read(target).fileCount;
    if (kind == "archive") {
      CatalogArchive::Unpacked unpacked = CatalogArchive::unpack(target);
      std::filesystem::remove_all(unpacked.directory);
      return unpacked.info.fileCount;
    }
  } catch (const std::exception&) {
    return -1;
  }
  return -1;
}

}  // namespace tarvolin::probe
