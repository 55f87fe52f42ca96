// Any bytes as a read from a fanotify group reporting folder handles and names: the split keeps
// every handle and name inside the bytes it consumed, each handle holds at least its own header
// and exactly the byte count that header declares, names carry no NUL, and splitting the
// consumed prefix again gives the same events.

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "tarvolin/platform/Fanotify.h"

using tarvolin::platform::FanotifyEvent;

namespace {

bool inside(std::string_view part, const char* begin, size_t size) {
  return part.empty() || (part.data() >= begin && part.data() + part.size() <= begin + size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  std::vector<FanotifyEvent> events;
  size_t consumed = tarvolin::platform::parseFanotifyEvents(bytes, events);
  if (consumed > size) __builtin_trap();
  const char* begin = reinterpret_cast<const char*>(data);
  for (const FanotifyEvent& event : events) {
    if (!inside(event.handle, begin, consumed) || !inside(event.name, begin, consumed)) {
      __builtin_trap();
    }
    if (!event.handle.empty()) {
      if (event.handle.size() < 8) __builtin_trap();
      uint32_t declared;
      std::memcpy(&declared, event.handle.data(), sizeof declared);
      if (declared != event.handle.size() - 8) __builtin_trap();
      // A name follows its handle inside the same record.
      if (!event.name.empty() && event.name.data() != event.handle.data() + event.handle.size()) {
        __builtin_trap();
      }
    } else if (!event.name.empty()) {
      __builtin_trap();
    }
    if (!event.name.empty() && std::memchr(event.name.data(), '\0', event.name.size()) != nullptr) {
      __builtin_trap();
    }
  }

  std::vector<FanotifyEvent> again;
  if (tarvolin::platform::parseFanotifyEvents(bytes.first(consumed), again) != consumed) {
    __builtin_trap();
  }
  if (again.size() != events.size()) __builtin_trap();
  for (size_t i = 0; i < events.size(); ++i) {
    if (again[i].mask != events[i].mask || again[i].fileSystemID != events[i].fileSystemID ||
        again[i].handle != events[i].handle || again[i].name != events[i].name) {
      __builtin_trap();
    }
  }
  return 0;
}
