#include "tarvolin/platform/Desktop.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace tarvolin::platform {

bool startDetached(const std::string& program, const std::vector<std::string>& arguments) {
  // $0 is the program, "$@" its arguments: nothing of theirs is parsed by the shell.
  static constexpr char kScript[] =
      "command -v \"$0\" >/dev/null 2>&1 || exit 127; "
      "\"$0\" \"$@\" </dev/null >/dev/null 2>&1 & exit 0";
  std::vector<std::string> words = {"sh", "-c", kScript, program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) return false;
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) return false;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::optional<EntryStatus> linkStatus(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return std::nullopt;
  EntryStatus status;
  if (S_ISDIR(info.st_mode)) {
    status.type = EntryType::directory;
  } else if (S_ISLNK(info.st_mode)) {
    status.type = EntryType::symlink;
  } else if (S_ISREG(info.st_mode)) {
    status.type = EntryType::regular;
  }
  status.size = info.st_size;
  status.modificationTime = info.st_mtim.tv_sec;
  return status;
}

}  // namespace tarvolin::platform
