#include "tarvolin/content/ZipReader.h"

#include <libdeflate.h>

#include <memory>
#include <utility>

#include "tarvolin/content/detail/ZipStructure.h"
#include "tarvolin/platform/FileDescriptor.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::ZipReader {

namespace detail {

uint16_t read16(std::span<const uint8_t> bytes, size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < 2) return 0;
  return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

uint32_t read32(std::span<const uint8_t> bytes, size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < 4) return 0;
  return static_cast<uint32_t>(bytes[offset]) | static_cast<uint32_t>(bytes[offset + 1]) << 8 |
         static_cast<uint32_t>(bytes[offset + 2]) << 16 |
         static_cast<uint32_t>(bytes[offset + 3]) << 24;
}

std::optional<EndRecord> findEndRecord(std::span<const uint8_t> archive) {
  if (archive.size() < endRecordBytes) return std::nullopt;
  size_t lowest = archive.size() > endRecordSearchBytes ? archive.size() - endRecordSearchBytes : 0;
  for (size_t at = archive.size() - endRecordBytes;; --at) {
    if (read32(archive, at) == endRecordSignature) {
      return EndRecord{read16(archive, at + 10), read32(archive, at + 16)};
    }
    if (at == lowest) return std::nullopt;
  }
}

namespace {

struct DecompressorDeleter {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// One decompressor per thread: it holds ~10 KiB of tables, reused for every entry.
libdeflate_decompressor* threadDecompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> decompressor(
      libdeflate_alloc_decompressor());
  return decompressor.get();
}

}  // namespace

std::optional<std::vector<uint8_t>> rawInflate(std::span<const uint8_t> compressed,
                                               size_t expectedBytes) {
  libdeflate_decompressor* decompressor = threadDecompressor();
  if (decompressor == nullptr) return std::nullopt;
  std::vector<uint8_t> out(expectedBytes);
  size_t written = 0;
  switch (libdeflate_deflate_decompress(decompressor, compressed.data(), compressed.size(),
                                        out.data(), out.size(), &written)) {
    case LIBDEFLATE_SUCCESS:
      if (written == 0) return std::nullopt;
      out.resize(written);
      return out;
    case LIBDEFLATE_INSUFFICIENT_SPACE:
      // The entry inflates past its declared size: keep the declared size and cut the rest.
      return out;
    default:
      return std::nullopt;
  }
}

}  // namespace detail

namespace {

using namespace detail;

enum Method : uint16_t { stored = 0, deflated = 8 };

}  // namespace

std::vector<Entry> entries(std::span<const uint8_t> archive, const NamePredicate& accept) {
  std::vector<Entry> found;
  std::optional<EndRecord> end = findEndRecord(archive);
  if (!end || end->entryCount == 0) return found;

  size_t at = end->centralDirectoryOffset;
  uint64_t declaredBytes = 0;  // of the entries read so far, at most maxTotalBytes
  for (uint32_t i = 0; i < end->entryCount; ++i) {
    if (at > archive.size() || archive.size() - at < centralHeaderBytes) break;
    if (read32(archive, at) != centralHeaderSignature) break;
    uint16_t method = read16(archive, at + 10);
    uint32_t compressedBytes = read32(archive, at + 20);
    uint32_t uncompressedBytes = read32(archive, at + 24);
    size_t nameBytes = read16(archive, at + 28);
    size_t extraBytes = read16(archive, at + 30);
    size_t commentBytes = read16(archive, at + 32);
    size_t localAt = read32(archive, at + 42);
    size_t nameAt = at + centralHeaderBytes;
    if (archive.size() - nameAt < nameBytes) break;
    size_t next = nameAt + nameBytes + extraBytes + commentBytes;
    std::string name = platform::decodeUtf8Lossy(
        std::string_view(reinterpret_cast<const char*>(archive.data() + nameAt), nameBytes));
    at = next;

    if (!accept(name) || uncompressedBytes > maxEntryBytes) continue;
    if (localAt > archive.size() || archive.size() - localAt < localHeaderBytes) continue;
    if (read32(archive, localAt) != localHeaderSignature) continue;
    size_t dataAt =
        localAt + localHeaderBytes + read16(archive, localAt + 26) + read16(archive, localAt + 28);
    if (dataAt > archive.size() || archive.size() - dataAt < compressedBytes) continue;
    std::span<const uint8_t> data = archive.subspan(dataAt, compressedBytes);
    uint64_t cost = method == stored ? compressedBytes : uncompressedBytes;
    if (maxTotalBytes - declaredBytes < cost) break;
    declaredBytes += cost;

    if (method == stored) {
      found.push_back({std::move(name), std::vector<uint8_t>(data.begin(), data.end())});
    } else if (method == deflated) {
      if (uncompressedBytes == 0) continue;
      std::optional<std::vector<uint8_t>> inflated = rawInflate(data, uncompressedBytes);
      if (!inflated) continue;
      found.push_back({std::move(name), std::move(*inflated)});
    }
  }
  return found;
}

std::vector<Entry> entries(const std::filesystem::path& path, const NamePredicate& accept) {
  // Copied, not mapped: a document shortened while it is read must not fault the reader.
  std::optional<std::vector<uint8_t>> bytes = platform::readFilePrefix(path, maxArchiveBytes + 1);
  if (!bytes || bytes->size() > maxArchiveBytes) return {};
  return entries(*bytes, accept);
}

}  // namespace tarvolin::ZipReader
