// A process that writes one kind of file over and over, for the kill tests: two versions, A and
// B, told apart by their size, written alternately to the target until the process is killed.
//   writer_probe index|trigrams|content TARGET once|forever
// "once" writes version A and exits (the state a test starts from).

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/query/TrigramIndex.h"

namespace {

using namespace tarvolin;

// Record counts of the two versions; the kill test checks a loaded file has one of them.
constexpr uint32_t kVersionA = 30000;
constexpr uint32_t kVersionB = 60000;

IndexBuilder builderOf(uint32_t count) {
  IndexBuilder builder(count, count * 16);
  uint32_t folder =
      builder.addEntry("folder", FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  for (uint32_t i = 1; i < count; ++i) {
    builder.addEntry("file-number-" + std::to_string(i) + ".txt", folder, RecordFlags{}, 0);
  }
  return builder;
}

std::string nameOf(uint32_t i) { return "file-number-" + std::to_string(i) + ".txt"; }

ContentIndex contentOf(uint32_t documents) {
  ContentIndex index;
  std::string text(200, 'x');
  for (uint32_t i = 0; i < documents / 100; ++i) {
    index.upsert("/documents/" + nameOf(i), 1000.0 + i, text + std::to_string(i));
  }
  return index;
}

void writeVersion(const std::string& kind, uint32_t count, const std::filesystem::path& target) {
  if (kind == "index") {
    IndexWriter::write(builderOf(count), {{"probe", "/", 0, true}}, target);
  } else if (kind == "trigrams") {
    // The store checksum a side file is tied to: the version's record count stands in for it.
    TrigramIndex index = TrigramIndex::build(
        [](uint32_t i) {
          static thread_local std::string name;
          name = nameOf(i);
          return std::string_view(name);
        },
        count, [] { return false; });
    index.write(target, count);
  } else if (kind == "content") {
    contentOf(count).write(target);
  } else {
    std::fprintf(stderr, "unknown kind %s\n", kind.c_str());
    std::exit(2);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: writer_probe index|trigrams|content TARGET once|forever\n", stderr);
    return 2;
  }
  std::string kind = argv[1];
  std::filesystem::path target = argv[2];
  if (std::strcmp(argv[3], "once") == 0) {
    writeVersion(kind, kVersionA, target);
    return 0;
  }
  for (;;) {
    writeVersion(kind, kVersionB, target);
    writeVersion(kind, kVersionA, target);
  }
}
