#pragma once
// Fresh random UUID strings, upper-case with dashes ("6F1C...-..."), for catalog ids and the
// names of temporary items that must not collide between concurrent calls. Any thread.

#include <string>

namespace tarvolin::detail {

std::string newUUIDString();

}  // namespace tarvolin::detail
