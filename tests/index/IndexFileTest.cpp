// The index file end to end: header codec, writer atomicity, and every way a store refuses a file.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/IndexError.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using testing::readFile;
using testing::TempTree;
using testing::writeFile;

IndexBuilder sampleBuilder() {
  return testing::buildTree({{"/Users/me/a.txt", 12, 1000}, {"/Users/me/docs/"}, {"/tmp/b"}});
}

template <typename T>
void poke(std::string& bytes, size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

TEST(IndexHeaderTest, RoundTripsAndCutsFixedStringsByBytes) {
  IndexHeader header;
  header.recordCount = 7;
  header.nameBlobLength = 99;
  header.checksum = 0x1122334455667788ull;
  header.attrsCompleteness = AttrsCompleteness::partial;
  std::string path(254, 'p');
  path += "\xC3\xA9";  // the 255th and 256th bytes are one character
  header.volumes = {{std::string(45, 'u'), path, 77, true}, {"local", "/", 0, false}};

  std::vector<uint8_t> bytes = header.encode();
  ASSERT_EQ(bytes.size(), 4096u);
  EXPECT_EQ(std::memcmp(bytes.data(), "1LVT", 4), 0);
  EXPECT_EQ(bytes[32 + 39], 0);
  EXPECT_EQ(bytes[72 + 255], 0);

  IndexHeader decoded = IndexHeader::decode(bytes);
  EXPECT_EQ(decoded.volumes[0].uuid, std::string(39, 'u'));
  EXPECT_EQ(decoded.volumes[0].mountPath, std::string(254, 'p') + "\xEF\xBF\xBD");
  EXPECT_EQ(decoded.volumes[0].lastEventID, 77u);
  EXPECT_TRUE(decoded.volumes[0].isAvailable);
  EXPECT_EQ(decoded.volumes[1], (VolumeEntry{"local", "/", 0, false}));
  EXPECT_EQ(decoded.recordCount, 7u);
  EXPECT_EQ(decoded.checksum, header.checksum);
  EXPECT_EQ(decoded.attrsCompleteness, AttrsCompleteness::partial);
}

TEST(IndexHeaderTest, DecodeChecksInOrder) {
  IndexHeader header;
  std::vector<uint8_t> good = header.encode();
  auto decodeError = [](std::vector<uint8_t> bytes) -> std::optional<IndexError> {
    try {
      IndexHeader::decode(bytes);
    } catch (const IndexError& error) {
      return error;
    }
    return std::nullopt;
  };
  EXPECT_EQ(decodeError(std::vector<uint8_t>(good.begin(), good.end() - 1)),
            IndexError::truncated());
  EXPECT_EQ(decodeError(std::vector<uint8_t>(4096, 0)), IndexError::badMagic());

  std::vector<uint8_t> old = good;
  old[4] = 4;
  old[24] = 13;  // the version is checked before the volume count
  EXPECT_EQ(decodeError(old), IndexError::versionMismatch(4, 5));

  std::vector<uint8_t> many = good;
  many[24] = 13;
  EXPECT_EQ(decodeError(many), IndexError::tooManyVolumes());

  std::vector<uint8_t> odd = good;
  odd[28] = 7;
  EXPECT_EQ(IndexHeader::decode(odd).attrsCompleteness, AttrsCompleteness::none);

  IndexHeader thirteen;
  thirteen.volumes.resize(13);
  EXPECT_THROW(thirteen.encodeChecked(), IndexError);
  EXPECT_EQ(thirteen.encode()[24], 12);
}

TEST(IndexWriterTest, EmptyBuilderWritesABareHeader) {
  TempTree tree;
  IndexBuilder empty;
  IndexWriter::write(empty, {{"local", "/", 0, true}}, tree / "index.bin");
  std::string bytes = readFile(tree / "index.bin");
  ASSERT_EQ(bytes.size(), 4096u);
  IndexHeader header = IndexHeader::decode(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  EXPECT_EQ(header.recordCount, 0u);
  EXPECT_EQ(header.nameBlobLength, 0u);
  EXPECT_EQ(header.attrsCompleteness, AttrsCompleteness::none);
  EXPECT_EQ(header.checksum, 0x8E4B63091ED84BCDull);
}

TEST(IndexWriterTest, WritesAreDeterministicAndRecordCompleteness) {
  TempTree tree;
  IndexBuilder builder = sampleBuilder();
  IndexWriter::write(builder, {{"local", "/", 0, true}}, tree / "one.bin");
  IndexWriter::write(builder, {{"local", "/", 0, true}}, tree / "two.bin");
  EXPECT_EQ(readFile(tree / "one.bin"), readFile(tree / "two.bin"));
  EXPECT_FALSE(std::filesystem::exists(tree / "one.bin.tmp"));
  auto store = std::make_shared<IndexStore>(tree / "one.bin");
  EXPECT_EQ(store->header().attrsCompleteness, AttrsCompleteness::partial);

  IndexBuilder filled;
  filled.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  filled.setAttributes(0, 0, 0);
  IndexWriter::write(filled, {}, tree / "three.bin");
  EXPECT_EQ(IndexStore(tree / "three.bin").header().attrsCompleteness, AttrsCompleteness::complete);
}

// The service publishes stores from images that never reach the disk: the image is the file's
// bytes, loads as the file does, and a damaged one is refused as a damaged file is.
TEST(IndexWriterTest, AnImageIsTheFileAndIsCheckedAsOne) {
  TempTree tree;
  IndexBuilder builder = sampleBuilder();
  const std::vector<VolumeEntry> volumes{{"local", "/", 0, true}};
  IndexWriter::write(builder, volumes, tree / "index.bin");
  const std::string file = readFile(tree / "index.bin");
  platform::MappedFile image = IndexWriter::image(builder, volumes);
  ASSERT_EQ(std::string(reinterpret_cast<const char*>(image.data()), image.size()), file);
  IndexStore store(std::move(image));
  ASSERT_EQ(store.count(), builder.recordCount());
  for (uint32_t id = 0; id < store.count(); ++id) EXPECT_EQ(store.nameBytes(id), builder.name(id));

  auto imageOf = [](const std::string& bytes) {
    return platform::MappedFile::filled(bytes.size(), [&](std::span<uint8_t> into) {
      std::copy(bytes.begin(), bytes.end(), into.begin());
    });
  };
  std::string flipped = file;
  flipped.back() ^= 0x20;
  std::string forged = file;  // the first record's name moved past the blob, checksum made good
  poke<uint32_t>(forged, IndexHeader::byteSize + 4, 0x7FFFFFF0);
  poke<uint64_t>(forged, 16,
                 FastHash64::hash({reinterpret_cast<const uint8_t*>(forged.data()) + 4096,
                                   forged.size() - 4096}));
  const struct {
    const char* what;
    std::string bytes;
    IndexError::Kind expected;
  } cases[] = {
      {"cut short", file.substr(0, file.size() - 1), IndexError::Kind::truncated},
      {"a name byte flipped", flipped, IndexError::Kind::checksumMismatch},
      {"a forged name offset", forged, IndexError::Kind::checksumMismatch},
      {"no bytes", "", IndexError::Kind::truncated},
  };
  for (const auto& c : cases) {
    try {
      IndexStore damaged(imageOf(c.bytes));
      ADD_FAILURE() << c.what << ": loaded";
    } catch (const IndexError& error) {
      EXPECT_EQ(error.kind(), c.expected) << c.what;
    }
  }
}

// Writers of the same target share the temporary name: they must take turns, so every write
// succeeds and the file left is always one of them whole.
TEST(IndexWriterTest, ConcurrentWritersOfOneTargetTakeTurns) {
  TempTree tree;
  std::filesystem::path target = tree / "index.bin";
  IndexBuilder small = sampleBuilder();
  IndexBuilder large = testing::buildTree({{"/a/" + std::string(200, 'x')}, {"/b/c/d/e.txt"}});
  std::atomic<int> failures{0};
  auto writer = [&](const IndexBuilder& builder) {
    for (int round = 0; round < 25; ++round) {
      try {
        IndexWriter::write(builder, {{"local", "/", 0, true}}, target);
      } catch (const std::exception&) {
        failures.fetch_add(1);
      }
    }
  };
  std::thread first(writer, std::cref(small)), second(writer, std::cref(large));
  first.join();
  second.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_NO_THROW(IndexStore{target});
  EXPECT_FALSE(std::filesystem::exists(tree / "index.bin.tmp"));
}

TEST(IndexWriterTest, FailedWritesLeaveThePreviousIndexAndNoTemporaryFile) {
  TempTree tree;
  IndexBuilder builder = sampleBuilder();
  std::filesystem::path target = tree / "index.bin";
  IndexWriter::write(builder, {{"local", "/", 0, true}}, target);
  std::string before = readFile(target);

  std::vector<VolumeEntry> thirteen(13, VolumeEntry{"u", "/", 0, true});
  EXPECT_THROW(IndexWriter::write(IndexBuilder(), thirteen, target), IndexError);
  EXPECT_EQ(readFile(target), before);
  EXPECT_FALSE(std::filesystem::exists(tree / "index.bin.tmp"));

  // A folder that cannot be created: its would-be parent is a file.
  writeFile(tree / "plain", "x");
  EXPECT_THROW(IndexWriter::write(builder, {}, tree / "plain" / "index.bin"), std::system_error);

  // A folder that cannot be written (root ignores permission bits, so only check as a user).
  if (geteuid() != 0) {
    chmod(tree.root().c_str(), 0555);
    EXPECT_THROW(IndexWriter::write(IndexBuilder(), {}, target), std::system_error);
    chmod(tree.root().c_str(), 0755);
    EXPECT_EQ(readFile(target), before);
  }
  // The target is a folder: the rename fails and the temporary file goes away.
  std::filesystem::create_directories(tree / "dir.bin" / "inside");
  EXPECT_THROW(IndexWriter::write(builder, {}, tree / "dir.bin"), std::system_error);
  EXPECT_FALSE(std::filesystem::exists(tree / "dir.bin.tmp"));
}

TEST(IndexStoreTest, RoundTripsRecordsNamesAndHeader) {
  TempTree tree;
  IndexBuilder builder = sampleBuilder();
  auto store = testing::writeAndLoad(builder, tree / "index.bin");
  ASSERT_EQ(store->count(), builder.recordCount());
  for (uint32_t id = 0; id < store->count(); ++id) {
    EXPECT_EQ((*store)[id], builder[id]);
    EXPECT_EQ(store->name(id), builder.name(id));
  }
  EXPECT_EQ(store->nameBlob().size(), builder.nameBlob().size());
  EXPECT_EQ(store->header().volumes, (std::vector<VolumeEntry>{{"local", "/", 0, true}}));
}

struct LoadCase {
  const char* what;
  std::function<void(std::string& bytes)> damage;
  RebuildReason expected;
};

TEST(IndexStoreTest, LoadIndexMapsEveryFailureToItsReason) {
  using K = RebuildReason::Kind;
  const LoadCase cases[] = {
      {"empty file", [](std::string& b) { b.clear(); }, {K::truncated}},
      {"4095 bytes", [](std::string& b) { b.resize(4095); }, {K::truncated}},
      {"4096 zeros", [](std::string& b) { b.assign(4096, '\0'); }, {K::badMagic}},
      {"version 4", [](std::string& b) { poke<uint32_t>(b, 4, 4); }, {K::versionMismatch, 4, 5}},
      {"version 6", [](std::string& b) { poke<uint32_t>(b, 4, 6); }, {K::versionMismatch, 6, 5}},
      {"13 volumes over a damaged body",
       [](std::string& b) {
         poke<uint32_t>(b, 24, 13);
         b.resize(5000);
       },
       {K::tooManyVolumes}},
      {"cut inside the blob", [](std::string& b) { b.resize(b.size() - 2); }, {K::truncated}},
      {"flipped record bit", [](std::string& b) { b[4096 + 5] ^= 0x01; }, {K::corrupt}},
      {"flipped blob bit", [](std::string& b) { b[b.size() - 1] ^= 0x40; }, {K::corrupt}},
      {"record count too large",
       [](std::string& b) { poke<uint32_t>(b, 8, 1000); },
       {K::truncated}},
  };
  TempTree tree;
  IndexBuilder builder = sampleBuilder();
  IndexWriter::write(builder, {{"local", "/", 0, true}}, tree / "good.bin");
  std::string good = readFile(tree / "good.bin");
  for (const LoadCase& c : cases) {
    std::string bytes = good;
    c.damage(bytes);
    writeFile(tree / "bad.bin", bytes);
    IndexLoadOutcome outcome = loadIndex(tree / "bad.bin");
    ASSERT_TRUE(std::holds_alternative<RebuildReason>(outcome)) << c.what;
    EXPECT_EQ(std::get<RebuildReason>(outcome), c.expected) << c.what;
  }
}

TEST(IndexStoreTest, AcceptsHeaderNoiseAndTrailingBytes) {
  TempTree tree;
  IndexWriter::write(sampleBuilder(), {{"local", "/", 0, true}}, tree / "good.bin");
  std::string good = readFile(tree / "good.bin");
  for (auto damage :
       {+[](std::string& b) { b[30] ^= 0x10; }, +[](std::string& b) { b += "trailing bytes"; }}) {
    std::string bytes = good;
    damage(bytes);
    writeFile(tree / "ok.bin", bytes);
    EXPECT_TRUE(
        std::holds_alternative<std::shared_ptr<const IndexStore>>(loadIndex(tree / "ok.bin")));
  }
}

TEST(IndexStoreTest, MissingFolderAndPipe) {
  TempTree tree;
  EXPECT_EQ(std::get<RebuildReason>(loadIndex(tree / "none.bin")),
            RebuildReason{RebuildReason::Kind::missing});
  std::filesystem::create_directory(tree / "dir.bin");
  EXPECT_EQ(std::get<RebuildReason>(loadIndex(tree / "dir.bin")),
            RebuildReason{RebuildReason::Kind::truncated});
  // A named pipe is refused at once, not waited on for a writer.
  ASSERT_EQ(::mkfifo((tree / "pipe.bin").c_str(), 0600), 0);
  EXPECT_EQ(std::get<RebuildReason>(loadIndex(tree / "pipe.bin")),
            RebuildReason{RebuildReason::Kind::truncated});
}

// Records that point outside the file, with the checksum made to match: refused, not trusted.
// The checks run eight records a step with a tail of the rest: forgeries land in both.
TEST(IndexStoreTest, RefusesForgedRecordsWithAMatchingChecksum) {
  std::vector<testing::FixtureEntry> entries;
  for (int i = 0; i < 149; ++i) entries.push_back({"/d/f" + std::to_string(i)});
  TempTree tree;
  IndexWriter::write(testing::buildTree(entries), {}, tree / "good.bin");
  const std::string good = readFile(tree / "good.bin");
  uint32_t count, blobLength;
  std::memcpy(&count, good.data() + 8, 4);
  std::memcpy(&blobLength, good.data() + 12, 4);
  ASSERT_GT(count, 140u);
  ASSERT_NE(count % 8, 0u) << "the last record must be in the tail";
  auto record = [](uint32_t id, size_t field) { return 4096 + 24 * size_t{id} + field; };

  struct ForgeCase {
    const char* what;
    std::function<void(std::string&)> forge;
    bool loads;
    bool namesInRecordOrder;
  };
  const ForgeCase cases[] = {
      {"name far past the blob",
       [&](std::string& b) { poke<uint32_t>(b, record(1, 4), 0x7FFFFFFF); }, false, false},
      {"name past the blob in a whole step",
       [&](std::string& b) { poke<uint32_t>(b, record(70, 4), blobLength); }, false, false},
      {"last name one byte too long", [&](std::string& b) { b[record(count - 1, 20)] += 1; }, false,
       true},
      {"parent just past the table",
       [&](std::string& b) { poke<uint32_t>(b, record(80, 0), count); }, false, true},
      {"parent below the top marker",
       [&](std::string& b) { poke<uint32_t>(b, record(count - 1, 0), 0xFFFFFFFE); }, false, true},
      {"name out of order but inside",
       [&](std::string& b) { poke<uint32_t>(b, record(100, 4), 0); }, true, false},
      {"last parent in the table",
       [&](std::string& b) { poke<uint32_t>(b, record(3, 0), count - 1); }, true, true},
  };
  for (const ForgeCase& c : cases) {
    std::string bytes = good;
    c.forge(bytes);
    std::span<const uint8_t> body(reinterpret_cast<const uint8_t*>(bytes.data()) + 4096,
                                  bytes.size() - 4096);
    poke<uint64_t>(bytes, 16, FastHash64::hash(body));
    writeFile(tree / "forged.bin", bytes);
    IndexLoadOutcome outcome = loadIndex(tree / "forged.bin");
    if (!c.loads) {
      EXPECT_EQ(std::get<RebuildReason>(outcome), RebuildReason{RebuildReason::Kind::corrupt})
          << c.what;
      continue;
    }
    auto* store = std::get_if<std::shared_ptr<const IndexStore>>(&outcome);
    ASSERT_NE(store, nullptr) << c.what;
    EXPECT_EQ((*store)->namesInRecordOrder(), c.namesInRecordOrder) << c.what;
  }
}

}  // namespace
}  // namespace tarvolin
