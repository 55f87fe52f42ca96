#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/PdfWriter.h"
#include "support/TempTree.h"
#include "tarvolin/content/PdfWorkerPool.h"

namespace tarvolin {
namespace {

using testing::makePdf;
using testing::TempTree;
using testing::writeFile;
using namespace std::chrono_literals;

const std::filesystem::path kWorker = TVL_PDFTEXT_PATH;

class PdfWorkerPoolTest : public ::testing::Test {
 protected:
  PdfWorkerPoolTest() {
    writeFile(tree_ / "two.pdf", makePdf({"Hello World", "Second page"}));
    writeFile(tree_ / "garbage.pdf", "%PDF-1.4\n this is no PDF at all \x01\x02\x03");
  }

  // A worker that is the shell script `body`. Scripts that misbehave read a byte of the request
  // first, so that the request is in flight when they do.
  std::filesystem::path fakeWorker(const std::string& name, const std::string& body) {
    std::filesystem::path script = tree_ / name;
    writeFile(script, "#!/bin/sh\n" + body + "\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    return script;
  }

  // A worker that misbehaves on its first start only (a marker file is removed by that start) and
  // is the real worker afterwards.
  std::filesystem::path onceThenReal(const std::string& name, const std::string& misbehaviour) {
    writeFile(tree_ / (name + ".armed"), "");
    std::string marker = (tree_ / (name + ".armed")).string();
    return fakeWorker(name, "if [ -e '" + marker + "' ]; then rm '" + marker + "'; " +
                                misbehaviour + "; fi\nexec '" + kWorker.string() + "' \"$@\"");
  }

  TempTree tree_;
};

TEST_F(PdfWorkerPoolTest, ExtractsEveryPageJoinedByLineFeeds) {
  PdfWorkerPool pool(kWorker, 2);
  EXPECT_EQ(pool.text(tree_ / "two.pdf"), "Hello World\n\nSecond page\n");
}

TEST_F(PdfWorkerPoolTest, DocumentsWithoutTextYieldNothingAndTheWorkerStays) {
  PdfWorkerPool pool(kWorker, 1);
  writeFile(tree_ / "blank.pdf", makePdf({""}));
  EXPECT_EQ(pool.text(tree_ / "garbage.pdf"), std::nullopt);
  EXPECT_EQ(pool.text(tree_ / "missing.pdf"), std::nullopt);
  EXPECT_EQ(pool.text(tree_ / "blank.pdf"), std::nullopt);
  EXPECT_EQ(pool.text(tree_.root()), std::nullopt);
  EXPECT_TRUE(pool.text(tree_ / "two.pdf"));
}

TEST_F(PdfWorkerPoolTest, AWorkerThatDiesCostsOneDocumentOnly) {
  struct Case {
    const char* name;
    std::string misbehaviour;
    bool waitsForTheDeadline;  // otherwise it must be noticed well before the wall clock
  };
  const Case cases[] = {
      {"crash", "head -c 1 >/dev/null; kill -SEGV $$", false},
      {"hang", "exec sleep 1000", true},
      {"bad-framing", "head -c 1 >/dev/null; printf 'not a reply at all'; exec sleep 1000", false},
      {"truncated-reply",
       "head -c 1 >/dev/null; printf '\\000\\000\\000\\000\\100\\000\\000\\000abc'", false},
      {"text-too-long",
       "head -c 1 >/dev/null; printf '\\000\\000\\000\\000\\377\\377\\377\\377'; exec sleep 1000",
       false},
      // Fails its allocations at the address-space limit.
      {"memory", "head -c 1 >/dev/null; exec tail /dev/zero", false},
  };
  const auto wallClock = 3s;
  for (const Case& c : cases) {
    PdfWorkerPool pool(onceThenReal(c.name, c.misbehaviour), 1,
                       {.cpuPerDocument = 10s,
                        .addressSpaceBytes = 256ull << 20,
                        .wallClockPerDocument = wallClock});
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(pool.text(tree_ / "two.pdf"), std::nullopt) << c.name;
    auto took = std::chrono::steady_clock::now() - started;
    if (c.waitsForTheDeadline) {
      EXPECT_GE(took, wallClock) << c.name;
    } else {
      EXPECT_LT(took, wallClock) << c.name;
    }
    EXPECT_LT(took, wallClock + 2s) << c.name;
    std::optional<std::string> next = pool.text(tree_ / "two.pdf");
    ASSERT_TRUE(next) << c.name;
    EXPECT_NE(next->find("Hello World"), std::string::npos) << c.name;
  }
}

TEST_F(PdfWorkerPoolTest, AWorkerThatLoopsIsStoppedByItsCpuLimit) {
  PdfWorkerPool pool(
      fakeWorker("spin", "while :; do :; done"), 1,
      {.cpuPerDocument = 1s, .addressSpaceBytes = 256ull << 20, .wallClockPerDocument = 30s});
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(pool.text(tree_ / "two.pdf"), std::nullopt);
  // Twice the per-document budget, then SIGXCPU: far sooner than the wall-clock limit.
  EXPECT_LT(std::chrono::steady_clock::now() - started, 25s);
}

TEST_F(PdfWorkerPoolTest, AWorkerThatWentAwayWhileIdleIsReplacedWithoutLosingTheDocument) {
  // Reads exactly one request, answers it, and exits without saying so, as if killed while waiting
  // for the next one.
  size_t requestBytes = 4 + (tree_ / "two.pdf").string().size();
  PdfWorkerPool pool(fakeWorker("one-shot", "head -c " + std::to_string(requestBytes) + " | '" +
                                                kWorker.string() + "'"),
                     1);
  EXPECT_TRUE(pool.text(tree_ / "two.pdf"));
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(pool.text(tree_ / "two.pdf"));
}

TEST_F(PdfWorkerPoolTest, RetiringWorkersAreReplacedBetweenDocuments) {
  // A budget of 0 s: every worker has used it up after its first document and retires.
  PdfWorkerPool pool(kWorker, 1, {.cpuPerDocument = 0s});
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(pool.text(tree_ / "two.pdf"), "Hello World\n\nSecond page\n");
}

TEST_F(PdfWorkerPoolTest, WithoutAWorkerPdfsYieldNothing) {
  PdfWorkerPool none(std::nullopt, 1);
  EXPECT_EQ(none.text(tree_ / "two.pdf"), std::nullopt);
  PdfWorkerPool missing(tree_ / "no-such-worker", 1);
  EXPECT_EQ(missing.text(tree_ / "two.pdf"), std::nullopt);
}

TEST_F(PdfWorkerPoolTest, ManyThreadsShareFewWorkers) {
  PdfWorkerPool pool(kWorker, 2);
  std::vector<std::thread> threads;
  std::atomic<int> found = 0;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) {
        std::optional<std::string> text = pool.text(tree_ / (i % 2 ? "two.pdf" : "garbage.pdf"));
        if (text && text->find("Second page") != std::string::npos) ++found;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(found, 12);
}

}  // namespace
}  // namespace tarvolin
