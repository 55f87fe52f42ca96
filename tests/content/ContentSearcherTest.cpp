#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "support/TempTree.h"
#include "support/ZipWriter.h"
#include "tarvolin/content/ContentSearcher.h"
#include "tarvolin/platform/Concurrency.h"

namespace tarvolin {
namespace {

using ContentSearcher::Hit;
using ContentSearcher::Outcome;
using ContentSearcher::TooManyCandidates;
using testing::makeZip;
using testing::TempTree;
using testing::writeFile;

std::vector<Hit> hitsOf(const Outcome& outcome) {
  const auto* hits = std::get_if<std::vector<Hit>>(&outcome);
  EXPECT_NE(hits, nullptr) << "refused: " << std::get<TooManyCandidates>(outcome).count;
  return hits ? *hits : std::vector<Hit>{};
}

std::vector<Hit> searchOne(const std::string& needle, const std::string& path,
                           bool caseSensitive = false) {
  return hitsOf(ContentSearcher::search(needle, {path}, caseSensitive));
}

TEST(ContentSearcherTest, CandidateLimitRefusesOnlyLongerLists) {
  TempTree tree;
  writeFile(tree / "last.txt", "the needle\n");
  std::vector<std::string> paths(4999, (tree / "missing.txt").string());
  paths.push_back((tree / "last.txt").string());
  EXPECT_EQ(hitsOf(ContentSearcher::search("needle", paths, false)),
            (std::vector<Hit>{{paths.back(), 1, "the needle"}}));
  paths.push_back(paths.back());
  EXPECT_EQ(ContentSearcher::search("needle", paths, false), Outcome(TooManyCandidates{5001}));
  EXPECT_EQ(ContentSearcher::search("needle", paths, false, 10), Outcome(TooManyCandidates{5001}));
}

// Which needles are expressions: each row searches one file and expects a hit on a line, or none.
TEST(ContentSearcherTest, NeedlesBetweenSlashesAreExpressionsOnlyWhenTheyCanBe) {
  struct Case {
    std::string needle;
    std::string contents;
    int64_t line;  // 0: no hit
    std::string preview;
  };
  const std::vector<Case> cases = {
      {"//", "a//b\n", 1, "a//b"},                      // too short: literal
      {"//", "a/b\n", 0, ""},                           //
      {"/x/", "first\nthe X here\n", 2, "the X here"},  // one letter: an expression, any case
      {"/x/", "first\n/x/\n", 2, "/x/"},                // (and found inside the slashes too)
      {"/foo.*/", "a\nb\nFOObar\n", 3, "FOObar"},
      {"/foo.*/", "foo.*\n", 1, "foo.*"},
      {"/usr/local/", "cd /USR/LOCAL/bin\n", 1, "cd /USR/LOCAL/bin"},  // inner slash: literal
      {"/usr/local/", "usr/local\n", 0, ""},  // the literal includes both outer slashes
      {"/usr/local.*/", "see usr/localbin\n", 1, "see usr/localbin"},  // expression
      {"/fo(o/", "x /fo(o/ y\n", 1, "x /fo(o/ y"},                     // does not compile: literal
      {"/fo(o/", "foo\n", 0, ""},
      {"/^bar$/", "foo\nbar\nbaz\n", 2, "bar"},  // anchors match at line breaks
      {"/^BAZ/", "foo\r\nbar\r\nbaz\r\n", 3, "baz"},
      {"/a.b/",
       "x\na\xFF"
       "b\n",
       2,
       "a\xEF\xBF\xBD"
       "b"},                                                       // invalid bytes read as U+FFFD
      {"/b.r\\nbaz/", "foo\n  bar\nbaz  \nqux\n", 2, "bar\nbaz"},  // the lines around the match
  };
  for (const Case& c : cases) {
    TempTree tree;
    writeFile(tree / "f.txt", c.contents);
    std::vector<Hit> hits = searchOne(c.needle, (tree / "f.txt").string());
    if (c.line == 0) {
      EXPECT_TRUE(hits.empty()) << c.needle;
    } else {
      EXPECT_EQ(hits, (std::vector<Hit>{{(tree / "f.txt").string(), c.line, c.preview}}))
          << c.needle;
    }
  }
}

TEST(ContentSearcherTest, RawLiteralFoldsOnlyAsciiLetters) {
  TempTree tree;
  writeFile(tree / "caps.txt", "intro\nSAY HELLO WORLD\n");
  writeFile(tree / "accent.txt", "CAF\xC3\x89\n");  // "CAFÉ"
  std::string caps = (tree / "caps.txt").string(), accent = (tree / "accent.txt").string();
  EXPECT_EQ(searchOne("Hello", caps), (std::vector<Hit>{{caps, 2, "SAY HELLO WORLD"}}));
  EXPECT_TRUE(searchOne("hello", caps, /*caseSensitive=*/true).empty());
  EXPECT_EQ(searchOne("HELLO", caps, true).size(), 1u);
  EXPECT_TRUE(searchOne("caf\xC3\xA9", accent).empty());   // "é" is not folded in raw bytes
  EXPECT_EQ(searchOne("caf\xC3\x89", accent).size(), 0u);  // the needle is lower-cased first
  EXPECT_EQ(searchOne("CAF\xC3\x89", accent, true).size(), 1u);
}

// Extracted document text is lower-cased as a whole, so accented capitals are found there.
TEST(ContentSearcherTest, DocumentTextIsLowerCasedInFull) {
  TempTree tree;
  writeFile(tree / "menu.pptx",
            makeZip({{"ppt/slides/slide1.xml", "<p:sld><a:t>Intro</a:t></p:sld>"},
                     {"ppt/slides/slide2.xml", "<a:t>LE CAF\xC3\x89 EST \xC3\x89TROIT</a:t>"}}));
  std::string path = (tree / "menu.pptx").string();
  EXPECT_EQ(searchOne("caf\xC3\xA9", path),
            (std::vector<Hit>{{path, 2, "le caf\xC3\xA9 est \xC3\xA9troit"}}));
  EXPECT_EQ(searchOne("CAF\xC3\x89", path, true),
            (std::vector<Hit>{{path, 2, "LE CAF\xC3\x89 EST \xC3\x89TROIT"}}));
  EXPECT_TRUE(searchOne("caf\xC3\xA9", path, true).empty());
  EXPECT_EQ(searchOne("/\xC3\xA9troit\\b/", path),  // expressions read documents too
            (std::vector<Hit>{{path, 2, "LE CAF\xC3\x89 EST \xC3\x89TROIT"}}));
}

TEST(ContentSearcherTest, RawScanReadsOnlyTheFirstTwoMebibytes) {
  TempTree tree;
  std::string filler(ContentSearcher::maxBytesPerFile - 6, 'x');
  writeFile(tree / "inside.txt", filler + "needle");  // ends exactly at the limit
  writeFile(tree / "outside.txt", filler + "xneedle");
  EXPECT_EQ(searchOne("needle", (tree / "inside.txt").string()).size(), 1u);
  EXPECT_TRUE(searchOne("needle", (tree / "outside.txt").string()).empty());
  EXPECT_TRUE(searchOne("needle", (tree / "outside.txt").string(), true).empty());
}

TEST(ContentSearcherTest, ZeroByteInTheFirst4096BytesMeansBinary) {
  TempTree tree;
  std::string atEnd(4096, 'a'), past(4097, 'a');
  atEnd[4095] = '\0';
  past[4096] = '\0';
  writeFile(tree / "binary.txt", "needle" + atEnd.substr(6));
  writeFile(tree / "text.txt", "needle" + past.substr(6));
  EXPECT_TRUE(searchOne("needle", (tree / "binary.txt").string()).empty());
  EXPECT_TRUE(searchOne("needle", (tree / "binary.txt").string(), true).empty());
  EXPECT_EQ(searchOne("needle", (tree / "text.txt").string()).size(), 1u);
}

TEST(ContentSearcherTest, HitsComeBackSortedByPath) {
  TempTree tree;
  std::vector<std::string> paths;
  for (int i = 199; i >= 0; --i) {
    std::string name = "f" + std::to_string(i) + ".txt";
    writeFile(tree / name, i % 3 == 0 ? "has the word\n" : "has not\n");
    paths.push_back((tree / name).string());
  }
  paths.push_back((tree / "\xC3\xA9.txt").string());  // non-ASCII sorts after ASCII
  writeFile(paths.back(), "word");
  for (std::string needle : {"word", "/w.rd/"}) {
    std::vector<Hit> hits = hitsOf(ContentSearcher::search(needle, paths, false));
    ASSERT_EQ(hits.size(), 68u) << needle;
    EXPECT_TRUE(std::is_sorted(hits.begin(), hits.end(),
                               [](const Hit& a, const Hit& b) { return a.path < b.path; }));
    EXPECT_EQ(hits.back().path, paths.back());
  }
}

TEST(ContentSearcherTest, LineNumbersAndPreviews) {
  TempTree tree;
  std::string wide;
  for (int i = 0; i < 300; ++i) wide += "\xC3\xA9";  // 300 two-byte characters
  const std::vector<std::pair<std::string, Hit>> cases = {
      {"needle at the start\nsecond\n", {"", 1, "needle at the start"}},
      {"\n\n\t  needle  \t\nafter", {"", 3, "needle"}},
      {"x\r\nneedle\r\n", {"", 2, "needle\r"}},  // a raw line is trimmed of spaces and tabs only
      {"one\n" + wide + "needle" + wide, {"", 2, wide.substr(0, 400)}},  // 200 characters
      {"needle", {"", 1, "needle"}},                                     // no line feed at all
      {"bad \xFF byte needle\n", {"", 1, "bad \xEF\xBF\xBD byte needle"}},
  };
  for (const auto& [contents, expected] : cases) {
    writeFile(tree / "f.txt", contents);
    std::string path = (tree / "f.txt").string();
    Hit want = expected;
    want.path = path;
    EXPECT_EQ(searchOne("needle", path), std::vector<Hit>{want}) << contents.substr(0, 30);
  }
  // Expression previews are trimmed of line breaks as well.
  writeFile(tree / "f.txt", "x\r\n needle\r\n");
  EXPECT_EQ(searchOne("/needle/", (tree / "f.txt").string()),
            (std::vector<Hit>{{(tree / "f.txt").string(), 2, "needle"}}));
}

TEST(ContentSearcherTest, WhatCannotBeReadIsSkipped) {
  TempTree tree{"folder/"};
  writeFile(tree / "empty.txt", "");
  writeFile(tree / "good.txt", "needle");
  writeFile(tree / "broken.docx", "needle, but not a zip archive");
  ASSERT_EQ(::mkfifo((tree / "pipe.txt").c_str(), 0600), 0);  // opening it would wait for a writer
  std::vector<std::string> paths = {
      (tree / "folder").string(),   (tree / "missing.txt").string(), (tree / "empty.txt").string(),
      (tree / "pipe.txt").string(), (tree / "broken.docx").string(), (tree / "good.txt").string()};
  for (std::string needle : {"needle", "/needle/", "/(/"}) {
    std::vector<Hit> hits = hitsOf(ContentSearcher::search(needle, paths, false));
    ASSERT_LE(hits.size(), 2u) << needle;
    for (const Hit& hit : hits) EXPECT_NE(hit.path, paths[3]) << needle;
  }
  EXPECT_EQ(hitsOf(ContentSearcher::search("needle", paths, false)).back().path, paths.back());
}

// Every fast scan agrees with a plain byte-by-byte reading, at every alignment and at both ends.
TEST(ContentSearcherTest, FoldedScanAgreesWithAPlainScan) {
  auto plain = [](std::string_view text, std::string_view needle) -> size_t {
    auto fold = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    for (size_t i = 0; i + needle.size() <= text.size(); ++i) {
      size_t k = 0;
      while (k < needle.size() && fold(text[i + k]) == needle[k]) ++k;
      if (k == needle.size()) return i;
    }
    return std::string_view::npos;
  };
  std::mt19937 random(7);
  const std::string alphabet = "abAB\xC3\xA9\n ";
  for (size_t length : {0u, 1u, 15u, 16u, 17u, 31u, 33u, 100u, 1000u}) {
    for (size_t needleLength : {1u, 2u, 3u, 16u, 17u, 40u}) {
      for (int round = 0; round < 200; ++round) {
        std::string text(length, ' '), needle(needleLength, ' ');
        for (char& c : text) c = alphabet[random() % alphabet.size()];
        for (char& c : needle) c = "ab\xC3\xA9 "[random() % 5];
        if (length >= needleLength && round % 2 == 0) {  // plant one, often near the ends
          size_t at =
              round % 4 == 0 ? length - needleLength : random() % (length - needleLength + 1);
          for (size_t k = 0; k < needleLength; ++k) {
            text[at + k] = random() % 2 ? needle[k] : static_cast<char>(std::toupper(needle[k]));
          }
        }
        ASSERT_EQ(ContentSearcher::findFolded(text, needle), plain(text, needle))
            << length << " " << needleLength << " " << round;
      }
    }
  }
}

struct DeepResult {
  std::mutex lock;
  std::vector<Hit> hits;
  std::promise<std::pair<int64_t, bool>> finished;
};

TEST(ContentSearcherTest, DeepSearchReportsEveryHitAndFinishesOnce) {
  TempTree tree;
  std::vector<std::string> paths;
  for (int i = 0; i < 300; ++i) {
    paths.push_back((tree / ("f" + std::to_string(i) + ".txt")).string());
    writeFile(paths.back(), i % 2 == 0 ? "Some WORD here" : "nothing");
  }
  for (std::string needle : {"word", "/w[aeiou]rd/"}) {
    auto result = std::make_shared<DeepResult>();
    std::atomic<int> finishedCalls{0};
    ContentSearcher::deepSearch(
        needle, paths, [] { return false; },
        [result](const Hit& hit) {
          std::lock_guard guard(result->lock);
          result->hits.push_back(hit);
        },
        [result, &finishedCalls](int64_t begun, bool cancelled) {
          finishedCalls.fetch_add(1);
          result->finished.set_value({begun, cancelled});
        });
    EXPECT_EQ(result->finished.get_future().get(), (std::pair<int64_t, bool>{300, false}));
    EXPECT_EQ(finishedCalls.load(), 1);
    std::lock_guard guard(result->lock);
    EXPECT_EQ(result->hits.size(), 150u) << needle;
    for (const Hit& hit : result->hits) EXPECT_EQ(hit.preview, "Some WORD here");
  }
}

TEST(ContentSearcherTest, DeepSearchCancelledMidwayStopsReporting) {
  TempTree tree;
  std::vector<std::string> paths;
  for (int i = 0; i < 2000; ++i) {
    paths.push_back((tree / ("f" + std::to_string(i) + ".txt")).string());
    writeFile(paths.back(), "word");
  }
  auto result = std::make_shared<DeepResult>();
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  auto afterCancel = std::make_shared<std::atomic<int>>(0);
  ContentSearcher::deepSearch(
      "WORD", paths, [cancelled] { return cancelled->load(); },
      [result, cancelled, afterCancel](const Hit& hit) {
        if (cancelled->load()) afterCancel->fetch_add(1);
        std::lock_guard guard(result->lock);
        result->hits.push_back(hit);
        if (result->hits.size() == 50) cancelled->store(true);
      },
      [result](int64_t begun, bool wasCancelled) {
        result->finished.set_value({begun, wasCancelled});
      });
  auto [begun, wasCancelled] = result->finished.get_future().get();
  EXPECT_TRUE(wasCancelled);
  EXPECT_LT(begun, 2000);
  EXPECT_GE(begun, 50);
  // A scan that saw "not cancelled" just before may still report: at most one per thread.
  EXPECT_LE(afterCancel->load(), static_cast<int>(platform::activeProcessorCount()));
  std::lock_guard guard(result->lock);
  EXPECT_LE(result->hits.size(), static_cast<size_t>(begun));
}

}  // namespace
}  // namespace tarvolin
