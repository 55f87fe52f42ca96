// Any bytes a client may send are either refused or decoded into a request that encodes back to
// a payload decoding to the same request; the answer to a decoded request, built from a small
// index, encodes to a payload that decodes to the same answer. The same bytes read as an answer
// (what a client reads from the socket) are refused or decoded without harm.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <variant>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/service/LiveIndex.h"
#include "tarvolin/service/ServiceConnection.h"
#include "tarvolin/service/ServiceProtocol.h"

using namespace tarvolin;

namespace {

LiveIndex& fuzzIndex() {
  static LiveIndex* index = [] {
    IndexBuilder builder;
    uint32_t top = builder.addEntry("", FileRecord::rootParentID, RecordFlags::isDirectory, 0);
    const char* folders[] = {"home", "docs", "src", ".cache"};
    for (const char* folder : folders) {
      uint32_t id = builder.addEntry(folder, top, RecordFlags::isDirectory, 0);
      for (int i = 0; i < 50; ++i) {
        std::string name = std::string(folder) + "-report" + std::to_string(i) +
                           (i % 3 == 0   ? ".md"
                            : i % 3 == 1 ? ".txt"
                                         : "\xff.bin");
        uint32_t file = builder.addEntry(name, id, RecordFlags{}, 0);
        if (i % 2 == 0) builder.setAttributes(file, static_cast<uint64_t>(i) * 1000, 1'600'000'000);
      }
    }
    std::filesystem::path path = std::filesystem::temp_directory_path() /
                                 ("tarvolin-service-fuzz-" + std::to_string(::getpid()) + ".bin");
    IndexWriter::write(builder, {{"local", "/", 0, true}}, path);
    auto store = std::get<std::shared_ptr<const IndexStore>>(loadIndex(path));
    std::filesystem::remove(path);
    return new LiveIndex(path, store);
  }();
  return *index;
}

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  auto decoded = ServiceProtocol::decodeRequest(bytes);
  if (const auto* request = std::get_if<ServiceProtocol::Request>(&decoded)) {
    auto again = ServiceProtocol::decodeRequest(ServiceProtocol::encodeRequest(*request));
    check(std::holds_alternative<ServiceProtocol::Request>(again));
    check(std::get<ServiceProtocol::Request>(again) == *request);

    ServiceConnection connection(fuzzIndex(), {});
    ServiceProtocol::Answer answer = connection.answer(*request);
    // Twice: the second search of a typing run may come from the session's memory.
    answer = connection.answer(*request);
    auto back = ServiceProtocol::decodeAnswer(ServiceProtocol::encodeAnswer(answer));
    check(back.has_value());
    // A status answer's resident size changes between calls; compare searches exactly.
    if (std::holds_alternative<ServiceProtocol::SearchAnswer>(answer)) check(*back == answer);
  }
  ServiceProtocol::decodeAnswer(bytes);
  if (size >= ServiceProtocol::frameHeaderBytes) {
    ServiceProtocol::frameLength(
        std::span<const uint8_t, ServiceProtocol::frameHeaderBytes>(data, 4));
  }
  return 0;
}
