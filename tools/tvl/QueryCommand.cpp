// tvl query [options] QUERY...: the search for scripts. The query language, matcher and ranker
// are those of `tvl search`, but only results are printed, best first: one path per line, NUL
// separated with -0, or one JSON object per line with --json. --catalogs and --content add the
// offline catalogs and the content index to the same list; --count prints the number alone.
// Exit status 1 when nothing matched, 2 on usage errors, 0 otherwise.
//
// Every match is ranked, not only the printed ones: the ranking is the ranker's own order
// (quality group, then score, then the order the matcher found them in), computed for all
// matches with one sort, or a partial sort when a limit cuts it. Paths are written from the
// index's raw name bytes, so a name that is not valid UTF-8 comes out as it is on disk.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "IndexPaths.h"
#include "Output.h"
#include "ResultWriter.h"
#include "tarvolin/catalog/CatalogError.h"
#include "tarvolin/catalog/CatalogInfo.h"
#include "tarvolin/catalog/CatalogLayout.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentSearcher.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/query/TrigramIndex.h"
#include "tarvolin/service/ServiceClient.h"

namespace tvl {

namespace {

using nlohmann::json;

constexpr uint64_t kDefaultLimit = 20;
// A contains: search reads the files of the best this many name matches, as `tvl search` does.
constexpr int64_t kContentCandidates = 5000;
// Content-index documents rank after every name match: they have no name score.
constexpr uint64_t kContentBucket = 5;

constexpr OptionSyntax kOptions[] = {
    {"null", '0', "", "End each result with a NUL byte instead of a newline (for xargs -0)."},
    {"limit", 'n', "N", "Print the best N results (default 20; 0 prints every match, ranked)."},
    {"catalogs", 0, "", "Also search the offline catalogs."},
    {"content", 0, "", "Also search the content index for the query's words."},
    {"count", 'c', "", "Print only the number of matches."},
};

constexpr CommandSyntax kSyntax{
    "tvl query [-0] [--limit N] [--catalogs] [--content] [--count] [--json] QUERY...",
    "Searches the name index like `tvl search` and prints only the results, best first: one\n"
    "path per line, NUL-separated with -0, or one JSON object per line with --json (path,\n"
    "name, kind, size and mtime when known, score, index). Exit status 1 when nothing\n"
    "matched.",
    kOptions, 1};

// One index searched by name: the current name index or a catalog's.
struct NameSource {
  std::shared_ptr<const tarvolin::IndexStore> store;
  std::string label;       // "names" or "catalog:<id>"
  int32_t scoreBonus = 0;  // added to every score (a catalog's root depth given back)
  std::shared_ptr<const tarvolin::TrigramIndex> trigrams;
};

// A document found in the content index.
struct ContentDocument {
  std::string path;
  double modified = 0;
  int64_t line = 0;
};

constexpr uint32_t kContentSource = std::numeric_limits<uint32_t>::max();

// One result: where it came from, and its place in the order. `key` holds the quality group
// above the inverted score, so ascending keys are best first; `sequence` (the order results
// were gathered in: the names index first, then each catalog, each in the matcher's order)
// breaks ties the way the ranker does.
struct Entry {
  uint64_t key;
  uint32_t sequence;
  uint32_t source;  // a NameSource's position, or kContentSource
  uint32_t id;      // record ID, or position among the content documents
  int32_t score;

  bool operator<(const Entry& other) const {
    return key != other.key ? key < other.key : sequence < other.sequence;
  }
};

uint64_t keyOf(uint64_t bucket, int32_t score) {
  return bucket << 32 |
         static_cast<uint64_t>(int64_t{std::numeric_limits<int32_t>::max()} - int64_t{score});
}

// The ranker's group of a match: its quality, except that applications matched at a word
// boundary or better join the exact ones.
uint64_t bucketOf(const tarvolin::Match& match, const tarvolin::IndexStore& store) {
  if (match.quality <= tarvolin::MatchQuality::wordBoundary &&
      store[match.id].flags.contains(tarvolin::RecordFlags::isApp)) {
    return 0;
  }
  return static_cast<uint64_t>(match.quality);
}

struct Gathered {
  std::vector<NameSource> sources;
  std::vector<ContentDocument> documents;
  std::vector<Entry> entries;
};

void addMatches(Gathered& gathered, uint32_t source, const std::vector<tarvolin::Match>& matches) {
  const NameSource& from = gathered.sources[source];
  tarvolin::Ranker ranker(from.store);
  gathered.entries.reserve(gathered.entries.size() + matches.size());
  for (const tarvolin::Match& match : matches) {
    int32_t score = ranker.score(match) + from.scoreBonus;
    gathered.entries.push_back({keyOf(bucketOf(match, *from.store), score),
                                static_cast<uint32_t>(gathered.entries.size()), source, match.id,
                                score});
  }
}

void searchNames(Gathered& gathered, uint32_t source, const tarvolin::Query& query) {
  tarvolin::Matcher matcher(gathered.sources[source].store);
  if (gathered.sources[source].trigrams) matcher.setTrigrams(gathered.sources[source].trigrams);
  addMatches(gathered, source, matcher.matchWithFuzzyFallback(query));
}

// A query with contains: terms, as `tvl search` runs it: the best name matches are the
// candidates, each needle is looked for in their files, and the files holding every needle
// keep their name rank.
void searchNamesAndFiles(Gathered& gathered, const tarvolin::Query::ContentSplit& split) {
  const std::shared_ptr<const tarvolin::IndexStore>& store = gathered.sources[0].store;
  tarvolin::Matcher matcher(store);
  tarvolin::Ranker ranker(store);
  std::vector<tarvolin::RankedResult> ranked =
      ranker.rank(matcher.match(split.name), kContentCandidates);
  std::vector<std::string> candidates(ranked.size());
  for (size_t i = 0; i < ranked.size(); ++i) {
    appendRawPath(candidates[i], *store, ranked[i].match.id);
  }
  std::optional<std::unordered_set<std::string>> surviving;
  for (const std::string& needle : split.contentNeedles) {
    tarvolin::ContentSearcher::Outcome outcome = tarvolin::ContentSearcher::search(
        needle, candidates, /*caseSensitive=*/false, kContentCandidates);
    if (const auto* refused = std::get_if<tarvolin::ContentSearcher::TooManyCandidates>(&outcome)) {
      output::errorLine(std::to_string(refused->count) +
                        " candidates is too many to read; narrow the name query first");
      throw ExitRequest{2};
    }
    std::unordered_set<std::string> found;
    for (const auto& hit : std::get<std::vector<tarvolin::ContentSearcher::Hit>>(outcome)) {
      found.insert(hit.path);
    }
    if (!surviving) {
      surviving = std::move(found);
    } else {
      std::erase_if(*surviving, [&](const std::string& path) { return !found.contains(path); });
    }
  }
  for (size_t i = 0; i < ranked.size(); ++i) {
    if (!surviving->contains(candidates[i])) continue;
    const tarvolin::RankedResult& result = ranked[i];
    gathered.entries.push_back({keyOf(bucketOf(result.match, *store), result.score),
                                static_cast<uint32_t>(gathered.entries.size()), 0, result.match.id,
                                result.score});
  }
}

// Every catalog whose description and index can be read, with the same root-depth allowance
// `tvl catalog search` gives, so a drive catalogued deep in the tree competes evenly.
void addCatalogs(Gathered& gathered, const Context& context) {
  tarvolin::CatalogLayout layout{tarvolin::CatalogLayout::rootIn(context.home)};
  for (const std::string& id : layout.catalogIDs()) {
    tarvolin::CatalogInfo info;
    try {
      info = tarvolin::CatalogInfo::read(layout.infoURL(id));
    } catch (const tarvolin::CatalogError&) {
      output::errorLine("tvl: skipping catalog " + id + ": its description cannot be read");
      continue;
    }
    tarvolin::IndexLoadOutcome loaded = tarvolin::loadIndex(layout.indexURL(id));
    auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&loaded);
    if (store == nullptr) {
      output::errorLine("tvl: skipping catalog " + id + " \"" + info.name +
                        "\": its index is damaged; run `tvl catalog update " + id + "`");
      continue;
    }
    NameSource source{*store, "catalog:" + id,
                      tarvolin::Ranker::depthPenalty * static_cast<int32_t>(std::min<uint32_t>(
                                                           info.rootRecordID.value_or(0), 256)),
                      nullptr};
    // A side file left by `tvl catalog search` speeds the scan; none is made here.
    if (auto trigrams =
            tarvolin::TrigramIndex::load(layout.trigramURL(id), (*store)->header().checksum)) {
      source.trigrams = std::make_shared<const tarvolin::TrigramIndex>(std::move(*trigrams));
    }
    gathered.sources.push_back(std::move(source));
  }
}

// The text --content looks for: the contains: needles when the query has them, else its plain
// words (and quoted phrases) joined by blanks. Operators are about names, not text.
std::vector<std::string> contentWords(const tarvolin::Query::ContentSplit& split) {
  if (!split.contentNeedles.empty()) return split.contentNeedles;
  std::string words;
  for (const tarvolin::Term& term : split.name.andTerms) {
    if (term.kind() != tarvolin::Term::Kind::substring &&
        term.kind() != tarvolin::Term::Kind::exactPhrase) {
      continue;
    }
    if (!words.empty()) words.push_back(' ');
    words += term.text();
  }
  if (words.empty()) return {};
  return {words};
}

// Documents of the content index holding every one of `needles`, in table order, without those
// already found by name in the current index.
void addContentDocuments(Gathered& gathered, const Context& context,
                         const std::vector<std::string>& needles) {
  tarvolin::ContentIndex index;
  try {
    index = tarvolin::ContentIndex::read(context.contentPath);
  } catch (...) {
    output::errorLine("No content index. Run `tvl content` first.");
    throw ExitRequest{1};
  }
  if (needles.empty()) return;
  auto everyDocument = static_cast<int64_t>(index.documents().size());
  std::vector<tarvolin::ContentIndex::Hit> hits = index.search(needles.front(), everyDocument);
  for (size_t i = 1; i < needles.size(); ++i) {
    std::unordered_set<std::string> also;
    for (const auto& hit : index.search(needles[i], everyDocument)) also.insert(hit.path);
    std::erase_if(hits, [&](const auto& hit) { return !also.contains(hit.path); });
  }
  if (hits.empty()) return;

  std::unordered_set<std::string> byName;
  const tarvolin::IndexStore& names = *gathered.sources[0].store;
  std::string path;
  for (const Entry& entry : gathered.entries) {
    if (entry.source != 0) continue;
    path.clear();
    appendRawPath(path, names, entry.id);
    byName.insert(path);
  }
  std::unordered_map<std::string_view, double> modified;
  for (const auto& document : index.documents()) modified.emplace(document.path, document.modified);
  for (const tarvolin::ContentIndex::Hit& hit : hits) {
    if (byName.contains(hit.path)) continue;
    auto position = static_cast<uint32_t>(gathered.documents.size());
    gathered.documents.push_back({hit.path, modified[hit.path], hit.line});
    gathered.entries.push_back({keyOf(kContentBucket, 0),
                                static_cast<uint32_t>(gathered.entries.size()), kContentSource,
                                position, 0});
  }
}

std::string_view lastComponent(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
}

// Standard base64 with padding.
std::string base64(std::string_view bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) group |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) group |= static_cast<uint8_t>(bytes[i + 2]);
    text.push_back(kDigits[group >> 18 & 63]);
    text.push_back(kDigits[group >> 12 & 63]);
    text.push_back(i + 1 < bytes.size() ? kDigits[group >> 6 & 63] : '=');
    text.push_back(i + 2 < bytes.size() ? kDigits[group & 63] : '=');
  }
  return text;
}

std::string lossy(std::string_view bytes) {
  std::string text;
  tarvolin::platform::appendUtf8Lossy(text, bytes);
  return text;
}

// The JSON object of one result. A path that is not valid UTF-8 is shown with U+FFFD in "path"
// and given byte for byte, base64-encoded, in "pathBase64".
json resultJson(const Gathered& gathered, const Entry& entry, const std::string& rawPath) {
  json object;
  object["path"] = lossy(rawPath);
  if (!tarvolin::platform::isValidUtf8(rawPath)) object["pathBase64"] = base64(rawPath);
  object["name"] = lossy(lastComponent(rawPath));
  if (entry.source == kContentSource) {
    const ContentDocument& document = gathered.documents[entry.id];
    object["kind"] = "file";
    object["mtime"] = static_cast<int64_t>(document.modified);
    object["score"] = nullptr;
    object["index"] = "content";
    object["line"] = document.line;
    return object;
  }
  const NameSource& source = gathered.sources[entry.source];
  const tarvolin::FileRecord& record = (*source.store)[entry.id];
  using tarvolin::RecordFlags;
  object["kind"] = record.flags.contains(RecordFlags::isApp)         ? "app"
                   : record.flags.contains(RecordFlags::isDirectory) ? "folder"
                   : record.flags.contains(RecordFlags::isSymlink)   ? "symlink"
                                                                     : "file";
  if (record.flags.contains(RecordFlags::attrsFilled)) {
    if (!record.flags.contains(RecordFlags::isDirectory)) object["size"] = record.size;
    object["mtime"] = record.mtime;
  }
  object["score"] = entry.score;
  object["index"] = source.label;
  return object;
}

void appendPath(std::string& out, const Gathered& gathered, const Entry& entry) {
  if (entry.source == kContentSource) {
    out += gathered.documents[entry.id].path;
  } else {
    appendRawPath(out, *gathered.sources[entry.source].store, entry.id);
  }
}

// A running service for this index answers a plain name query (paths only, or the count) from
// memory. Nothing when no service runs for this index file, it refuses or fails, or the answer
// would need more than it sends (JSON fields, catalogs, documents, more than its result limit):
// the caller then searches the index itself, which also gives every error its own message.
std::optional<int> queryThroughService(const Context& context, const ParsedOptions& options,
                                       const std::string& text, uint64_t limit) {
  namespace protocol = tarvolin::ServiceProtocol;
  bool count = options.has("count");
  if (options.json() || options.has("catalogs") || options.has("content")) return std::nullopt;
  if (!count && (limit == 0 || limit > static_cast<uint64_t>(protocol::maxResultLimit))) {
    return std::nullopt;
  }
  auto client = tarvolin::ServiceClient::connect(protocol::socketPathFor(context.indexPath));
  if (!client) return std::nullopt;
  auto answer =
      client->ask(protocol::SearchRequest{text, false, count ? 1 : static_cast<int64_t>(limit)});
  const auto* found = answer ? std::get_if<protocol::SearchAnswer>(&*answer) : nullptr;
  if (found == nullptr || found->indexPath != context.indexPath.string()) return std::nullopt;
  if (count) {
    output::line(std::to_string(found->total));
  } else {
    ResultWriter writer(options.has("null") ? '\0' : '\n');
    for (const std::string& path : found->paths) {
      if (writer.closed()) break;
      writer.buffer() += path;
      writer.endRecord();
    }
    writer.finish();
  }
  return found->total == 0 ? 1 : 0;
}

}  // namespace

int runQuery(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  uint64_t limit = options.count("limit").value_or(kDefaultLimit);
  std::string text;
  for (const std::string& word : options.operands()) {
    if (!text.empty()) text.push_back(' ');
    text += word;
  }

  if (auto status = queryThroughService(context, options, text, limit)) return *status;

  Gathered gathered;
  gathered.sources.push_back({openIndexOrExit(context), "names", 0, nullptr});
  tarvolin::Query query = tarvolin::QueryParser::parse(text);
  tarvolin::Query::ContentSplit split = query.splittingContentTerms();
  if (!split.contentNeedles.empty()) {
    if (split.name.isEmpty()) {
      output::errorLine("contains: needs something to narrow by, e.g. `.swift contains:foo`");
      throw ExitRequest{2};
    }
    // The files of offline catalogs cannot be read: a contains: query searches the current
    // index (and, with --content, the content index) only.
    searchNamesAndFiles(gathered, split);
  } else {
    if (options.has("catalogs")) addCatalogs(gathered, context);
    for (uint32_t source = 0; source < gathered.sources.size(); ++source) {
      searchNames(gathered, source, query);
    }
  }
  if (options.has("content")) addContentDocuments(gathered, context, contentWords(split));

  std::vector<Entry>& entries = gathered.entries;
  size_t total = entries.size();
  if (options.has("count")) {
    output::line(std::to_string(total));
    return total == 0 ? 1 : 0;
  }
  size_t shown = limit == 0 ? total : static_cast<size_t>(std::min<uint64_t>(limit, total));
  if (shown == total) {
    std::sort(entries.begin(), entries.end());
  } else {
    std::partial_sort(entries.begin(), entries.begin() + static_cast<ptrdiff_t>(shown),
                      entries.end());
  }

  ResultWriter writer(options.has("null") ? '\0' : '\n');
  std::string path;
  for (size_t i = 0; i < shown && !writer.closed(); ++i) {
    const Entry& entry = entries[i];
    if (options.json()) {
      path.clear();
      appendPath(path, gathered, entry);
      writer.record(jsonText(resultJson(gathered, entry, path)));
    } else {
      appendPath(writer.buffer(), gathered, entry);
      writer.endRecord();
    }
  }
  writer.finish();
  return total == 0 ? 1 : 0;
}

}  // namespace tvl
