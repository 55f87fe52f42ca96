#include "tarvolin/service/ServiceProtocol.h"

#include <nlohmann/json.hpp>

namespace tarvolin::ServiceProtocol {

namespace {

using nlohmann::json;

// A field of `object` of the given kind, or nullptr when absent or of another kind.
const json* field(const json& object, const char* name, json::value_t kind) {
  auto found = object.find(name);
  if (found == object.end()) return nullptr;
  if (found->type() != kind) {
    // Whole numbers may arrive as either integer kind.
    bool wantsInteger =
        kind == json::value_t::number_unsigned || kind == json::value_t::number_integer;
    if (!(wantsInteger && found->is_number_integer())) return nullptr;
  }
  return &*found;
}

bool has(const json& object, const char* name) { return object.contains(name); }

// Builds the document of a CBOR answer like the library's own reader, but stops at the first
// container nested deeper than any answer is (the binary reader recurses once per level) or
// announcing more elements than there are bytes left (the library throws for sizes it cannot
// hold, whatever it is asked).
class BoundedCborBuilder {
 public:
  BoundedCborBuilder(json& result, size_t payloadBytes)
      : builder_(result, /*allow_exceptions=*/false), payloadBytes_(payloadBytes) {}

  bool null() { return builder_.null(); }
  bool boolean(bool value) { return builder_.boolean(value); }
  bool number_integer(json::number_integer_t value) { return builder_.number_integer(value); }
  bool number_unsigned(json::number_unsigned_t value) { return builder_.number_unsigned(value); }
  bool number_float(json::number_float_t value, const std::string& text) {
    return builder_.number_float(value, text);
  }
  bool string(std::string& value) { return builder_.string(value); }
  bool binary(json::binary_t& value) { return builder_.binary(value); }
  bool key(std::string& value) { return builder_.key(value); }
  bool start_object(size_t elements) { return enter(elements) && builder_.start_object(elements); }
  bool end_object() {
    --depth_;
    return builder_.end_object();
  }
  bool start_array(size_t elements) { return enter(elements) && builder_.start_array(elements); }
  bool end_array() {
    --depth_;
    return builder_.end_array();
  }
  bool parse_error(size_t position, const std::string& token,
                   const nlohmann::detail::exception& error) {
    return builder_.parse_error(position, token, error);
  }

 private:
  // An answer is a map whose values are at most arrays of strings.
  static constexpr int kMaxDepth = 4;
  static constexpr size_t kUnknownSize = static_cast<size_t>(-1);

  bool enter(size_t elements) {
    if (++depth_ > kMaxDepth) return false;
    return elements == kUnknownSize || elements <= payloadBytes_;
  }

  nlohmann::detail::json_sax_dom_parser<json> builder_;
  size_t payloadBytes_;
  int depth_ = 0;
};

std::optional<int64_t> integerField(const json& object, const char* name) {
  const json* value = field(object, name, json::value_t::number_integer);
  if (value == nullptr) return std::nullopt;
  if (value->is_number_unsigned()) {
    auto unsignedValue = value->get<uint64_t>();
    if (unsignedValue > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<int64_t>(unsignedValue);
  }
  return value->get<int64_t>();
}

std::optional<std::string> stringField(const json& object, const char* name) {
  const json* value = field(object, name, json::value_t::string);
  if (value == nullptr) return std::nullopt;
  return value->get<std::string>();
}

std::optional<std::vector<std::string>> stringListField(const json& object, const char* name) {
  const json* value = field(object, name, json::value_t::array);
  if (value == nullptr) return std::nullopt;
  std::vector<std::string> list;
  list.reserve(value->size());
  for (const json& item : *value) {
    if (!item.is_string()) return std::nullopt;
    list.push_back(item.get<std::string>());
  }
  return list;
}

std::variant<Request, RequestError> decodeSearch(const json& object) {
  std::optional<std::string> text = stringField(object, "text");
  if (!text) return RequestError::malformed;
  SearchRequest request{std::move(*text)};
  if (has(object, "keystroke")) {
    const json* keystroke = field(object, "keystroke", json::value_t::boolean);
    if (keystroke == nullptr) return RequestError::malformed;
    request.keystroke = keystroke->get<bool>();
  }
  if (has(object, "limit")) {
    std::optional<int64_t> limit = integerField(object, "limit");
    if (!limit || *limit < 1 || *limit > maxResultLimit) return RequestError::malformed;
    request.limit = *limit;
  }
  return Request(std::move(request));
}

}  // namespace

std::filesystem::path socketPathFor(const std::filesystem::path& indexPath) {
  return indexPath.parent_path() / "tvl.sock";
}

std::variant<Request, RequestError> decodeRequest(std::span<const uint8_t> payload) {
  if (payload.size() > maxRequestBytes) return RequestError::malformed;
  // The text parser is not recursive and checks UTF-8; failures come back as `discarded`.
  json object;
  try {
    object = json::parse(payload.begin(), payload.end(), nullptr, /*allow_exceptions=*/false);
  } catch (const json::exception&) {
    // Failures come back as `discarded`; anything thrown regardless is malformed too.
    return RequestError::malformed;
  }
  if (!object.is_object()) return RequestError::malformed;
  std::optional<int64_t> requestVersion = integerField(object, "v");
  if (!requestVersion) return RequestError::malformed;
  if (*requestVersion != version) return RequestError::unsupportedVersion;
  std::optional<std::string> operation = stringField(object, "op");
  if (!operation) return RequestError::malformed;
  if (*operation == "search") return decodeSearch(object);
  if (*operation == "status") return Request(StatusRequest{});
  return RequestError::unknownOperation;
}

std::vector<uint8_t> encodeRequest(const Request& request) {
  json object = {{"v", version}};
  if (const auto* search = std::get_if<SearchRequest>(&request)) {
    object["op"] = "search";
    object["text"] = search->text;
    if (search->keystroke) object["keystroke"] = true;
    object["limit"] = search->limit;
  } else {
    object["op"] = "status";
  }
  // Invalid UTF-8 in the text would make the service refuse it; replace it instead.
  std::string text = object.dump(-1, ' ', false, json::error_handler_t::replace);
  return {text.begin(), text.end()};
}

uint32_t frameLength(std::span<const uint8_t, frameHeaderBytes> header) {
  return static_cast<uint32_t>(header[0]) | static_cast<uint32_t>(header[1]) << 8 |
         static_cast<uint32_t>(header[2]) << 16 | static_cast<uint32_t>(header[3]) << 24;
}

std::vector<uint8_t> frame(std::span<const uint8_t> payload) {
  auto length = static_cast<uint32_t>(payload.size());
  std::vector<uint8_t> bytes;
  bytes.reserve(frameHeaderBytes + payload.size());
  for (int shift = 0; shift < 32; shift += 8)
    bytes.push_back(static_cast<uint8_t>(length >> shift));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

std::vector<uint8_t> encodeAnswer(const Answer& answer) {
  json object = {{"v", version}};
  if (const auto* search = std::get_if<SearchAnswer>(&answer)) {
    object["kind"] = "search";
    object["total"] = search->total;
    object["ms"] = search->elapsedMs;
    object["warning"] = static_cast<int>(search->warning);
    object["paths"] = search->paths;
    object["index"] = search->indexPath;
  } else if (const auto* status = std::get_if<StatusAnswer>(&answer)) {
    object["kind"] = "status";
    object["index"] = status->indexPath;
    object["pid"] = status->processID;
    object["entries"] = status->entries;
    object["deleted"] = status->deletedEntries;
    object["fileBytes"] = status->indexFileBytes;
    object["rss"] = status->residentBytes;
    object["startedAt"] = status->startedAt;
    object["lastChangeAt"] = status->lastChangeAt;
    object["lastWriteAt"] = status->lastWriteAt;
    object["watchMode"] = status->watchMode;
    object["roots"] = status->roots;
    object["unwatched"] = status->unwatched;
    object["connections"] = status->connections;
  } else {
    const auto& error = std::get<ErrorAnswer>(answer);
    object["kind"] = "error";
    object["error"] = error.error;
    object["direct"] = error.useDirect;
    // Sent only when set, so answers stay as they were for clients that do not know the key.
    if (error.searchFailed) object["failed"] = true;
  }
  // CBOR keeps strings as the bytes they are: file names need not be UTF-8.
  return json::to_cbor(object);
}

std::optional<Answer> decodeAnswer(std::span<const uint8_t> payload) {
  if (payload.size() > maxAnswerBytes) return std::nullopt;
  json object;
  BoundedCborBuilder builder(object, payload.size());
  try {
    if (!json::sax_parse(payload.begin(), payload.end(), &builder, json::input_format_t::cbor,
                         /*strict=*/true)) {
      return std::nullopt;
    }
  } catch (const json::exception&) {
    return std::nullopt;
  }
  if (!object.is_object() || integerField(object, "v") != static_cast<int64_t>(version)) {
    return std::nullopt;
  }
  std::optional<std::string> kind = stringField(object, "kind");
  if (!kind) return std::nullopt;
  if (*kind == "search") {
    auto total = integerField(object, "total");
    const json* ms = object.contains("ms") && object["ms"].is_number() ? &object["ms"] : nullptr;
    auto warning = integerField(object, "warning");
    auto paths = stringListField(object, "paths");
    auto index = stringField(object, "index");
    if (!total || ms == nullptr || !warning || *warning < 0 || *warning > 2 || !paths || !index) {
      return std::nullopt;
    }
    return SearchAnswer{*total, ms->get<double>(), static_cast<AttributeWarning>(*warning),
                        std::move(*paths), std::move(*index)};
  }
  if (*kind == "status") {
    StatusAnswer status;
    auto index = stringField(object, "index");
    auto watchMode = stringField(object, "watchMode");
    auto roots = stringListField(object, "roots");
    auto unwatched = stringListField(object, "unwatched");
    if (!index || !watchMode || !roots || !unwatched) return std::nullopt;
    status.indexPath = std::move(*index);
    status.watchMode = std::move(*watchMode);
    status.roots = std::move(*roots);
    status.unwatched = std::move(*unwatched);
    struct Number {
      const char* name;
      int64_t* target;
    };
    int64_t entries = 0, deleted = 0, fileBytes = 0, rss = 0;
    for (Number number :
         {Number{"pid", &status.processID}, Number{"entries", &entries},
          Number{"deleted", &deleted}, Number{"fileBytes", &fileBytes}, Number{"rss", &rss},
          Number{"startedAt", &status.startedAt}, Number{"lastChangeAt", &status.lastChangeAt},
          Number{"lastWriteAt", &status.lastWriteAt}, Number{"connections", &status.connections}}) {
      std::optional<int64_t> value = integerField(object, number.name);
      if (!value) return std::nullopt;
      *number.target = *value;
    }
    status.entries = static_cast<uint64_t>(entries);
    status.deletedEntries = static_cast<uint64_t>(deleted);
    status.indexFileBytes = static_cast<uint64_t>(fileBytes);
    status.residentBytes = static_cast<uint64_t>(rss);
    return status;
  }
  if (*kind == "error") {
    auto error = stringField(object, "error");
    const json* direct = field(object, "direct", json::value_t::boolean);
    const json* failed = field(object, "failed", json::value_t::boolean);
    if (!error || direct == nullptr || (failed == nullptr && has(object, "failed"))) {
      return std::nullopt;
    }
    return ErrorAnswer{std::move(*error), direct->get<bool>(),
                       failed != nullptr && failed->get<bool>()};
  }
  return std::nullopt;
}

std::string_view describe(RequestError error) {
  switch (error) {
    case RequestError::malformed:
      return "malformed request";
    case RequestError::unsupportedVersion:
      return "unsupported protocol version";
    case RequestError::unknownOperation:
      return "unknown operation";
  }
  return "malformed request";
}

}  // namespace tarvolin::ServiceProtocol
