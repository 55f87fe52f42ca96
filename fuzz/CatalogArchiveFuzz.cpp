// Archives as bytes through every check of unpacking. The first byte chooses the input's shape:
//   even: the rest is the archive itself (mutations of real archives reach the zip reading);
//   odd:  the rest is "info length (2 bytes) | info | index body", packed here into a zip
//         whose two entry names the first byte picks, with the index's checksum made to match
//         so that the description and the index's structure checks are reached.
// Unpacking must throw ArchiveError (or a file-system error) or hand over a folder holding
// exactly the two regular files, inside the temporary folder.

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "tarvolin/catalog/CatalogArchive.h"
#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/FileRecord.h"
#include "tarvolin/index/IndexHeader.h"

namespace {

namespace fs = std::filesystem;

const char* const kNames[] = {"index.bin",    "info.json",   "./index.bin", "./info.json",
                              "../info.json", "a/index.bin", "info.json/",  "/index.bin"};

std::string zipOf(const std::string& firstName, const std::vector<uint8_t>& first,
                  const std::string& secondName, const std::vector<uint8_t>& second) {
  std::string bytes;
  archive* writer = archive_write_new();
  archive_write_set_format_zip(writer);
  archive_write_zip_set_compression_store(writer);
  auto append = [](archive*, void* out, const void* buffer, size_t length) -> la_ssize_t {
    static_cast<std::string*>(out)->append(static_cast<const char*>(buffer), length);
    return static_cast<la_ssize_t>(length);
  };
  archive_write_open(writer, &bytes, nullptr, append, nullptr);
  for (const auto& [name, data] :
       {std::pair{&firstName, &first}, std::pair{&secondName, &second}}) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name->c_str());
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_entry_set_size(entry, static_cast<la_int64_t>(data->size()));
    archive_write_header(writer, entry);
    archive_write_data(writer, data->data(), data->size());
    archive_entry_free(entry);
  }
  archive_write_close(writer);
  archive_write_free(writer);
  return bytes;
}

// A header in front of `body`: record count and blob length from its first 8 bytes (kept
// small), one volume, and the checksum of the body's records and names when they are there.
std::vector<uint8_t> indexOf(std::span<const uint8_t> body) {
  tarvolin::IndexHeader header;
  header.volumes = {{"UUID", "/", 0, true}};
  if (body.size() >= 8) {
    uint32_t count, blob;
    std::memcpy(&count, body.data(), 4);
    std::memcpy(&blob, body.data() + 4, 4);
    body = body.subspan(8);
    header.recordCount = count % 64;
    header.nameBlobLength = blob % 512;
    size_t needed = sizeof(tarvolin::FileRecord) * header.recordCount + header.nameBlobLength;
    if (body.size() >= needed) header.checksum = tarvolin::FastHash64::hash(body.first(needed));
  }
  std::vector<uint8_t> file = header.encode();
  file.insert(file.end(), body.begin(), body.end());
  return file;
}

void unpackAndCheck(std::span<const uint8_t> archive) {
  tarvolin::CatalogArchive::Unpacked unpacked;
  try {
    unpacked = tarvolin::CatalogArchive::unpack(archive);
  } catch (const tarvolin::CatalogArchive::ArchiveError&) {
    return;
  } catch (const std::system_error&) {
    return;
  }
  if (unpacked.directory.parent_path() != fs::temp_directory_path()) std::abort();
  size_t count = 0;
  for (const fs::directory_entry& item : fs::directory_iterator(unpacked.directory)) {
    ++count;
    std::string name = item.path().filename().string();
    if (name != "index.bin" && name != "info.json") std::abort();
    if (!item.is_regular_file() || item.is_symlink()) std::abort();
  }
  if (count != 2) std::abort();
  if (!tarvolin::CatalogArchive::isSafe(unpacked.info)) std::abort();
  fs::remove_all(unpacked.directory);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  uint8_t shape = data[0];
  std::span<const uint8_t> rest(data + 1, size - 1);
  if ((shape & 1) == 0) {
    unpackAndCheck(rest);
    return 0;
  }
  if (rest.size() < 2) return 0;
  size_t infoLength = std::min<size_t>(rest[0] | (rest[1] << 8), rest.size() - 2);
  std::vector<uint8_t> info(rest.begin() + 2, rest.begin() + 2 + static_cast<long>(infoLength));
  std::vector<uint8_t> index = indexOf(rest.subspan(2 + infoLength));
  // Mostly the right names, sometimes forged ones.
  std::string indexName = kNames[(shape >> 1) & 3 ? ((shape >> 1) & 1 ? 2 : 0) : 5];
  std::string infoName =
      kNames[(shape >> 3) & 3 ? ((shape >> 3) & 1 ? 3 : 1) : 4 + ((shape >> 5) & 3)];
  std::string archive = zipOf(indexName, index, infoName, info);
  unpackAndCheck({reinterpret_cast<const uint8_t*>(archive.data()), archive.size()});
  return 0;
}
