#include "tarvolin/platform/detail/LibMount.h"

#include <optional>
#include <string>

#include "tarvolin/platform/SharedLibrary.h"

namespace tarvolin::platform::detail {

namespace {

#define TARVOLIN_RESOLVE(name) complete = resolveSymbol(library, #name, api.name) && complete

std::optional<LibMount> loadMount() {
  std::string failure;
  void* library = openSharedLibrary({"libmount.so.1", "libmount.so"}, failure);
  if (library == nullptr) return std::nullopt;
  LibMount api{};
  bool complete = true;
  TARVOLIN_RESOLVE(mnt_new_table);
  TARVOLIN_RESOLVE(mnt_unref_table);
  TARVOLIN_RESOLVE(mnt_table_set_parser_errcb);
  TARVOLIN_RESOLVE(mnt_table_parse_file);
  TARVOLIN_RESOLVE(mnt_table_parse_stream);
  TARVOLIN_RESOLVE(mnt_table_next_fs);
  TARVOLIN_RESOLVE(mnt_new_iter);
  TARVOLIN_RESOLVE(mnt_free_iter);
  TARVOLIN_RESOLVE(mnt_fs_get_target);
  TARVOLIN_RESOLVE(mnt_fs_get_source);
  TARVOLIN_RESOLVE(mnt_fs_get_fstype);
  TARVOLIN_RESOLVE(mnt_fs_get_options);
  TARVOLIN_RESOLVE(mnt_fs_get_devno);
  TARVOLIN_RESOLVE(mnt_fs_get_root);
  if (!complete) return std::nullopt;
  return api;
}

std::optional<LibBlkid> loadBlkid() {
  std::string failure;
  void* library = openSharedLibrary({"libblkid.so.1", "libblkid.so"}, failure);
  if (library == nullptr) return std::nullopt;
  LibBlkid api{};
  bool complete = true;
  TARVOLIN_RESOLVE(blkid_new_probe_from_filename);
  TARVOLIN_RESOLVE(blkid_free_probe);
  TARVOLIN_RESOLVE(blkid_probe_enable_superblocks);
  TARVOLIN_RESOLVE(blkid_probe_set_superblocks_flags);
  TARVOLIN_RESOLVE(blkid_do_safeprobe);
  TARVOLIN_RESOLVE(blkid_probe_lookup_value);
  TARVOLIN_RESOLVE(blkid_get_cache);
  TARVOLIN_RESOLVE(blkid_put_cache);
  TARVOLIN_RESOLVE(blkid_get_dev);
  TARVOLIN_RESOLVE(blkid_tag_iterate_begin);
  TARVOLIN_RESOLVE(blkid_tag_next);
  TARVOLIN_RESOLVE(blkid_tag_iterate_end);
  TARVOLIN_RESOLVE(blkid_devno_to_devname);
  if (!complete) return std::nullopt;
  return api;
}

#undef TARVOLIN_RESOLVE

}  // namespace

// Function-local statics: initialised once, thread-safe, kept for the life of the process.
const LibMount* libMount() {
  static const std::optional<LibMount> loaded = loadMount();
  return loaded ? &*loaded : nullptr;
}

const LibBlkid* libBlkid() {
  static const std::optional<LibBlkid> loaded = loadBlkid();
  return loaded ? &*loaded : nullptr;
}

}  // namespace tarvolin::platform::detail
