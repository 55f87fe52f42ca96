#include "support/RunTool.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <stdexcept>

namespace tarvolin::testing {

ToolResult runTool(const std::vector<std::string>& args, const std::string& home) {
  return runProgram(TVL_PATH, args, home);
}

ToolResult runProgram(const std::string& program, const std::vector<std::string>& args,
                      const std::string& home) {
  int outPipe[2], errPipe[2];
  if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("pipe");
  pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    close(outPipe[0]);
    close(errPipe[0]);
    if (!home.empty()) setenv("HOME", home.c_str(), 1);
    std::vector<char*> argv;
    std::string path = program;
    argv.push_back(path.data());
    std::vector<std::string> copies = args;
    for (std::string& arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  ToolResult result;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  int open = 2;
  char buffer[65536];
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n <= 0) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      } else {
        (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
      }
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::string maskMilliseconds(const std::string& text) {
  std::string out;
  size_t copied = 0;
  for (size_t at = text.find("ms"); at != std::string::npos; at = text.find("ms", at + 2)) {
    size_t start = at;
    while (start > copied &&
           (std::isdigit(static_cast<unsigned char>(text[start - 1])) || text[start - 1] == '.')) {
      --start;
    }
    if (start == at) continue;
    out.append(text, copied, start - copied);
    out += "T";
    copied = at;
  }
  out.append(text, copied, std::string::npos);
  return out;
}

}  // namespace tarvolin::testing
