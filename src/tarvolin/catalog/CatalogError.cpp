#include "tarvolin/catalog/CatalogError.h"

namespace tarvolin {

const char* CatalogError::what() const noexcept {
  switch (kind_) {
    case Kind::unsupportedFormat:
      return "catalog format is newer than this build";
    case Kind::damagedIndex:
      return "catalog index is damaged";
    case Kind::unreadableInfo:
      return "catalog info is unreadable";
  }
  return "catalog error";
}

}  // namespace tarvolin
