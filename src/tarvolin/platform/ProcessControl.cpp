#include "tarvolin/platform/ProcessControl.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

namespace {

// From linux/ioprio.h, which not every system installs.
constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioClassIdle = 3;
constexpr int kIoprioClassShift = 13;

sigset_t stopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

static_assert(sizeof(sigset_t) <= sizeof(uint64_t[16]));

}  // namespace

uint64_t residentBytes() {
  FILE* file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) return 0;
  unsigned long long sizePages = 0, residentPages = 0;
  int read = std::fscanf(file, "%llu %llu", &sizePages, &residentPages);
  std::fclose(file);
  if (read != 2) return 0;
  return residentPages * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

int64_t processID() { return ::getpid(); }

bool processExists(int64_t pid) {
  if (pid <= 0 || pid > std::numeric_limits<pid_t>::max()) return false;
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

void lowerThreadPriority(int niceness) {
  auto thread = static_cast<int>(::syscall(SYS_gettid));
  ::syscall(SYS_ioprio_set, kIoprioWhoProcess, thread, kIoprioClassIdle << kIoprioClassShift);
  // On Linux the nice value belongs to the thread when given its id.
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), niceness);
}

std::optional<ExclusiveFileLock> ExclusiveFileLock::tryLock(const std::filesystem::path& path) {
  FileDescriptor fd = FileDescriptor::open(path, O_RDWR | O_CREAT, 0600);
  while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK) return std::nullopt;
    throwErrno("flock " + path.string());
  }
  return ExclusiveFileLock(std::move(fd));
}

StopSignals::StopSignals() {
  sigset_t set = stopSet();
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &set, &previous);
  std::memcpy(previous_, &previous, sizeof previous);
}

StopSignals::~StopSignals() {
  sigset_t previous;
  std::memcpy(&previous, previous_, sizeof previous);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

int StopSignals::wait(int timeoutMs) const {
  sigset_t set = stopSet();
  timespec limit{timeoutMs / 1000, static_cast<long>(timeoutMs % 1000) * 1'000'000};
  for (;;) {
    int signal =
        timeoutMs < 0 ? ::sigwaitinfo(&set, nullptr) : ::sigtimedwait(&set, nullptr, &limit);
    if (signal > 0) return signal;
    if (errno == EAGAIN) return 0;
    // EINTR: another signal was handled; wait again (a timed wait restarts its period).
  }
}

}  // namespace tarvolin::platform
