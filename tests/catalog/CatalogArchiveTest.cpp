// Catalog archives: the export and unpack round trip, and each check of unpacking met by an
// archive built to break it. Hostile archives are written here with the archive library itself,
// so that they hold exactly the entries a forger could make.

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "support/ZipWriter.h"
#include "tarvolin/catalog/CatalogArchive.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

namespace fs = std::filesystem;
using CatalogArchive::ArchiveError;
using testing::readFile;
using testing::TempTree;
using testing::writeFile;

struct Entry {
  std::string name;
  std::string contents;
  unsigned type = AE_IFREG;  // AE_IFDIR, AE_IFLNK, AE_IFCHR ...
  std::string linkTarget;    // symbolic link target
  std::string hardlink;      // hard link target
  uint64_t zeros = 0;        // appended zero bytes (for bombs), streamed
};

// A zip archive of the entries, in order, in memory.
std::string makeArchive(const std::vector<Entry>& entries) {
  std::string bytes;
  archive* writer = archive_write_new();
  archive_write_set_format_zip(writer);
  archive_write_zip_set_compression_deflate(writer);
  auto append = [](archive*, void* data, const void* buffer, size_t length) -> la_ssize_t {
    static_cast<std::string*>(data)->append(static_cast<const char*>(buffer), length);
    return static_cast<la_ssize_t>(length);
  };
  archive_write_open(writer, &bytes, nullptr, append, nullptr);
  for (const Entry& item : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, item.name.c_str());
    archive_entry_set_filetype(entry, item.type);
    archive_entry_set_perm(entry, 0644);
    if (!item.linkTarget.empty()) archive_entry_set_symlink(entry, item.linkTarget.c_str());
    if (!item.hardlink.empty()) archive_entry_set_hardlink(entry, item.hardlink.c_str());
    bool hasData = item.type == AE_IFREG && item.hardlink.empty();
    archive_entry_set_size(
        entry, hasData ? static_cast<la_int64_t>(item.contents.size() + item.zeros) : 0);
    EXPECT_EQ(archive_write_header(writer, entry), ARCHIVE_OK) << archive_error_string(writer);
    if (hasData) {
      archive_write_data(writer, item.contents.data(), item.contents.size());
      std::string block(1 << 20, '\0');
      for (uint64_t left = item.zeros; left > 0;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(left, block.size()));
        archive_write_data(writer, block.data(), n);
        left -= n;
      }
    }
    archive_entry_free(entry);
  }
  archive_write_close(writer);
  archive_write_free(writer);
  return bytes;
}

std::span<const uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// A folder catalog of /Volumes/Disk/Photos: its index bytes and its description.
struct CatalogFiles {
  std::string index;
  CatalogInfo info;
};

CatalogFiles catalogOf(const IndexBuilder& builder, CatalogInfo info) {
  TempTree scratch;
  IndexWriter::write(builder, {VolumeEntry{"UUID-1", "/Volumes/Disk/Photos", 0, true}},
                     scratch / "index.bin");
  return {readFile(scratch / "index.bin"), std::move(info)};
}

CatalogFiles goodCatalog() {
  IndexBuilder builder = testing::buildTree(
      {{"/Volumes/Disk/Photos/2023/beach.jpg", 10, 1}, {"/Volumes/Disk/Photos/notes.txt", 5, 1}});
  CatalogInfo info{.id = "ORIG",
                   .kind = CatalogInfo::Kind::folder,
                   .volumeUUID = "UUID-1",
                   .relativeRoot = "Photos",
                   .name = "Photos",
                   .lastMountPath = "/Volumes/Disk",
                   .fileCount = 2,
                   .folderCount = 1,
                   .totalBytes = 15,
                   .rootRecordID = 3};
  return catalogOf(builder, info);
}

std::string archiveOf(const CatalogFiles& files, std::string indexName = "index.bin",
                      std::string infoName = "info.json") {
  return makeArchive({{indexName, files.index}, {infoName, files.info.encode()}});
}

std::optional<ArchiveError> unpackError(const std::string& archive) {
  try {
    CatalogArchive::Unpacked unpacked = CatalogArchive::unpack(bytesOf(archive));
    fs::remove_all(unpacked.directory);
  } catch (const ArchiveError& error) {
    return error;
  }
  return std::nullopt;
}

// The temporary folder's catalog-import-* items: none may stay behind after a failure.
size_t leftovers() {
  size_t count = 0;
  for (const auto& item : fs::directory_iterator(fs::temp_directory_path())) {
    if (item.path().filename().string().starts_with("catalog-import-")) ++count;
  }
  return count;
}

TEST(CatalogArchiveTest, ExportThenUnpackGivesTheCatalogBack) {
  TempTree tree{"catalog/"};
  CatalogFiles files = goodCatalog();
  writeFile(tree / "catalog/index.bin", files.index);
  files.info.write(tree / "catalog/info.json");
  writeFile(tree / "catalog/trigram.cache", "not exported");
  fs::path destination = tree / "out/Photos.tarvolincatalog";
  fs::create_directories(destination.parent_path());
  writeFile(destination, "an older file, replaced");

  CatalogArchive::exportCatalog(tree / "catalog", destination);
  EXPECT_EQ(CatalogArchive::listEntries(destination),
            (std::vector<std::string>{"index.bin", "info.json"}));
  // Only the destination is left beside it.
  EXPECT_EQ(std::distance(fs::directory_iterator(destination.parent_path()), {}), 1);

  CatalogArchive::Unpacked unpacked = CatalogArchive::unpack(destination);
  EXPECT_EQ(unpacked.info, files.info);
  EXPECT_EQ(readFile(unpacked.directory / "index.bin"), files.index);
  EXPECT_EQ(std::distance(fs::directory_iterator(unpacked.directory), {}), 2);
  fs::remove_all(unpacked.directory);
}

TEST(CatalogArchiveTest, ExportFallsBackBesideTheDestinationAndCleansUp) {
  TempTree tree{"catalog/"};
  CatalogFiles files = goodCatalog();
  writeFile(tree / "catalog/index.bin", files.index);
  files.info.write(tree / "catalog/info.json");
  fs::path destination = tree / "Photos.tarvolincatalog";
  fs::path usedTarget;
  auto noScratch = [](const fs::path&) -> fs::path { throw std::runtime_error("none"); };
  auto zip = [&](const fs::path& folder, const fs::path& target) {
    usedTarget = target;
    CatalogArchive::writeZip(folder, target);
  };
  CatalogArchive::exportCatalog(tree / "catalog", destination, noScratch, zip);
  EXPECT_EQ(usedTarget.parent_path(), tree.root());
  EXPECT_TRUE(usedTarget.filename().string().starts_with(".Photos.tarvolincatalog."));
  EXPECT_TRUE(fs::exists(destination));
  EXPECT_FALSE(fs::exists(usedTarget));

  // A failing zip leaves the earlier destination as it was, and no temporary item.
  auto failingZip = [&](const fs::path&, const fs::path& target) {
    writeFile(target, "partial");
    throw ArchiveError::toolFailed("disk full");
  };
  std::string before = readFile(destination);
  EXPECT_THROW(CatalogArchive::exportCatalog(tree / "catalog", destination,
                                             CatalogArchive::defaultScratchDirectory, failingZip),
               ArchiveError);
  EXPECT_EQ(readFile(destination), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(tree.root()), {}), 2);  // catalog + archive
}

TEST(CatalogArchiveTest, ScratchLeftByAKilledExportGoesWithTheNextOne) {
  TempTree tree{"catalog/"};
  CatalogFiles files = goodCatalog();
  writeFile(tree / "catalog/index.bin", files.index);
  files.info.write(tree / "catalog/info.json");
  // The id of a process that has ended, and of one that runs (this one).
  pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  fs::path abandoned = tree / (".catalog-export-" + std::to_string(child) + "-A");
  fs::path running = tree / (".catalog-export-" + std::to_string(getpid()) + "-B");
  fs::create_directories(abandoned);
  writeFile(abandoned / "Photos.tarvolincatalog", "half an archive");
  fs::create_directories(running);

  CatalogArchive::exportCatalog(tree / "catalog", tree / "Photos.tarvolincatalog");
  EXPECT_FALSE(fs::exists(abandoned));
  EXPECT_TRUE(fs::exists(running));
  EXPECT_TRUE(fs::exists(tree / "Photos.tarvolincatalog"));
}

TEST(CatalogArchiveTest, DotSlashNamesAreTheSameNames) {
  CatalogFiles files = goodCatalog();
  EXPECT_EQ(unpackError(archiveOf(files, "./index.bin", "./info.json")), std::nullopt);
  EXPECT_EQ(unpackError(archiveOf(files, "./index.bin", "info.json")), std::nullopt);
}

TEST(CatalogArchiveTest, StructuralAndEscapingArchivesAreNotCatalogs) {
  CatalogFiles files = goodCatalog();
  std::string info = files.info.encode();
  std::string index = files.index;
  size_t before = leftovers();
  struct Case {
    const char* label;
    std::vector<Entry> entries;
  };
  std::vector<Case> cases = {
      {"only the index", {{"index.bin", index}}},
      {"a third entry", {{"index.bin", index}, {"info.json", info}, {"extra.txt", "x"}}},
      {"twice the index", {{"index.bin", index}, {"index.bin", index}}},
      {"a folder entry", {{"index.bin", index}, {"info.json", info}, {"sub/", "", AE_IFDIR}}},
      {"info as a folder", {{"index.bin", index}, {"info.json/", "", AE_IFDIR}}},
      {"climbing names", {{"../index.bin", index}, {"../info.json", info}}},
      {"absolute names", {{"/tmp/index.bin", index}, {"/tmp/info.json", info}}},
      {"nested names", {{"a/index.bin", index}, {"a/info.json", info}}},
      {"info as a symbolic link",
       {{"index.bin", index}, {"info.json", "", AE_IFLNK, "/etc/passwd"}}},
      {"info as a hard link", {{"index.bin", index}, {"info.json", "", AE_IFREG, "", "index.bin"}}},
      {"empty archive", {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(unpackError(makeArchive(c.entries)), ArchiveError::notACatalog()) << c.label;
  }
  EXPECT_EQ(unpackError("this is not a zip archive at all"), ArchiveError::notACatalog());
  EXPECT_EQ(unpackError(""), ArchiveError::notACatalog());
  EXPECT_FALSE(fs::exists("/tmp/index.bin") && readFile("/tmp/index.bin") == index);
  EXPECT_EQ(leftovers(), before);
}

TEST(CatalogArchiveTest, OversizedEntriesAreRefusedWhileReading) {
  CatalogFiles files = goodCatalog();
  // An info document padded past 1 MiB (it compresses to almost nothing).
  std::string bigInfo = makeArchive(
      {{"index.bin", files.index}, {"info.json", files.info.encode(), AE_IFREG, "", "", 1 << 20}});
  EXPECT_EQ(unpackError(bigInfo), ArchiveError::notACatalog());
  // A bomb: 128 MiB of zeros behind a small index, far past 100 times the archive's size.
  std::string bomb = makeArchive({{"index.bin", files.index, AE_IFREG, "", "", uint64_t{128} << 20},
                                  {"info.json", files.info.encode()}});
  ASSERT_LT(bomb.size(), 1u << 20);
  EXPECT_EQ(unpackError(bomb), ArchiveError::notACatalog());
  // An entry whose directory claims about 4 GB: its bytes disagree with the claim, so reading
  // it fails before anything past its real size is written.
  std::string claim = testing::makeZip(
      {{"index.bin", files.index}, {"info.json", files.info.encode(), 8, 0xFFFFFF00u}});
  std::optional<ArchiveError> refused = unpackError(claim);
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->kind(), ArchiveError::Kind::unsupportedFormat);
}

TEST(CatalogArchiveTest, InfoDocumentChecks) {
  CatalogFiles files = goodCatalog();
  auto withInfo = [&](const std::function<void(nlohmann::json&)>& change) {
    nlohmann::json document = nlohmann::json::parse(files.info.encode());
    change(document);
    return makeArchive({{"index.bin", files.index}, {"info.json", document.dump()}});
  };
  EXPECT_EQ(unpackError(withInfo([](auto& d) { d["formatVersion"] = 2; })),
            ArchiveError::unsupportedFormat(2));
  EXPECT_EQ(unpackError(withInfo([](auto& d) { d.erase("name"); })), ArchiveError::notACatalog());
  EXPECT_EQ(unpackError(makeArchive({{"index.bin", files.index}, {"info.json", "{"}})),
            ArchiveError::notACatalog());
}

TEST(CatalogArchiveTest, IsSafeRefusesClimbingPaths) {
  struct Case {
    const char* relativeRoot;
    const char* lastMountPath;
    CatalogInfo::Kind kind;
    bool safe;
  };
  using Kind = CatalogInfo::Kind;
  const Case cases[] = {
      {"Photos", "/Volumes/Disk", Kind::folder, true},
      {"", "", Kind::drive, true},
      {"/etc", "/Volumes/Disk", Kind::folder, false},
      {"a/../b", "/Volumes/Disk", Kind::folder, false},
      {"..", "/", Kind::folder, false},
      {"a/..x/b", "/", Kind::folder, true},
      {"", "/Volumes/../etc", Kind::drive, false},
      {"", "Volumes/Disk", Kind::drive, false},
      {"", "Volumes/Disk", Kind::folder, false},
      {"", "Volumes/Disk", Kind::efu, true},
      {"", "C:", Kind::efu, true},
      {"", "x/../y", Kind::efu, false},
  };
  for (const Case& c : cases) {
    CatalogInfo info{
        .kind = c.kind, .relativeRoot = c.relativeRoot, .lastMountPath = c.lastMountPath};
    EXPECT_EQ(CatalogArchive::isSafe(info), c.safe) << c.relativeRoot << " " << c.lastMountPath;
  }
  CatalogFiles files = goodCatalog();
  files.info.relativeRoot = "a/../b";
  EXPECT_EQ(unpackError(archiveOf(files)), ArchiveError::notACatalog());
}

TEST(CatalogArchiveTest, IndexChecks) {
  CatalogFiles good = goodCatalog();

  // A truncated index does not load.
  CatalogFiles truncated = good;
  truncated.index.resize(truncated.index.size() - 7);
  EXPECT_EQ(unpackError(archiveOf(truncated)), ArchiveError::damagedIndex());

  // Record 5 names record 7 as its parent.
  IndexBuilder reordered = testing::buildTree({{"/Volumes/Disk/Photos/a"}});  // ids 0 to 4
  reordered.addEntry("late-parent", 7, {}, 0);
  reordered.addEntry("x", 3, {}, 0);
  reordered.addEntry("y", 3, RecordFlags::isDirectory, 0);
  EXPECT_EQ(unpackError(archiveOf(catalogOf(reordered, good.info))), ArchiveError::notACatalog());

  // A record named "..", one with a "/", and a named top record in a folder catalog.
  for (const char* name : {"..", ".", "a/b"}) {
    IndexBuilder builder = testing::buildTree({{"/Volumes/Disk/Photos/x"}});
    builder.addEntry(name, 3, {}, 0);
    EXPECT_EQ(unpackError(archiveOf(catalogOf(builder, good.info))), ArchiveError::notACatalog())
        << name;
  }
  IndexBuilder namedTop = testing::buildTree({{"/Volumes/Disk/Photos/x"}});
  namedTop.addEntry("elsewhere", FileRecord::rootParentID, {}, 0);
  EXPECT_EQ(unpackError(archiveOf(catalogOf(namedTop, good.info))), ArchiveError::notACatalog());
  // ... which an EFU catalog may have.
  CatalogInfo efu = good.info;
  efu.kind = CatalogInfo::Kind::efu;
  efu.rootRecordID.reset();
  EXPECT_EQ(unpackError(archiveOf(catalogOf(namedTop, efu))), std::nullopt);

  // The root record's path must be the mount path joined with the relative root.
  CatalogFiles moved = good;
  moved.info.lastMountPath = "/Volumes/Other";
  EXPECT_EQ(unpackError(archiveOf(moved)), ArchiveError::notACatalog());
  CatalogFiles pastEnd = good;
  pastEnd.info.rootRecordID = 1000;
  EXPECT_EQ(unpackError(archiveOf(pastEnd)), ArchiveError::notACatalog());
  CatalogFiles noRoot = good;
  noRoot.info.rootRecordID.reset();
  EXPECT_EQ(unpackError(archiveOf(noRoot)), std::nullopt);
}

TEST(CatalogArchiveTest, ToolFailureBecomesNotACatalogOnlyWhenListing) {
  TempTree tree;
  writeFile(tree / "bad.tarvolincatalog", "PK\x03\x04 not really");
  EXPECT_THROW(CatalogArchive::listEntries(tree / "bad.tarvolincatalog"), ArchiveError);
  try {
    CatalogArchive::unpack(tree / "bad.tarvolincatalog");
    ADD_FAILURE();
  } catch (const ArchiveError& error) {
    EXPECT_EQ(error, ArchiveError::notACatalog());
  }
}

}  // namespace
}  // namespace tarvolin
