// Any bytes as a read from an inotify descriptor: the split keeps every name inside the bytes and
// without its NUL padding, consumes no more than it was given, and consumes exactly the records
// it returns (stopping only at a record that runs past the end), so splitting the consumed prefix
// again gives the same events.

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "tarvolin/platform/Inotify.h"

using tarvolin::platform::InotifyEvent;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  std::vector<InotifyEvent> events;
  size_t consumed = tarvolin::platform::parseInotifyEvents(bytes, events);
  if (consumed > size) __builtin_trap();
  // The split stops only at the end or at a record whose name runs past it.
  constexpr size_t kHeader = 16;
  if (size - consumed >= kHeader) {
    uint32_t length;
    std::memcpy(&length, data + consumed + 12, sizeof length);
    if (length <= size - consumed - kHeader) __builtin_trap();
  }
  const char* begin = reinterpret_cast<const char*>(data);
  for (const InotifyEvent& event : events) {
    if (event.name.empty()) continue;
    if (event.name.data() < begin || event.name.data() + event.name.size() > begin + consumed) {
      __builtin_trap();
    }
    if (std::memchr(event.name.data(), '\0', event.name.size()) != nullptr) __builtin_trap();
  }

  std::vector<InotifyEvent> again;
  if (tarvolin::platform::parseInotifyEvents(bytes.first(consumed), again) != consumed) {
    __builtin_trap();
  }
  if (again.size() != events.size()) __builtin_trap();
  for (size_t i = 0; i < events.size(); ++i) {
    if (again[i].watch != events[i].watch || again[i].mask != events[i].mask ||
        again[i].cookie != events[i].cookie || again[i].name != events[i].name) {
      __builtin_trap();
    }
  }
  return 0;
}
