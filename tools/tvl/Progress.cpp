#include "Progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "tarvolin/platform/Clock.h"

namespace tvl {

namespace {
constexpr uint64_t kRedrawInterval = 100'000'000;  // nanoseconds: ten drawings a second at most
}

Progress::Progress(std::string unit)
    : unit_(std::move(unit)),
      enabled_(isatty(STDERR_FILENO) == 1),
      start_(tarvolin::platform::monotonicNanoseconds()) {}

Progress::~Progress() { finish(); }

void Progress::update(int64_t count) {
  if (!enabled_) return;
  uint64_t now = tarvolin::platform::monotonicNanoseconds();
  std::lock_guard lock(mutex_);
  if (finished_ || count <= shown_) return;
  if (shown_ >= 0 && now - lastDraw_ < kRedrawInterval) return;
  draw(count, now);
}

std::function<void(int64_t)> Progress::callback() {
  if (!enabled_) return {};
  return [this](int64_t count) { update(count); };
}

void Progress::finish() {
  std::lock_guard lock(mutex_);
  if (finished_) return;
  finished_ = true;
  if (enabled_ && shown_ >= 0) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

void Progress::draw(int64_t count, uint64_t now) {
  shown_ = count;
  lastDraw_ = now;
  double seconds = static_cast<double>(now - start_) / 1e9;
  double rate = seconds > 0 ? static_cast<double>(count) / seconds : 0;
  // Erase to the end of the line after drawing, so a shorter line leaves no tail.
  std::fprintf(stderr, "\r  %" PRId64 " %s, %.0f/s, %.1fs\033[K", count, unit_.c_str(), rate,
               seconds);
  std::fflush(stderr);
}

}  // namespace tvl
