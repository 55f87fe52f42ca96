#pragma once
// Appends matches to a list whose capacity the caller reserved, asking the kernel to back the
// next stretch of that capacity in one call whenever the writing reaches it. Writing fresh memory
// page by page costs a fault per 4 KiB, which on virtual machines is several times the cost of
// the bulk fill; a search that returns a million matches writes megabytes. Stretches grow from
// 32 KiB to 512 KiB, so a search with few matches prepares little; once a list has passed
// 1 MiB, the rest of its capacity is asked for in 2 MiB pages, a fault each instead of 512.
// One sink per list and thread.

#include <algorithm>
#include <vector>

#include "tarvolin/platform/Memory.h"
#include "tarvolin/query/Match.h"

namespace tarvolin::detail {

class MatchSink {
 public:
  explicit MatchSink(std::vector<Match>& out) : out_(out), prepared_(out.size()) {}

  void push(const Match& match) {
    if (out_.size() == prepared_ && prepared_ < out_.capacity()) prepare();
    out_.push_back(match);
  }

 private:
  void prepare() {
    if (!huge_ && prepared_ >= kHugeFrom) {
      platform::adviseFillingSoon(out_.data() + prepared_,
                                  (out_.capacity() - prepared_) * sizeof(Match));
      huge_ = true;
    }
    size_t next = std::min(out_.capacity(), prepared_ + stretch_);
    platform::prefaultForWriting(out_.data() + prepared_, (next - prepared_) * sizeof(Match));
    prepared_ = next;
    stretch_ = std::min<size_t>(stretch_ * 2, 65536);
  }

  static constexpr size_t kHugeFrom = (size_t{1} << 20) / sizeof(Match);

  std::vector<Match>& out_;
  size_t prepared_;
  size_t stretch_ = 4096;  // entries: 32 KiB
  bool huge_ = false;
};

}  // namespace tarvolin::detail
