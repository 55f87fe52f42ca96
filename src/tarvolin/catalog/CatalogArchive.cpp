#include "tarvolin/catalog/CatalogArchive.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <variant>

#include "tarvolin/catalog/CatalogError.h"
#include "tarvolin/catalog/CatalogLayout.h"
#include "tarvolin/catalog/detail/LibArchive.h"
#include "tarvolin/catalog/detail/NewUUID.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/AtomicFile.h"
#include "tarvolin/platform/FileDescriptor.h"
#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::CatalogArchive {

namespace fs = std::filesystem;

const char* ArchiveError::what() const noexcept {
  switch (kind_) {
    case Kind::unsupportedFormat:
      return "catalog archive format is newer than this build";
    case Kind::toolFailed:
      return message_.c_str();
    case Kind::notACatalog:
      return "not a catalog archive";
    case Kind::damagedIndex:
      return "catalog archive holds a damaged index";
  }
  return "catalog archive error";
}

namespace {

const detail::LibArchive& library() { return detail::libArchive(); }

constexpr size_t kChunkBytes = 64 * 1024;
constexpr int kFileMode = 0644;

// The two members, in the order the archive is written.
constexpr std::array<std::string_view, 2> kMembers = {CatalogLayout::indexFileName,
                                                      CatalogLayout::infoFileName};

// Removes a temporary file or folder when it goes out of scope, unless kept; errors ignored.
class TemporaryItem {
 public:
  explicit TemporaryItem(fs::path path = {}) : path_(std::move(path)) {}
  ~TemporaryItem() {
    if (path_.empty()) return;
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryItem(const TemporaryItem&) = delete;
  TemporaryItem& operator=(const TemporaryItem&) = delete;
  void reset(fs::path path) { path_ = std::move(path); }
  void keep() { path_.clear(); }

 private:
  fs::path path_;
};

std::string libraryMessage(archive* handle, const char* fallback) {
  const char* text = handle != nullptr ? library().archive_error_string(handle) : nullptr;
  std::string message = platform::decodeUtf8Lossy(text != nullptr ? text : fallback);
  while (!message.empty() && std::string_view(" \t\r\n").find(message.back()) != std::string::npos)
    message.pop_back();
  size_t start = message.find_first_not_of(" \t\r\n");
  return start == std::string::npos ? std::string(fallback) : message.substr(start);
}

// ---- Reading -------------------------------------------------------------------------------

using ReadHandle = std::unique_ptr<archive, decltype(&::archive_read_free)>;

// Where an archive's bytes come from: a file, or memory the caller keeps alive.
using Source = std::variant<fs::path, std::span<const uint8_t>>;

ReadHandle openForReading(const Source& source) {
  ReadHandle handle(library().archive_read_new(), library().archive_read_free);
  if (!handle) throw ArchiveError::toolFailed("cannot allocate an archive reader");
  library().archive_read_support_format_zip(handle.get());
  int status;
  if (const auto* path = std::get_if<fs::path>(&source)) {
    status = library().archive_read_open_filename(handle.get(), path->c_str(), kChunkBytes);
  } else {
    auto bytes = std::get<std::span<const uint8_t>>(source);
    status = library().archive_read_open_memory(handle.get(), bytes.data(), bytes.size());
  }
  if (status != ARCHIVE_OK) {
    throw ArchiveError::toolFailed(libraryMessage(handle.get(), "cannot read the archive"));
  }
  return handle;
}

// The next entry, nothing at the end; a damaged header throws toolFailed.
archive_entry* nextEntry(archive* handle) {
  archive_entry* entry = nullptr;
  int status = library().archive_read_next_header(handle, &entry);
  if (status == ARCHIVE_EOF) return nullptr;
  if (status < ARCHIVE_WARN) {
    throw ArchiveError::toolFailed(libraryMessage(handle, "cannot list the archive"));
  }
  return entry;
}

std::string entryName(archive_entry* entry) {
  const char* name = library().archive_entry_pathname(entry);
  if (name == nullptr) name = library().archive_entry_pathname_utf8(entry);
  return name != nullptr ? std::string(name) : std::string();
}

std::string_view withoutDotSlash(std::string_view name) {
  if (name.starts_with("./")) name.remove_prefix(2);
  return name;
}

// Which of kMembers an entry name stands for, if any.
std::optional<size_t> memberIndex(std::string_view name) {
  name = withoutDotSlash(name);
  for (size_t i = 0; i < kMembers.size(); ++i) {
    if (name == kMembers[i]) return i;
  }
  return std::nullopt;
}

// A plain file: no folder, link of either kind, device or pipe.
bool isRegularEntry(archive_entry* entry) {
  return library().archive_entry_filetype(entry) == AE_IFREG &&
         library().archive_entry_hardlink(entry) == nullptr &&
         library().archive_entry_symlink(entry) == nullptr;
}

// The listing check: exactly two entries, one of each member. Stops listing at a third entry.
void checkEntries(const Source& source) {
  ReadHandle handle = openForReading(source);
  std::array<int, kMembers.size()> seen{};
  size_t count = 0;
  while (archive_entry* entry = nextEntry(handle.get())) {
    if (++count > kMembers.size()) throw ArchiveError::notACatalog();
    std::optional<size_t> member = memberIndex(entryName(entry));
    if (!member || !isRegularEntry(entry)) throw ArchiveError::notACatalog();
    ++seen[*member];
  }
  if (std::any_of(seen.begin(), seen.end(), [](int n) { return n != 1; })) {
    throw ArchiveError::notACatalog();
  }
}

// Copies each entry's data into a file of our own naming inside `folder`, created exclusively
// and without following links. Entries other than the two members are refused, not skipped.
void extract(const Source& source, const fs::path& folder, uint64_t indexLimitBytes) {
  ReadHandle handle = openForReading(source);
  std::vector<uint8_t> buffer(kChunkBytes);
  while (archive_entry* entry = nextEntry(handle.get())) {
    std::optional<size_t> member = memberIndex(entryName(entry));
    if (!member || !isRegularEntry(entry)) throw ArchiveError::notACatalog();
    bool isInfo = kMembers[*member] == CatalogLayout::infoFileName;
    uint64_t limit = isInfo ? maxInfoBytes : indexLimitBytes;
    if (library().archive_entry_size_is_set(entry) && library().archive_entry_size(entry) >= 0 &&
        static_cast<uint64_t>(library().archive_entry_size(entry)) > limit) {
      throw ArchiveError::notACatalog();
    }
    platform::FileDescriptor file = platform::FileDescriptor::open(
        folder / kMembers[*member], O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kFileMode);
    uint64_t written = 0;
    for (;;) {
      la_ssize_t got = library().archive_read_data(handle.get(), buffer.data(), buffer.size());
      if (got == 0) break;
      if (got < 0) {
        throw ArchiveError::toolFailed(libraryMessage(handle.get(), "cannot extract the archive"));
      }
      written += static_cast<uint64_t>(got);
      if (written > limit) throw ArchiveError::notACatalog();
      file.writeAll({buffer.data(), static_cast<size_t>(got)});
    }
    file.close();
  }
}

// The folder must hold exactly the two members, each a regular file (not followed).
void checkExtracted(const fs::path& folder) {
  std::vector<std::string> names;
  for (const fs::directory_entry& item : fs::directory_iterator(folder)) {
    names.push_back(item.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  if (names != std::vector<std::string>{"index.bin", "info.json"})
    throw ArchiveError::notACatalog();
  for (std::string_view name : {CatalogLayout::infoFileName, CatalogLayout::indexFileName}) {
    std::error_code error;
    fs::file_status status = fs::symlink_status(folder / name, error);
    if (error || status.type() != fs::file_type::regular) throw ArchiveError::notACatalog();
  }
  std::error_code error;
  uintmax_t infoBytes = fs::file_size(folder / CatalogLayout::infoFileName, error);
  if (error || infoBytes > maxInfoBytes) throw ArchiveError::notACatalog();
}

Unpacked unpackFrom(const Source& source, uint64_t archiveBytes) {
  fs::path folder = fs::temp_directory_path() / ("catalog-import-" + detail::newUUIDString());
  fs::create_directories(folder);
  TemporaryItem removal(folder);

  try {
    checkEntries(source);
  } catch (const ArchiveError& error) {
    // A file the archive library cannot list is simply not a catalog archive.
    if (error.kind() == ArchiveError::Kind::toolFailed) throw ArchiveError::notACatalog();
    throw;
  }
  uint64_t indexLimit = std::max(minIndexLimitBytes, archiveBytes * maxIndexExpansion);
  extract(source, folder, indexLimit);
  checkExtracted(folder);

  CatalogInfo info;
  try {
    info = CatalogInfo::read(folder / CatalogLayout::infoFileName);
  } catch (const CatalogError& error) {
    if (error.kind() == CatalogError::Kind::unsupportedFormat) {
      throw ArchiveError::unsupportedFormat(error.found());
    }
    throw ArchiveError::notACatalog();
  }
  if (!isSafe(info)) throw ArchiveError::notACatalog();

  IndexLoadOutcome loaded = loadIndex(folder / CatalogLayout::indexFileName);
  auto* store = std::get_if<std::shared_ptr<const IndexStore>>(&loaded);
  if (store == nullptr) throw ArchiveError::damagedIndex();
  if (!isWellFormed(*store, info)) throw ArchiveError::notACatalog();

  removal.keep();
  return Unpacked{std::move(info), folder};
}

// ---- Writing -------------------------------------------------------------------------------

void addFile(archive* handle, const fs::path& source, std::string_view name) {
  platform::FileDescriptor input = platform::FileDescriptor::open(source, O_RDONLY);
  uint64_t size = input.size();
  std::unique_ptr<archive_entry, decltype(&::archive_entry_free)> entry(
      library().archive_entry_new(), library().archive_entry_free);
  std::string entryPath(name);
  library().archive_entry_set_pathname(entry.get(), entryPath.c_str());
  library().archive_entry_set_filetype(entry.get(), AE_IFREG);
  library().archive_entry_set_perm(entry.get(), kFileMode);
  library().archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
  auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  library().archive_entry_set_mtime(entry.get(), now, 0);
  if (library().archive_write_header(handle, entry.get()) != ARCHIVE_OK) {
    throw ArchiveError::toolFailed(libraryMessage(handle, "cannot write the archive"));
  }
  std::vector<uint8_t> buffer(kChunkBytes);
  uint64_t copied = 0;
  while (copied < size) {
    size_t got = input.readUpTo(buffer);
    if (got == 0) break;  // shortened while read: the entry's declared size cannot be kept
    if (library().archive_write_data(handle, buffer.data(), got) < 0) {
      throw ArchiveError::toolFailed(libraryMessage(handle, "cannot write the archive"));
    }
    copied += got;
  }
  if (copied != size) throw ArchiveError::toolFailed(std::string(name) + " changed while copied");
  if (library().archive_write_finish_entry(handle) != ARCHIVE_OK) {
    throw ArchiveError::toolFailed(libraryMessage(handle, "cannot write the archive"));
  }
}

}  // namespace

void writeZip(const fs::path& folder, const fs::path& archivePath) {
  platform::FileDescriptor output = platform::FileDescriptor::open(
      archivePath, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, kFileMode);
  std::unique_ptr<archive, decltype(&::archive_write_free)> handle(library().archive_write_new(),
                                                                   library().archive_write_free);
  if (!handle || library().archive_write_set_format_zip(handle.get()) != ARCHIVE_OK ||
      library().archive_write_zip_set_compression_deflate(handle.get()) != ARCHIVE_OK ||
      library().archive_write_open_fd(handle.get(), output.get()) != ARCHIVE_OK) {
    throw ArchiveError::toolFailed(libraryMessage(handle.get(), "cannot create the archive"));
  }
  for (std::string_view name : kMembers) addFile(handle.get(), folder / name, name);
  if (library().archive_write_close(handle.get()) != ARCHIVE_OK) {
    throw ArchiveError::toolFailed(libraryMessage(handle.get(), "cannot finish the archive"));
  }
  output.sync();
  output.close();
}

// Scratch items carry the id of the process that made them ("<prefix><pid>-<uuid>"): an export
// that was killed leaves its own, which the next export in the same folder removes.
std::string scratchName(std::string_view prefix) {
  return std::string(prefix) + std::to_string(platform::processID()) + "-" +
         detail::newUUIDString();
}

void removeAbandoned(const fs::path& folder, std::string_view prefix) {
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    std::string name = it->path().filename().string();
    if (!name.starts_with(prefix)) continue;
    size_t dash = name.find('-', prefix.size());
    if (dash == std::string::npos) continue;
    int64_t pid =
        std::strtoll(name.substr(prefix.size(), dash - prefix.size()).c_str(), nullptr, 10);
    if (pid <= 0 || platform::processExists(pid)) continue;
    std::error_code ignored;
    fs::remove_all(it->path(), ignored);
  }
}

constexpr std::string_view kScratchPrefix = ".catalog-export-";
constexpr std::string_view kStagingPrefix = "tarvolin-catalog-";

fs::path defaultScratchDirectory(const fs::path& destination) {
  fs::path parent = fs::absolute(destination).parent_path();
  removeAbandoned(parent, kScratchPrefix);
  fs::path scratch = parent / scratchName(kScratchPrefix);
  fs::create_directory(scratch);
  return scratch;
}

void exportCatalog(const fs::path& catalogDirectory, const fs::path& destination) {
  exportCatalog(catalogDirectory, destination, defaultScratchDirectory, writeZip);
}

void exportCatalog(const fs::path& catalogDirectory, const fs::path& destination,
                   const ScratchDirectory& scratchDirectory, const Zip& zip) {
  removeAbandoned(fs::temp_directory_path(), kStagingPrefix);
  fs::path staging = fs::temp_directory_path() / scratchName(kStagingPrefix);
  fs::create_directories(staging);
  TemporaryItem stagingRemoval(staging);
  for (std::string_view name : kMembers) fs::copy_file(catalogDirectory / name, staging / name);

  TemporaryItem targetRemoval;
  fs::path target;
  try {
    fs::path scratch = scratchDirectory(destination);
    targetRemoval.reset(scratch);
    target = scratch / destination.filename();
  } catch (...) {
    target = destination.parent_path() /
             ("." + destination.filename().string() + "." + detail::newUUIDString() + ".tmp");
    targetRemoval.reset(target);
  }
  zip(staging, target);
  // Synced, renamed over the destination, and the folder synced, as every file we replace.
  platform::AtomicFile::moveIntoPlace(target, destination);
}

Unpacked unpack(const fs::path& archivePath) {
  std::error_code error;
  uintmax_t bytes = fs::file_size(archivePath, error);
  if (error) throw ArchiveError::notACatalog();
  return unpackFrom(Source(archivePath), bytes);
}

Unpacked unpack(std::span<const uint8_t> archiveBytes) {
  return unpackFrom(Source(archiveBytes), archiveBytes.size());
}

std::vector<std::string> listEntries(const fs::path& archivePath) {
  ReadHandle handle = openForReading(Source(archivePath));
  std::vector<std::string> names;
  while (archive_entry* entry = nextEntry(handle.get())) {
    names.push_back(platform::decodeUtf8Lossy(entryName(entry)));
  }
  return names;
}

bool isSafe(const CatalogInfo& info) {
  auto hasParentPiece = [](std::string_view path) {
    for (size_t start = 0;;) {
      size_t end = path.find('/', start);
      std::string_view piece =
          path.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
      if (piece == "..") return true;
      if (end == std::string_view::npos) return false;
      start = end + 1;
    }
  };
  if (info.relativeRoot.starts_with("/")) return false;
  if (hasParentPiece(info.relativeRoot) || hasParentPiece(info.lastMountPath)) return false;
  if (info.kind != CatalogInfo::Kind::efu && !info.lastMountPath.empty() &&
      !info.lastMountPath.starts_with("/")) {
    return false;
  }
  return true;
}

bool isWellFormed(const std::shared_ptr<const IndexStore>& store, const CatalogInfo& info) {
  const IndexStore& index = *store;
  if (index.header().volumes.size() != 1) return false;
  uint32_t count = index.count();
  bool scanned = info.kind != CatalogInfo::Kind::efu;
  if (scanned && info.rootRecordID && *info.rootRecordID >= count) return false;
  uint64_t blobLength = index.header().nameBlobLength;
  for (uint32_t i = 0; i < count; ++i) {
    const FileRecord& record = index[i];
    if (uint64_t{record.nameOffset} + record.nameLen > blobLength) return false;
    std::string_view name = index.nameBytes(i);
    if (record.parentID != FileRecord::rootParentID) {
      if (record.parentID >= i) return false;
      if (name.find('/') != std::string_view::npos || name == "." || name == "..") return false;
    } else if (scanned && !name.empty()) {
      return false;
    }
  }
  if (!scanned || !info.rootRecordID) return true;
  return PathResolver(store).absolutePath(*info.rootRecordID) == info.rootPath();
}

}  // namespace tarvolin::CatalogArchive
