#pragma once
// The building blocks of FastHash64, inline so that a caller can fuse its own per-block work
// into the stripe loop (the index store checks records while their bytes are in cache for the
// checksum). Only FastHash64.cpp and detail/BodyCheck.cpp use this header.

#include <cstdint>
#include <cstring>

namespace tarvolin::FastHash64::detail {

inline constexpr uint64_t P1 = 0x9E3779B185EBCA87ull;
inline constexpr uint64_t P2 = 0xC2B2AE3D27D4EB4Full;
inline constexpr uint64_t P3 = 0x165667B19E3779F9ull;
inline constexpr uint64_t P4 = 0x85EBCA77C2B2AE63ull;
inline constexpr uint64_t S = 0x0123456789ABCDEFull;

inline uint64_t rotl(uint64_t x, int r) { return (x << r) | (x >> (64 - r)); }

inline uint64_t readWord(const uint8_t* p) {
  uint64_t word;
  std::memcpy(&word, p, 8);  // little-endian machine; any alignment
  return word;
}

inline uint64_t step(uint64_t acc, uint64_t word) { return rotl(acc + word * P2, 31) * P1; }

struct Lanes {
  uint64_t l1 = S + P1 + P2, l2 = S + P2, l3 = S, l4 = S - P1;

  /// How far ahead the stripe loop asks for memory. The hardware prefetcher stops at 4 KiB
  /// page boundaries, which costs a stall per page when hashing a file mapping; a software
  /// prefetch one page ahead keeps the loop fed (measured best of 1 to 32 KiB on a mapping in
  /// 2 MiB pieces).
  static constexpr size_t prefetchDistance = 4096;

  /// Consumes one 32-byte stripe. For loops that interleave their own work with the hash; with
  /// the lanes in a local, the compiler keeps them in registers across calls.
  inline void stripe(const uint8_t* p) {
    l1 = step(l1, readWord(p));
    l2 = step(l2, readWord(p + 8));
    l3 = step(l3, readWord(p + 16));
    l4 = step(l4, readWord(p + 24));
  }

  /// Consumes whole 32-byte stripes from `p`; returns the number of bytes consumed.
  inline size_t stripes(const uint8_t* p, size_t n) {
    uint64_t a = l1, b = l2, c = l3, d = l4;
    const uint8_t* start = p;
    const uint8_t* end = p + (n & ~size_t{31});
    // Two stripes per turn: one cache line, one prefetch.
    while (end - p >= 64) {
      __builtin_prefetch(p + prefetchDistance);
      a = step(a, readWord(p));
      b = step(b, readWord(p + 8));
      c = step(c, readWord(p + 16));
      d = step(d, readWord(p + 24));
      a = step(a, readWord(p + 32));
      b = step(b, readWord(p + 40));
      c = step(c, readWord(p + 48));
      d = step(d, readWord(p + 56));
      p += 64;
    }
    while (p < end) {
      a = step(a, readWord(p));
      b = step(b, readWord(p + 8));
      c = step(c, readWord(p + 16));
      d = step(d, readWord(p + 24));
      p += 32;
    }
    l1 = a;
    l2 = b;
    l3 = c;
    l4 = d;
    return static_cast<size_t>(p - start);
  }

  /// The hash of `total` bytes whose last `n` (< 32) are at `tail` and the rest were striped.
  inline uint64_t finish(uint64_t total, const uint8_t* tail, size_t n) const {
    uint64_t h = rotl(l1, 1) + rotl(l2, 7) + rotl(l3, 12) + rotl(l4, 18) + total * P4;
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
};

}  // namespace tarvolin::FastHash64::detail
