#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarvolin/platform/Unicode.h"

namespace tarvolin::platform {
namespace {

// Walking with graphemeClusterEnd must cut a text exactly where graphemeClusters does.
TEST(UnicodeCharactersTest, ClusterEndAgreesWithClusterList) {
  const std::vector<std::string> texts = {
      "",
      "plain ascii",
      "a\r\nb\r\r\n\n",
      "e\xCC\x81t\xC3\xA9",                                // e + combining acute, precomposed é
      "\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA\xF0\x9F\x87\xAB",  // three regional indicators
      "\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x92\xBB!",     // woman + ZWJ + laptop, then "!"
      "\xD8\x80(x",                                        // prepended mark glued to "("
      "\x22\xCC\x81 bad\xFF\xC3 end\xE2\x82",              // quote + accent, invalid bytes
      "\xED\x95\x9C\xEA\xB8\x80\xE1\x84\x92\xE1\x85\xA1",  // Hangul, precomposed and jamo
  };
  for (const std::string& text : texts) {
    std::vector<std::string> walked;
    for (size_t at = 0; at < text.size();) {
      size_t end = graphemeClusterEnd(text, at);
      ASSERT_GT(end, at);
      walked.push_back(decodeUtf8Lossy(std::string_view(text).substr(at, end - at)));
      at = end;
    }
    EXPECT_EQ(walked, graphemeClusters(text)) << text;
    EXPECT_EQ(walked.size(), graphemeCount(text)) << text;
  }
}

TEST(UnicodeCharactersTest, Classes) {
  for (char32_t c : {U'a', U'Z', U'\u00E9', U'\u03A9', U'\u4E2D', U'\u02B0'})
    EXPECT_TRUE(isLetter(c));
  for (char32_t c : {U'1', U'_', U' ', U'\u0301', U'\u00BD', char32_t(0x110000)}) {
    EXPECT_FALSE(isLetter(c));
  }
  for (char32_t c : {U'0', U'9', U'\u0663', U'\uFF15'}) EXPECT_TRUE(isDecimalDigit(c));
  for (char32_t c : {U'a', U'\u00BD', U'\u2163'}) EXPECT_FALSE(isDecimalDigit(c));
  for (char32_t c : {U' ', U'\t', U'\u00A0', U'\u3000', U'\u2009'}) {
    EXPECT_TRUE(isHorizontalWhitespace(c));
  }
  for (char32_t c : {U'\n', U'\r', U'\u2028', U'\u200B', U'x'})
    EXPECT_FALSE(isHorizontalWhitespace(c));
}

}  // namespace
}  // namespace tarvolin::platform
