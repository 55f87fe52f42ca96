#pragma once
// Why a catalog's description or index cannot be used. Thrown by CatalogInfo::read and by callers
// that open a catalog's index; carries no message text (the tool phrases its own).

#include <cstdint>
#include <exception>

#include "tarvolin/index/IndexStore.h"

namespace tarvolin {

class CatalogError : public std::exception {
 public:
  enum class Kind { unsupportedFormat, damagedIndex, unreadableInfo };

  /// The document's formatVersion is newer than this build reads.
  static CatalogError unsupportedFormat(int64_t found) {
    return CatalogError(Kind::unsupportedFormat, found, {});
  }
  /// The catalog's index file cannot be used, for the loader's reason.
  static CatalogError damagedIndex(RebuildReason reason) {
    return CatalogError(Kind::damagedIndex, 0, reason);
  }
  /// The info file cannot be read or is not a valid document.
  static CatalogError unreadableInfo() { return CatalogError(Kind::unreadableInfo, 0, {}); }

  Kind kind() const { return kind_; }
  /// unsupportedFormat only: the version found in the document.
  int64_t found() const { return found_; }
  /// damagedIndex only: why the index does not load.
  const RebuildReason& reason() const { return reason_; }

  const char* what() const noexcept override;

  friend bool operator==(const CatalogError& a, const CatalogError& b) {
    return a.kind_ == b.kind_ && a.found_ == b.found_ && a.reason_ == b.reason_;
  }

 private:
  CatalogError(Kind kind, int64_t found, RebuildReason reason)
      : kind_(kind), found_(found), reason_(reason) {}

  Kind kind_;
  int64_t found_;
  RebuildReason reason_;
};

}  // namespace tarvolin
