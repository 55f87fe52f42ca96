#pragma once
// Appends matches to a list whose capacity the caller reserved, asking the kernel to back the
// next stretch of that capacity in one call whenever the writing reaches it. Writing fresh memory
// page by page costs a fault per 4 KiB; a search that returns a million matches writes
// megabytes. Stretches grow from 32 KiB to 512 KiB, so a search with few matches prepares little;
// once a list has passed 1 MiB, the rest of its capacity is asked for in 2 MiB pages, a fault
// each instead of 512. Measured with matchQuery in bench/MatcherBench.cpp (2 M names; CPU time,
// median of 5): single_word (123000 matches) takes 6.8 ms with growing stretches and 8.2 ms with
// 512 KiB ones from the start; path_only (2 M matches) 18.0 ms with 2 MiB pages past 1 MiB and
// 22.2 ms without them. Within one process the allocator hands back pages it already holds, so
// there the stretches alone show no gain over no backing at all (16.8 ms); they are for the
// fresh pages of a whole search.
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
