#pragma once
// The 64-bit checksum of the index file. Built from XXH64's lane step, primes and final mixing,
// but not XXH64: the seed is fixed, the lanes are combined by rotation only, the length enters
// multiplied by P4, and the tail is folded differently. An XXH64 library gives other values.
//
// The one-shot form and Rolling agree for the same bytes however they are split into updates.

#include <array>
#include <cstdint>
#include <span>

namespace tarvolin::FastHash64 {

/// One-shot hash of a byte run (an empty run is allowed).
uint64_t hash(std::span<const uint8_t> bytes);

/// Streaming form: copies only the at most 31 bytes that straddle two updates.
class Rolling {
 public:
  Rolling();
  void update(std::span<const uint8_t> bytes);
  /// The hash of everything fed so far; does not change the state.
  uint64_t finish() const;

 private:
  uint64_t l1_, l2_, l3_, l4_;
  std::array<uint8_t, 32> pending_{};
  size_t pendingCount_ = 0;
  uint64_t total_ = 0;
};

}  // namespace tarvolin::FastHash64
