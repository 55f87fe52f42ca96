// 32 clients search in a loop, half of them typing a query a keystroke at a time, while files are
// made and removed below the watched tree: every answer is a well-formed search answer, the
// changes keep reaching searches, and the service's memory stays flat. Runs for
// TARVOLIN_STRESS_SECONDS (default 6; the figures in the docs come from 60).

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/ServiceClient.h"
#include "tarvolin/service/ServiceServer.h"
#include "tarvolin/service/WatchedIndex.h"

namespace tarvolin {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::TempTree;

int stressSeconds() {
  const char* text = std::getenv("TARVOLIN_STRESS_SECONDS");
  int seconds = text ? std::atoi(text) : 0;
  return seconds > 0 ? seconds : 6;
}

TEST(ServiceStressTest, ThirtyTwoClientsWhileFilesChange) {
  TempTree tree;
  for (int i = 0; i < 2000; ++i) {
    tree.add("base/d" + std::to_string(i % 40) + "/report" + std::to_string(i) + ".txt");
  }
  TempTree work;
  std::filesystem::path indexPath = work / "index.bin";
  DirectoryScanner scanner(ScanPolicy{}, 1, 0, "/nonexistent");
  IndexWriter::write(scanner.scan(tree.root().string(), 0).builder,
                     {{"local", tree.root().string(), 0, true}}, indexPath);
  WatchedIndex::Options options;
  options.rewriteInterval = 1s;
  WatchedIndex index(indexPath, std::get<std::shared_ptr<const IndexStore>>(loadIndex(indexPath)),
                     ScanPolicy{}, "/nonexistent", options);
  index.start();
  ServiceServer server(work / "tvl.sock", index);

  const auto until = Clock::now() + std::chrono::seconds(stressSeconds());
  std::atomic<int64_t> answers = 0, malformed = 0, changes = 0;
  std::thread changer([&] {
    for (int round = 0; Clock::now() < until; ++round) {
      std::string folder = "churn" + std::to_string(round % 8);
      for (int i = 0; i < 50; ++i) tree.add(folder + "/note" + std::to_string(i) + ".md");
      std::filesystem::remove_all(tree / folder);
      changes += 100;
    }
  });
  const char* queries[] = {"report", "note ext:md", "d1 report1", "!report", "zzz", "/rep.*7$/"};
  std::vector<std::thread> clients;
  for (int c = 0; c < 32; ++c) {
    clients.emplace_back([&, c] {
      std::optional<ServiceClient> client;
      for (int turn = 0; Clock::now() < until; ++turn) {
        if (!client) client = ServiceClient::connect(work / "tvl.sock");
        ASSERT_TRUE(client);
        std::string query = queries[(c + turn) % std::size(queries)];
        // Half the clients type: every prefix of the query as the next keystroke.
        size_t from = c % 2 == 0 ? 1 : query.size();
        for (size_t length = from; length <= query.size(); ++length) {
          auto answer =
              client->ask(ServiceProtocol::SearchRequest{query.substr(0, length), c % 2 == 0, 20});
          if (!answer || !std::holds_alternative<ServiceProtocol::SearchAnswer>(*answer)) {
            ++malformed;
            client.reset();
            break;
          }
          ++answers;
        }
      }
    });
  }
  // The resident size once every client runs, against the size at the end.
  std::this_thread::sleep_for(std::chrono::seconds(stressSeconds()) / 3);
  uint64_t early = platform::residentBytes();
  for (std::thread& client : clients) client.join();
  changer.join();
  uint64_t late = platform::residentBytes();
  index.stop();

  EXPECT_EQ(malformed, 0);
  EXPECT_GT(answers, 1000);
  EXPECT_GT(changes, 1000);
  EXPECT_GT(index.publishedCount(), 2u);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // (The sanitizers hold freed memory back on purpose: only a plain build says anything here.)
  EXPECT_LT(late, early + (32u << 20)) << early << " then " << late;
#else
  (void)early;
  (void)late;
#endif
}

}  // namespace
}  // namespace tarvolin
