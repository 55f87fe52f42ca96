#pragma once
// Writes a builder as a complete index file. The bytes go to "<target>.tmp" beside the target,
// which is fsynced and renamed over it, and the folder is fsynced: readers and crashes see the
// old index or the new one whole. Any failure removes the temporary file and leaves the target
// untouched. Writers of one folder, in this process or others, take turns (an advisory lock on
// the folder), so concurrent writes of the same target leave one of them whole.

#include <filesystem>
#include <vector>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexHeader.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/platform/FileDescriptor.h"
#include "tarvolin/platform/MappedFile.h"

namespace tarvolin::IndexWriter {

/// Returns the header written. Throws IndexError::tooManyVolumes for more than 12 volumes,
/// std::system_error (or std::filesystem::filesystem_error) for file-system failures.
IndexHeader write(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes,
                  const std::filesystem::path& target);

/// Writes the same bytes as `write` to the start of the open, empty file `file`, with no
/// temporary file, rename or flush (for a file no other process reads). Throws std::system_error.
void writeTo(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes,
             const platform::FileDescriptor& file);

/// The bytes `write` would write, as a read-only region in memory, for a store that is never
/// written to disk as such (IndexStore's image constructor). Throws std::system_error (ENOMEM).
platform::MappedFile image(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes);

/// Writes the file `store` was loaded from, byte for byte, to `target` the way `write` does (same
/// temporary file, lock and flushes). Same errors as `write`.
void copy(const IndexStore& store, const std::filesystem::path& target);

/// The header `write` would put in front of the builder's bytes (checksum and completeness).
IndexHeader headerFor(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes);

}  // namespace tarvolin::IndexWriter
