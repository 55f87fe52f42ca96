#pragma once
// The framing between the engine and its PDF worker processes ("tvl-pdftext"), shared by both
// sides; docs/format/pdf-worker-protocol.md describes it. All integers little-endian.
//
//   request: u32 pathBytes, then the path's bytes (1 ... maxPathBytes)
//   reply:   u8 status, u8 flags, u16 reserved (0), u32 textBytes, then the text's bytes
//
// A reply that breaks any rule here is a broken worker: the engine kills it.

#include <cstddef>
#include <cstdint>

namespace tarvolin::PdfWorkerProtocol {

inline constexpr size_t requestHeaderBytes = 4;
inline constexpr size_t replyHeaderBytes = 8;
/// Longest path a request carries (PATH_MAX on Linux).
inline constexpr uint32_t maxPathBytes = 4'096;
/// Most text bytes in one reply; the worker cuts longer text at a character boundary. Far
/// above what the content index keeps of one document, far below what would strain the engine.
inline constexpr uint32_t maxTextBytes = 64u << 20;

enum Status : uint8_t {
  /// textBytes bytes of UTF-8 text follow (at least one).
  text = 0,
  /// The document could not be opened or has no text; textBytes is 0.
  noText = 1,
};

enum Flags : uint8_t {
  /// The worker exits after this reply (it has used up its share of CPU time); the engine
  /// reaps it and starts another for the next document.
  retiring = 1,
};

inline void put32(uint8_t* out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

inline uint32_t get32(const uint8_t* in) {
  return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 |
         static_cast<uint32_t>(in[2]) << 16 | static_cast<uint32_t>(in[3]) << 24;
}

}  // namespace tarvolin::PdfWorkerProtocol
