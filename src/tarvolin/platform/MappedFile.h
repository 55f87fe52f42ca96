#pragma once
// A whole file mapped read-only and private. The descriptor is closed as soon as the mapping
// exists; the mapping lives until the object is destroyed. The bytes never change, so any number
// of threads may read them without locks.

#include <cstdint>
#include <filesystem>
#include <span>

namespace tarvolin::platform {

class MappedFile {
 public:
  /// Why a mapping could not be made; the caller decides what each means.
  enum class Failure { open, stat, map };

  struct Error {
    Failure failure;
    int errorNumber;
  };

  /// Maps `path` whole. `populate` asks the kernel to fault every page in at once (cheaper than
  /// one fault per page when the caller is about to read all of it). Throws MappedFile::Error.
  /// A file of zero bytes gives an empty mapping (no mmap call).
  static MappedFile open(const std::filesystem::path& path, bool populate);

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
