#pragma once
// Why a content index file cannot be read or written. File-system failures are not among these:
// they are std::system_error with the errno.

#include <cstdint>
#include <exception>

namespace tarvolin {

class ContentIndexError : public std::exception {
 public:
  enum class Kind {
    /// The document table is not JSON, not an array of objects, or an object lacks one of the
    /// four members or holds one of the wrong type.
    malformedTable,
    /// The document table would need 2^32 bytes or more, past the width of its length prefix.
    tableTooLarge,
    /// A modification time is not a finite number, which JSON cannot hold.
    unencodableTime,
  };

  static ContentIndexError malformedTable(uint64_t atByte) {
    return ContentIndexError(Kind::malformedTable, atByte);
  }
  static ContentIndexError tableTooLarge() { return ContentIndexError(Kind::tableTooLarge); }
  static ContentIndexError unencodableTime() { return ContentIndexError(Kind::unencodableTime); }

  Kind kind() const { return kind_; }
  /// Only for malformedTable: roughly where in the table the reader gave up (bytes from the
  /// table's start), for diagnostics; not part of equality.
  uint64_t atByte() const { return atByte_; }

  const char* what() const noexcept override;

  friend bool operator==(const ContentIndexError& a, const ContentIndexError& b) {
    return a.kind_ == b.kind_;
  }

 private:
  explicit ContentIndexError(Kind kind, uint64_t atByte = 0) : kind_(kind), atByte_(atByte) {}

  Kind kind_;
  uint64_t atByte_;
};

}  // namespace tarvolin
