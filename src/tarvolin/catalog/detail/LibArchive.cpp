#include "tarvolin/catalog/detail/LibArchive.h"

#include <mutex>
#include <optional>
#include <string>

#include "tarvolin/catalog/CatalogArchive.h"
#include "tarvolin/platform/SharedLibrary.h"

namespace tarvolin::detail {

namespace {

template <typename Function>
void resolve(void* library, const char* name, Function& slot) {
  if (!platform::resolveSymbol(library, name, slot)) {
    throw CatalogArchive::ArchiveError::toolFailed(std::string("the archive library lacks ") +
                                                   name);
  }
}

LibArchive load() {
  // The name with its ABI version (stable since 2012), then the development link.
  std::string failure;
  void* library = platform::openSharedLibrary({"libarchive.so.13", "libarchive.so"}, failure);
  if (library == nullptr) {
    throw CatalogArchive::ArchiveError::toolFailed(
        "cannot load the archive library (libarchive): " + failure);
  }
  LibArchive api{};
#define TARVOLIN_RESOLVE(name) resolve(library, #name, api.name)
  TARVOLIN_RESOLVE(archive_error_string);
  TARVOLIN_RESOLVE(archive_read_new);
  TARVOLIN_RESOLVE(archive_read_free);
  TARVOLIN_RESOLVE(archive_read_support_format_zip);
  TARVOLIN_RESOLVE(archive_read_open_filename);
  TARVOLIN_RESOLVE(archive_read_open_memory);
  TARVOLIN_RESOLVE(archive_read_next_header);
  TARVOLIN_RESOLVE(archive_read_data);
  TARVOLIN_RESOLVE(archive_write_new);
  TARVOLIN_RESOLVE(archive_write_free);
  TARVOLIN_RESOLVE(archive_write_set_format_zip);
  TARVOLIN_RESOLVE(archive_write_zip_set_compression_deflate);
  TARVOLIN_RESOLVE(archive_write_open_fd);
  TARVOLIN_RESOLVE(archive_write_header);
  TARVOLIN_RESOLVE(archive_write_data);
  TARVOLIN_RESOLVE(archive_write_finish_entry);
  TARVOLIN_RESOLVE(archive_write_close);
  TARVOLIN_RESOLVE(archive_entry_new);
  TARVOLIN_RESOLVE(archive_entry_free);
  TARVOLIN_RESOLVE(archive_entry_pathname);
  TARVOLIN_RESOLVE(archive_entry_pathname_utf8);
  TARVOLIN_RESOLVE(archive_entry_filetype);
  TARVOLIN_RESOLVE(archive_entry_hardlink);
  TARVOLIN_RESOLVE(archive_entry_symlink);
  TARVOLIN_RESOLVE(archive_entry_size);
  TARVOLIN_RESOLVE(archive_entry_size_is_set);
  TARVOLIN_RESOLVE(archive_entry_set_pathname);
  TARVOLIN_RESOLVE(archive_entry_set_filetype);
  TARVOLIN_RESOLVE(archive_entry_set_perm);
  TARVOLIN_RESOLVE(archive_entry_set_size);
  TARVOLIN_RESOLVE(archive_entry_set_mtime);
#undef TARVOLIN_RESOLVE
  // The library stays loaded for the life of the process: its functions are kept.
  return api;
}

}  // namespace

const LibArchive& libArchive() {
  static std::mutex lock;
  static std::optional<LibArchive> loaded;
  std::lock_guard guard(lock);
  if (!loaded) loaded = load();
  return *loaded;
}

}  // namespace tarvolin::detail
