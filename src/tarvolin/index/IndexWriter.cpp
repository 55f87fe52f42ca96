#include "tarvolin/index/IndexWriter.h"

#include <algorithm>

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/IndexError.h"
#include "tarvolin/platform/AtomicFile.h"
#include "tarvolin/platform/FolderLock.h"
#include "tarvolin/platform/Precondition.h"

namespace tarvolin::IndexWriter {

namespace {

std::span<const uint8_t> recordBytes(const IndexBuilder& builder) {
  const auto& records = builder.records();
  return {reinterpret_cast<const uint8_t*>(records.data()), records.size() * sizeof(FileRecord)};
}

// Replaces `target` with the parts, one after the other.
void replace(const std::filesystem::path& target, std::span<const std::span<const uint8_t>> parts) {
  // Every writer of this index uses the same temporary name: one at a time per folder.
  std::filesystem::path folder = target.parent_path().empty() ? "." : target.parent_path();
  std::filesystem::create_directories(folder);
  platform::FolderLock writers(folder);
  platform::AtomicFile file(target);
  // The temporary file exists now; the AtomicFile removes it if anything below throws.
  // One gathered write: the page cache then holds the file in large pieces from its first byte,
  // which readers map with fewer, larger page table entries.
  file.write(parts);
  file.commit();
}

}  // namespace

IndexHeader headerFor(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes) {
  FastHash64::Rolling checksum;
  checksum.update(recordBytes(builder));
  checksum.update(builder.nameBlob());

  size_t filled = 0;
  for (const FileRecord& record : builder.records()) {
    if (record.flags.contains(RecordFlags::attrsFilled)) ++filled;
  }
  size_t count = builder.records().size();
  TARVOLIN_PRECONDITION(count <= 0xFFFFFFFFull);
  TARVOLIN_PRECONDITION(builder.nameBlob().size() <= 0xFFFFFFFFull);

  IndexHeader header;
  header.recordCount = static_cast<uint32_t>(count);
  header.nameBlobLength = static_cast<uint32_t>(builder.nameBlob().size());
  header.checksum = checksum.finish();
  header.volumes = volumes;
  header.attrsCompleteness = filled == 0       ? AttrsCompleteness::none
                             : filled == count ? AttrsCompleteness::complete
                                               : AttrsCompleteness::partial;
  return header;
}

IndexHeader write(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes,
                  const std::filesystem::path& target) {
  IndexHeader header = headerFor(builder, volumes);
  std::vector<uint8_t> headerBytes = header.encodeChecked();
  const std::span<const uint8_t> parts[] = {headerBytes, recordBytes(builder), builder.nameBlob()};
  replace(target, parts);
  return header;
}

platform::MappedFile image(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes) {
  std::vector<uint8_t> headerBytes = headerFor(builder, volumes).encodeChecked();
  const std::span<const uint8_t> parts[] = {headerBytes, recordBytes(builder), builder.nameBlob()};
  uint64_t size = 0;
  for (const auto& part : parts) size += part.size();
  return platform::MappedFile::filled(size, [&](std::span<uint8_t> into) {
    for (const auto& part : parts) {
      std::copy(part.begin(), part.end(), into.begin());
      into = into.subspan(part.size());
    }
  });
}

void copy(const IndexStore& store, const std::filesystem::path& target) {
  const std::span<const uint8_t> parts[] = {store.fileBytes()};
  replace(target, parts);
}

void writeTo(const IndexBuilder& builder, const std::vector<VolumeEntry>& volumes,
             const platform::FileDescriptor& file) {
  std::vector<uint8_t> headerBytes = headerFor(builder, volumes).encodeChecked();
  const std::span<const uint8_t> parts[] = {headerBytes, recordBytes(builder), builder.nameBlob()};
  file.writeAll(parts);
}

}  // namespace tarvolin::IndexWriter
