// tvl explain PATH: why a file is or is not found. When the path is in the name index it shows
// the record (kind and flags, size and date when the scan read them) and what ranks it low;
// when not, the first reason that accounts for it, in the order a scan meets them: the path does
// not exist, lies outside the scanned root, lies below a folder the scan policy excludes (which
// rule: a default exclusion, a pruned mount and its file-system type, a ".noindex" folder, a
// backup or system store), below a folder the scan could not read, or appeared after the index
// was written (and whether a service is watching, which adds it). Always with the index's
// time and root. Exit status 0 when the path is in the index,
// 1 when it is not.

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "IndexPaths.h"
#include "Output.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/ParentWalk.h"
#include "tarvolin/platform/MountTable.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/scan/ScanPolicy.h"
#include "tarvolin/service/ServiceClient.h"
#include "tarvolin/service/ServiceProtocol.h"

namespace tvl {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tarvolin::RecordFlags;

constexpr CommandSyntax kSyntax{
    "tvl explain PATH [--json]",
    "Tells whether PATH is in the name index, with its record, and if not, why: it does not\n"
    "exist, lies outside the scanned root, below an excluded folder or pruned mount, below a\n"
    "folder the scan could not read, or appeared after the index was written. Exit status 0\n"
    "when the path is in the index, 1 when it is not.",
    {},
    1,
    1};

// Why a path is not in the index.
struct Reason {
  std::string kind;    // missing, outsideRoot, excluded, mount, noindex, store, unreadable,
                       // newerThanIndex, unknown
  std::string folder;  // the folder the reason is about, when there is one
  std::string fsType;  // mount only
  std::string text;    // the sentence shown
};

// "2026-11-23T19:05:00Z".
std::string isoTime(int64_t seconds) {
  using namespace std::chrono;
  sys_seconds time{std::chrono::seconds(seconds)};
  sys_days day = floor<days>(time);
  year_month_day date{day};
  hh_mm_ss clock{time - day};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text;
}

std::optional<int64_t> modifiedSeconds(const fs::path& path) {
  std::error_code error;
  fs::file_time_type time = fs::last_write_time(path, error);
  if (error) return std::nullopt;
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::file_clock::to_sys(time).time_since_epoch())
      .count();
}

// The absolute, normalised form of a typed path, without a trailing "/".
std::string absolutePath(const std::string& typed) {
  std::error_code error;
  fs::path absolute = fs::absolute(typed, error);
  std::string text = (error ? fs::path(typed) : absolute).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

bool isAtOrBelow(std::string_view path, std::string_view folder) {
  if (folder == "/" || folder.empty()) return true;
  return path == folder ||
         (path.starts_with(folder) && path.size() > folder.size() && path[folder.size()] == '/');
}

// The scanned roots the index records: one volume entry per root.
std::vector<std::string> scannedRoots(const tarvolin::IndexStore& store) {
  std::vector<std::string> roots;
  for (const tarvolin::VolumeEntry& volume : store.header().volumes) {
    roots.push_back(volume.mountPath.empty() ? "/" : volume.mountPath);
  }
  return roots;
}

std::string mountKindText(std::string_view fsType) {
  switch (tarvolin::platform::fileSystemKind(fsType)) {
    case tarvolin::platform::FileSystemKind::network:
      return "a network file system";
    case tarvolin::platform::FileSystemKind::fuse:
      return "a FUSE file system";
    case tarvolin::platform::FileSystemKind::pseudo:
      return "a kernel pseudo file system";
    case tarvolin::platform::FileSystemKind::local:
      break;
  }
  return "btrfs snapshots";
}

bool canList(const fs::path& folder) {
  std::error_code error;
  fs::directory_iterator listing(folder, error);
  return !error;
}

// The first folder strictly between `root` and `path` that a scan of `root` does not enter,
// asked in the scanner's order (from the root down), with the rule that stops it.
std::optional<Reason> excludingFolder(const std::string& root, const std::string& path) {
  tarvolin::ScanPolicy policy{tarvolin::ScanPolicy::defaultExclusions()};
  std::vector<std::string> mounts = tarvolin::ScanPolicy::mountExclusions(root);
  std::vector<tarvolin::platform::MountEntry> table;
  size_t at = root == "/" ? 0 : root.size();
  while (true) {
    size_t next = path.find('/', at + 1);
    if (next == std::string::npos) return std::nullopt;  // only the path itself is left
    std::string folder = path.substr(0, next);
    std::string_view name = std::string_view(folder).substr(at + 1);
    at = next;
    if (policy.excluded.contains(folder)) {
      return Reason{"excluded", folder, "",
                    "below " + folder + ", which every scan leaves out by default"};
    }
    if (std::binary_search(mounts.begin(), mounts.end(), folder)) {
      if (table.empty())
        table = tarvolin::platform::visibleMounts(tarvolin::platform::readMountTable());
      std::string fsType = "btrfs";
      for (const auto& entry : table) {
        if (entry.mountPoint == folder) fsType = entry.fsType;
      }
      return Reason{"mount", folder, fsType,
                    "below " + folder + ", a " + fsType + " mount (" + mountKindText(fsType) +
                        ") that scans leave out"};
    }
    if (tarvolin::ScanPolicy::isNoIndexDirectory(name)) {
      return Reason{"noindex", folder, "",
                    "below " + folder + ", whose name ends in .noindex: never scanned"};
    }
    if (tarvolin::ScanPolicy::isBackupOrSystemStore(name)) {
      return Reason{"store", folder, "",
                    "below " + folder + ", a backup or system store: never scanned"};
    }
    if (!canList(folder)) {
      return Reason{"unreadable", folder, "",
                    "below " + folder + ", which cannot be read (permission denied)"};
    }
  }
}

// A service answering on the index's socket keeps the index up to date as files change.
bool serviceIsWatching(const Context& context) {
  namespace protocol = tarvolin::ServiceProtocol;
  return tarvolin::ServiceClient::connect(protocol::socketPathFor(context.indexPath)).has_value();
}

Reason whyMissing(const Context& context, const tarvolin::IndexStore& store,
                  const std::string& path, int64_t indexTime) {
  std::error_code error;
  fs::file_status status = fs::symlink_status(path, error);
  if (!fs::exists(status)) return {"missing", "", "", "does not exist"};
  std::vector<std::string> roots = scannedRoots(store);
  const std::string* root = nullptr;
  for (const std::string& candidate : roots) {
    if (isAtOrBelow(path, candidate) && (root == nullptr || candidate.size() > root->size())) {
      root = &candidate;
    }
  }
  if (root == nullptr) {
    std::string listed;
    for (const std::string& candidate : roots) listed += (listed.empty() ? "" : ", ") + candidate;
    return {"outsideRoot", listed, "",
            "outside the scanned root" + std::string(roots.size() == 1 ? " " : "s ") + listed};
  }
  if (std::optional<Reason> excluded = excludingFolder(*root, path)) return *excluded;

  std::string parent = fs::path(path).parent_path().string();
  std::optional<int64_t> changed = modifiedSeconds(path);
  std::optional<int64_t> parentChanged = modifiedSeconds(parent);
  if ((changed && *changed > indexTime) || (parentChanged && *parentChanged > indexTime)) {
    return {"newerThanIndex", parent, "",
            "created or changed after the index was written; " +
                std::string(serviceIsWatching(context)
                                ? "a service is watching and adds it shortly"
                                : "no service is watching: run `tvl scan` again")};
  }
  return {"unknown", "", "",
          "no scan rule explains it: the scan that wrote the index may have been stopped early"};
}

// What makes a found record rank below others: hidden, inside an application bundle, below a
// folder of generated or cached material.
std::vector<std::string> rankingNotes(const tarvolin::IndexStore& store, uint32_t id) {
  std::vector<std::string> notes;
  if (store[id].flags.contains(RecordFlags::isHidden)) notes.push_back("hidden");
  const auto& demoted = tarvolin::Ranker::demotedPathComponents();
  bool insideApp = false;
  std::string demotedBy;
  for (uint32_t parent = store[id].parentID, steps = 0;
       parent < store.count() && steps < tarvolin::ParentWalk::maxDepth;
       parent = store[parent].parentID, ++steps) {
    if (store[parent].flags.contains(RecordFlags::isApp)) insideApp = true;
    std::string_view name = store.nameBytes(parent);
    if (demotedBy.empty() && std::find(demoted.begin(), demoted.end(), name) != demoted.end()) {
      demotedBy = std::string(name);
    }
  }
  if (insideApp) notes.push_back("inside an application bundle");
  if (!demotedBy.empty()) notes.push_back("below a \"" + demotedBy + "\" folder");
  return notes;
}

std::vector<std::string> flagNames(RecordFlags flags) {
  std::vector<std::string> names;
  if (flags.contains(RecordFlags::isDirectory)) names.push_back("isDirectory");
  if (flags.contains(RecordFlags::isApp)) names.push_back("isApp");
  if (flags.contains(RecordFlags::isSymlink)) names.push_back("isSymlink");
  if (flags.contains(RecordFlags::isHidden)) names.push_back("isHidden");
  if (flags.contains(RecordFlags::attrsFilled)) names.push_back("attrsFilled");
  return names;
}

std::string kindOf(RecordFlags flags) {
  if (flags.contains(RecordFlags::isApp)) return "application";
  if (flags.contains(RecordFlags::isDirectory)) return "folder";
  if (flags.contains(RecordFlags::isSymlink)) return "symbolic link";
  return "file";
}

}  // namespace

int runExplain(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  std::string path = absolutePath(options.operands().front());
  std::shared_ptr<const tarvolin::IndexStore> store = openIndexOrExit(context);
  int64_t indexTime = modifiedSeconds(context.indexPath).value_or(0);

  std::optional<uint32_t> id = findRecordByPath(*store, path);
  if (!id) {
    // The index holds paths as the scan walked them: try the path with its links resolved.
    std::error_code error;
    std::string resolved = fs::weakly_canonical(path, error).string();
    if (!error && resolved != path) {
      if ((id = findRecordByPath(*store, resolved))) path = resolved;
    }
  }

  std::string roots;
  for (const std::string& root : scannedRoots(*store)) roots += (roots.empty() ? "" : ", ") + root;
  json result{{"path", path},
              {"indexed", id.has_value()},
              {"index",
               {{"path", context.indexPath.string()},
                {"written", isoTime(indexTime)},
                {"roots", scannedRoots(*store)},
                {"records", store->count()}}}};
  std::vector<std::string> lines;
  if (id) {
    const tarvolin::FileRecord& record = (*store)[*id];
    json recordJson{
        {"id", *id}, {"kind", kindOf(record.flags)}, {"flags", flagNames(record.flags)}};
    lines.push_back("  in the index: record " + std::to_string(*id) + ", " + kindOf(record.flags) +
                    (record.flags.contains(RecordFlags::isHidden) ? ", hidden" : ""));
    if (record.flags.contains(RecordFlags::attrsFilled)) {
      recordJson["size"] = record.size;
      recordJson["mtime"] = isoTime(record.mtime);
      lines.push_back("  size " + std::to_string(record.size) + " bytes, modified " +
                      isoTime(record.mtime));
    } else {
      lines.push_back("  size and date not recorded (the scan did not read attributes)");
    }
    std::vector<std::string> notes = rankingNotes(*store, *id);
    recordJson["rankedLowerFor"] = notes;
    if (!notes.empty()) {
      std::string joined;
      for (const std::string& note : notes) joined += (joined.empty() ? "" : ", ") + note;
      lines.push_back("  ranks lower: " + joined);
    }
    std::error_code error;
    if (!fs::exists(fs::symlink_status(path, error))) {
      recordJson["existsNow"] = false;
      lines.push_back("  no longer exists: removed after the index was written");
    }
    result["record"] = recordJson;
  } else {
    Reason reason = whyMissing(context, *store, path, indexTime);
    json reasonJson{{"kind", reason.kind}, {"text", reason.text}};
    if (!reason.folder.empty()) reasonJson["folder"] = reason.folder;
    if (!reason.fsType.empty()) reasonJson["fsType"] = reason.fsType;
    result["reason"] = reasonJson;
    lines.push_back("  not in the index: " + reason.text);
  }
  lines.push_back("  index written " + isoTime(indexTime) + " (" + std::to_string(store->count()) +
                  " records, scanned root " + roots + ")");

  if (options.json()) {
    output::line(jsonText(result));
  } else {
    output::line(path);
    for (const std::string& line : lines) output::line(line);
  }
  return id ? 0 : 1;
}

}  // namespace tvl
