#include "tarvolin/platform/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <utility>

#include "tarvolin/platform/SystemError.h"

extern char** environ;

namespace tarvolin::platform {

namespace {

// posix_spawn's attribute and file-action objects, released on every path.
struct SpawnSetup {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  SpawnSetup() {
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

void reap(pid_t pid) {
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

int millisecondsUntil(ChildProcess::Deadline deadline) {
  auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return 0;
  return left.count() > 60'000 ? 60'000 : static_cast<int>(left.count());
}

}  // namespace

ChildProcess ChildProcess::spawn(const std::filesystem::path& program,
                                 const std::vector<std::string>& arguments, const Limits& limits) {
  int sockets[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    throwErrno("socketpair");
  }
  FileDescriptor ours(sockets[0]), theirs(sockets[1]);

  SpawnSetup setup;
  // dup2 clears close-on-exec on the copies; everything else of ours stays closed in the child.
  posix_spawn_file_actions_adddup2(&setup.actions, theirs.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&setup.actions, theirs.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&setup.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  // The child starts with default signal handling and nothing blocked, whatever the parent did.
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int signal : {SIGPIPE, SIGXCPU, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
    sigaddset(&defaults, signal);
  }
  posix_spawnattr_setsigmask(&setup.attributes, &none);
  posix_spawnattr_setsigdefault(&setup.attributes, &defaults);
  posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> argv;
  std::string programName = program.string();
  argv.push_back(programName.data());
  std::vector<std::string> copies(arguments);
  for (std::string& argument : copies) argv.push_back(argument.data());
  argv.push_back(nullptr);

  pid_t pid;
  int error = ::posix_spawn(&pid, programName.c_str(), &setup.actions, &setup.attributes,
                            argv.data(), environ);
  if (error != 0) throwSystemError(error, "posix_spawn " + programName);
  ChildProcess child(pid, std::move(ours));

  // Set before the child is sent anything, so no input of ours reaches it unlimited.
  auto limit = [&](int resource, rlim_t soft, rlim_t hard, const char* what) {
    rlimit value{soft, hard};
    if (::prlimit(pid, static_cast<__rlimit_resource>(resource), &value, nullptr) != 0) {
      int saved = errno;
      child.kill();
      throwSystemError(saved, what);
    }
  };
  if (limits.cpuSeconds > 0)
    limit(RLIMIT_CPU, limits.cpuSeconds, limits.cpuSeconds + 1, "prlimit cpu");
  if (limits.addressSpaceBytes > 0) {
    limit(RLIMIT_AS, limits.addressSpaceBytes, limits.addressSpaceBytes, "prlimit as");
  }
  return child;
}

ChildProcess::~ChildProcess() { kill(); }

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), socket_(std::move(other.socket_)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    kill();
    pid_ = std::exchange(other.pid_, -1);
    socket_ = std::move(other.socket_);
  }
  return *this;
}

ChildProcess::Transfer ChildProcess::await(short events, Deadline deadline) const {
  for (;;) {
    pollfd ready{socket_.get(), events, 0};
    int count = ::poll(&ready, 1, millisecondsUntil(deadline));
    if (count < 0) {
      if (errno == EINTR) continue;
      return Transfer::failed;
    }
    if (count > 0) return Transfer::done;  // readiness, a hang-up or an error: the call says
    if (std::chrono::steady_clock::now() >= deadline) return Transfer::timedOut;
  }
}

ChildProcess::Transfer ChildProcess::send(std::span<const uint8_t> bytes, Deadline deadline) {
  if (!socket_.valid()) return Transfer::closed;
  while (!bytes.empty()) {
    ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      bytes = bytes.subspan(static_cast<size_t>(sent));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EPIPE || errno == ECONNRESET) return Transfer::closed;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Transfer::failed;
    if (Transfer waited = await(POLLOUT, deadline); waited != Transfer::done) return waited;
  }
  return Transfer::done;
}

ChildProcess::Transfer ChildProcess::receive(std::span<uint8_t> into, Deadline deadline) {
  if (!socket_.valid()) return Transfer::closed;
  while (!into.empty()) {
    ssize_t got = ::recv(socket_.get(), into.data(), into.size(), MSG_DONTWAIT);
    if (got > 0) {
      into = into.subspan(static_cast<size_t>(got));
      continue;
    }
    if (got == 0) return Transfer::closed;
    if (errno == EINTR) continue;
    if (errno == ECONNRESET) return Transfer::closed;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Transfer::failed;
    if (Transfer waited = await(POLLIN, deadline); waited != Transfer::done) return waited;
  }
  return Transfer::done;
}

void ChildProcess::kill() {
  socket_ = FileDescriptor();
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  reap(std::exchange(pid_, -1));
}

void ChildProcess::finish(Deadline deadline) {
  socket_ = FileDescriptor();
  if (pid_ <= 0) return;
  // The child exits once it reads the end of its input; poll for that briefly.
  for (;;) {
    int status;
    pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_ || (done < 0 && errno != EINTR)) {
      pid_ = -1;
      return;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kill();
}

}  // namespace tarvolin::platform
