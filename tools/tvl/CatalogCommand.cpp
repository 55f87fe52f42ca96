// tvl catalog: saved indexes of drives and folders that are not always attached. Subcommands add,
// list, update, remove, export, import, efu and search; each takes --help and --json.
//
// A build interrupted with SIGINT leaves the catalogs as they were: the signal only sets a flag
// that the build's continuation callback reads, and nothing is written once the flag is seen
// (a new catalog's folder is removed; an existing index is replaced only by a finished one).

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "Progress.h"
#include "tarvolin/catalog/CatalogArchive.h"
#include "tarvolin/catalog/CatalogError.h"
#include "tarvolin/catalog/CatalogInfo.h"
#include "tarvolin/catalog/CatalogLayout.h"
#include "tarvolin/catalog/CatalogScanner.h"
#include "tarvolin/catalog/EFUImporter.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/Clock.h"
#include "tarvolin/platform/FileDescriptor.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/query/TrigramIndex.h"
#include "tarvolin/scan/VolumeEnumerator.h"

namespace tvl {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tarvolin::CatalogInfo;
using tarvolin::CatalogLayout;

constexpr int kInterruptedStatus = 130;
constexpr int64_t kShownResults = 20;

constexpr OptionSyntax kJsonOption{"json", 0, "", "Print the result as JSON."};
constexpr OptionSyntax kNameOptions[] = {
    {"name", 0, "NAME", "Display name of the catalog (default: the folder's name)."}, kJsonOption};
constexpr OptionSyntax kJsonOnly[] = {kJsonOption};

constexpr CommandSyntax kAddSpec{"tvl catalog add PATH [--name NAME] [--json]",
                                 "Catalogs the folder or drive at PATH under a new id: its names, "
                                 "sizes and dates,\nsearchable with `tvl catalog search` while it "
                                 "is detached.",
                                 kNameOptions, 1, 1};
constexpr CommandSyntax kListSpec{"tvl catalog list [--json]",
                                  "Lists every catalog with its kind, name, root, counts, size, "
                                  "when it was catalogued\nand whether its volume is mounted now.",
                                  kJsonOnly, 0, 0};
constexpr CommandSyntax kUpdateSpec{"tvl catalog update ID [--json]",
                                    "Scans the catalogued folder or drive again and replaces the "
                                    "catalog's index.",
                                    kJsonOnly, 1, 1};
constexpr CommandSyntax kRemoveSpec{"tvl catalog remove ID [--json]",
                                    "Deletes the catalog and its files.", kJsonOnly, 1, 1};
constexpr CommandSyntax kExportSpec{"tvl catalog export ID FILE [--json]",
                                    "Writes the catalog as one archive file (extension "
                                    ".tarvolincatalog).",
                                    kJsonOnly, 2, 2};
constexpr CommandSyntax kImportSpec{"tvl catalog import FILE [--json]",
                                    "Checks a catalog archive and adds it as a new catalog.",
                                    kJsonOnly, 1, 1};
constexpr CommandSyntax kEfuSpec{"tvl catalog efu FILE [--name NAME] [--json]",
                                 "Imports an EFU file list as a catalog of kind efu.", kNameOptions,
                                 1, 1};
constexpr CommandSyntax kSearchSpec{"tvl catalog search QUERY [--json]",
                                    "Searches every catalog with the query language of `tvl "
                                    "search`; best results first,\neach shown with its catalog's "
                                    "name and marked when the catalog is offline.",
                                    kJsonOnly, 1};

constexpr std::string_view kOverview =
    "usage: tvl catalog <subcommand> ...\n"
    "\n"
    "  add PATH [--name NAME]   Catalog a folder or drive\n"
    "  list                     List the catalogs\n"
    "  update ID                Scan a catalog's folder or drive again\n"
    "  remove ID                Delete a catalog\n"
    "  export ID FILE           Write a catalog as one .tarvolincatalog file\n"
    "  import FILE              Add a catalog from a .tarvolincatalog file\n"
    "  efu FILE [--name NAME]   Import an EFU file list as a catalog\n"
    "  search QUERY             Search every catalog\n"
    "\n"
    "Each takes --help and --json.";

// ---- Interruption and progress ---------------------------------------------------------------

volatile std::sig_atomic_t interruptRequested = 0;

extern "C" void noteInterrupt(int) { interruptRequested = 1; }

// Catches SIGINT for its lifetime so a build can stop at its next check instead of dying halfway.
class InterruptGuard {
 public:
  InterruptGuard() : previous_(std::signal(SIGINT, noteInterrupt)) {}
  ~InterruptGuard() { std::signal(SIGINT, previous_); }
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
  bool interrupted() const { return interruptRequested != 0; }

 private:
  void (*previous_)(int);
};

// ---- Volumes ---------------------------------------------------------------------------------

// A mounted volume as the catalogs see it.
struct MountedPlace {
  std::string uuid;
  std::string mountPath;
  std::optional<int64_t> capacityBytes;
  std::optional<int64_t> freeBytes;
};

// Where a folder lies: on which volume, and below its mount point.
struct VolumePlace {
  bool isMountPoint = false;
  std::string uuid;
  std::string mountPath = "/";
  std::string relativeRoot;
  std::optional<int64_t> capacityBytes;
  std::optional<int64_t> freeBytes;
};

// The volumes mounted now. Their roots are not listed (that would wake sleeping disks for
// nothing the catalogs need); free space is asked of each mount point.
std::vector<MountedPlace> mountedPlaces() {
  tarvolin::VolumeEnumerator::setProbesVolumeRoots(false);
  std::vector<MountedPlace> places;
  for (const tarvolin::MountedVolume& volume : tarvolin::VolumeEnumerator::mountedVolumes()) {
    MountedPlace place{volume.uuid, volume.mountPath, volume.totalBytes, std::nullopt};
    std::error_code error;
    fs::space_info space = fs::space(volume.mountPath, error);
    if (!error) place.freeBytes = static_cast<int64_t>(space.available);
    places.push_back(std::move(place));
  }
  return places;
}

// The volume holding `root` is the one with the longest mount path that contains it.
VolumePlace placeOf(const std::string& root, const std::vector<MountedPlace>& mounted) {
  VolumePlace place;
  place.relativeRoot = root.size() > 1 ? root.substr(1) : "";
  size_t best = 0;
  for (const MountedPlace& volume : mounted) {
    const std::string& mount = volume.mountPath;
    bool contains =
        mount == "/" || root == mount ||
        (root.starts_with(mount) && root.size() > mount.size() && root[mount.size()] == '/');
    if (!contains || mount.size() < best) continue;
    best = mount.size();
    place.isMountPoint = root == mount;
    place.uuid = volume.uuid;
    place.mountPath = mount;
    place.relativeRoot = root == mount  ? ""
                         : mount == "/" ? root.substr(1)
                                        : root.substr(mount.size() + 1);
    place.capacityBytes = volume.capacityBytes;
    place.freeBytes = volume.freeBytes;
  }
  return place;
}

// The catalog's volume among those mounted now, matched by UUID (a path can be reused).
std::optional<MountedPlace> findMounted(const CatalogInfo& info,
                                        const std::vector<MountedPlace>& mounted) {
  if (info.kind == CatalogInfo::Kind::efu || info.volumeUUID.empty()) return std::nullopt;
  for (const MountedPlace& volume : mounted) {
    if (volume.uuid == info.volumeUUID) return volume;
  }
  return std::nullopt;
}

bool isMounted(const CatalogInfo& info, const std::vector<MountedPlace>& mounted) {
  return findMounted(info, mounted).has_value();
}

// ---- Shared helpers --------------------------------------------------------------------------

[[noreturn]] void fail(std::string_view message, int status = 1) {
  output::errorLine("tvl: " + std::string(message));
  throw ExitRequest{status};
}

CatalogLayout layoutFor(const Context& context) {
  return CatalogLayout{CatalogLayout::rootIn(context.home)};
}

// The absolute, normalised form of a path typed by the user, without a trailing "/".
std::string absolutePath(const std::string& typed) {
  std::error_code error;
  fs::path absolute = fs::absolute(typed, error);
  std::string text = (error ? fs::path(typed) : absolute).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

json infoJson(const CatalogInfo& info) { return json::parse(info.encode()); }

std::string dateText(const std::optional<CatalogInfo::Date>& date) {
  if (!date) return "never";
  return infoJson(CatalogInfo{.lastCatalogued = date})["lastCatalogued"].get<std::string>();
}

// An existing catalog's description, or the message for why it cannot be used.
CatalogInfo readCatalog(const CatalogLayout& layout, const std::string& id) {
  std::vector<std::string> ids = layout.catalogIDs();
  if (!std::binary_search(ids.begin(), ids.end(), id)) fail("no catalog with id " + id);
  try {
    return CatalogInfo::read(layout.infoURL(id));
  } catch (const tarvolin::CatalogError& error) {
    if (error.kind() == tarvolin::CatalogError::Kind::unsupportedFormat) {
      fail("catalog " + id + " was written by a newer version (format v" +
           std::to_string(error.found()) + "); this build reads v" +
           std::to_string(CatalogInfo::currentFormatVersion));
    }
    fail("the description of catalog " + id + " cannot be read (" + layout.infoURL(id).string() +
         ")");
  }
}

// Writes the trigram side file of a catalog's index; a failure only costs search speed.
void writeTrigrams(const CatalogLayout& layout, const std::string& id) {
  tarvolin::IndexLoadOutcome loaded = tarvolin::loadIndex(layout.indexURL(id));
  auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&loaded);
  if (store == nullptr) return;
  tarvolin::TrigramIndex trigrams = tarvolin::TrigramIndex::build(**store, [] { return false; });
  try {
    trigrams.write(layout.trigramURL(id), (*store)->header().checksum);
  } catch (const std::system_error&) {
  }
}

std::string countsText(const CatalogInfo& info) {
  return std::to_string(info.fileCount) + " files, " + std::to_string(info.folderCount) +
         " folders, " + std::to_string(info.totalBytes) + " bytes";
}

void printInfo(const ParsedOptions& options, std::string_view verb, const CatalogInfo& info) {
  if (options.json()) {
    output::line(jsonText(infoJson(info)));
  } else {
    output::line(std::string(verb) + " catalog " + info.id + " \"" + info.name +
                 "\": " + countsText(info));
  }
}

// ---- Building ----------------------------------------------------------------------------------

// Scans `root` into the catalog's index and its trigram side file; nothing when interrupted
// (then nothing was written).
std::optional<tarvolin::CatalogScanner::Outcome> buildIndex(const Context& context,
                                                            const CatalogLayout& layout,
                                                            const std::string& id,
                                                            const std::string& root,
                                                            const std::string& volumeUUID) {
  InterruptGuard interrupt;
  Progress progress("entries");
  std::error_code ignored;
  {
    // Present while the index is written, so a reader can tell a build is under way.
    fs::create_directories(layout.directory(id));
    std::FILE* marker = std::fopen(layout.markerURL(id).c_str(), "w");
    if (marker != nullptr) std::fclose(marker);
  }
  tarvolin::CatalogScanner::Outcome outcome;
  try {
    outcome = tarvolin::CatalogScanner::scan(
        root, volumeUUID, layout.indexURL(id),
        tarvolin::ScanPolicy{tarvolin::ScanPolicy::defaultExclusions()},
        tarvolin::AttributeFiller::Appetite::watching,
        [&interrupt] { return !interrupt.interrupted(); }, progress.callback(), context.home,
        layout.trigramURL(id));
  } catch (...) {
    fs::remove(layout.markerURL(id), ignored);
    throw;
  }
  progress.finish();
  fs::remove(layout.markerURL(id), ignored);
  if (outcome.cancelled) return std::nullopt;
  return outcome;
}

void applyOutcome(CatalogInfo& info, const tarvolin::CatalogScanner::Outcome& outcome) {
  info.fileCount = outcome.fileCount;
  info.folderCount = outcome.folderCount;
  info.totalBytes = outcome.totalBytes;
  info.rootRecordID = outcome.rootRecordID;
  auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  info.lastCatalogued = now;
  info.lastConnected = now;
}

// ---- Subcommands -------------------------------------------------------------------------------

int add(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kAddSpec, words);
  std::string root = absolutePath(options.operands().front());
  std::error_code error;
  if (!fs::is_directory(root, error)) fail(root + " is not a folder");

  CatalogLayout layout = layoutFor(context);
  CatalogInfo info;
  info.id = CatalogLayout::newID();
  VolumePlace place = placeOf(root, mountedPlaces());
  info.kind = place.isMountPoint ? CatalogInfo::Kind::drive : CatalogInfo::Kind::folder;
  info.volumeUUID = place.uuid;
  info.lastMountPath = place.mountPath;
  info.relativeRoot = place.relativeRoot;
  info.capacityBytes = place.capacityBytes;
  info.freeBytes = place.freeBytes;
  std::string fallbackName = fs::path(root).filename().string();
  info.name = options.value("name").value_or(fallbackName.empty() ? root : fallbackName);

  if (!options.json()) output::line("Cataloguing " + root + "\u2026");
  output::flush();
  std::optional<tarvolin::CatalogScanner::Outcome> outcome;
  try {
    outcome = buildIndex(context, layout, info.id, root, info.volumeUUID);
    if (!outcome) {
      fs::remove_all(layout.directory(info.id), error);
      fail("interrupted; no catalog was added", kInterruptedStatus);
    }
    applyOutcome(info, *outcome);
    info.write(layout.infoURL(info.id));  // last: the folder becomes a catalog now
  } catch (const std::system_error& failure) {
    fs::remove_all(layout.directory(info.id), error);
    fail("could not write the catalog: " + std::string(failure.what()));
  }
  printInfo(options, "Added", info);
  return 0;
}

int list(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kListSpec, words);
  CatalogLayout layout = layoutFor(context);
  std::vector<MountedPlace> mounted = mountedPlaces();
  json all = json::array();
  for (const std::string& id : layout.catalogIDs()) {
    CatalogInfo info;
    try {
      info = CatalogInfo::read(layout.infoURL(id));
    } catch (const tarvolin::CatalogError&) {
      if (options.json()) {
        all.push_back({{"id", id}, {"unreadable", true}});
      } else {
        output::line(id + "  (description cannot be read)");
      }
      continue;
    }
    bool online = isMounted(info, mounted);
    if (options.json()) {
      json entry = infoJson(info);
      entry["rootPath"] = info.rootPath();
      entry["mounted"] = online;
      all.push_back(std::move(entry));
      continue;
    }
    output::line(id + "  " + std::string(CatalogInfo::kindName(info.kind)) + "  " + info.name);
    output::line("    " + info.rootPath() + (online ? "  (mounted)" : "  (offline)"));
    output::line("    " + countsText(info) + ", catalogued " + dateText(info.lastCatalogued));
  }
  if (options.json()) output::line(jsonText(all));
  return 0;
}

int update(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kUpdateSpec, words);
  CatalogLayout layout = layoutFor(context);
  const std::string& id = options.operands().front();
  CatalogInfo info = readCatalog(layout, id);
  if (info.kind == CatalogInfo::Kind::efu) {
    fail("catalog " + id + " was imported from a file list and cannot be scanned again");
  }
  // Where the volume is now: its mount point may have moved since the catalog was made.
  if (std::optional<MountedPlace> now = findMounted(info, mountedPlaces())) {
    info.lastMountPath = now->mountPath;
    if (now->capacityBytes) info.capacityBytes = now->capacityBytes;
    if (now->freeBytes) info.freeBytes = now->freeBytes;
  }
  std::string root = info.rootPath();
  std::error_code error;
  if (!fs::is_directory(root, error))
    fail("the folder of catalog " + id + " is not available: " + root);

  if (!options.json()) output::line("Updating " + info.name + " (" + root + ")\u2026");
  output::flush();
  try {
    std::optional<tarvolin::CatalogScanner::Outcome> outcome =
        buildIndex(context, layout, id, root, info.volumeUUID);
    if (!outcome) fail("interrupted; catalog " + id + " is unchanged", kInterruptedStatus);
    applyOutcome(info, *outcome);
    info.write(layout.infoURL(id));
  } catch (const std::system_error& failure) {
    fail("could not write catalog " + id + ": " + std::string(failure.what()));
  }
  printInfo(options, "Updated", info);
  return 0;
}

int remove(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kRemoveSpec, words);
  CatalogLayout layout = layoutFor(context);
  const std::string& id = options.operands().front();
  std::vector<std::string> ids = layout.catalogIDs();
  if (!std::binary_search(ids.begin(), ids.end(), id)) fail("no catalog with id " + id);
  std::error_code error;
  // The description goes first: a removal cut short leaves a folder that is no longer a catalog.
  fs::remove(layout.infoURL(id), error);
  if (!error) fs::remove_all(layout.directory(id), error);
  if (error) fail("could not remove catalog " + id + ": " + error.message());
  if (options.json()) {
    output::line(jsonText({{"removed", id}}));
  } else {
    output::line("Removed catalog " + id);
  }
  return 0;
}

int exportCatalog(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kExportSpec, words);
  CatalogLayout layout = layoutFor(context);
  const std::string& id = options.operands()[0];
  std::string file = absolutePath(options.operands()[1]);
  CatalogInfo info = readCatalog(layout, id);
  try {
    tarvolin::CatalogArchive::exportCatalog(layout.directory(id), file);
  } catch (const tarvolin::CatalogArchive::ArchiveError& error) {
    fail("could not write " + file + ": " + error.message());
  } catch (const std::system_error& error) {
    fail("could not write " + file + ": " + std::string(error.what()));
  }
  if (options.json()) {
    output::line(jsonText({{"exported", id}, {"file", file}}));
  } else {
    output::line("Exported catalog " + id + " \"" + info.name + "\" to " + file);
  }
  return 0;
}

[[noreturn]] void failImport(const std::string& file,
                             const tarvolin::CatalogArchive::ArchiveError& error) {
  using Kind = tarvolin::CatalogArchive::ArchiveError::Kind;
  switch (error.kind()) {
    case Kind::unsupportedFormat:
      fail(file + " was made by a newer version (catalog format v" + std::to_string(error.found()) +
           "); this build reads v" + std::to_string(CatalogInfo::currentFormatVersion));
    case Kind::toolFailed:
      fail("could not read the archive " + file + ": " + error.message());
    case Kind::notACatalog:
      fail(file + " is not a catalog archive");
    case Kind::damagedIndex:
      fail("the index inside " + file + " is damaged");
  }
  fail(file + " is not a catalog archive");
}

int importCatalog(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kImportSpec, words);
  CatalogLayout layout = layoutFor(context);
  std::string file = absolutePath(options.operands().front());
  std::optional<tarvolin::CatalogArchive::Unpacked> unpacked;
  try {
    unpacked = tarvolin::CatalogArchive::unpack(fs::path(file));
  } catch (const tarvolin::CatalogArchive::ArchiveError& error) {
    failImport(file, error);
  } catch (const std::system_error& error) {
    fail("could not unpack " + file + ": " + std::string(error.what()));
  }

  CatalogInfo info = unpacked->info;
  info.id = CatalogLayout::newID();
  std::error_code error;
  try {
    fs::create_directories(layout.directory(info.id));
    fs::copy_file(unpacked->directory / CatalogLayout::indexFileName, layout.indexURL(info.id));
    writeTrigrams(layout, info.id);
    info.write(layout.infoURL(info.id));  // last: the folder becomes a catalog now
  } catch (const std::system_error& failure) {
    fs::remove_all(unpacked->directory, error);
    fs::remove_all(layout.directory(info.id), error);
    fail("could not import " + file + ": " + std::string(failure.what()));
  }
  fs::remove_all(unpacked->directory, error);
  printInfo(options, "Imported", info);
  return 0;
}

int efu(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kEfuSpec, words);
  CatalogLayout layout = layoutFor(context);
  std::string file = absolutePath(options.operands().front());
  std::optional<std::vector<uint8_t>> bytes =
      tarvolin::platform::readFilePrefix(file, std::numeric_limits<size_t>::max());
  if (!bytes) fail("cannot read " + file);

  std::optional<tarvolin::EFUImporter::Result> imported;
  try {
    Progress progress("rows");  // erased when the import ends, before anything is printed
    imported = tarvolin::EFUImporter::build(std::span<const uint8_t>(*bytes), progress.callback());
  } catch (const tarvolin::EFUImporter::EFUError& error) {
    if (error.kind() == tarvolin::EFUImporter::EFUError::Kind::malformedRow) {
      fail(file + ":" + std::to_string(error.line()) + ": malformed row");
    }
    fail(file + " is not an EFU list: it has no Filename column");
  }
  bytes.reset();

  // A file list has no volume to come back to: no UUID, no mount path, no root record.
  CatalogInfo info;
  info.id = CatalogLayout::newID();
  info.kind = CatalogInfo::Kind::efu;
  info.name = options.value("name").value_or(fs::path(file).stem().string());
  info.fileCount = imported->stats.fileCount;
  info.folderCount = imported->stats.folderCount;
  info.totalBytes = imported->stats.totalBytes;
  info.lastCatalogued = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  std::error_code error;
  try {
    tarvolin::IndexWriter::write(imported->builder, {tarvolin::VolumeEntry{"", "", 0, false}},
                                 layout.indexURL(info.id));
    writeTrigrams(layout, info.id);
    info.write(layout.infoURL(info.id));  // last: the folder becomes a catalog now
  } catch (const std::system_error& failure) {
    fs::remove_all(layout.directory(info.id), error);
    fail("could not write the catalog: " + std::string(failure.what()));
  }
  printInfo(options, "Imported", info);
  return 0;
}

// ---- Search ------------------------------------------------------------------------------------

struct CatalogHit {
  tarvolin::RankedResult result;
  int32_t score;   // the ranker's score with the root's own depth given back
  uint8_t bucket;  // the ranker's group: quality, applications with the exact ones
  size_t catalog;  // position in the list of searched catalogs
  size_t order;    // position in that catalog's ranking
};

struct SearchedCatalog {
  CatalogInfo info;
  bool online;
  std::shared_ptr<const tarvolin::IndexStore> store;
};

std::shared_ptr<const tarvolin::TrigramIndex> trigramsFor(const CatalogLayout& layout,
                                                          const std::string& id,
                                                          const tarvolin::IndexStore& store) {
  uint64_t checksum = store.header().checksum;
  if (auto loaded = tarvolin::TrigramIndex::load(layout.trigramURL(id), checksum)) {
    return std::make_shared<const tarvolin::TrigramIndex>(std::move(*loaded));
  }
  // Missing or stale: build it once and keep it for the next search.
  auto built = std::make_shared<const tarvolin::TrigramIndex>(
      tarvolin::TrigramIndex::build(store, [] { return false; }));
  try {
    built->write(layout.trigramURL(id), checksum);
  } catch (const std::system_error&) {
  }
  return built;
}

int search(const Context& context, const std::vector<std::string>& words) {
  ParsedOptions options = parseOptions(kSearchSpec, words);
  std::string text;
  for (const std::string& word : options.operands()) {
    if (!text.empty()) text.push_back(' ');
    text += word;
  }
  CatalogLayout layout = layoutFor(context);
  std::vector<MountedPlace> mounted = mountedPlaces();
  tarvolin::Query query = tarvolin::QueryParser::parse(text);
  uint64_t start = tarvolin::platform::monotonicNanoseconds();

  std::vector<SearchedCatalog> catalogs;
  std::vector<CatalogHit> hits;
  int64_t total = 0;
  for (const std::string& id : layout.catalogIDs()) {
    CatalogInfo info;
    try {
      info = CatalogInfo::read(layout.infoURL(id));
    } catch (const tarvolin::CatalogError&) {
      output::errorLine("tvl: skipping catalog " + id + ": its description cannot be read");
      continue;
    }
    tarvolin::IndexLoadOutcome loaded = tarvolin::loadIndex(layout.indexURL(id));
    auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&loaded);
    if (store == nullptr) {
      output::errorLine("tvl: skipping catalog " + id + " \"" + info.name +
                        "\": its index is damaged; run `tvl catalog update " + id + "`");
      continue;
    }
    tarvolin::Matcher matcher(*store);
    matcher.setTrigrams(trigramsFor(layout, id, **store));
    std::vector<tarvolin::Match> matches = matcher.matchWithFuzzyFallback(query);
    total += static_cast<int64_t>(matches.size());
    tarvolin::Ranker ranker(*store);
    std::vector<tarvolin::RankedResult> ranked = ranker.rank(matches, kShownResults);
    // Depth counts from the catalogued root, not from "/", so that a drive mounted deep in the
    // tree competes evenly with one mounted high.
    int32_t rootDepthBonus =
        tarvolin::Ranker::depthPenalty *
        static_cast<int32_t>(std::min<uint32_t>(info.rootRecordID.value_or(0), 256));
    for (size_t i = 0; i < ranked.size(); ++i) {
      const tarvolin::RankedResult& result = ranked[i];
      auto bucket = static_cast<uint8_t>(result.match.quality);
      if (result.match.quality <= tarvolin::MatchQuality::wordBoundary &&
          (**store)[result.match.id].flags.contains(tarvolin::RecordFlags::isApp)) {
        bucket = 0;
      }
      hits.push_back({result, result.score + rootDepthBonus, bucket, catalogs.size(), i});
    }
    catalogs.push_back({std::move(info), false, *store});
    catalogs.back().online = isMounted(catalogs.back().info, mounted);
  }
  std::stable_sort(hits.begin(), hits.end(), [](const CatalogHit& a, const CatalogHit& b) {
    if (a.bucket != b.bucket) return a.bucket < b.bucket;
    return a.score > b.score;
  });
  if (static_cast<int64_t>(hits.size()) > kShownResults) hits.resize(kShownResults);
  double elapsedMs = static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e6;

  json results = json::array();
  for (const CatalogHit& hit : hits) {
    const SearchedCatalog& catalog = catalogs[hit.catalog];
    std::string path = tarvolin::PathResolver(catalog.store).absolutePath(hit.result.match.id);
    if (options.json()) {
      results.push_back({{"catalog", catalog.info.id},
                         {"name", catalog.info.name},
                         {"path", path},
                         {"offline", !catalog.online}});
    } else {
      output::line("  [" + catalog.info.name + (catalog.online ? "" : ", offline") + "] " + path);
    }
  }
  if (options.json()) {
    output::line(jsonText({{"query", text},
                           {"matches", total},
                           {"catalogs", catalogs.size()},
                           {"results", results}}));
  } else {
    output::format("\n%" PRId64 " matches in %zu catalogs in %.2fms (showing %zu)\n", total,
                   catalogs.size(), elapsedMs, hits.size());
  }
  return 0;
}

struct Subcommand {
  std::string_view word;
  int (*run)(const Context&, const std::vector<std::string>&);
};

constexpr Subcommand kSubcommands[] = {
    {"add", add},
    {"list", list},
    {"update", update},
    {"remove", remove},
    {"export", exportCatalog},
    {"import", importCatalog},
    {"efu", efu},
    {"search", search},
};

}  // namespace

int runCatalog(const Context& context) {
  static constexpr CommandSyntax kSyntax{"tvl catalog <subcommand> ...", kOverview};
  if (context.words.empty()) usageError(kSyntax, "a subcommand is needed");
  const std::string& word = context.words.front();
  if (word == "--help" || word == "-h") {
    output::line(kOverview);
    return 0;
  }
  for (const Subcommand& subcommand : kSubcommands) {
    if (word == subcommand.word) {
      return subcommand.run(context, {context.words.begin() + 1, context.words.end()});
    }
  }
  usageError(kSyntax, "unknown subcommand \"" + word + "\"");
}

}  // namespace tvl
