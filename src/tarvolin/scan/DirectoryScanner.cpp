#include "tarvolin/scan/DirectoryScanner.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>

#include "tarvolin/platform/Clock.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/scan/detail/DescentFilter.h"
#include "tarvolin/scan/detail/ScanTally.h"

namespace tarvolin {

namespace {

using platform::DirectoryEntry;
using platform::DirectoryReader;
using platform::EntryType;

constexpr uint32_t kNoRecord = FileRecord::rootParentID;

// Room kept below the 32-bit limits of record IDs and name offsets. Totals are checked before
// each directory is listed, so this must cover what the directories being listed at that moment
// can add: far more than any real directory holds.
constexpr uint64_t kRecordLimit = 0xFFFFFFFFull - (uint64_t{1} << 26);
constexpr uint64_t kBlobLimit = 0xFFFFFFFFull - (uint64_t{1} << 30);

// Merged bytes between two returns of freed job memory to the system: an eighth of the whole,
// within these bounds. Each return costs a walk over the heap's free blocks.
constexpr uint64_t kReleaseAtLeastEvery = uint64_t{1} << 20;
constexpr uint64_t kReleaseAtMostEvery = uint64_t{8} << 20;

// Directories still to be listed. Their paths are packed back to back in one byte string, so a
// pending directory costs no allocation of its own; used as a stack by jobs (the last path is
// always at the end of `bytes`) and as a queue level by seeding.
struct DirList {
  static constexpr int32_t kNoParent = -1;
  struct Ref {
    size_t offset;
    size_t length;
    uint32_t recordID;  // its record in the builder receiving its children, or kNoRecord
    int32_t parent;     // a job's kept descriptor of its parent directory, or kNoParent
  };
  std::string bytes;
  std::vector<Ref> refs;

  bool empty() const { return refs.empty(); }
  size_t size() const { return refs.size(); }
  std::string_view path(size_t i) const { return {bytes.data() + refs[i].offset, refs[i].length}; }
  void push(std::string_view path, uint32_t recordID) {
    refs.push_back({bytes.size(), path.size(), recordID, kNoParent});
    bytes.append(path);
  }
  void clear() {
    bytes.clear();
    refs.clear();
  }
};

// Lists the directory open in `reader`, whose path is `path` ("" is "/"), into `builder` below
// `recordID`, and appends the subdirectories to enter to `children`, in listing order. Nothing
// per entry beyond copying its name, except for subdirectories: their path is formed (with the
// whole name) for the descent test. A read error part way keeps what was listed.
int64_t enumerate(DirectoryReader& reader, const std::string& path, uint32_t recordID,
                  IndexBuilder& builder, uint8_t volumeIndex, const detail::DescentFilter& filter,
                  DirList& children) {
  int64_t count = 0;
  reader.forEach([&](const DirectoryEntry& entry) {
    std::string_view name = entry.name;
    RecordFlags flags;
    if (entry.type == EntryType::directory) flags.insert(RecordFlags::isDirectory);
    if (entry.type == EntryType::symlink) flags.insert(RecordFlags::isSymlink);
    if (name[0] == '.') flags.insert(RecordFlags::isHidden);
    if (ScanPolicy::isAppBundle(name)) flags.insert(RecordFlags::isApp);
    uint32_t id = builder.addEntry(name, recordID, flags, volumeIndex);
    ++count;
    if (entry.type != EntryType::directory) return;
    size_t offset = children.bytes.size();
    children.bytes.append(path).append(1, '/').append(name);
    std::string_view childPath(children.bytes.data() + offset, children.bytes.size() - offset);
    if (filter.shouldDescend(childPath, name)) {
      children.refs.push_back({offset, childPath.size(), id, DirList::kNoParent});
    } else {
      children.bytes.resize(offset);
    }
  });
  return count;
}

// Throttled progress shared by all threads of one scan.
class ProgressReporter {
 public:
  ProgressReporter(double minInterval, const DirectoryScanner::ProgressCallback& onProgress)
      : minInterval_(minInterval), onProgress_(onProgress) {}

  void report(int64_t entries) {
    int64_t count;
    {
      std::lock_guard guard(lock_);
      count_ += entries;
      double now = platform::monotonicSeconds();
      if (now - lastFired_ < minInterval_) return;
      lastFired_ = now;
      count = count_;
    }
    onProgress_(count);
  }

 private:
  std::mutex lock_;
  int64_t count_ = 0;
  double lastFired_ = -std::numeric_limits<double>::infinity();
  double minInterval_;
  const DirectoryScanner::ProgressCallback& onProgress_;
};

// Everything the threads of one scan share.
struct ScanContext {
  const detail::DescentFilter& filter;
  const DirectoryScanner::ContinueCallback& shouldContinue;
  ProgressReporter* reporter;  // null without a progress callback
  std::string_view home;
  uint8_t volumeIndex;
  // Records and name bytes made so far by all threads, checked against the 32-bit limits.
  std::atomic<uint64_t> totalRecords{0};
  std::atomic<uint64_t> totalBlobBytes{0};
  std::atomic<bool> overLimit{false};

  bool roomLeft() {
    if (totalRecords.load(std::memory_order_relaxed) <= kRecordLimit &&
        totalBlobBytes.load(std::memory_order_relaxed) <= kBlobLimit) {
      return true;
    }
    overLimit.store(true, std::memory_order_relaxed);
    return false;
  }

  // Lists one directory into `builder` and accounts for it in `tally`. The directory is opened
  // by path, or by name relative to `parent` when given; it stays open in `reader` when listed.
  bool list(DirectoryReader& reader, const std::string& path,
            const platform::FileDescriptor* parent, uint32_t recordID, IndexBuilder& builder,
            DirList& children, detail::ScanTally& tally) {
    int error = parent != nullptr ? reader.openAt(*parent, path.c_str() + path.rfind('/') + 1)
                                  : reader.open(path.c_str());
    uint64_t records = builder.recordCount();
    uint64_t blob = builder.nameBlob().size();
    int64_t entries = 0;
    if (error == 0) {
      entries = enumerate(reader, path, recordID, builder, volumeIndex, filter, children);
    }
    totalRecords.fetch_add(builder.recordCount() - records, std::memory_order_relaxed);
    totalBlobBytes.fetch_add(builder.nameBlob().size() - blob, std::memory_order_relaxed);
    tally.account(error == 0, error, entries, path, home);
    if (reporter != nullptr && entries > 0) reporter->report(entries);
    return error == 0;
  }
};

// The per-thread working set of jobs, reused from job to job so that the listing buffer and the
// stack are allocated once per thread, not once per job.
struct JobScratch {
  // A directory with subdirectories still to list keeps its descriptor here until the last of
  // them is opened: opening a child by name relative to it spares the kernel the lookup of every
  // component above. The current walk needs one per level; beyond kMaxKeptParents levels
  // children are opened by path.
  static constexpr size_t kMaxKeptParents = 64;
  struct KeptParent {
    platform::FileDescriptor fd;
    size_t pendingChildren = 0;
  };

  DirectoryReader reader;
  DirList stack;
  std::string current;
  std::vector<KeptParent> parents;
  std::vector<int32_t> freeParents;
  size_t keptParents = 0;

  void reset() {
    stack.clear();
    parents.clear();
    freeParents.clear();
    keptParents = 0;
  }

  // Keeps the reader's open directory as the parent of `stack.refs[firstChild ...]`.
  void keepAsParent(size_t firstChild) {
    size_t children = stack.refs.size() - firstChild;
    if (children == 0 || keptParents >= kMaxKeptParents) {
      reader.close();
      return;
    }
    int32_t slot;
    if (freeParents.empty()) {
      slot = static_cast<int32_t>(parents.size());
      parents.emplace_back();
    } else {
      slot = freeParents.back();
      freeParents.pop_back();
    }
    parents[slot] = {reader.detach(), children};
    ++keptParents;
    for (size_t i = firstChild; i < stack.refs.size(); ++i) stack.refs[i].parent = slot;
  }

  // One child of `slot` has been opened.
  void childOpened(int32_t slot) {
    if (--parents[slot].pendingChildren > 0) return;
    parents[slot].fd = platform::FileDescriptor();
    freeParents.push_back(slot);
    --keptParents;
  }
};

class ScratchPool {
 public:
  std::unique_ptr<JobScratch> acquire() {
    std::lock_guard guard(lock_);
    if (free_.empty()) return std::make_unique<JobScratch>();
    std::unique_ptr<JobScratch> scratch = std::move(free_.back());
    free_.pop_back();
    return scratch;
  }
  void release(std::unique_ptr<JobScratch> scratch) {
    std::lock_guard guard(lock_);
    free_.push_back(std::move(scratch));
  }

 private:
  std::mutex lock_;
  std::vector<std::unique_ptr<JobScratch>> free_;
};

struct JobResult {
  std::optional<IndexBuilder> builder;  // none when the job recorded nothing
  detail::ScanTally tally;
};

// One job: the subtree below frontier directory `path`, depth-first, into a builder of its own
// whose top records are the frontier directory's entries.
JobResult runJob(ScanContext& context, std::string_view path, JobScratch& scratch) {
  JobResult result;
  IndexBuilder builder(4096, 65536);
  DirList& stack = scratch.stack;
  scratch.reset();
  stack.push(path, kNoRecord);
  while (!stack.empty()) {
    DirList::Ref ref = stack.refs.back();
    scratch.current.assign(stack.bytes, ref.offset, ref.length);
    stack.bytes.resize(ref.offset);
    stack.refs.pop_back();
    if (!context.shouldContinue() || !context.roomLeft()) break;
    const platform::FileDescriptor* parent =
        ref.parent == DirList::kNoParent ? nullptr : &scratch.parents[ref.parent].fd;
    size_t firstChild = stack.refs.size();
    bool opened = context.list(scratch.reader, scratch.current, parent, ref.recordID, builder,
                               stack, result.tally);
    if (ref.parent != DirList::kNoParent) scratch.childOpened(ref.parent);
    if (opened) scratch.keepAsParent(firstChild);
  }
  scratch.reset();  // closes the parents a stopped job still kept
  if (builder.recordCount() > 0) {
    // Keep an exactly sized copy: thousands of jobs wait for the merge, and the working
    // builder's spare capacity would wait with them.
    result.builder.emplace(builder.recordCount(), builder.nameBlob().size());
    result.builder->merge(builder, FileRecord::rootParentID);
  }
  return result;
}

// Appends the job builders to the seeding records in frontier order, into a builder reserved
// for the exact total, so it never regrows (a regrowth would hold the old and the new copy at
// once), and gives freed job memory back as the merge goes: the peak stays near the index size.
IndexBuilder mergeJobs(IndexBuilder seeded, std::vector<JobResult>& jobs, const DirList& frontier) {
  uint64_t records = seeded.recordCount();
  uint64_t blobBytes = seeded.nameBlob().size();
  for (const JobResult& job : jobs) {
    if (!job.builder) continue;
    records += job.builder->recordCount();
    blobBytes += job.builder->nameBlob().size();
  }
  uint64_t totalBytes = records * sizeof(FileRecord) + blobBytes;
  uint64_t releaseEvery = std::clamp(totalBytes / 8, kReleaseAtLeastEvery, kReleaseAtMostEvery);
  // The jobs' working builders are gone; their pages are free but still held.
  platform::releaseFreeMemory();
  IndexBuilder merged(static_cast<int64_t>(records), static_cast<int64_t>(blobBytes));
  platform::adviseFillingSoon(merged.records().data(), records * sizeof(FileRecord));
  platform::adviseFillingSoon(merged.nameBlob().data(), blobBytes);
  merged.merge(seeded, FileRecord::rootParentID);
  seeded = IndexBuilder();
  uint64_t sinceRelease = 0;
  for (size_t i = 0; i < jobs.size(); ++i) {
    if (!jobs[i].builder) continue;
    const IndexBuilder& job = *jobs[i].builder;
    merged.merge(job, frontier.refs[i].recordID);
    sinceRelease += job.recordCount() * sizeof(FileRecord) + job.nameBlob().size();
    jobs[i].builder.reset();
    if (sinceRelease >= releaseEvery) {
      platform::releaseFreeMemory();
      sinceRelease = 0;
    }
  }
  if (sinceRelease > 0) platform::releaseFreeMemory();
  return merged;
}

}  // namespace

DirectoryScanner::DirectoryScanner(ScanPolicy policy, int64_t seedDepth, double progressInterval,
                                   std::string home)
    : policy_(std::move(policy)),
      seedDepth_(seedDepth < 0 ? 0 : seedDepth),
      progressInterval_(std::isnan(progressInterval) || progressInterval < 0 ? 0
                                                                             : progressInterval),
      homeDirectory_(std::move(home)) {}

ScanResult DirectoryScanner::scan(std::string_view root, uint8_t volumeIndex) const {
  return scan(root, volumeIndex, nullptr, [] { return true; });
}

ScanResult DirectoryScanner::scan(std::string_view root, uint8_t volumeIndex,
                                  const ProgressCallback& onProgress,
                                  const ContinueCallback& shouldContinue) const {
  double start = platform::monotonicSeconds();
  ScanResult result{IndexBuilder(65536, 1 << 20)};
  std::optional<ProgressReporter> reporter;
  if (onProgress) reporter.emplace(progressInterval_, onProgress);

  while (!root.empty() && root.back() == '/') root.remove_suffix(1);

  // The root chain: "/" and one folder per component of the root.
  IndexBuilder& builder = result.builder;
  uint32_t rootID =
      builder.addEntry(std::string_view(), kNoRecord, RecordFlags::isDirectory, volumeIndex);
  for (size_t at = 0; at < root.size();) {
    size_t slash = root.find('/', at);
    if (slash == std::string_view::npos) slash = root.size();
    if (slash > at) {
      rootID = builder.addEntry(root.substr(at, slash - at), rootID, RecordFlags::isDirectory,
                                volumeIndex);
    }
    at = slash + 1;
  }

  detail::DescentFilter filter(policy_, root);
  ScanContext context{filter, shouldContinue, reporter ? &*reporter : nullptr, homeDirectory_,
                      volumeIndex};
  context.totalRecords = builder.recordCount();
  context.totalBlobBytes = builder.nameBlob().size();
  detail::ScanTally tally;

  // Seeding, breadth-first on this thread.
  DirList frontier;
  frontier.push(root, rootID);
  bool cancelled = false;
  {
    DirectoryReader reader;
    std::string current;
    for (int64_t level = 0; level < seedDepth_ && !frontier.empty() && !cancelled; ++level) {
      DirList next;
      for (size_t i = 0; i < frontier.size(); ++i) {
        if (!shouldContinue() || !context.roomLeft()) {
          cancelled = true;
          break;
        }
        current.assign(frontier.path(i));
        context.list(reader, current, nullptr, frontier.refs[i].recordID, builder, next, tally);
        reader.close();
      }
      frontier = cancelled ? DirList() : std::move(next);
    }
  }

  // One job per frontier directory.
  if (!frontier.empty()) {
    std::vector<JobResult> jobs(frontier.size());
    ScratchPool pool;
    platform::concurrentPerform(frontier.size(), [&](size_t i) {
      std::unique_ptr<JobScratch> scratch = pool.acquire();
      jobs[i] = runJob(context, frontier.path(i), *scratch);
      pool.release(std::move(scratch));
    });
    for (const JobResult& job : jobs) tally.add(job.tally);
    result.builder = mergeJobs(std::move(result.builder), jobs, frontier);
  }

  result.entriesScanned = tally.entries;
  result.directoriesDenied = tally.denied;
  result.directoriesDeniedInHome = tally.deniedInHome;
  result.deniedPathsInHome = std::move(tally.sample);
  result.duration = platform::monotonicSeconds() - start;
  result.cancelled = cancelled || context.overLimit.load() || !shouldContinue();
  return result;
}

}  // namespace tarvolin
