#include "support/ZipWriter.h"

#include <libdeflate.h>

#include <stdexcept>

namespace tarvolin::testing {

namespace {

void put16(std::string& out, uint32_t value) {
  out += static_cast<char>(value & 0xFF);
  out += static_cast<char>((value >> 8) & 0xFF);
}

void put32(std::string& out, uint32_t value) {
  put16(out, value & 0xFFFF);
  put16(out, value >> 16);
}

}  // namespace

std::string deflateRaw(const std::string& bytes) {
  libdeflate_compressor* compressor = libdeflate_alloc_compressor(12);
  if (compressor == nullptr) throw std::runtime_error("libdeflate_alloc_compressor");
  std::string out(libdeflate_deflate_compress_bound(compressor, bytes.size()), '\0');
  size_t written =
      libdeflate_deflate_compress(compressor, bytes.data(), bytes.size(), out.data(), out.size());
  libdeflate_free_compressor(compressor);
  if (written == 0) throw std::runtime_error("libdeflate_deflate_compress");
  out.resize(written);
  return out;
}

std::string makeZip(const std::vector<ZipEntrySpec>& entries, const ZipOptions& options) {
  std::string archive, directory;
  for (const ZipEntrySpec& entry : entries) {
    std::string data = entry.method == 8 ? deflateRaw(entry.contents) : entry.contents;
    uint32_t size = entry.declaredSize.value_or(static_cast<uint32_t>(entry.contents.size()));
    auto localOffset = static_cast<uint32_t>(archive.size());

    put32(archive, entry.damagedLocalSignature ? 0x04034B51 : 0x04034B50);
    put16(archive, 20);                                        // version needed
    put16(archive, 0x0800);                                    // flags: UTF-8 names
    put16(archive, entry.method);                              // method
    put32(archive, 0);                                         // time, date
    put32(archive, 0);                                         // CRC (not checked by the reader)
    put32(archive, static_cast<uint32_t>(data.size()));        // compressed size
    put32(archive, size);                                      // uncompressed size
    put16(archive, static_cast<uint32_t>(entry.name.size()));  // name length
    put16(archive, 4);                                         // extra length
    archive += entry.name;
    archive += std::string("\xFE\xCA\0\0", 4);  // an empty extra block
    archive += data;

    put32(directory, 0x02014B50);
    put16(directory, 20);  // version made by
    put16(directory, 20);  // version needed
    put16(directory, 0x0800);
    put16(directory, entry.method);
    put32(directory, 0);
    put32(directory, 0);
    put32(directory, static_cast<uint32_t>(data.size()));
    put32(directory, size);
    put16(directory, static_cast<uint32_t>(entry.name.size()));
    put16(directory, 0);  // extra length
    put16(directory, 3);  // comment length
    put16(directory, 0);  // disk
    put16(directory, 0);  // internal attributes
    put32(directory, 0);  // external attributes
    put32(directory, localOffset);
    directory += entry.name;
    directory += "c/m";  // the entry comment
  }
  auto directoryOffset = static_cast<uint32_t>(archive.size());
  archive += directory;
  auto count = static_cast<uint16_t>(entries.size());
  put32(archive, 0x06054B50);
  put16(archive, 0);
  put16(archive, 0);
  put16(archive, count);
  put16(archive, options.claimedEntryCount.value_or(count));
  put32(archive, static_cast<uint32_t>(directory.size()));
  put32(archive, directoryOffset);
  put16(archive, static_cast<uint32_t>(options.comment.size()));
  archive += options.comment;
  return archive;
}

}  // namespace tarvolin::testing
