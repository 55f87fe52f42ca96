#pragma once
// The messages between the service and its clients (format: docs/format/service-protocol.md).
// Every message is one frame: a 4-byte little-endian payload length, then the payload. A
// request's payload is a compact JSON object of at most `maxRequestBytes`; an answer's payload
// is a CBOR map (file names are raw bytes, which JSON text cannot carry) of at most
// `maxAnswerBytes`. The request decoder reads bytes from any local process of the same user and
// trusts none of them.
//
// Plain functions without state: any thread may call them.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarvolin::ServiceProtocol {

inline constexpr uint32_t version = 1;
inline constexpr size_t frameHeaderBytes = 4;
/// Largest request payload; a longer announced length ends the connection unread.
inline constexpr uint32_t maxRequestBytes = 64 * 1024;
/// Largest answer payload a client accepts.
inline constexpr uint32_t maxAnswerBytes = 64 * 1024 * 1024;
/// Most results one search may ask for.
inline constexpr int64_t maxResultLimit = 10'000;

/// The socket of the service that serves the index at `indexPath`: "tvl.sock" beside it.
std::filesystem::path socketPathFor(const std::filesystem::path& indexPath);

struct SearchRequest {
  std::string text;        // the query as the user typed it
  bool keystroke = false;  // the next keystroke of this connection's typing run
  int64_t limit = 20;      // ranked results wanted, 1 ... maxResultLimit

  friend bool operator==(const SearchRequest&, const SearchRequest&) = default;
};

struct StatusRequest {
  friend bool operator==(const StatusRequest&, const StatusRequest&) = default;
};

using Request = std::variant<SearchRequest, StatusRequest>;

/// Why a request was refused. The connection ends after the error answer.
enum class RequestError { malformed, unsupportedVersion, unknownOperation };

/// The decoded request, or why it is refused. Never throws, whatever the bytes.
std::variant<Request, RequestError> decodeRequest(std::span<const uint8_t> payload);
/// A request's payload (without the frame header).
std::vector<uint8_t> encodeRequest(const Request& request);

/// The payload length a frame header announces.
uint32_t frameLength(std::span<const uint8_t, frameHeaderBytes> header);
/// The frame header followed by `payload`.
std::vector<uint8_t> frame(std::span<const uint8_t> payload);

/// What the sizes-and-dates warning of a search says about the index.
enum class AttributeWarning : uint8_t { none = 0, noAttributes = 1, partialAttributes = 2 };

struct SearchAnswer {
  int64_t total = 0;     // matches before ranking
  double elapsedMs = 0;  // from the parsed query to the ranked list
  AttributeWarning warning = AttributeWarning::none;
  std::vector<std::string> paths;  // best first, raw bytes
  std::string indexPath;           // the index file that was searched

  friend bool operator==(const SearchAnswer&, const SearchAnswer&) = default;
};

struct StatusAnswer {
  std::string indexPath;
  int64_t processID = 0;
  uint64_t entries = 0;                // records in the index, deleted ones included
  uint64_t deletedEntries = 0;         // records marked deleted since the last compaction
  uint64_t indexFileBytes = 0;         // size of the index file last loaded or written
  uint64_t residentBytes = 0;          // the service's resident memory
  int64_t startedAt = 0;               // seconds since 1970
  int64_t lastChangeAt = 0;            // seconds since 1970: last change applied (or load)
  int64_t lastWriteAt = 0;             // seconds since 1970: last rewrite of the file, 0 for none
  std::string watchMode;               // "inotify" or "none"
  std::vector<std::string> roots;      // the watched roots
  std::vector<std::string> unwatched;  // subtrees left unwatched (watch limit)
  int64_t connections = 0;             // open client connections

  friend bool operator==(const StatusAnswer&, const StatusAnswer&) = default;
};

/// A refusal: the request could not be served (the text of `error` is for logs, not users,
/// unless `searchFailed`).
struct ErrorAnswer {
  std::string error;
  /// The client should do the work itself (e.g. a query that reads file contents).
  bool useDirect = false;
  /// The search itself failed (e.g. a query with too many different terms), as it would in the
  /// client: `error` is the failure's message and the connection stays open.
  bool searchFailed = false;

  friend bool operator==(const ErrorAnswer&, const ErrorAnswer&) = default;
};

using Answer = std::variant<SearchAnswer, StatusAnswer, ErrorAnswer>;

/// An answer's payload (without the frame header).
std::vector<uint8_t> encodeAnswer(const Answer& answer);
/// The answer, or nothing when the payload is not a well-formed answer of this version.
std::optional<Answer> decodeAnswer(std::span<const uint8_t> payload);

/// The text of a request error, sent in the error answer.
std::string_view describe(RequestError error);

}  // namespace tarvolin::ServiceProtocol
