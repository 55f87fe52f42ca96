// tvl content, tvl find and contains: searches on small trees made in the test: the exact lines
// on standard output, the messages on standard error and the statuses.

#include <gtest/gtest.h>

#include <cctype>

#include "support/PdfWriter.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "support/ZipWriter.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;

class ContentCommandsTest : public ::testing::Test {
 protected:
  testing::ToolResult tvl(const std::vector<std::string>& args) {
    return runTool(args, home_.root().string());
  }
  std::string contentPath() const {
    return (home_ / "Library/Application Support/Tarvolin/content.bin").string();
  }
  // Durations and the file size vary from run to run.
  static std::string masked(const std::string& out) {
    std::string text = testing::maskMilliseconds(out);
    text = maskNumberBetween(text, "built in ", "s", "T");
    return maskNumberBetween(text, " (", " MB)", "S");
  }
  // `before` + a decimal number + `after` becomes `before` + `mask` + `after`.
  static std::string maskNumberBetween(std::string text, const std::string& before,
                                       const std::string& after, const std::string& mask) {
    for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
      size_t start = at + before.size(), end = start;
      while (end < text.size() &&
             (std::isdigit(static_cast<unsigned char>(text[end])) || text[end] == '.')) {
        ++end;
      }
      if (end > start && text.compare(end, after.size(), after) == 0) {
        text.replace(start, end - start, mask);
      }
    }
    return text;
  }
  TempTree home_;
  TempTree docs_;
};

TEST_F(ContentCommandsTest, ContentListsTheFoldersAndReportsTheIndex) {
  docs_.add("a/notes.txt", "first line\nthe Invoice 4711 is due\n");
  docs_.add("a/readme.md", "nothing here\n");
  docs_.add("b/skip.bin", "not a document");
  auto built = tvl({"content", (docs_ / "a").string(), (docs_ / "b").string()});
  EXPECT_EQ(built.status, 0) << built.err;
  EXPECT_EQ(masked(built.out), "Reading documents in:\n  " + (docs_ / "a").string() + "\n  " +
                                   (docs_ / "b").string() +
                                   "\n\n  2 documents, 0.0 MB of text, built in Ts\n"
                                   "  written to " +
                                   contentPath() + " (S MB)\n");

  auto found = tvl({"find", "invoice", "4711"});
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(masked(found.out),
            "  notes.txt\n"
            "      2: the invoice 4711 is due\n"
            "\n"
            "1 documents contain invoice 4711 (Tms over 2 docs)\n");

  // The trigram side file lies beside the index; without it the same lines come from a full scan.
  const std::filesystem::path side = std::filesystem::path(contentPath()).replace_extension(".tri");
  ASSERT_TRUE(std::filesystem::exists(side));
  std::filesystem::remove(side);
  EXPECT_EQ(masked(tvl({"find", "invoice", "4711"}).out), masked(found.out));
}

// PDF text comes from the worker beside the tool, Office text from the archives' XML parts; a
// broken PDF and a broken archive are left out without stopping the others.
TEST_F(ContentCommandsTest, FindsWordsInsidePdfAndOfficeDocuments) {
  testing::writeFile(docs_ / "report.pdf", testing::makePdf({"Cover", "Quarterly Invoice 4711"}));
  testing::writeFile(docs_ / "letter.docx",
                     testing::makeZip({{"word/document.xml",
                                        "<w:document><w:body><w:p><w:r><w:t>Dear reader, Invoice "
                                        "4711 is paid</w:t></w:r></w:p></w:body></w:document>"}}));
  testing::writeFile(docs_ / "sheet.xlsx",
                     testing::makeZip({{"xl/sharedStrings.xml",
                                        "<sst><si><t>INVOICE 4711 total</t></si></sst>"}}));
  testing::writeFile(docs_ / "broken.pdf", "%PDF-1.4 invoice 4711 but no document");
  testing::writeFile(docs_ / "broken.docx", "PK invoice 4711 but no archive");
  auto built = tvl({"content", docs_.root().string()});
  ASSERT_EQ(built.status, 0) << built.err;
  EXPECT_NE(built.out.find("\n  3 documents, "), std::string::npos) << built.out;

  auto found = tvl({"find", "invoice 4711"});
  EXPECT_EQ(masked(found.out),
            "  letter.docx\n"
            "      1: dear reader, invoice 4711 is paid\n"
            "  report.pdf\n"
            "      3: quarterly invoice 4711\n"
            "  sheet.xlsx\n"
            "      1: invoice 4711 total\n"
            "\n"
            "3 documents contain invoice 4711 (Tms over 3 docs)\n");
}

TEST_F(ContentCommandsTest, ContentWithoutFoldersReadsTheThreeDefaults) {
  auto built = tvl({"content"});
  EXPECT_EQ(built.status, 0) << built.err;
  std::string home = home_.root().string();
  EXPECT_EQ(masked(built.out), "Reading documents in:\n  " + home + "/Documents\n  " + home +
                                   "/Desktop\n  " + home +
                                   "/Downloads\n\n"
                                   "  0 documents, 0.0 MB of text, built in Ts\n"
                                   "  written to " +
                                   contentPath() + " (S MB)\n");
}

TEST_F(ContentCommandsTest, ContentThatCannotBeWrittenFailsAndPrintsNoSummary) {
  // A file where the index folder should be: neither the folder nor the file can be made.
  testing::writeFile(home_ / "Library", "in the way");
  auto built = tvl({"content", docs_.root().string()});
  EXPECT_EQ(built.status, 1);
  EXPECT_EQ(built.out, "Reading documents in:\n  " + docs_.root().string() + "\n");
  EXPECT_NE(built.err.find("could not write the content index"), std::string::npos) << built.err;
}

TEST_F(ContentCommandsTest, FindShowsTenOfMoreThanTwoHundredAndCutsPreviews) {
  for (int i = 0; i < 205; ++i) {
    docs_.add("d/" + std::to_string(1000 + i) + ".txt",
              "  Needle " + std::string(120, 'x') + "\xC3\xA9 tail\n");
  }
  ASSERT_EQ(tvl({"content", docs_.root().string()}).status, 0);
  auto found = tvl({"find", "needle"});
  EXPECT_EQ(found.status, 0);
  std::string expectedPreview = "needle " + std::string(83, 'x');  // 90 characters
  std::string expected;
  for (int i = 0; i < 10; ++i) {
    expected += "  " + std::to_string(1000 + i) + ".txt\n      1: " + expectedPreview + "\n";
  }
  expected += "\n200+ documents contain needle (Tms over 205 docs)\n";
  EXPECT_EQ(masked(found.out), expected);
}

TEST_F(ContentCommandsTest, FindWithoutAUsableIndexSaysSo) {
  const std::string message = "No content index. Run `tvl content` first.\n";
  auto missing = tvl({"find", "x"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, message);

  // A folder at the path cannot be read; a table that does not decode is no index either.
  std::filesystem::create_directories(contentPath());
  EXPECT_EQ(tvl({"find", "x"}).err, message);
  std::filesystem::remove(contentPath());
  testing::writeFile(contentPath(), std::string("\x05\x00\x00\x00{\"p\":", 10) + "garbage");
  auto garbage = tvl({"find", "x"});
  EXPECT_EQ(garbage.err, message);
  EXPECT_EQ(garbage.status, 1);
}

class ContainsSearchTest : public ContentCommandsTest {
 protected:
  void SetUp() override {
    docs_.add("src/alpha.txt", "one\nTODO: fix the parser\n");
    docs_.add("src/beta.txt", "todo later\nand a fixme\n");
    docs_.add("src/gamma.txt", "nothing to see\n");
    docs_.add("src/notes.md", "todo in markdown\n");
    ASSERT_EQ(tvl({"scan", docs_.root().string()}).status, 0);
  }
};

TEST_F(ContainsSearchTest, NarrowsByNameAndShowsTheFirstHit) {
  auto result = tvl({"search", "ext:txt", "contains:todo"});
  EXPECT_EQ(result.status, 0) << result.err;
  std::string root = docs_.root().string();
  EXPECT_EQ(masked(result.out), "  " + root +
                                    "/src/beta.txt\n"
                                    "      1: todo later\n"
                                    "  " +
                                    root +
                                    "/src/alpha.txt\n"
                                    "      2: TODO: fix the parser\n"
                                    "\n"
                                    "2 matches in Tms (showing 2)  (read 3 candidates)\n");
}

TEST_F(ContainsSearchTest, NeedlesIntersectAndTheFirstNeedleGivesTheLine) {
  std::string root = docs_.root().string();
  auto both = tvl({"search", "ext:txt", "contains:fix", "contains:todo"});
  EXPECT_EQ(masked(both.out), "  " + root +
                                  "/src/beta.txt\n"
                                  "      2: and a fixme\n"
                                  "  " +
                                  root +
                                  "/src/alpha.txt\n"
                                  "      2: TODO: fix the parser\n"
                                  "\n"
                                  "2 matches in Tms (showing 2)  (read 3 candidates)\n");
  auto disjoint = tvl({"search", "ext:txt", "contains:parser", "contains:later", "contains:o"});
  EXPECT_EQ(masked(disjoint.out), "\n0 matches in Tms (showing 0)  (read 3 candidates)\n");
}

TEST_F(ContainsSearchTest, ANeedleWithoutANameQueryIsAUsageError) {
  auto result = tvl({"search", "contains:todo"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "contains: needs something to narrow by, e.g. `.swift contains:foo`\n");
}

}  // namespace
}  // namespace tarvolin
