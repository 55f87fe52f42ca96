#include "tarvolin/index/IndexError.h"

namespace tarvolin {

const char* IndexError::what() const noexcept {
  switch (kind_) {
    case Kind::versionMismatch:
      return "index format version mismatch";
    case Kind::badMagic:
      return "not an index file";
    case Kind::checksumMismatch:
      return "index checksum mismatch";
    case Kind::truncated:
      return "index file truncated";
    case Kind::tooManyVolumes:
      return "too many volumes";
  }
  return "index error";
}

}  // namespace tarvolin
