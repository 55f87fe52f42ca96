#include "tarvolin/index/FastHash64.h"

#include <cstring>

namespace tarvolin::FastHash64 {

namespace {

constexpr uint64_t P1 = 0x9E3779B185EBCA87ull;
constexpr uint64_t P2 = 0xC2B2AE3D27D4EB4Full;
constexpr uint64_t P3 = 0x165667B19E3779F9ull;
constexpr uint64_t P4 = 0x85EBCA77C2B2AE63ull;
constexpr uint64_t S = 0x0123456789ABCDEFull;

inline uint64_t rotl(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

inline uint64_t readWord(const uint8_t* p) {
  uint64_t word;
  std::memcpy(&word, p, 8);  // little-endian machine; any alignment
  return word;
}

inline uint64_t step(uint64_t acc, uint64_t word) { return rotl(acc + word * P2, 31) * P1; }

struct Lanes {
  uint64_t l1 = S + P1 + P2, l2 = S + P2, l3 = S, l4 = S - P1;
};

// Consumes whole 32-byte stripes from `p`; returns the number of bytes consumed.
inline size_t stripes(Lanes& lanes, const uint8_t* p, size_t n) {
  uint64_t l1 = lanes.l1, l2 = lanes.l2, l3 = lanes.l3, l4 = lanes.l4;
  const uint8_t* start = p;
  const uint8_t* end = p + (n & ~size_t{31});
  while (p < end) {
    l1 = step(l1, readWord(p));
    l2 = step(l2, readWord(p + 8));
    l3 = step(l3, readWord(p + 16));
    l4 = step(l4, readWord(p + 24));
    p += 32;
  }
  lanes = {l1, l2, l3, l4};
  return static_cast<size_t>(p - start);
}

inline uint64_t finalize(const Lanes& lanes, uint64_t total, const uint8_t* tail, size_t n) {
  uint64_t h = rotl(lanes.l1, 1) + rotl(lanes.l2, 7) + rotl(lanes.l3, 12) + rotl(lanes.l4, 18) +
               total * P4;
  while (n >= 8) {
    h = step(h, readWord(tail));
    tail += 8;
    n -= 8;
  }
  while (n > 0) {
    h = rotl(h ^ (uint64_t{*tail} * P3), 11) * P1;
    ++tail;
    --n;
  }
  h ^= h >> 33;
  h *= P2;
  h ^= h >> 29;
  h *= P3;
  h ^= h >> 32;
  return h;
}

}  // namespace

uint64_t hash(std::span<const uint8_t> bytes) {
  Lanes lanes;
  const uint8_t* p = bytes.data();
  size_t n = bytes.size();
  size_t consumed = n >= 32 ? stripes(lanes, p, n) : 0;
  return finalize(lanes, n, p + consumed, n - consumed);
}

Rolling::Rolling() {
  Lanes lanes;
  l1_ = lanes.l1;
  l2_ = lanes.l2;
  l3_ = lanes.l3;
  l4_ = lanes.l4;
}

void Rolling::update(std::span<const uint8_t> bytes) {
  // An empty span may carry a null pointer, which memcpy must not see even for zero bytes.
  if (bytes.empty()) return;
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
    stripes(lanes, pending_.data(), 32);
    pendingCount_ = 0;
  }
  size_t consumed = stripes(lanes, p, n);
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
  return finalize(Lanes{l1_, l2_, l3_, l4_}, total_, pending_.data(), pendingCount_);
}

}  // namespace tarvolin::FastHash64
