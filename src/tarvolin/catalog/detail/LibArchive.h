#pragma once
// The archive library, loaded when a catalog is first exported or imported instead of linked
// into every program: linking it made each start of `tvl` map and relocate ten more shared
// libraries (its compressors, XML and Unicode libraries), a millisecond and more of every
// search, for the few commands that handle catalog archives.
//
// Each member is the library function of the same name. Loaded once per process; any thread.

#include <archive.h>
#include <archive_entry.h>

namespace tarvolin::detail {

struct LibArchive {
  decltype(&::archive_error_string) archive_error_string;
  decltype(&::archive_read_new) archive_read_new;
  decltype(&::archive_read_free) archive_read_free;
  decltype(&::archive_read_support_format_zip) archive_read_support_format_zip;
  decltype(&::archive_read_open_filename) archive_read_open_filename;
  decltype(&::archive_read_open_memory) archive_read_open_memory;
  decltype(&::archive_read_next_header) archive_read_next_header;
  decltype(&::archive_read_data) archive_read_data;
  decltype(&::archive_write_new) archive_write_new;
  decltype(&::archive_write_free) archive_write_free;
  decltype(&::archive_write_set_format_zip) archive_write_set_format_zip;
  decltype(&::archive_write_zip_set_compression_deflate) archive_write_zip_set_compression_deflate;
  decltype(&::archive_write_open_fd) archive_write_open_fd;
  decltype(&::archive_write_header) archive_write_header;
  decltype(&::archive_write_data) archive_write_data;
  decltype(&::archive_write_finish_entry) archive_write_finish_entry;
  decltype(&::archive_write_close) archive_write_close;
  decltype(&::archive_entry_new) archive_entry_new;
  decltype(&::archive_entry_free) archive_entry_free;
  decltype(&::archive_entry_pathname) archive_entry_pathname;
  decltype(&::archive_entry_pathname_utf8) archive_entry_pathname_utf8;
  decltype(&::archive_entry_filetype) archive_entry_filetype;
  decltype(&::archive_entry_hardlink) archive_entry_hardlink;
  decltype(&::archive_entry_symlink) archive_entry_symlink;
  decltype(&::archive_entry_size) archive_entry_size;
  decltype(&::archive_entry_size_is_set) archive_entry_size_is_set;
  decltype(&::archive_entry_set_pathname) archive_entry_set_pathname;
  decltype(&::archive_entry_set_filetype) archive_entry_set_filetype;
  decltype(&::archive_entry_set_perm) archive_entry_set_perm;
  decltype(&::archive_entry_set_size) archive_entry_set_size;
  decltype(&::archive_entry_set_mtime) archive_entry_set_mtime;
};

/// The loaded library. Throws CatalogArchive::ArchiveError (toolFailed) naming what is missing when
/// the library or one of its functions cannot be loaded; later calls try again.
const LibArchive& libArchive();

}  // namespace tarvolin::detail
