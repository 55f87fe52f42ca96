#include "tarvolin/content/PdfWorkerPool.h"

#include <cstring>
#include <system_error>
#include <utility>

#include "tarvolin/content/poppler/PdfWorkerProtocol.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace protocol = PdfWorkerProtocol;
using Transfer = platform::ChildProcess::Transfer;

namespace {

// How long a retiring worker gets to exit by itself after its last reply.
constexpr std::chrono::milliseconds kRetireGrace{200};

}  // namespace

PdfWorkerPool& PdfWorkerPool::shared() {
  static PdfWorkerPool pool(locateWorker(), platform::activeProcessorCount());
  return pool;
}

std::optional<std::filesystem::path> PdfWorkerPool::locateWorker() {
  std::error_code error;
  std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return std::nullopt;
  std::filesystem::path folder = executable.parent_path();
  for (std::filesystem::path candidate :
       {folder / workerName, folder / ".." / "libexec" / "tarvolin" / workerName}) {
    if (std::filesystem::is_regular_file(candidate, error)) return candidate.lexically_normal();
  }
  return std::nullopt;
}

PdfWorkerPool::PdfWorkerPool(std::optional<std::filesystem::path> worker, size_t maxWorkers,
                             Limits limits)
    : worker_(std::move(worker)), maxWorkers_(maxWorkers), limits_(limits) {}

PdfWorkerPool::~PdfWorkerPool() = default;

std::optional<PdfWorkerPool::Lease> PdfWorkerPool::acquire() {
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !idle_.empty() || running_ < maxWorkers_; });
    if (!idle_.empty()) {
      platform::ChildProcess process = std::move(idle_.back());
      idle_.pop_back();
      return Lease{std::move(process), true};
    }
    ++running_;
  }
  try {
    platform::ChildProcess::Limits processLimits{
        .cpuSeconds = 2 * static_cast<uint64_t>(limits_.cpuPerDocument.count()),
        .addressSpaceBytes = limits_.addressSpaceBytes};
    return Lease{platform::ChildProcess::spawn(
                     *worker_,
                     {"--retire-after-cpu-seconds", std::to_string(limits_.cpuPerDocument.count())},
                     processLimits),
                 false};
  } catch (const std::system_error&) {
    std::lock_guard lock(mutex_);
    --running_;
    changed_.notify_one();
    return std::nullopt;
  }
}

void PdfWorkerPool::giveBack(platform::ChildProcess process) {
  std::lock_guard lock(mutex_);
  idle_.push_back(std::move(process));
  changed_.notify_one();
}

void PdfWorkerPool::discard(platform::ChildProcess process) {
  process.kill();
  std::lock_guard lock(mutex_);
  --running_;
  changed_.notify_one();
}

std::optional<std::string> PdfWorkerPool::text(const std::filesystem::path& pdf) {
  if (!worker_) return std::nullopt;
  const std::string& path = pdf.native();
  if (path.empty() || path.size() > protocol::maxPathBytes) return std::nullopt;
  std::string request(protocol::requestHeaderBytes, '\0');
  protocol::put32(reinterpret_cast<uint8_t*>(request.data()), static_cast<uint32_t>(path.size()));
  request += path;
  std::span<const uint8_t> requestBytes(reinterpret_cast<const uint8_t*>(request.data()),
                                        request.size());

  // A kept worker may have gone away while idle (killed from outside): that is not this
  // document's fault, so it is tried once more on a fresh worker.
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::optional<Lease> lease = acquire();
    if (!lease) return std::nullopt;
    platform::ChildProcess& process = lease->process;
    auto deadline = std::chrono::steady_clock::now() + limits_.wallClockPerDocument;

    Transfer sent = process.send(requestBytes, deadline);
    if (sent != Transfer::done) {
      discard(std::move(process));
      if (sent == Transfer::closed && lease->reused) continue;
      return std::nullopt;
    }

    uint8_t header[protocol::replyHeaderBytes];
    if (process.receive(header, deadline) != Transfer::done) {
      discard(std::move(process));
      return std::nullopt;
    }
    uint8_t status = header[0], flags = header[1];
    uint32_t textBytes = protocol::get32(header + 4);
    bool wellFormed =
        header[2] == 0 && header[3] == 0 && (flags & ~protocol::retiring) == 0 &&
        ((status == protocol::text && textBytes > 0 && textBytes <= protocol::maxTextBytes) ||
         (status == protocol::noText && textBytes == 0));
    if (!wellFormed) {
      discard(std::move(process));
      return std::nullopt;
    }
    std::string text(textBytes, '\0');
    if (process.receive({reinterpret_cast<uint8_t*>(text.data()), text.size()}, deadline) !=
        Transfer::done) {
      discard(std::move(process));
      return std::nullopt;
    }

    if (flags & protocol::retiring) {
      process.finish(std::chrono::steady_clock::now() + kRetireGrace);
      discard(std::move(process));
    } else {
      giveBack(std::move(process));
    }
    if (status == protocol::noText) return std::nullopt;
    if (!platform::isValidUtf8(text)) return platform::decodeUtf8Lossy(text);
    return text;
  }
  return std::nullopt;
}

}  // namespace tarvolin
