#include "support/BackgroundTool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace tarvolin::testing {

BackgroundTool::BackgroundTool(const std::string& program, const std::vector<std::string>& args,
                               const std::string& home) {
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe");
  }
  std::vector<std::string> copies = args;
  std::string path = program;
  std::vector<char*> argv{path.data()};
  for (std::string& arg : copies) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    // The test runner may block signals in its threads; the child starts with none blocked.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!home.empty()) setenv("HOME", home.c_str(), 1);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  out_ = outPipe[0];
  err_ = errPipe[0];
  fcntl(err_, F_SETFL, O_NONBLOCK);
}

BackgroundTool::~BackgroundTool() {
  if (!status_ && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
}

std::optional<std::string> BackgroundTool::readLine(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    size_t newline = pending_.find('\n');
    if (newline != std::string::npos) {
      std::string line = pending_.substr(0, newline);
      pending_.erase(0, newline + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || out_ < 0) return std::nullopt;
    pollfd ready{out_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[4096];
    ssize_t got = read(out_, buffer, sizeof buffer);
    if (got <= 0) {
      close(out_);
      out_ = -1;
      return std::nullopt;
    }
    pending_.append(buffer, static_cast<size_t>(got));
  }
}

void BackgroundTool::signal(int signal) {
  if (!status_) kill(pid_, signal);
}

std::optional<int> BackgroundTool::wait(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!status_) {
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    drainError();
    // The child's exit closes its standard error: wait on that rather than sleep.
    pollfd ended{err_, POLLIN, 0};
    poll(&ended, 1, 20);
  }
  drainError();
  return status_;
}

std::string BackgroundTool::errorText() {
  drainError();
  return error_;
}

void BackgroundTool::drainError() {
  char buffer[4096];
  ssize_t got;
  while (err_ >= 0 && (got = read(err_, buffer, sizeof buffer)) > 0) {
    error_.append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace tarvolin::testing
