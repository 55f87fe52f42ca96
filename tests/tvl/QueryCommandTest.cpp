// tvl query: the output formats (lines, -0, --json read back, --count), the ranking against
// `tvl search`, the exit statuses, a reader that goes away early, and names that are not plain
// text (a newline, bytes that are not UTF-8), which must come out byte for byte.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "support/IndexFixture.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using nlohmann::json;
using testing::runTool;
using testing::TempTree;

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream stream(text);
  while (std::getline(stream, part, separator)) parts.push_back(part);
  return parts;
}

std::string decodeBase64(const std::string& text) {
  static const std::string digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  uint32_t group = 0;
  int bits = 0;
  for (char c : text) {
    if (c == '=') break;
    group = group << 6 | static_cast<uint32_t>(digits.find(c));
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes.push_back(static_cast<char>(group >> bits & 0xFF));
    }
  }
  return bytes;
}

class QueryCommandTest : public ::testing::Test {
 protected:
  void writeIndex(const IndexBuilder& builder) {
    IndexWriter::write(builder, {{"local", "/", 0, true}},
                       home_ / "Library/Application Support/Tarvolin/index.bin");
  }
  testing::ToolResult tvl(std::vector<std::string> args) {
    return runTool(args, home_.root().string());
  }
  TempTree home_;
};

TEST_F(QueryCommandTest, PrintsPathsBestFirstInEachFormat) {
  writeIndex(testing::buildTree({{"/data/deep/er/report-old.md", 10, 1'700'000'000},
                                 {"/data/report.md", 2048, 1'600'000'000},
                                 {"/data/report-folder/"},
                                 {"/data/notes.txt"}}));
  auto lines = tvl({"query", "report"});
  EXPECT_EQ(lines.status, 0);
  EXPECT_EQ(lines.err, "");
  EXPECT_EQ(lines.out, "/data/report.md\n/data/report-folder\n/data/deep/er/report-old.md\n");

  auto nul = tvl({"query", "-0", "report"});
  using namespace std::string_literals;
  EXPECT_EQ(nul.out, "/data/report.md\0/data/report-folder\0/data/deep/er/report-old.md\0"s);

  auto count = tvl({"query", "--count", "report"});
  EXPECT_EQ(count.out, "3\n");
  EXPECT_EQ(count.status, 0);

  auto limited = tvl({"query", "--limit", "1", "report"});
  EXPECT_EQ(limited.out, "/data/report.md\n");

  auto asJson = tvl({"query", "--json", "report"});
  std::vector<std::string> objects = split(asJson.out, '\n');
  ASSERT_EQ(objects.size(), 3u);
  json first = json::parse(objects[0]);
  EXPECT_EQ(first["path"], "/data/report.md");
  EXPECT_EQ(first["name"], "report.md");
  EXPECT_EQ(first["kind"], "file");
  EXPECT_EQ(first["size"], 2048);
  EXPECT_EQ(first["mtime"], 1'600'000'000);
  EXPECT_EQ(first["index"], "names");
  EXPECT_TRUE(first["score"].is_number_integer());
  json folder = json::parse(objects[1]);
  EXPECT_EQ(folder["kind"], "folder");
  EXPECT_FALSE(folder.contains("size")) << "no attributes were recorded for it";
  EXPECT_FALSE(folder.contains("mtime"));
  // Scores fall (or stay) down the list.
  EXPECT_GE(first["score"].get<int>(), json::parse(objects[2])["score"].get<int>());
}

TEST_F(QueryCommandTest, EveryMatchIsRankedAsSearchRanksTheBest) {
  std::vector<testing::FixtureEntry> entries;
  for (int i = 0; i < 60; ++i) {
    std::string folder = "/d" + std::to_string(i % 7);
    for (int depth = 0; depth < i % 5; ++depth) folder += "/sub";
    // Some names hold the word at a boundary, some inside a word, some are hidden.
    std::string name = i % 3 == 0 ? "xfile" : i % 3 == 1 ? "file-" : ".file";
    entries.push_back({folder + "/" + name + std::to_string(i)});
  }
  entries.push_back({"/node_modules/file99"});
  writeIndex(testing::buildTree(entries));

  auto search = tvl({"search", "file"});
  std::vector<std::string> best;
  for (const std::string& line : split(search.out, '\n')) {
    if (line.starts_with("  ")) best.push_back(line.substr(2));
  }
  ASSERT_EQ(best.size(), 20u);
  auto all = tvl({"query", "--limit", "0", "file"});
  std::vector<std::string> ranked = split(all.out, '\n');
  ASSERT_EQ(ranked.size(), 61u);
  EXPECT_EQ(std::vector<std::string>(ranked.begin(), ranked.begin() + 20), best);
  EXPECT_NE(search.out.find("\n61 matches in "), std::string::npos);
  // A limit cuts the same order.
  auto some = tvl({"query", "--limit", "33", "file"});
  EXPECT_EQ(split(some.out, '\n'), std::vector<std::string>(ranked.begin(), ranked.begin() + 33));
}

TEST_F(QueryCommandTest, ExitStatusesAndUsageErrors) {
  writeIndex(testing::buildTree({{"/a/alpha.txt"}}));
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string errStart;  // empty: nothing on standard error
  };
  const Case cases[] = {
      {{"query", "alpha"}, 0, "/a/alpha.txt\n", ""},
      {{"query", "zzzz"}, 1, "", ""},
      {{"query", "--count", "zzzz"}, 1, "0\n", ""},
      {{"query", "--json", "zzzz"}, 1, "", ""},
      {{"query", "--bogus", "alpha"}, 2, "", "tvl: unknown option --bogus\nusage: tvl query "},
      {{"query", "alpha", "--limit"}, 2, "", "tvl: --limit needs a value (N)\nusage: "},
      {{"query", "--limit", "many", "alpha"}, 2, "", "tvl: --limit wants a whole number"},
      {{"query"}, 2, "", "tvl: missing operand\nusage: "},
      {{"query", "contains:x"}, 2, "", "contains: needs something to narrow by"},
  };
  for (const Case& c : cases) {
    auto result = tvl(c.args);
    std::string shown = ::testing::PrintToString(c.args);
    EXPECT_EQ(result.status, c.status) << shown;
    EXPECT_EQ(result.out, c.out) << shown;
    EXPECT_TRUE(result.err.starts_with(c.errStart)) << shown << ": " << result.err;
    if (c.errStart.empty()) {
      EXPECT_EQ(result.err, "") << shown;
    }
  }
}

TEST_F(QueryCommandTest, WithoutAnIndexSaysSoWithStatusOne) {
  auto result = tvl({"query", "alpha"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(result.err.starts_with("No index found at ")) << result.err;
}

TEST_F(QueryCommandTest, AReaderThatStopsEarlyEndsTheOutputQuietly) {
  std::vector<testing::FixtureEntry> entries;
  // Far more than a pipe holds, so the writes after `head` has gone meet a closed pipe.
  for (int i = 0; i < 20000; ++i) {
    entries.push_back({"/some/rather/long/folder/name/for/padding/file" + std::to_string(i)});
  }
  writeIndex(testing::buildTree(entries));
  for (std::string format : {"", "-0", "--json"}) {
    auto result =
        testing::runProgram("/bin/bash",
                            {"-c",
                             "\"$0\" query --limit 0 " + format +
                                 " file | head -c 100 >/dev/null; echo \"status ${PIPESTATUS[0]}\"",
                             TVL_PATH},
                            home_.root().string());
    EXPECT_EQ(result.out, "status 0\n") << format << " (141 would be death by SIGPIPE)";
    EXPECT_EQ(result.err, "") << format;
  }
}

TEST_F(QueryCommandTest, NamesThatAreNotPlainTextComeOutByteForByte) {
  TempTree tree;
  const std::string withNewline = "two\nlines.log";
  const std::string notUtf8 = "caf\xE9-\xFF.log";
  tree.add(withNewline);
  tree.add(notUtf8);
  tree.add("plain.log");
  ASSERT_EQ(tvl({"scan", tree.root().string()}).status, 0);
  const std::string root = tree.root().string() + "/";

  auto nul = tvl({"query", "-0", "--limit", "0", "ext:log"});
  EXPECT_EQ(nul.status, 0);
  std::vector<std::string> paths = split(nul.out, '\0');
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> expected{root + withNewline, root + notUtf8, root + "plain.log"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(paths, expected);

  auto asJson = tvl({"query", "--json", "--limit", "0", "ext:log"});
  std::vector<std::string> raw;
  for (const std::string& line : split(asJson.out, '\n')) {
    json object = json::parse(line);  // throws on invalid JSON
    std::string path = object["path"];
    if (object.contains("pathBase64")) {
      EXPECT_NE(path.find("\xEF\xBF\xBD"), std::string::npos) << "U+FFFD stands in for a bad byte";
      path = decodeBase64(object["pathBase64"]);
    }
    raw.push_back(path);
  }
  std::sort(raw.begin(), raw.end());
  EXPECT_EQ(raw, expected);
}

TEST_F(QueryCommandTest, ContentAndCatalogsJoinTheList) {
  TempTree docs;
  docs.add("letters/plan.txt", "the quarterly zanzibar plan\n");
  docs.add("letters/other.txt", "nothing here\n");
  docs.add("zanzibar-notes.md", "about the island\n");
  ASSERT_EQ(tvl({"scan", docs.root().string()}).status, 0);
  ASSERT_EQ(tvl({"content", docs.root().string()}).status, 0);

  auto result = tvl({"query", "--json", "--content", "zanzibar"});
  EXPECT_EQ(result.status, 0) << result.err;
  std::vector<std::string> objects = split(result.out, '\n');
  ASSERT_EQ(objects.size(), 2u) << result.out;
  EXPECT_EQ(json::parse(objects[0])["index"], "names");
  EXPECT_EQ(json::parse(objects[0])["name"], "zanzibar-notes.md");
  json fromContent = json::parse(objects[1]);
  EXPECT_EQ(fromContent["index"], "content");
  EXPECT_EQ(fromContent["path"], (docs / "letters/plan.txt").string());
  EXPECT_EQ(fromContent["line"], 1);
  EXPECT_TRUE(fromContent["score"].is_null());

  TempTree drive;
  drive.add("zanzibar-archive.zip");
  auto added = tvl({"catalog", "add", drive.root().string(), "--json"});
  ASSERT_EQ(added.status, 0) << added.err;
  std::string id = json::parse(added.out)["id"];
  auto both = tvl({"query", "--json", "--catalogs", "zanzibar"});
  std::vector<std::string> labels;
  for (const std::string& line : split(both.out, '\n'))
    labels.push_back(json::parse(line)["index"]);
  // Depth counts from the catalogued root: the archive at the catalog's top outranks the notes
  // three folders down in the name index.
  EXPECT_EQ(labels, (std::vector<std::string>{"catalog:" + id, "names"})) << both.out;
  EXPECT_EQ(tvl({"query", "--count", "--catalogs", "--content", "zanzibar"}).out, "3\n");
}

}  // namespace
}  // namespace tarvolin
