#include "tarvolin/index/FastHash64.h"

#include <algorithm>
#include <cstring>

#include "tarvolin/index/detail/FastHash64Core.h"

namespace tarvolin::FastHash64 {

using detail::Lanes;

uint64_t hash(std::span<const uint8_t> bytes) {
  Lanes lanes;
  size_t consumed = lanes.stripes(bytes.data(), bytes.size());
  return lanes.finish(bytes.size(), bytes.data() + consumed, bytes.size() - consumed);
}

Rolling::Rolling() {
  Lanes lanes;
  l1_ = lanes.l1;
  l2_ = lanes.l2;
  l3_ = lanes.l3;
  l4_ = lanes.l4;
}

void Rolling::update(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;  // an empty span may carry a null pointer
  const uint8_t* p = bytes.data();
  size_t n = bytes.size();
  total_ += n;
  Lanes lanes{l1_, l2_, l3_, l4_};
  if (pendingCount_ > 0) {
    size_t take = std::min(n, 32 - pendingCount_);
    std::memcpy(pending_.data() + pendingCount_, p, take);
    pendingCount_ += take;
    p += take;
    n -= take;
    if (pendingCount_ < 32) return;
    lanes.stripes(pending_.data(), 32);
    pendingCount_ = 0;
  }
  size_t consumed = lanes.stripes(p, n);
  l1_ = lanes.l1;
  l2_ = lanes.l2;
  l3_ = lanes.l3;
  l4_ = lanes.l4;
  if (n > consumed) {
    std::memcpy(pending_.data(), p + consumed, n - consumed);
    pendingCount_ = n - consumed;
  }
}

uint64_t Rolling::finish() const {
  return Lanes{l1_, l2_, l3_, l4_}.finish(total_, pending_.data(), pendingCount_);
}

}  // namespace tarvolin::FastHash64
