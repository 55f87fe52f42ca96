#include "tarvolin/content/ContentIndexError.h"

namespace tarvolin {

const char* ContentIndexError::what() const noexcept {
  switch (kind_) {
    case Kind::malformedTable:
      return "content index table is malformed";
    case Kind::tableTooLarge:
      return "content index table too large";
    case Kind::unencodableTime:
      return "content index time is not a finite number";
  }
  return "content index error";
}

}  // namespace tarvolin
