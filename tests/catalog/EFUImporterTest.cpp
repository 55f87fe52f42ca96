#include <gtest/gtest.h>

#include "support/RecordPaths.h"
#include "tarvolin/catalog/EFUImporter.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {
namespace {

namespace EFU = EFUImporter;
using EFU::EFUError;
using testing::pathOf;

constexpr uint32_t kMax = 0xFFFFFFFF;

// Every record as "path|flags|size|mtime", in ID order.
std::vector<std::string> dump(const IndexBuilder& builder) {
  std::vector<std::string> out;
  for (uint32_t id = 0; id < builder.recordCount(); ++id) {
    const FileRecord& r = builder[id];
    out.push_back(pathOf(builder, id) + "|" + std::to_string(r.flags.rawValue) + "|" +
                  std::to_string(r.size) + "|" + std::to_string(r.mtime));
  }
  return out;
}

std::optional<EFUError> errorOf(std::string_view data) {
  try {
    EFU::build(data);
  } catch (const EFUError& error) {
    return error;
  }
  return std::nullopt;
}

TEST(EFUImporterTest, FoldersFilesSizesDatesAndStats) {
  EFU::Result result = EFU::build(
      " filename ,SIZE,\tDate Modified ,Attributes\r\n"
      "\"C:\\a\\b.txt\",12,133000000000000000,32\r\n"
      "C:\\a,0,,16\r\n"
      "c:\\A\\B\\c.bin,+30,2024-05-17T08:30:00Z,0x20\r\n"
      "C:\\a\\b.txt,5,,\r\n"  // a file listed again is a second record
      "\\\\server\\share\\x.txt,7,2024-05-17T08:30:00+02:00,\n");
  // Flags: 0x01 folder, 0x20 attributes filled; folders made only for paths get them from the
  // roll-up, with time 0.
  EXPECT_EQ(dump(result.builder), (std::vector<std::string>{
                                      "C:|33|47|0",
                                      "C:/a|33|47|0",
                                      "C:/a/b.txt|32|12|1655526400",
                                      "C:/a/B|33|30|0",
                                      "C:/a/B/c.bin|32|30|1715934600",
                                      "C:/a/b.txt|32|5|0",
                                      "//server/share|33|7|0",
                                      "//server/share/x.txt|32|7|1715927400",
                                  }));
  EXPECT_EQ(result.stats, (CatalogStats{4, 4, 54}));
}

TEST(EFUImporterTest, RejectedPathsSkipTheirRowOnly) {
  EFU::Result result = EFU::build(
      "Filename\n"
      "C:\\a\\..\\b.txt\n"
      "/Users/me/x\n"
      "C:\\a/b\n"
      "\\\\server\n"
      "\\\\server\\\\\n"
      "\\\\\\\n"
      ".\\x\n"
      "\n"
      "\"\"\n"
      "\\\\server\\share\n"  // a share alone is a file row naming the share itself
      "C:\\\\kept\\\\\n");
  EXPECT_EQ(dump(result.builder),
            (std::vector<std::string>{"//server/share|32|0|0", "C:|33|0|0", "C:/kept|32|0|0"}));
}

TEST(EFUImporterTest, ComponentsOfPaths) {
  using V = std::vector<std::string>;
  struct Case {
    std::string path;
    V expected;
  };
  for (const Case& c : std::vector<Case>{
           {"C:\\Users\\me\\a.txt", {"C:", "Users", "me", "a.txt"}},
           {"\\C:\\\\a\\", {"C:", "a"}},
           {"\\\\server\\share\\x.txt", {"//server/share", "x.txt"}},
           {"\\\\server\\\\share", {"//server/share"}},
           {"\\\\a/b\\c\\d", {"//a/b/c", "d"}},  // the UNC head may hold "/"
           {"\\\\server", {}},
           {"\\\\server\\share\\..\\x", {}},
           {"C:\\a\\.\\b", {}},
           {"C:\\a\\...\\b", {"C:", "a", "...", "b"}},
           {"/Users/me/x", {}},
           {"C:\\a/b", {}},
           {"", {}},
           {"\\\\", {}},
           {"name", {"name"}},
       }) {
    EXPECT_EQ(EFU::components(c.path), c.expected) << c.path;
  }
}

TEST(EFUImporterTest, ReadsCsvFieldsAndLines) {
  using Rows = std::vector<std::pair<int64_t, std::vector<std::string>>>;
  struct Case {
    std::string name;
    std::string input;
    Rows expected;
  };
  std::vector<Case> cases = {
      {"comma and break in quotes",
       "\"a,b\",\"c\nd\"\nnext,row\n",
       {{1, {"a,b", "c\nd"}}, {3, {"next", "row"}}}},
      {"doubled quotes", "\"say \"\"hi\"\"\",x\n", {{1, {"say \"hi\"", "x"}}}},
      {"quote opened mid-field", "ab\"c,d\"e,f\n", {{1, {"abc,de", "f"}}}},
      {"crlf and lone cr", "a\rb,c\r\nd\r\n", {{1, {"a\rb", "c"}}, {2, {"d"}}}},
      {"cr inside quotes kept", "\"a\r\nb\"\r\n", {{1, {"a\r\nb"}}}},
      {"trailing cr at the end dropped", "a,b\r", {{1, {"a", "b"}}}},
      {"last line without newline", "a\nb,", {{1, {"a"}}, {2, {"b", ""}}}},
      {"blank lines skipped, lines still counted", "\n\na\n\r\n,\n", {{3, {"a"}}, {5, {"", ""}}}},
      {"byte-order mark skipped", "\xEF\xBB\xBFx\n", {{1, {"x"}}}},
      {"a lone mark is not skipped when shorter", "\xEF\xBB", {{1, {"\xEF\xBF\xBD"}}}},
      {"invalid utf-8 replaced",
       "a\xFF"
       "b,\xC3\n",
       {{1,
         {"a\xEF\xBF\xBD"
          "b",
          "\xEF\xBF\xBD"}}}},
      {"empty input", "", {}},
  };
  for (const Case& c : cases) {
    Rows rows;
    EFU::parseCSV(c.input, [&](int64_t line, std::span<const std::string> fields) {
      rows.emplace_back(line, std::vector<std::string>(fields.begin(), fields.end()));
    });
    EXPECT_EQ(rows, c.expected) << c.name;
  }
}

TEST(EFUImporterTest, TypedErrors) {
  struct Case {
    std::string name;
    std::string input;
    std::optional<EFUError> expected;
  };
  std::vector<Case> cases = {
      {"quote opened on line 7 never closed", "Filename\nC:\\1\nC:\\2\nC:\\3\n\n\n\"C:\\a\nb\nc\n",
       EFUError::malformedRow(7)},
      {"unclosed quote in the header", "\"Filename\n", EFUError::malformedRow(1)},
      {"row too short for the filename column", "Size,Filename\n12,C:\\a\n\n40\n",
       EFUError::malformedRow(4)},
      {"short row starting after a quoted break", "Size,Filename\n\"1\n2\"\n",
       EFUError::malformedRow(2)},
      {"only a byte-order mark", "\xEF\xBB\xBF", EFUError::missingFilenameColumn()},
      {"empty", "", EFUError::missingFilenameColumn()},
      {"only blank lines", "\n\r\n\n", EFUError::missingFilenameColumn()},
      {"no filename column", "Name,Size\nC:\\a,1\n", EFUError::missingFilenameColumn()},
      {"header only", "Filename,Size\n", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(errorOf(c.input), c.expected) << c.name;
}

TEST(EFUImporterTest, AttributeNumbers) {
  std::vector<std::pair<std::string, std::optional<uint32_t>>> cases = {
      {"16", 16},
      {"0x10", 16},
      {" 0X1f\t", 31},
      {"+7", 7},
      {"0x", std::nullopt},
      {"-1", std::nullopt},
      {"4294967295", kMax},
      {"0xFFFFFFFF", kMax},
      {"0x0000000010", 16},
      {"", std::nullopt},
      {"1 6", std::nullopt},
      {"0x1g", std::nullopt},
      {"4294967296", std::nullopt},
      {"0x100000000", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(EFU::integer(text), expected) << text;
}

TEST(EFUImporterTest, Dates) {
  std::vector<std::pair<std::string, std::optional<uint32_t>>> cases = {
      {"133000000000000000", 1'655'526'400},
      {" 116444736010000000 ", 1},
      {"116444736009999999", std::nullopt},
      {"0", std::nullopt},
      {"159394408959999999", kMax},
      {"159394408960000000", kMax},
      {"99999999999999999999", std::nullopt},
      {"2024-05-17T08:30:00Z", 1'715'934'600},
      {"2024-05-17T08:30:00+02:00", 1'715'927'400},
      {"2024-05-17T08:30:00-00:30", 1'715'936'400},
      {"2024-05-17T08:30:00.999Z", 1'715'934'600},
      {"1970-01-01T00:00:01Z", 1},
      {"1970-01-01T00:00:00Z", std::nullopt},
      {"1970-01-01T00:00:00.5Z", 0},
      {"1970-01-01T01:00:00+01:00", std::nullopt},
      {"1969-12-31T23:59:59Z", std::nullopt},
      {"2200-01-01T00:00:00Z", kMax},
      {"2024-02-30T00:00:00Z", std::nullopt},
      {"2024-05-17 08:30:00Z", std::nullopt},
      {"2024-05-17T08:30:00", std::nullopt},
      {"2024-05-17T08:30:00.Z", std::nullopt},
      {"2024-05-17T24:00:00Z", std::nullopt},
      {"2024-05-17", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(EFU::unixTime(text), expected) << text;
}

TEST(EFUImporterTest, UnreadableValuesBecomeZero) {
  EFU::Result result = EFU::build(
      "Filename,Size,Date Modified,Attributes\n"
      "C:\\a,-5,0,0x\n"
      "C:\\b,99999999999999999999,1970-01-01T00:00:00Z,junk\n"
      "C:\\c,-0,yesterday,0x10\n"
      "C:\\d\n");  // a row without the optional columns
  EXPECT_EQ(dump(result.builder),
            (std::vector<std::string>{"C:|33|0|0", "C:/a|32|0|0", "C:/b|32|0|0", "C:/c|33|0|0",
                                      "C:/d|32|0|0"}));
}

TEST(EFUImporterTest, LongNamesAreCutOnACharacterAndWideRowsRead) {
  // 202 bytes of one- and two-byte characters, then three-byte ones: byte 255 falls inside the
  // eighteenth, so the name keeps 17 of them (253 bytes).
  std::string longName = "xy";
  for (int i = 0; i < 100; ++i) longName += "\xC3\xA9";
  for (int i = 0; i < 30; ++i) longName += "\xE2\x82\xAC";
  std::string header = "Filename";
  for (int i = 0; i < 100'000; ++i) header += ",c";
  EFU::Result result = EFU::build(header + "\nC:\\" + longName + ",1\n");
  ASSERT_EQ(result.builder.recordCount(), 2u);
  std::string_view stored = result.builder.nameBytes(1);
  EXPECT_EQ(stored, std::string_view(longName).substr(0, 253));
  EXPECT_TRUE(platform::isValidUtf8(stored));
}

}  // namespace
}  // namespace tarvolin
