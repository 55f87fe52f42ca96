#include "tarvolin/index/IndexHeader.h"

#include <algorithm>
#include <cstring>

#include "tarvolin/index/IndexError.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {

template <typename T>
void put(std::vector<uint8_t>& buffer, size_t offset, T value) {
  std::memcpy(buffer.data() + offset, &value, sizeof(T));
}

template <typename T>
T get(std::span<const uint8_t> bytes, size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

std::string readFixedString(std::span<const uint8_t> bytes, size_t offset, size_t size) {
  const auto* start = reinterpret_cast<const char*>(bytes.data() + offset);
  const void* zero = std::memchr(start, 0, size);
  size_t length = zero ? static_cast<size_t>(static_cast<const char*>(zero) - start) : size;
  return platform::decodeUtf8Lossy({start, length});
}

constexpr size_t kVolumeTableOffset = 32;

}  // namespace

namespace detail {
void writeFixedString(std::vector<uint8_t>& buffer, const std::string& text, size_t offset,
                      size_t size) {
  size_t length = std::min(text.size(), size - 1);
  std::memcpy(buffer.data() + offset, text.data(), length);
  buffer[offset + length] = 0;
}
}  // namespace detail

std::vector<uint8_t> IndexHeader::encode() const {
  std::vector<uint8_t> buffer(byteSize, 0);
  size_t volumeCount = std::min(volumes.size(), maxVolumes);
  put<uint32_t>(buffer, 0, magic);
  put<uint32_t>(buffer, 4, formatVersion);
  put<uint32_t>(buffer, 8, recordCount);
  put<uint32_t>(buffer, 12, nameBlobLength);
  put<uint64_t>(buffer, 16, checksum);
  put<uint32_t>(buffer, 24, static_cast<uint32_t>(volumeCount));
  buffer[28] = static_cast<uint8_t>(attrsCompleteness);
  for (size_t i = 0; i < volumeCount; ++i) {
    size_t slot = kVolumeTableOffset + VolumeEntry::byteSize * i;
    const VolumeEntry& volume = volumes[i];
    detail::writeFixedString(buffer, volume.uuid, slot, VolumeEntry::uuidFieldSize);
    detail::writeFixedString(buffer, volume.mountPath, slot + 40, VolumeEntry::pathFieldSize);
    put<uint64_t>(buffer, slot + 296, volume.lastEventID);
    buffer[slot + 304] = volume.isAvailable ? 1 : 0;
  }
  return buffer;
}

std::vector<uint8_t> IndexHeader::encodeChecked() const {
  if (volumes.size() > maxVolumes) throw IndexError::tooManyVolumes();
  return encode();
}

IndexHeader IndexHeader::decode(std::span<const uint8_t> bytes) {
  if (bytes.size() < byteSize) throw IndexError::truncated();
  if (get<uint32_t>(bytes, 0) != magic) throw IndexError::badMagic();
  uint32_t version = get<uint32_t>(bytes, 4);
  if (version != formatVersion) throw IndexError::versionMismatch(version, formatVersion);
  uint32_t volumeCount = get<uint32_t>(bytes, 24);
  if (volumeCount > maxVolumes) throw IndexError::tooManyVolumes();

  IndexHeader header;
  header.recordCount = get<uint32_t>(bytes, 8);
  header.nameBlobLength = get<uint32_t>(bytes, 12);
  header.checksum = get<uint64_t>(bytes, 16);
  switch (bytes[28]) {
    case 2:
      header.attrsCompleteness = AttrsCompleteness::complete;
      break;
    case 1:
      header.attrsCompleteness = AttrsCompleteness::partial;
      break;
    default:
      header.attrsCompleteness = AttrsCompleteness::none;
      break;
  }
  header.volumes.reserve(volumeCount);
  for (uint32_t i = 0; i < volumeCount; ++i) {
    size_t slot = kVolumeTableOffset + VolumeEntry::byteSize * i;
    VolumeEntry volume;
    volume.uuid = readFixedString(bytes, slot, VolumeEntry::uuidFieldSize);
    volume.mountPath = readFixedString(bytes, slot + 40, VolumeEntry::pathFieldSize);
    volume.lastEventID = get<uint64_t>(bytes, slot + 296);
    volume.isAvailable = bytes[slot + 304] == 1;
    header.volumes.push_back(std::move(volume));
  }
  return header;
}

}  // namespace tarvolin
