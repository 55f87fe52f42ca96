#pragma once
// Why an index file cannot be written or used. Thrown by the header codec, the writer and the
// store; `loadIndex` turns each case into a RebuildReason.

#include <cstdint>
#include <exception>

namespace tarvolin {

class IndexError : public std::exception {
 public:
  enum class Kind { versionMismatch, badMagic, checksumMismatch, truncated, tooManyVolumes };

  static IndexError versionMismatch(uint32_t found, uint32_t expected) {
    return IndexError(Kind::versionMismatch, found, expected);
  }
  static IndexError badMagic() { return IndexError(Kind::badMagic); }
  static IndexError checksumMismatch() { return IndexError(Kind::checksumMismatch); }
  static IndexError truncated() { return IndexError(Kind::truncated); }
  static IndexError tooManyVolumes() { return IndexError(Kind::tooManyVolumes); }

  Kind kind() const { return kind_; }
  /// Only for versionMismatch: the version in the file and the one this build writes.
  uint32_t found() const { return found_; }
  uint32_t expected() const { return expected_; }

  const char* what() const noexcept override;

  friend bool operator==(const IndexError& a, const IndexError& b) {
    return a.kind_ == b.kind_ && a.found_ == b.found_ && a.expected_ == b.expected_;
  }

 private:
  explicit IndexError(Kind kind, uint32_t found = 0, uint32_t expected = 0)
      : kind_(kind), found_(found), expected_(expected) {}

  Kind kind_;
  uint32_t found_;
  uint32_t expected_;
};

}  // namespace tarvolin
