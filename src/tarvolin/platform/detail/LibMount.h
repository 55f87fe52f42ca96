#pragma once
// The mount table parser (libmount) and the block device prober (libblkid), loaded by the first
// call that reads the mount table or probes a device. Linked, they and what they bring (the
// security-module and regular-expression libraries, with their constructors) cost every start of
// `tvl` half a millisecond; only scanning, the volume list and the estimate read mounts.
//
// Each member is the library function of the same name. Loaded once per process; any thread.
// Both are nullptr when the library cannot be loaded: callers then see an empty table or no
// device identity, as when /proc or the device cannot be read.

#include <blkid/blkid.h>
#include <libmount.h>

namespace tarvolin::platform::detail {

struct LibMount {
  decltype(&::mnt_new_table) mnt_new_table;
  decltype(&::mnt_unref_table) mnt_unref_table;
  decltype(&::mnt_table_set_parser_errcb) mnt_table_set_parser_errcb;
  decltype(&::mnt_table_parse_file) mnt_table_parse_file;
  decltype(&::mnt_table_parse_stream) mnt_table_parse_stream;
  decltype(&::mnt_table_next_fs) mnt_table_next_fs;
  decltype(&::mnt_new_iter) mnt_new_iter;
  decltype(&::mnt_free_iter) mnt_free_iter;
  decltype(&::mnt_fs_get_target) mnt_fs_get_target;
  decltype(&::mnt_fs_get_source) mnt_fs_get_source;
  decltype(&::mnt_fs_get_fstype) mnt_fs_get_fstype;
  decltype(&::mnt_fs_get_options) mnt_fs_get_options;
  decltype(&::mnt_fs_get_devno) mnt_fs_get_devno;
  decltype(&::mnt_fs_get_root) mnt_fs_get_root;
};

struct LibBlkid {
  decltype(&::blkid_new_probe_from_filename) blkid_new_probe_from_filename;
  decltype(&::blkid_free_probe) blkid_free_probe;
  decltype(&::blkid_probe_enable_superblocks) blkid_probe_enable_superblocks;
  decltype(&::blkid_probe_set_superblocks_flags) blkid_probe_set_superblocks_flags;
  decltype(&::blkid_do_safeprobe) blkid_do_safeprobe;
  decltype(&::blkid_probe_lookup_value) blkid_probe_lookup_value;
  decltype(&::blkid_get_cache) blkid_get_cache;
  decltype(&::blkid_put_cache) blkid_put_cache;
  decltype(&::blkid_get_dev) blkid_get_dev;
  decltype(&::blkid_tag_iterate_begin) blkid_tag_iterate_begin;
  decltype(&::blkid_tag_next) blkid_tag_next;
  decltype(&::blkid_tag_iterate_end) blkid_tag_iterate_end;
  decltype(&::blkid_devno_to_devname) blkid_devno_to_devname;
};

const LibMount* libMount();
const LibBlkid* libBlkid();

}  // namespace tarvolin::platform::detail
