#include "tarvolin/content/ContentIndex.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <system_error>

#include "tarvolin/content/ContentIndexError.h"
#include "tarvolin/content/ContentIndexTable.h"
#include "tarvolin/content/ContentTrigrams.h"
#include "tarvolin/content/detail/ContentScan.h"
#include "tarvolin/platform/AtomicFile.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/MappedFile.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {

struct Range {
  size_t start;
  size_t end;
};

// The part of a stored range that lies inside a blob of `blobSize` bytes; nothing for a negative
// offset or length, or a range that is empty after clamping.
std::optional<Range> clamped(const ContentIndex::Document& document, size_t blobSize) {
  if (document.offset < 0 || document.length < 0) return std::nullopt;
  auto start = static_cast<uint64_t>(document.offset);
  if (start >= blobSize) return std::nullopt;
  uint64_t length = std::min<uint64_t>(static_cast<uint64_t>(document.length), blobSize - start);
  if (length == 0) return std::nullopt;
  return Range{static_cast<size_t>(start), static_cast<size_t>(start + length)};
}

std::string_view asText(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The line around `line` ([start, end) of one document's text), decoded with replacement,
// trimmed of horizontal white space at both ends and cut to `characters` grapheme clusters.
// Only the characters kept are walked: a line of megabytes costs no more than a short one.
std::string previewOf(std::string_view line, size_t characters) {
  size_t start = 0;
  while (start < line.size()) {
    size_t next = start;
    if (!platform::isHorizontalWhitespace(platform::decodeCodePoint(line, next))) break;
    start = next;
  }
  size_t cut = start;
  for (size_t kept = 0; kept < characters && cut < line.size(); ++kept) {
    cut = platform::graphemeClusterEnd(line, cut);
  }
  std::string preview = platform::decodeUtf8Lossy(line.substr(start, cut - start));
  // Everything after the last character that is not white space goes; once the cut stops
  // short of the line's end that may be nothing at all.
  size_t keep = 0;
  for (size_t at = 0; at < preview.size();) {
    char32_t codePoint = platform::decodeCodePoint(preview, at);
    if (!platform::isHorizontalWhitespace(codePoint)) keep = at;
  }
  preview.resize(keep);
  return preview;
}

// Below this much text a search runs on the calling thread alone. Waking the other threads
// costs tens of microseconds; a first-byte pass over 8 MiB costs about 1.3 ms on one core.
constexpr size_t kParallelSearchBytes = size_t{8} << 20;

uint32_t littleEndian32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
         uint32_t{bytes[3]} << 24;
}

}  // namespace

ContentIndex::ContentIndex(std::vector<Document> documents, std::vector<uint8_t> blob)
    : documents_(std::move(documents)), owned_(std::move(blob)) {}

void ContentIndex::own() {
  if (!mapped_) return;
  owned_.assign(mappedBlob_.begin(), mappedBlob_.end());
  mapped_.reset();
  mappedBlob_ = {};
}

std::vector<ContentIndex::Hit> ContentIndex::search(std::string_view query, int64_t limit) const {
  std::vector<Hit> hits;
  const std::string needleText = platform::lowercase(query);
  const std::span<const uint8_t> blob = this->blob();
  if (needleText.empty() || blob.empty() || documents_.empty() || limit <= 0) return hits;
  const std::span<const uint8_t> needle(reinterpret_cast<const uint8_t*>(needleText.data()),
                                        needleText.size());
  const detail::ContentScanKernel kernel = detail::preferredContentKernel();

  // The documents to scan, in table order: those the side file says may hold the needle, or
  // every one. Position i of the selection is document ordinal(i).
  std::optional<std::vector<uint32_t>> selected;
  if (trigrams_ && trigrams_->documentCount() == documents_.size()) {
    selected = trigrams_->candidates(needle);
  }
  const size_t count = selected ? selected->size() : documents_.size();
  auto ordinal = [&](size_t i) -> size_t { return selected ? (*selected)[i] : i; };

  // The first hit in each of the selected documents [first, end), in order, at most `limit`.
  auto searchDocuments = [&](size_t first, size_t end, std::vector<Hit>& out) {
    for (size_t i = first; i < end; ++i) {
      if (static_cast<int64_t>(out.size()) >= limit) break;
      const Document& document = documents_[ordinal(i)];
      std::optional<Range> range = clamped(document, blob.size());
      if (!range || range->end - range->start < needle.size()) continue;
      size_t match = detail::findFirst(blob, range->start, range->end, needle, kernel);
      if (match == detail::notFound) continue;
      std::string_view text = asText(blob.subspan(range->start, range->end - range->start));
      size_t at = match - range->start;
      size_t lineStart = 0;
      if (at > 0) {
        size_t feed = text.rfind('\n', at - 1);
        if (feed != std::string_view::npos) lineStart = feed + 1;
      }
      size_t lineEnd = text.find('\n', at);
      if (lineEnd == std::string_view::npos) lineEnd = text.size();
      int64_t line =
          1 + static_cast<int64_t>(detail::countLineFeeds(blob.subspan(range->start, at)));
      out.push_back(Hit{document.path, line,
                        previewOf(text.substr(lineStart, lineEnd - lineStart), previewCharacters)});
    }
  };

  // Only the selected documents' text counts towards the decision to split the work.
  uint64_t total = 0;
  if (selected) {
    for (size_t i = 0; i < count; ++i) {
      if (std::optional<Range> range = clamped(documents_[ordinal(i)], blob.size()))
        total += range->end - range->start;
    }
  } else {
    total = blob.size();
  }
  size_t shards = total < kParallelSearchBytes ? 1 : platform::activeProcessorCount();
  shards = std::min(shards, count);
  if (shards <= 1) {
    searchDocuments(0, count, hits);
    return hits;
  }
  // Runs of consecutive selected documents holding about the same amount of text, one per
  // processor. Each stops at `limit` hits of its own; joined in order and cut at `limit`, they
  // give the hits a single pass would.
  if (!selected) {
    total = 0;
    for (const Document& document : documents_) {
      if (std::optional<Range> range = clamped(document, blob.size()))
        total += range->end - range->start;
    }
  }
  std::vector<size_t> bounds = {0};
  uint64_t covered = 0;
  for (size_t i = 0; i < count && bounds.size() < shards; ++i) {
    if (std::optional<Range> range = clamped(documents_[ordinal(i)], blob.size())) {
      covered += range->end - range->start;
    }
    if (covered * shards >= total * bounds.size()) bounds.push_back(i + 1);
  }
  bounds.push_back(count);
  std::vector<std::vector<Hit>> found(bounds.size() - 1);
  platform::concurrentPerform(found.size(), [&](size_t shard) {
    searchDocuments(bounds[shard], bounds[shard + 1], found[shard]);
  });
  for (std::vector<Hit>& shardHits : found) {
    for (Hit& hit : shardHits) {
      if (static_cast<int64_t>(hits.size()) >= limit) return hits;
      hits.push_back(std::move(hit));
    }
  }
  return hits;
}

ContentIndex::Results ContentIndex::searchAll(std::string_view query, int64_t limit) const {
  limit = std::max<int64_t>(limit, 0);
  const int64_t asked = limit == std::numeric_limits<int64_t>::max() ? limit : limit + 1;
  Results results{search(query, asked), false};
  if (static_cast<int64_t>(results.hits.size()) > limit) {
    results.hits.resize(static_cast<size_t>(limit));
    results.truncated = true;
  }
  return results;
}

void ContentIndex::upsert(std::string path, double modified, std::string_view text) {
  const std::string lowered = platform::lowercase(text);
  remove(path);
  own();
  forgetTrigrams();
  documents_.push_back(Document{std::move(path), modified, static_cast<int64_t>(owned_.size()),
                                static_cast<int64_t>(lowered.size())});
  owned_.insert(owned_.end(), lowered.begin(), lowered.end());
}

bool ContentIndex::remove(std::string_view path) {
  auto found = std::find_if(documents_.begin(), documents_.end(),
                            [&](const Document& document) { return document.path == path; });
  if (found == documents_.end()) return false;
  forgetTrigrams();
  deadBytes_ += found->length;
  documents_.erase(found);
  return true;
}

int64_t ContentIndex::remove(const std::unordered_set<std::string>& paths) {
  if (paths.empty()) return 0;
  const size_t before = documents_.size();
  int64_t freed = 0;
  std::erase_if(documents_, [&](const Document& document) {
    if (!paths.contains(document.path)) return false;
    freed += document.length;
    return true;
  });
  deadBytes_ += freed;
  if (documents_.size() != before) forgetTrigrams();
  return static_cast<int64_t>(before - documents_.size());
}

bool ContentIndex::isStale(std::string_view path, double modified) const {
  for (const Document& document : documents_) {
    if (document.path == path) return document.modified + mtimeTolerance < modified;
  }
  return true;
}

bool ContentIndex::compactIfNeeded(double threshold) {
  const std::span<const uint8_t> current = blob();
  if (current.empty()) return false;
  if (!(static_cast<double>(deadBytes_) / static_cast<double>(current.size()) > threshold)) {
    return false;
  }
  std::vector<Document> sorted = documents_;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Document& a, const Document& b) { return a.path < b.path; });
  std::vector<uint8_t> blob;
  int64_t live = static_cast<int64_t>(current.size()) - deadBytes_;
  if (live > 0) blob.reserve(static_cast<size_t>(live));
  std::vector<Document> table;
  table.reserve(sorted.size());
  for (Document& document : sorted) {
    // Ranges that start past the blob, or are negative, leave nothing to keep; a range that
    // reaches past the blob keeps the part inside it.
    if (document.offset < 0 || document.length < 0 ||
        static_cast<uint64_t>(document.offset) > current.size()) {
      continue;
    }
    const auto start = static_cast<size_t>(document.offset);
    const size_t end = start + static_cast<size_t>(std::min<uint64_t>(
                                   static_cast<uint64_t>(document.length), current.size() - start));
    table.push_back(Document{std::move(document.path), document.modified,
                             static_cast<int64_t>(blob.size()), static_cast<int64_t>(end - start)});
    blob.insert(blob.end(), current.begin() + static_cast<ptrdiff_t>(start),
                current.begin() + static_cast<ptrdiff_t>(end));
  }
  documents_ = std::move(table);
  owned_ = std::move(blob);
  mapped_.reset();
  mappedBlob_ = {};
  deadBytes_ = 0;
  forgetTrigrams();
  return true;
}

void ContentIndex::write(const std::filesystem::path& path) const {
  const std::string table = ContentIndexTable::encode(documents_);
  if (table.size() > std::numeric_limits<uint32_t>::max()) {
    throw ContentIndexError::tableTooLarge();
  }
  const auto length = static_cast<uint32_t>(table.size());
  const std::array<uint8_t, 4> prefix = {
      static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8),
      static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 24)};
  const std::array<std::span<const uint8_t>, 3> parts = {
      std::span<const uint8_t>(prefix),
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(table.data()), table.size()),
      blob()};
  // The old side file goes first: should anything below fail, no summary of older contents
  // stays beside the new file (its identity would not match anyway, unless the table did).
  const std::filesystem::path sidePath = trigramPath(path);
  std::error_code ignored;
  std::filesystem::remove(sidePath, ignored);
  platform::AtomicFile file(path);
  file.write(std::span<const std::span<const uint8_t>>(parts));
  file.commit();

  try {
    std::vector<uint8_t> lengthAndTable(prefix.begin(), prefix.end());
    lengthAndTable.insert(lengthAndTable.end(), table.begin(), table.end());
    const ContentTrigrams::Identity identity = ContentTrigrams::identityOf(
        4 + table.size() + blob().size(), lengthAndTable, static_cast<uint32_t>(documents_.size()));
    std::vector<uint8_t> side = ContentTrigrams::encode(documents_, blob(), identity);
    if (!side.empty()) platform::AtomicFile::replaceContents(sidePath, side);
  } catch (const std::system_error&) {
    // Without its side file the index is still whole: searches scan every document.
  } catch (const std::bad_alloc&) {
  }
}

std::filesystem::path ContentIndex::trigramPath(const std::filesystem::path& path) {
  std::filesystem::path side = path;
  side.replace_extension(".tri");
  if (side == path) side += ".tri";
  return side;
}

namespace {

// content.bin mapped and its table decoded; `tableEnd` is 4 + N, or 0 for the empty index.
struct MappedContent {
  std::shared_ptr<const platform::MappedFile> mapping;
  std::vector<ContentIndex::Document> documents;
  size_t tableEnd = 0;
};

// Maps `path`. When `earlier` mapped a file with the same length word and table bytes, its
// documents are taken over instead of decoding the table again.
MappedContent mapContent(const std::filesystem::path& path, bool populate,
                         MappedContent* earlier = nullptr) {
  MappedContent content;
  content.mapping =
      std::make_shared<const platform::MappedFile>(platform::MappedFile::open(path, populate));
  std::span<const uint8_t> file = content.mapping->bytes();
  if (file.size() < 4) return content;
  const uint32_t tableBytes = littleEndian32(file.data());
  if (file.size() - 4 < tableBytes) return content;
  content.tableEnd = 4 + size_t{tableBytes};
  if (earlier && earlier->tableEnd == content.tableEnd &&
      std::ranges::equal(earlier->mapping->bytes().first(content.tableEnd),
                         file.first(content.tableEnd))) {
    content.documents = std::move(earlier->documents);
  } else {
    content.documents = ContentIndexTable::decode(asText(file.subspan(4, tableBytes)));
  }
  return content;
}

}  // namespace

ContentIndex ContentIndex::read(const std::filesystem::path& path) {
  // Mapped without faulting anything in: with a side file that fits, a search reads only the
  // table and its candidates' pages. Anything but a regular file is refused, a named pipe
  // without waiting for a writer.
  MappedContent content = mapContent(path, /*populate=*/false);
  if (content.tableEnd == 0) return ContentIndex();
  std::span<const uint8_t> file = content.mapping->bytes();
  std::shared_ptr<const ContentTrigrams> trigrams;
  if (content.documents.size() <= std::numeric_limits<uint32_t>::max()) {
    const ContentTrigrams::Identity identity = ContentTrigrams::identityOf(
        file.size(), file.first(content.tableEnd), static_cast<uint32_t>(content.documents.size()));
    if (std::optional<ContentTrigrams> opened =
            ContentTrigrams::open(trigramPath(path), identity)) {
      trigrams = std::make_shared<const ContentTrigrams>(std::move(*opened));
    }
  }
  if (!trigrams) {
    // Every search reads every byte: mapped again, faulted in at once, which costs less than a
    // fault per page. The file may have been replaced in between; then its table is decoded
    // anew.
    content = mapContent(path, /*populate=*/true, &content);
    if (content.tableEnd == 0) return ContentIndex();
  }
  ContentIndex index;
  index.documents_ = std::move(content.documents);
  index.mappedBlob_ = content.mapping->bytes().subspan(content.tableEnd);
  index.mapped_ = std::move(content.mapping);
  index.trigrams_ = std::move(trigrams);
  return index;
}

ContentIndex ContentIndex::decode(std::span<const uint8_t> file) {
  if (file.size() < 4) return ContentIndex();
  const uint32_t tableBytes = littleEndian32(file.data());
  if (file.size() - 4 < tableBytes) return ContentIndex();
  std::vector<Document> documents = ContentIndexTable::decode(asText(file.subspan(4, tableBytes)));
  std::span<const uint8_t> blob = file.subspan(4 + size_t{tableBytes});
  return ContentIndex(std::move(documents), std::vector<uint8_t>(blob.begin(), blob.end()));
}

}  // namespace tarvolin
