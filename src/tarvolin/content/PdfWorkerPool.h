#pragma once
// The text of PDF documents, extracted by a small pool of worker processes ("tvl-pdftext")
// instead of in this process. The PDF parser is large and its input hostile: a document that
// crashes it, makes it loop or makes it eat memory must cost that one document, not the
// process that indexes or searches. Each worker runs under a CPU-time and an address-space
// limit, and each document under a wall-clock timeout; a worker that crashes, times out or
// breaks the framing is killed and reaped, the document yields nothing, and the next document
// gets a fresh worker.
//
// Workers start lazily, at most `maxWorkers` at a time, and are kept for the next document.
// Thread-safe: any number of threads may ask for text at once; each document holds one worker
// for the length of its request, and callers beyond `maxWorkers` wait for one.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/platform/ChildProcess.h"

namespace tarvolin {

/// What one document may cost before its worker is killed.
struct PdfWorkerLimits {
  /// CPU time for one document. Real documents take well under a second; a parser caught in
  /// a loop is stopped here. A worker's limit counts over its whole life, so it gets twice
  /// this and retires after using this much: every document keeps the full amount.
  std::chrono::seconds cpuPerDocument{10};
  /// Address space of a worker. Text extraction of large real documents stays under 200 MiB;
  /// a document that makes the parser allocate without end fails its allocations here
  /// instead of pushing the machine into swap.
  uint64_t addressSpaceBytes = 512ull << 20;
  /// Wall-clock time for one document's reply. The CPU limit cannot stop a worker that waits
  /// (on a stalled file system, say); this can. Above the CPU time every document is granted.
  std::chrono::milliseconds wallClockPerDocument{15'000};
};

class PdfWorkerPool {
 public:
  using Limits = PdfWorkerLimits;

  /// The worker executable's name, installed beside `tvl`.
  static constexpr const char* workerName = "tvl-pdftext";

  /// The process-wide pool, with the worker found by `locateWorker()` and one worker per
  /// processor at most.
  static PdfWorkerPool& shared();

  /// The worker beside the running executable, else in "<exe dir>/../libexec/tarvolin/";
  /// nothing when neither exists.
  static std::optional<std::filesystem::path> locateWorker();

  /// A pool running `worker` (nothing: every PDF yields nothing).
  /// REQUIRES: maxWorkers > 0.
  explicit PdfWorkerPool(std::optional<std::filesystem::path> worker, size_t maxWorkers,
                         Limits limits = {});
  /// Kills the idle workers. REQUIRES: no call of `text` is running.
  ~PdfWorkerPool();
  PdfWorkerPool(const PdfWorkerPool&) = delete;
  PdfWorkerPool& operator=(const PdfWorkerPool&) = delete;

  /// The text of the PDF at `pdf`, pages joined by "\n"; nothing when the document cannot be
  /// read, has no text, or costs its worker its life (crash, limit, timeout, bad reply), and
  /// when no worker can be started.
  std::optional<std::string> text(const std::filesystem::path& pdf);

  const std::optional<std::filesystem::path>& worker() const { return worker_; }

 private:
  struct Lease {
    platform::ChildProcess process;
    bool reused;  // it served an earlier document
  };

  std::optional<Lease> acquire();
  void giveBack(platform::ChildProcess process);
  void discard(platform::ChildProcess process);

  const std::optional<std::filesystem::path> worker_;
  const size_t maxWorkers_;
  const Limits limits_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<platform::ChildProcess> idle_;  // guarded by mutex_
  size_t running_ = 0;                        // started and not yet reaped; guarded by mutex_
};

}  // namespace tarvolin
