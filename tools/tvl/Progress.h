#pragma once
// The one-line progress display of long commands (scan, content, catalog add and efu): the count
// so far, the rate and the elapsed time, rewritten in place on standard error at most ten times
// a second. It is drawn only when standard error is a terminal, so pipes, files and tests see
// nothing of it, and standard output is never touched.
//
// update() may be called from any thread (the scanner's workers report from theirs); counts
// that arrive out of order never move the display backwards.

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace tvl {

class Progress {
 public:
  /// `unit` names what is counted: "entries", "documents", "rows".
  explicit Progress(std::string unit);
  /// Same as finish().
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Whether anything will be drawn (standard error is a terminal).
  bool enabled() const { return enabled_; }
  /// Notes the count; redraws when 100 ms have passed since the last drawing.
  void update(int64_t count);
  /// A callback for engine progress reports, or an empty function when nothing is drawn (the
  /// engine then skips the reporting altogether).
  std::function<void(int64_t)> callback();
  /// Erases the line; later updates draw nothing.
  void finish();

 private:
  void draw(int64_t count, uint64_t now);

  const std::string unit_;
  const bool enabled_;
  const uint64_t start_;
  std::mutex mutex_;
  int64_t shown_ = -1;
  uint64_t lastDraw_ = 0;
  bool finished_ = false;
};

}  // namespace tvl
