#include "tarvolin/catalog/detail/NewUUID.h"

#include <uuid/uuid.h>

namespace tarvolin::detail {

std::string newUUIDString() {
  uuid_t bytes;
  uuid_generate_random(bytes);
  char text[37];
  uuid_unparse_upper(bytes, text);
  return text;
}

}  // namespace tarvolin::detail
