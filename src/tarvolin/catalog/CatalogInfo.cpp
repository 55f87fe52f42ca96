#include "tarvolin/catalog/CatalogInfo.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "tarvolin/catalog/CatalogError.h"
#include "tarvolin/catalog/detail/IsoDate.h"
#include "tarvolin/platform/AtomicFile.h"
#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin {

namespace {

using nlohmann::json;

// A document longer than this is not a catalog description; reading stops there.
constexpr size_t kMostInfoBytes = size_t{64} << 20;

// Each getter returns false when the key's value has the wrong type or range; a missing key is
// an error for required fields and an absent value for optional ones (null counts as missing).

template <typename Integer>
bool integerValue(const json& value, Integer& out) {
  if (value.is_number_unsigned()) {
    auto number = value.get<uint64_t>();
    if (number > static_cast<uint64_t>(std::numeric_limits<Integer>::max())) return false;
    out = static_cast<Integer>(number);
    return true;
  }
  if (value.is_number_integer()) {
    auto number = value.get<int64_t>();
    if constexpr (std::numeric_limits<Integer>::is_signed) {
      if (number < static_cast<int64_t>(std::numeric_limits<Integer>::min()) ||
          number > static_cast<int64_t>(std::numeric_limits<Integer>::max())) {
        return false;
      }
    } else {
      if (number < 0 || static_cast<uint64_t>(number) > std::numeric_limits<Integer>::max()) {
        return false;
      }
    }
    out = static_cast<Integer>(number);
    return true;
  }
  return false;
}

const json* member(const json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return nullptr;
  return &*found;
}

template <typename Integer>
bool required(const json& object, const char* key, Integer& out) {
  const json* value = member(object, key);
  return value != nullptr && integerValue(*value, out);
}

bool required(const json& object, const char* key, std::string& out) {
  const json* value = member(object, key);
  if (value == nullptr || !value->is_string()) return false;
  out = value->get<std::string>();
  return true;
}

template <typename Integer>
bool optional(const json& object, const char* key, std::optional<Integer>& out) {
  const json* value = member(object, key);
  if (value == nullptr) return true;
  Integer number{};
  if (!integerValue(*value, number)) return false;
  out = number;
  return true;
}

bool optionalDate(const json& object, const char* key, std::optional<CatalogInfo::Date>& out) {
  const json* value = member(object, key);
  if (value == nullptr) return true;
  if (!value->is_string()) return false;
  out = detail::parseIsoDate(value->get_ref<const std::string&>());
  return out.has_value();
}

}  // namespace

CatalogInfo CatalogInfo::decode(std::span<const uint8_t> bytes) {
  json document = json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (!document.is_object()) throw CatalogError::unreadableInfo();

  // The version first: a newer document is reported as such whatever else it holds.
  CatalogInfo info;
  if (!required(document, "formatVersion", info.formatVersion)) {
    throw CatalogError::unreadableInfo();
  }
  if (info.formatVersion > currentFormatVersion) {
    throw CatalogError::unsupportedFormat(info.formatVersion);
  }

  std::string kind;
  bool complete = required(document, "id", info.id) && required(document, "kind", kind) &&
                  required(document, "volumeUUID", info.volumeUUID) &&
                  required(document, "relativeRoot", info.relativeRoot) &&
                  required(document, "name", info.name) &&
                  required(document, "lastMountPath", info.lastMountPath) &&
                  optional(document, "capacityBytes", info.capacityBytes) &&
                  optional(document, "freeBytes", info.freeBytes) &&
                  required(document, "fileCount", info.fileCount) &&
                  required(document, "folderCount", info.folderCount) &&
                  required(document, "totalBytes", info.totalBytes) &&
                  optional(document, "rootRecordID", info.rootRecordID) &&
                  optionalDate(document, "lastConnected", info.lastConnected) &&
                  optionalDate(document, "lastCatalogued", info.lastCatalogued);
  if (!complete) throw CatalogError::unreadableInfo();
  std::optional<Kind> known = kindNamed(kind);
  if (!known) throw CatalogError::unreadableInfo();
  info.kind = *known;
  return info;
}

CatalogInfo CatalogInfo::read(const std::filesystem::path& path) {
  std::optional<std::vector<uint8_t>> bytes = platform::readFilePrefix(path, kMostInfoBytes + 1);
  if (!bytes || bytes->size() > kMostInfoBytes) throw CatalogError::unreadableInfo();
  return decode(*bytes);
}

std::string CatalogInfo::encode() const {
  // nlohmann's object keeps its keys in a std::map: byte order, as the format wants.
  json document = json::object();
  document["formatVersion"] = formatVersion;
  document["id"] = id;
  document["kind"] = std::string(kindName(kind));
  document["volumeUUID"] = volumeUUID;
  document["relativeRoot"] = relativeRoot;
  document["name"] = name;
  document["lastMountPath"] = lastMountPath;
  if (capacityBytes) document["capacityBytes"] = *capacityBytes;
  if (freeBytes) document["freeBytes"] = *freeBytes;
  document["fileCount"] = fileCount;
  document["folderCount"] = folderCount;
  document["totalBytes"] = totalBytes;
  if (rootRecordID) document["rootRecordID"] = *rootRecordID;
  if (lastConnected) document["lastConnected"] = detail::formatIsoDate(*lastConnected);
  if (lastCatalogued) document["lastCatalogued"] = detail::formatIsoDate(*lastCatalogued);
  std::string text = document.dump(2, ' ', false, json::error_handler_t::replace);
  text.push_back('\n');
  return text;
}

void CatalogInfo::write(const std::filesystem::path& path) const {
  std::string text = encode();
  platform::AtomicFile file(path);
  file.write(text);
  file.commit();
}

std::string CatalogInfo::join(std::string_view mountPath, std::string_view relative) {
  if (relative.empty()) return std::string(mountPath);
  std::string joined;
  if (mountPath == "/") {
    joined = "/";
  } else {
    joined = std::string(mountPath) + "/";
  }
  joined += relative;
  return joined;
}

std::string_view CatalogInfo::kindName(Kind kind) {
  switch (kind) {
    case Kind::drive:
      return "drive";
    case Kind::folder:
      return "folder";
    case Kind::efu:
      return "efu";
  }
  return "folder";
}

std::optional<CatalogInfo::Kind> CatalogInfo::kindNamed(std::string_view name) {
  if (name == "drive") return Kind::drive;
  if (name == "folder") return Kind::folder;
  if (name == "efu") return Kind::efu;
  return std::nullopt;
}

}  // namespace tarvolin
