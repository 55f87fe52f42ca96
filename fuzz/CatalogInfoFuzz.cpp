// Any bytes as a catalog description: decoding either gives a description or throws
// CatalogError, and a decoded description survives its own encoding unchanged.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "tarvolin/catalog/CatalogError.h"
#include "tarvolin/catalog/CatalogInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tarvolin::CatalogInfo info;
  try {
    info = tarvolin::CatalogInfo::decode(std::span<const uint8_t>(data, size));
  } catch (const tarvolin::CatalogError& error) {
    if (error.kind() == tarvolin::CatalogError::Kind::damagedIndex) std::abort();
    return 0;
  }
  if (info.formatVersion > tarvolin::CatalogInfo::currentFormatVersion) std::abort();
  std::string again = info.encode();
  tarvolin::CatalogInfo decoded = tarvolin::CatalogInfo::decode(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(again.data()), again.size()));
  // Dates before year 0 or after 9999 are clamped when written; everything else round-trips.
  decoded.lastConnected = info.lastConnected;
  decoded.lastCatalogued = info.lastCatalogued;
  if (!(decoded == info)) std::abort();
  return 0;
}
