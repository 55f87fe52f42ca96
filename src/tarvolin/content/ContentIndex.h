#pragma once
// The extracted text of the user's documents, searchable without opening the files again. All
// texts live lower-cased, one after another, in one byte array (the blob); a table of documents
// says which path owns which byte range. A search is one forward pass over the blob with a
// vector first-byte filter and yields at most one hit per document.
//
// Replacing or removing a document never moves blob bytes: its old range becomes dead and is only
// reclaimed by compactIfNeeded. The file "content.bin" holds the table as JSON and the blob byte
// for byte (docs/format/content.bin.md).
//
// A plain value without locks: built or mutated by one thread at a time; copies may be read on
// several threads at once.
//
// Ranges are never trusted: an index read from a file may hold any offsets and lengths, so every
// use of a range clamps it to the blob and skips it when negative or empty.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace tarvolin {

namespace platform {
class MappedFile;
}
class ContentTrigrams;

class ContentIndex {
 public:
  struct Document {
    /// Absolute path of the document file; unique within an index built by the builder.
    std::string path;
    /// The file's modification time (seconds since 1970) when the text was taken.
    double modified = 0;
    /// The document's text is blob[offset, offset + length).
    int64_t offset = 0;
    int64_t length = 0;

    friend bool operator==(const Document&, const Document&) = default;
  };

  struct Hit {
    std::string path;
    /// 1-based line of the first match.
    int64_t line = 0;
    /// That line of the stored (lower-cased) text, trimmed of spaces and tabs, at most
    /// previewCharacters user-perceived characters.
    std::string preview;

    friend bool operator==(const Hit&, const Hit&) = default;
  };

  struct Results {
    std::vector<Hit> hits;
    /// More documents matched than were asked for.
    bool truncated = false;

    friend bool operator==(const Results&, const Results&) = default;
  };

  /// Two modification times closer than this are the same time.
  static constexpr double mtimeTolerance = 0.001;
  /// The most characters (grapheme clusters) of a hit's preview.
  static constexpr size_t previewCharacters = 200;

  /// The empty index: no documents, no blob, no dead bytes.
  ContentIndex() = default;
  /// An index over `blob` with the given table; no dead bytes.
  ContentIndex(std::vector<Document> documents, std::vector<uint8_t> blob);

  const std::vector<Document>& documents() const { return documents_; }
  std::span<const uint8_t> blob() const {
    return mapped_ ? mappedBlob_ : std::span<const uint8_t>(owned_);
  }
  /// Blob bytes no document refers to any more (left by upsert and remove). Not stored in the
  /// file: an index read back starts at 0.
  int64_t deadBytes() const { return deadBytes_; }
  bool isEmpty() const { return documents_.empty(); }
  /// Size of the blob, dead bytes included.
  int64_t textBytes() const { return static_cast<int64_t>(blob().size()); }

  /// The documents holding `query` (lower-cased; compared as bytes), in table order, at most
  /// `limit` of them: the line and preview of each one's first occurrence. An empty needle, an
  /// empty blob or an empty table give no hits.
  std::vector<Hit> search(std::string_view query, int64_t limit) const;
  /// The same, telling whether more than `limit` documents matched.
  Results searchAll(std::string_view query, int64_t limit) const;

  /// Adds the document, or replaces the first one with the same path: the old range becomes
  /// dead, and the new text goes to the end of the blob and its document to the end of the table.
  void upsert(std::string path, double modified, std::string_view text);
  /// Removes the first document with this path; false when there was none.
  bool remove(std::string_view path);
  /// Removes every document whose path is in `paths`, keeping the others' order; returns how
  /// many were removed.
  int64_t remove(const std::unordered_set<std::string>& paths);
  /// True when `path` has no document, or its stored time is older than `modified` by more
  /// than mtimeTolerance.
  bool isStale(std::string_view path, double modified) const;
  /// When dead bytes make up more than `threshold` of the blob, rewrites the blob without them
  /// with the table sorted by path (stable) and returns true.
  bool compactIfNeeded(double threshold);

  /// Writes the index as "content.bin" to `path`, atomically: a failure leaves any previous file
  /// whole. Throws ContentIndexError (tableTooLarge, unencodableTime) or std::system_error.
  /// Then writes its trigram side file to trigramPath(path), also atomically; the old side file
  /// is removed first, and a side file that cannot be written is left out without an error
  /// (searches then scan everything).
  void write(const std::filesystem::path& path) const;
  /// Reads an index written by `write`. A file shorter than 4 bytes, or shorter than the table
  /// its first word announces, is the empty index. Throws std::system_error when the file cannot
  /// be read, ContentIndexError::malformedTable when the table does not decode. The blob stays
  /// in the file's mapping (a search reads it in place, no copy) until the index is changed; the
  /// file is only ever replaced by renaming a new one over it, so the mapped bytes never change.
  /// The side file is used when it belongs to this file; else it is ignored.
  static ContentIndex read(const std::filesystem::path& path);
  /// Where the trigram side file of the content file `path` lives: the same name with the
  /// extension ".tri" ("content.bin" -> "content.tri").
  static std::filesystem::path trigramPath(const std::filesystem::path& path);
  /// True when searches of this index go through a trigram side file.
  bool hasTrigrams() const { return trigrams_ != nullptr; }
  /// The same over the bytes of such a file.
  static ContentIndex decode(std::span<const uint8_t> file);

  friend bool operator==(const ContentIndex& a, const ContentIndex& b) {
    return a.documents_ == b.documents_ && a.deadBytes_ == b.deadBytes_ &&
           std::ranges::equal(a.blob(), b.blob());
  }

 private:
  /// Copies a mapped blob into owned memory before a change.
  void own();
  /// Drops what no longer describes the table after a change: the side file's summary.
  void forgetTrigrams() { trigrams_.reset(); }

  std::vector<Document> documents_;
  std::vector<uint8_t> owned_;                          // the blob, unless it is mapped
  std::shared_ptr<const platform::MappedFile> mapped_;  // shared by copies of a read index
  std::span<const uint8_t> mappedBlob_;                 // the blob's bytes inside mapped_
  int64_t deadBytes_ = 0;
  std::shared_ptr<const ContentTrigrams> trigrams_;  // of the file read, while unchanged
};

}  // namespace tarvolin
