#pragma once
// The searches behind `tvl pick`: each keystroke's query goes to a running service's session
// when one serves this index ("live"), else to a search session of its own over the loaded index,
// and comes back as ranked rows. A query with contains: terms always runs here: its name part is
// ranked, the best candidates' files are read on the background queue, and the rows with a
// matching line arrive afterwards through `takeContentRows`, for as long as the query stands.
//
// One thread (the picker's loop); the content search's workers only queue their hits and call
// the `wake` callback given at construction, which must be safe from any thread.

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "PickScreen.h"
#include "tarvolin/query/ExtensionIndex.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/query/SearchSession.h"

// The service is optional: a build without it searches in-process only.
#if __has_include("tarvolin/service/ServiceClient.h")
#include "tarvolin/service/ServiceClient.h"
#define TVL_PICK_WITH_SERVICE 1
#else
#define TVL_PICK_WITH_SERVICE 0
#endif

namespace tvl::pick {

class PickSearch {
 public:
  /// Connects to the service when one serves `context`'s index; otherwise loads the index
  /// (printing the index message and ending the run when it cannot be used).
  PickSearch(const Context& context, std::function<void()> wake);
  ~PickSearch();
  PickSearch(const PickSearch&) = delete;
  PickSearch& operator=(const PickSearch&) = delete;

  struct Answer {
    std::vector<Row> rows;  // best first
    int64_t total = 0;      // matches before ranking (for contains:, files with a hit so far)
    double elapsedMs = 0;
    bool live = false;
    bool searchingContents = false;
    std::string message;  // why nothing could be searched, if so
  };

  /// The best `limit` rows for `text`, which extends or shortens the previous keystroke's text.
  /// Cancels the content search of the previous query.
  Answer search(const std::string& text, int64_t limit);
  /// For a contains: query: the rows found so far, in name rank order, when new hits arrived
  /// since the last call; nothing otherwise.
  std::optional<Answer> takeContentRows();
  /// Fills the size and date of rows [first, last) when the answer did not carry them.
  void fillAttributes(std::vector<Row>& rows, size_t first, size_t last) const;
  /// Seconds since the index file was written; nothing when answered live or unknown.
  std::optional<int64_t> indexAgeSeconds() const;

 private:
  struct ContentFeed;

  Answer searchHere(const std::string& text, int64_t limit);
  Answer searchContents(const tarvolin::Query& query, int64_t limit, uint64_t start);
  std::optional<Answer> searchLive(const std::string& text, int64_t limit);
  bool live() const;
  void loadStore();
  Row rowFor(uint32_t id, const tarvolin::PathResolver& resolver) const;

  const Context& context_;
  std::function<void()> wake_;
#if TVL_PICK_WITH_SERVICE
  std::optional<tarvolin::ServiceClient> client_;
#endif
  std::shared_ptr<const tarvolin::IndexStore> store_;
  std::unique_ptr<tarvolin::SearchSession> session_;
  std::unique_ptr<tarvolin::Ranker> ranker_;
  // The store's score table and extension groups, computed in the background; taken by the
  // ranker and the session once ready.
  struct Tables {
    std::shared_ptr<const std::vector<int32_t>> scores;
    std::shared_ptr<const tarvolin::ExtensionIndex> extensions;
  };
  std::future<Tables> tables_;
  std::shared_ptr<std::atomic<bool>> tablesStop_ = std::make_shared<std::atomic<bool>>(false);
  std::unique_ptr<tarvolin::Matcher> matcher_;  // for the name part of contains: queries
  std::shared_ptr<ContentFeed> feed_;           // the current contains: search, if any
};

}  // namespace tvl::pick
