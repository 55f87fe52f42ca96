#include "support/TerminalRun.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace tarvolin::testing {

TerminalResult runWithTerminalStderr(const std::string& program,
                                     const std::vector<std::string>& args,
                                     const std::string& home) {
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
    throw std::runtime_error("no pseudo-terminal");
  }
  // The test keeps the terminal's other end open too, so the terminal never hangs up before the
  // program has opened it or after it has exited, and its output can be drained at leisure.
  int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
  if (terminal < 0) throw std::runtime_error("no pseudo-terminal");
  // Bytes as written: no "\n" to "\r\n" translation on the way to the test.
  termios mode;
  if (tcgetattr(terminal, &mode) == 0) {
    cfmakeraw(&mode);
    tcsetattr(terminal, TCSANOW, &mode);
  }
  int outPipe[2];
  if (pipe(outPipe) != 0) throw std::runtime_error("pipe");
  pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    int nothing = open("/dev/null", O_RDONLY);
    if (nothing < 0) _exit(126);
    dup2(nothing, 0);
    dup2(outPipe[1], 1);
    dup2(terminal, 2);
    close(outPipe[0]);
    close(master);
    close(terminal);
    if (!home.empty()) setenv("HOME", home.c_str(), 1);
    std::vector<std::string> copies = args;
    std::string path = program;
    std::vector<char*> argv{path.data()};
    for (std::string& arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  close(outPipe[1]);
  TerminalResult result;
  int flags = fcntl(master, F_GETFL);
  fcntl(master, F_SETFL, flags | O_NONBLOCK);
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {master, POLLIN, 0}};
  char buffer[65536];
  auto drainTerminal = [&] {
    for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) {
      result.terminal.append(buffer, static_cast<size_t>(n));
    }
  };
  // Standard output ends when the program does; the terminal is read whenever it has bytes, so
  // a program drawing a lot never blocks on a full terminal.
  for (bool outOpen = true; outOpen;) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    if (fds[1].revents & POLLIN) drainTerminal();
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      ssize_t n = read(outPipe[0], buffer, sizeof buffer);
      if (n > 0) {
        result.out.append(buffer, static_cast<size_t>(n));
      } else {
        outOpen = false;
      }
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  drainTerminal();
  close(outPipe[0]);
  close(terminal);
  close(master);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace tarvolin::testing
