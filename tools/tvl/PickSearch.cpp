#include "PickSearch.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <future>
#include <mutex>
#include <unordered_map>
#include <variant>

#include "tarvolin/content/ContentSearcher.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/Clock.h"
#include "tarvolin/platform/Desktop.h"
#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/query/QueryParser.h"

namespace tvl::pick {

namespace {

// A contains: search reads the files of the best this many name matches, as `tvl search` does.
constexpr int64_t kContentCandidates = 5000;

double millisecondsSince(uint64_t start) {
  return static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e6;
}

}  // namespace

// One contains: search in flight. The workers of the background queue add hits; the picker's
// thread takes them. Cancelling under the lock guarantees that no worker calls `wake` afterwards,
// so the picker may leave while files are still being read.
struct PickSearch::ContentFeed {
  std::vector<Row> candidates;  // the name matches whose files are read, best first
  std::unordered_map<std::string, size_t> rankOf;
  std::vector<std::string> otherNeedles;  // every hit must hold these too
  uint64_t start = 0;
  int64_t limit = 0;

  std::atomic<bool> cancelled{false};
  std::mutex mutex;
  std::function<void()> wake;                        // guarded by mutex
  std::vector<tarvolin::ContentSearcher::Hit> hits;  // guarded by mutex
  bool changed = false;                              // guarded by mutex
  bool finished = false;                             // guarded by mutex
  double finishedMs = 0;                             // guarded by mutex

  void cancel() {
    std::lock_guard lock(mutex);
    cancelled = true;
    wake = nullptr;
  }

  void add(const tarvolin::ContentSearcher::Hit& hit) {
    for (const std::string& needle : otherNeedles) {
      auto outcome = tarvolin::ContentSearcher::search(needle, {hit.path}, false, 1);
      const auto* found = std::get_if<std::vector<tarvolin::ContentSearcher::Hit>>(&outcome);
      if (found == nullptr || found->empty()) return;
    }
    std::lock_guard lock(mutex);
    if (cancelled) return;
    hits.push_back(hit);
    changed = true;
    if (wake) wake();
  }

  void finish() {
    std::lock_guard lock(mutex);
    finished = true;
    finishedMs = millisecondsSince(start);
    changed = true;
    if (wake) wake();
  }
};

PickSearch::PickSearch(const Context& context, std::function<void()> wake)
    : context_(context), wake_(std::move(wake)) {
#if TVL_PICK_WITH_SERVICE
  namespace protocol = tarvolin::ServiceProtocol;
  client_ = tarvolin::ServiceClient::connect(protocol::socketPathFor(context.indexPath));
  if (client_) {
    // Ask once to learn whether this service serves our index at all.
    auto answer = client_->ask(protocol::StatusRequest{});
    const auto* status = answer ? std::get_if<protocol::StatusAnswer>(&*answer) : nullptr;
    if (status == nullptr || status->indexPath != context.indexPath.string()) client_.reset();
  }
#endif
  if (!live()) loadStore();
}

bool PickSearch::live() const {
#if TVL_PICK_WITH_SERVICE
  return client_.has_value();
#else
  return false;
#endif
}

PickSearch::~PickSearch() {
  if (feed_) feed_->cancel();
  // The picker is ending: the tables' build stops early instead of holding up the exit (the
  // future waits for it).
  tablesStop_->store(true);
}

void PickSearch::loadStore() {
  if (store_) return;
  store_ = openIndexOrExit(context_);
  session_ = std::make_unique<tarvolin::SearchSession>(store_);
  ranker_ = std::make_unique<tarvolin::Ranker>(store_);
  matcher_ = std::make_unique<tarvolin::Matcher>(store_);
  // Scoring every record takes about as long as ranking them all, and grouping them by
  // extension a tenth of a second on two million names: done beside the first keystrokes, they
  // spare every later keystroke with many matches or an extension. The building thread runs at
  // the lowest priority, so that a keystroke's search, which wants every processor, is not
  // slowed by it.
  tables_ = std::async(std::launch::async, [store = store_, stop = tablesStop_] {
    tarvolin::platform::lowerThreadPriority(19);
    Tables tables{tarvolin::Ranker::scoresOf(store), nullptr};
    if (auto groups = tarvolin::ExtensionIndex::build(*store, [&stop] { return stop->load(); })) {
      tables.extensions = std::make_shared<const tarvolin::ExtensionIndex>(std::move(*groups));
    }
    return tables;
  });
}

PickSearch::Answer PickSearch::search(const std::string& text, int64_t limit) {
  if (feed_) {
    feed_->cancel();
    feed_.reset();
  }
  if (live()) {
    if (std::optional<Answer> answer = searchLive(text, limit)) return *answer;
  }
  loadStore();
  return searchHere(text, limit);
}

std::optional<PickSearch::Answer> PickSearch::searchLive(const std::string& text, int64_t limit) {
#if !TVL_PICK_WITH_SERVICE
  (void)text;
  (void)limit;
  return std::nullopt;
#else
  namespace protocol = tarvolin::ServiceProtocol;
  tarvolin::Query query = tarvolin::QueryParser::parse(text);
  if (query.isEmpty()) return Answer{{}, 0, 0, true, false, {}};
  if (query.requiresContentScan()) return std::nullopt;  // files are read here
  auto answer = client_->ask(
      protocol::SearchRequest{text, true, std::clamp<int64_t>(limit, 1, protocol::maxResultLimit)});
  const auto* found = answer ? std::get_if<protocol::SearchAnswer>(&*answer) : nullptr;
  if (found == nullptr || found->indexPath != context_.indexPath.string()) {
    const auto* refused = answer ? std::get_if<protocol::ErrorAnswer>(&*answer) : nullptr;
    // A refusal to do this one query leaves the connection usable only when the service says
    // so; anything else means the service is gone and this picker goes on alone.
    if (refused == nullptr || !refused->useDirect) client_.reset();
    return std::nullopt;
  }
  Answer result;
  result.live = true;
  result.total = found->total;
  result.elapsedMs = found->elapsedMs;
  result.rows.reserve(found->paths.size());
  for (const std::string& path : found->paths) result.rows.push_back(Row{.path = path});
  return result;
#endif
}

Row PickSearch::rowFor(uint32_t id, const tarvolin::PathResolver& resolver) const {
  const tarvolin::FileRecord& record = (*store_)[id];
  Row row;
  row.path = resolver.absolutePath(id);
  row.isDirectory = record.flags.contains(tarvolin::RecordFlags::isDirectory);
  row.attributesKnown = record.flags.contains(tarvolin::RecordFlags::attrsFilled);
  row.size = record.size;
  row.mtime = record.mtime;
  return row;
}

PickSearch::Answer PickSearch::searchHere(const std::string& text, int64_t limit) {
  uint64_t start = tarvolin::platform::monotonicNanoseconds();
  tarvolin::Query query = tarvolin::QueryParser::parse(text);
  if (query.isEmpty()) {
    session_->reset();
    return {};
  }
  if (query.requiresContentScan()) return searchContents(query, limit, start);
  // Once the tables are ready, every ranking looks scores up instead of walking folders, and
  // an extension is a group at hand.
  if (tables_.valid() && tables_.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
    Tables tables = tables_.get();
    ranker_->useScores(std::move(tables.scores));
    session_->setExtensions(tables.extensions);
    matcher_->setExtensions(std::move(tables.extensions));
  }
  const std::vector<tarvolin::Match>& matches = session_->search(text);
  std::vector<tarvolin::RankedResult> ranked = ranker_->rank(matches, limit);
  Answer answer;
  answer.total = static_cast<int64_t>(matches.size());
  tarvolin::PathResolver resolver(store_);
  answer.rows.reserve(ranked.size());
  for (const tarvolin::RankedResult& result : ranked) {
    answer.rows.push_back(rowFor(result.match.id, resolver));
  }
  answer.elapsedMs = millisecondsSince(start);
  return answer;
}

PickSearch::Answer PickSearch::searchContents(const tarvolin::Query& query, int64_t limit,
                                              uint64_t start) {
  tarvolin::Query::ContentSplit split = query.splittingContentTerms();
  Answer answer;
  if (split.contentNeedles.empty()) {
    answer.message = "contains: inside ! is not searched here";
    return answer;
  }
  if (split.name.isEmpty()) {
    answer.message = "contains: needs something to narrow by, e.g. `.txt contains:foo`";
    return answer;
  }
  // The typing run of the session is over: a content query is matched afresh.
  session_->reset();
  std::vector<tarvolin::RankedResult> ranked =
      ranker_->rank(matcher_->match(split.name), kContentCandidates);

  auto feed = std::make_shared<ContentFeed>();
  feed->start = start;
  feed->limit = limit;
  feed->wake = wake_;
  feed->otherNeedles.assign(split.contentNeedles.begin() + 1, split.contentNeedles.end());
  tarvolin::PathResolver resolver(store_);
  std::vector<std::string> paths;
  paths.reserve(ranked.size());
  for (size_t i = 0; i < ranked.size(); ++i) {
    feed->candidates.push_back(rowFor(ranked[i].match.id, resolver));
    feed->rankOf.emplace(feed->candidates.back().path, i);
    paths.push_back(feed->candidates.back().path);
  }
  feed_ = feed;
  tarvolin::ContentSearcher::deepSearch(
      split.contentNeedles.front(), std::move(paths),
      [feed] { return feed->cancelled.load(std::memory_order_relaxed); },
      [feed](const tarvolin::ContentSearcher::Hit& hit) { feed->add(hit); },
      [feed](int64_t, bool) { feed->finish(); });
  answer.searchingContents = true;
  answer.elapsedMs = millisecondsSince(start);
  return answer;
}

std::optional<PickSearch::Answer> PickSearch::takeContentRows() {
  if (!feed_) return std::nullopt;
  ContentFeed& feed = *feed_;
  std::vector<std::pair<size_t, tarvolin::ContentSearcher::Hit>> found;
  Answer answer;
  {
    std::lock_guard lock(feed.mutex);
    if (!feed.changed) return std::nullopt;
    feed.changed = false;
    for (const tarvolin::ContentSearcher::Hit& hit : feed.hits) {
      if (auto rank = feed.rankOf.find(hit.path); rank != feed.rankOf.end()) {
        found.emplace_back(rank->second, hit);
      }
    }
    answer.searchingContents = !feed.finished;
    answer.elapsedMs = feed.finished ? feed.finishedMs : millisecondsSince(feed.start);
  }
  std::sort(found.begin(), found.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  answer.total = static_cast<int64_t>(found.size());
  for (const auto& [rank, hit] : found) {
    if (static_cast<int64_t>(answer.rows.size()) >= feed.limit) break;
    Row row = feed.candidates[rank];
    row.hit = Row::ContentHit{hit.line, hit.preview};
    answer.rows.push_back(std::move(row));
  }
  return answer;
}

void PickSearch::fillAttributes(std::vector<Row>& rows, size_t first, size_t last) const {
  last = std::min(last, rows.size());
  for (size_t i = first; i < last; ++i) {
    Row& row = rows[i];
    if (row.attributesKnown) continue;
    if (std::optional<tarvolin::platform::EntryStatus> status =
            tarvolin::platform::linkStatus(row.path)) {
      row.attributesKnown = true;
      row.isDirectory = status->type == tarvolin::platform::EntryType::directory;
      row.size = static_cast<uint64_t>(std::max<int64_t>(0, status->size));
      row.mtime = status->modificationTime;
    }
  }
}

std::optional<int64_t> PickSearch::indexAgeSeconds() const {
  if (live()) return std::nullopt;
  std::optional<tarvolin::platform::EntryStatus> status =
      tarvolin::platform::linkStatus(context_.indexPath.string());
  if (!status) return std::nullopt;
  return std::max<int64_t>(0, static_cast<int64_t>(std::time(nullptr)) - status->modificationTime);
}

}  // namespace tvl::pick
