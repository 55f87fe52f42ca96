#include <gtest/gtest.h>

#include <random>

#include "support/TempTree.h"
#include "support/ZipWriter.h"
#include "tarvolin/content/TextExtraction.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {
namespace {

using testing::makeZip;
using testing::TempTree;
using testing::writeFile;

std::span<const uint8_t> bytesOf(std::string_view s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TextExtractionTest, PlainTextReadsTheFirstTwoMebibytes) {
  TempTree tree;
  std::string big(5 << 20, 'a');
  big[TextExtraction::maxBytesPerFile - 1] = 'z';
  writeFile(tree / "big.txt", big);
  std::optional<std::string> text = TextExtraction::plainText(tree / "big.txt");
  ASSERT_TRUE(text);
  EXPECT_EQ(text->size(), TextExtraction::maxBytesPerFile);
  EXPECT_EQ(text->back(), 'z');

  // A two-byte character cut by the limit becomes one replacement character.
  std::string cut(TextExtraction::maxBytesPerFile - 1, 'b');
  writeFile(tree / "cut.txt", cut + "\xC3\xA9" + "tail");
  EXPECT_EQ(TextExtraction::plainText(tree / "cut.txt"), cut + kReplacement);
}

TEST(TextExtractionTest, PlainTextRefusesWhatIsNotText) {
  TempTree tree;
  std::string nulAt4095(5000, 'x'), nulAt4096(5000, 'x');
  nulAt4095[4095] = '\0';
  nulAt4096[4096] = '\0';
  writeFile(tree / "a.txt", nulAt4095);
  writeFile(tree / "b.txt", nulAt4096);
  writeFile(tree / "empty.txt", "");
  writeFile(tree / "bad.txt", "ok\xFF\xFEok");
  EXPECT_EQ(TextExtraction::plainText(tree / "a.txt"), std::nullopt);
  EXPECT_EQ(TextExtraction::plainText(tree / "b.txt"), nulAt4096);
  EXPECT_EQ(TextExtraction::plainText(tree / "empty.txt"), std::nullopt);
  EXPECT_EQ(TextExtraction::plainText(tree / "missing.txt"), std::nullopt);
  EXPECT_EQ(TextExtraction::plainText(tree.root()), std::nullopt);
  EXPECT_EQ(TextExtraction::plainText(tree / "bad.txt"), "ok" + kReplacement + kReplacement + "ok");
}

TEST(TextExtractionTest, TextFromXmlCollapsesTagsAndWhiteSpace) {
  struct Case {
    std::string xml, text;
  };
  const Case cases[] = {
      {"<w:p><w:r><w:t>Hello\n   World</w:t></w:r></w:p>", " Hello World "},
      {"a &amp; b&lt;", "a &amp; b&lt;"},
      {"caf\xC3\xA9", "caf\xC3\xA9"},
      {"<t a=\"attribute text\">x</t>", " x "},
      {"x<a>\t\r\n<b>y", "x y"},
      {"a>b", "ab"},
      {"unclosed <tag and more", "unclosed "},
      {"bad\xFFz", "bad" + kReplacement + "z"},
      {"", ""},
  };
  for (const Case& c : cases)
    EXPECT_EQ(TextExtraction::textFromXML(bytesOf(c.xml)), c.text) << c.xml;
}

// The reduction read as one pass over the bytes with two flags, byte by byte.
std::string referenceTextFromXml(std::string_view xml) {
  std::string out;
  bool inTag = false, lastWasSpace = false;
  for (char c : xml) {
    if (c == '>') {
      inTag = false;
    } else if (c == '<') {
      if (!lastWasSpace) out += ' ';
      inTag = lastWasSpace = true;
    } else if (inTag) {
      continue;
    } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      if (!lastWasSpace) out += ' ';
      lastWasSpace = true;
    } else {
      out += c;
      lastWasSpace = false;
    }
  }
  return platform::decodeUtf8Lossy(out);
}

TEST(TextExtractionTest, TextFromXmlAgreesWithTheBytewiseReading) {
  const std::string alphabet = "<<>> \t\n\rab\xC3\xA9\xFF&;";
  std::mt19937 random(11);
  for (int round = 0; round < 3000; ++round) {
    std::string xml(random() % 64, ' ');
    for (char& c : xml) c = alphabet[random() % alphabet.size()];
    ASSERT_EQ(TextExtraction::textFromXML(bytesOf(xml)), referenceTextFromXml(xml)) << xml;
  }
}

TEST(TextExtractionTest, PrintableRunsKeepsReadableRuns) {
  struct Case {
    std::string bytes, runs;
  };
  const Case cases[] = {
      {std::string("abc\0defgh", 9), "defgh"},
      {"@@@@ab", ""},    // 6 scalars, 2 letters
      {"ab@@", "ab@@"},  // 4 scalars, 2 letters
      {"word\x01"
       "more\x7F"
       "last",
       "word more last"},
      {"caf\xC3\xA9\x02\xFF\xFE\xFDxyz", "caf\xC3\xA9"},  // the invalid run is dropped
      {"r\xEF\xBF\xBDsum\x01", ""},                       // a written-out U+FFFD counts as damage
      {"\xE2\x85\xA0\xE2\x85\xA1 IV", "\xE2\x85\xA0\xE2\x85\xA1 IV"},  // Roman numerals are numbers
      {"abc", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TextExtraction::printableRuns(bytesOf(c.bytes), 4), c.runs) << c.bytes;
  }
}

class OfficeExtractionTest : public ::testing::Test {
 protected:
  std::optional<std::string> extract(const std::string& name,
                                     const std::vector<testing::ZipEntrySpec>& entries) {
    writeFile(tree_ / name, makeZip(entries));
    return TextExtraction::extractedText(tree_ / name);
  }
  TempTree tree_;
};

TEST_F(OfficeExtractionTest, WordUsesTheDocumentAndFootnotes) {
  EXPECT_EQ(extract("a.docx", {{"word/styles.xml", "<s>style</s>"},
                               {"word/document.xml", "<w:t>Body</w:t>"},
                               {"word/footnotes.xml", "<f>Note</f>"}}),
            " Body \n Note ");
  EXPECT_EQ(extract("b.docx", {{"word/footnotes.xml", "<f>Only note</f>"}}), " Only note ");
  EXPECT_EQ(extract("c.docx", {{"word/styles.xml", "<s>style</s>"}}), std::nullopt);
  EXPECT_EQ(extract("d.DOCX", {{"Word/Document.xml", "<w>case matters</w>"}}), std::nullopt);
}

TEST_F(OfficeExtractionTest, PowerPointUsesEverySlideAndNotTheirRelationships) {
  EXPECT_EQ(extract("deck.pptx", {{"ppt/slides/slide1.xml", "<a:t>First</a:t>"},
                                  {"ppt/slides/_rels/slide1.xml.rels", "<r>rel</r>"},
                                  {"ppt/slides/slide2.xml", "<a:t>Second</a:t>"},
                                  {"ppt/slideLayouts/slideLayout1.xml", "<l>layout</l>"}}),
            " First \n Second ");
}

TEST_F(OfficeExtractionTest, ExcelUsesTheSharedStrings) {
  EXPECT_EQ(extract("book.XLSX", {{"xl/worksheets/sheet1.xml", "<c>1</c>"},
                                  {"xl/sharedStrings.xml", "<si><t>Cell</t></si>"}}),
            " Cell ");
}

TEST_F(OfficeExtractionTest, ArchiveOfficeFormatsUseReadableRunsOfTheirIndex) {
  std::string iwa = std::string("\x01\x02Quarterly report\x00\x05@@@@x\x1F", 26);
  for (std::string name : {"a.pages", "b.key", "c.numbers"}) {
    EXPECT_EQ(extract(name, {{"Index/Document.iwa", iwa},
                             {"Index/Metadata.iwa",
                              "\x03"
                              "Author name"},
                             {"Data/picture.iwa", "not in Index"}}),
              "Quarterly report\nAuthor name")
        << name;
  }
}

TEST_F(OfficeExtractionTest, OtherExtensionsAndBrokenArchivesYieldNothing) {
  EXPECT_EQ(extract("notes.txt", {{"word/document.xml", "<w>x</w>"}}), std::nullopt);
  EXPECT_EQ(extract("noext", {{"word/document.xml", "<w>x</w>"}}), std::nullopt);
  writeFile(tree_ / "fake.docx", "this is not a zip archive");
  EXPECT_EQ(TextExtraction::extractedText(tree_ / "fake.docx"), std::nullopt);
  EXPECT_EQ(TextExtraction::extractedText(tree_ / "missing.pptx"), std::nullopt);
}

}  // namespace
}  // namespace tarvolin
