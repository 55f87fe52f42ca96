#include "tarvolin/scan/AttributeFiller.h"

#include <algorithm>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/index/ChildrenIndex.h"
#include "tarvolin/index/ParentWalk.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/scan/detail/EntryAttributes.h"
#include "tarvolin/scan/detail/NameTable.h"

namespace tarvolin::AttributeFiller {

namespace {

constexpr uint32_t kNoParent = FileRecord::rootParentID;
constexpr size_t kBatchCapacity = 8192;
constexpr size_t kFlushAbove = 4095;        // triples pending before a flush
constexpr int64_t kProgressEvery = 50'000;  // covered entries between two progress calls

// One directory to list: its record, its children's range in the child list, its path (NUL-
// terminated in the path arena).
struct Job {
  uint32_t dirIndex;
  uint32_t lo;
  uint32_t hi;
  size_t pathOffset;
};

// Appends the path of directory `id` plus a NUL to `arena`: the names from the top record down,
// joined by "/". False (nothing appended) when the chain does not end, within 256 names, at a
// top record with the empty name, so that the path would not be absolute.
bool appendPath(const IndexBuilder& builder, uint32_t id, std::vector<std::string_view>& names,
                std::string& arena) {
  names.clear();
  ParentWalk walk(builder.records(), id);
  for (; walk.valid(); walk.next()) names.push_back(builder.nameBytes(walk.id()));
  if (!walk.reachedTop() || !names.back().empty()) return false;
  if (names.size() == 1) {
    arena.append("/", 2);
    return true;
  }
  for (size_t i = names.size() - 1; i-- > 0;) arena.append(1, '/').append(names[i]);
  arena.push_back('\0');
  return true;
}

// Shared by the workers of one fill.
class ParallelFillContext {
 public:
  ParallelFillContext(IndexBuilder& builder, const std::function<void(int64_t)>& onProgress)
      : builder_(builder), onProgress_(onProgress) {}

  void flush(const std::vector<detail::EntryAttributes>& results, int64_t covered) {
    int64_t report = -1;
    {
      std::lock_guard guard(lock_);
      for (const detail::EntryAttributes& filled : results) {
        builder_.setAttributes(filled.id, filled.size, filled.mtime);
      }
      processed_ += covered;
      if (processed_ - lastReported_ >= kProgressEvery) {
        lastReported_ = processed_;
        report = processed_;
      }
    }
    if (report >= 0 && onProgress_) onProgress_(report);
  }

  int64_t processed() {
    std::lock_guard guard(lock_);
    return processed_;
  }

 private:
  std::mutex lock_;
  IndexBuilder& builder_;
  const std::function<void(int64_t)>& onProgress_;
  int64_t processed_ = 0;
  int64_t lastReported_ = 0;
};

}  // namespace

size_t workerCount(Appetite appetite, size_t cores) {
  if (appetite == Appetite::watching) return std::clamp<size_t>(cores == 0 ? 0 : cores - 1, 1, 8);
  if (cores >= 8) return 4;
  return std::max<size_t>(cores / 2, 1);
}

void fill(IndexBuilder& builder, const std::function<bool()>& shouldContinue, bool onlyMissing,
          Appetite appetite, const std::function<void(int64_t)>& onProgress) {
  const std::vector<FileRecord>& records = builder.records();
  size_t n = records.size();
  if (n == 0) return;
  ChildrenIndex children(records, /*skipDeleted=*/false);

  // The directories to list.
  std::vector<uint8_t> chosen(n, onlyMissing ? 0 : 1);
  if (onlyMissing) {
    for (size_t i = 0; i < n; ++i) {
      if (!records[i].flags.contains(RecordFlags::isDirectory)) continue;
      for (uint32_t child : children.children(static_cast<uint32_t>(i))) {
        if (records[child].flags.contains(RecordFlags::attrsFilled)) continue;
        chosen[i] = 1;
        if (records[i].parentID != kNoParent && records[i].parentID < n) {
          chosen[records[i].parentID] = 1;
        }
        break;
      }
    }
  }
  std::vector<Job> jobs;
  std::string paths;
  std::vector<std::string_view> names;
  for (size_t i = 0; i < n; ++i) {
    uint32_t lo = children.start()[i], hi = children.start()[i + 1];
    if (!chosen[i] || !records[i].flags.contains(RecordFlags::isDirectory) || lo == hi) continue;
    size_t offset = paths.size();
    if (!appendPath(builder, static_cast<uint32_t>(i), names, paths)) continue;
    jobs.push_back({static_cast<uint32_t>(i), lo, hi, offset});
  }
  if (jobs.empty()) {
    if (onProgress) onProgress(0);
    return;
  }

  size_t workers = workerCount(appetite, platform::activeProcessorCount());
  ParallelFillContext context(builder, onProgress);
  platform::concurrentPerform(workers, [&](size_t worker) {
    platform::DirectoryReader reader;
    detail::NameTable table;
    std::vector<detail::EntryAttributes> results;
    results.reserve(kBatchCapacity);
    int64_t covered = 0;
    for (size_t j = worker; j < jobs.size(); j += workers) {
      if (!shouldContinue()) break;
      const Job& job = jobs[j];
      table.reset(job.hi - job.lo);
      for (uint32_t k = job.lo; k < job.hi; ++k) {
        uint32_t child = children.ids()[k];
        table.insert(builder.nameBytes(child), child);  // the later of two same names wins
      }
      std::span<const uint32_t> childIDs(children.ids().data() + job.lo, job.hi - job.lo);
      detail::statByName(reader, paths.c_str() + job.pathOffset, builder, childIDs, table, results);
      covered += job.hi - job.lo;
      if (results.size() > kFlushAbove) {
        context.flush(results, covered);
        results.clear();
        covered = 0;
      }
    }
    if (!results.empty() || covered > 0) context.flush(results, covered);
  });
  if (onProgress) onProgress(context.processed());
}

}  // namespace tarvolin::AttributeFiller
