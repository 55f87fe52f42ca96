#pragma once
// A whole file mapped read-only and private. The descriptor is closed as soon as the mapping
// exists; the mapping lives until the object is destroyed. The bytes never change, so any number
// of threads may read them without locks. `filled` makes the same kind of read-only region from
// bytes the process writes itself, for a file image that never goes to disk.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <system_error>

namespace tarvolin::platform {

class MappedFile {
 public:
  /// Maps `path` whole. `populate` asks the kernel to fault every page in at once (cheaper than
  /// one fault per page when the caller is about to read all of it). Throws std::system_error
  /// with the errno of the failed call (EISDIR for anything but a regular file) and the path.
  /// A file of zero bytes gives an empty mapping (no mmap call).
  static MappedFile open(const std::filesystem::path& path, bool populate);

  /// A private anonymous region of `size` bytes that `fill` writes once; read-only afterwards.
  /// Large regions are backed by huge pages where the kernel offers them. Throws
  /// std::system_error (ENOMEM) when the region cannot be mapped. A size of 0 maps nothing and
  /// calls `fill` with an empty span.
  static MappedFile filled(uint64_t size, const std::function<void(std::span<uint8_t>)>& fill);

  MappedFile() = default;
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  const uint8_t* data() const { return data_; }
  uint64_t size() const { return size_; }
  std::span<const uint8_t> bytes() const { return {data_, static_cast<size_t>(size_)}; }

 private:
  MappedFile(const uint8_t* data, uint64_t size) : data_(data), size_(size) {}
  void unmap();

  const uint8_t* data_ = nullptr;
  uint64_t size_ = 0;
};

}  // namespace tarvolin::platform
