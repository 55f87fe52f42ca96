// A writer that meets a full disk fails with a clear error and leaves the old file whole, with
// no temporary file beside it. The probe mounts a tmpfs of 8 MiB in a mount namespace of its own
// (allowed to root, or through a user namespace where the kernel permits it), writes version A,
// fills the disk and writes version B; the test reads the one line it prints.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "reliability/ProbeWriters.h"
#include "support/TempTree.h"

namespace tarvolin {
namespace {

class FullDiskTest : public ::testing::TestWithParam<std::string_view> {};

TEST_P(FullDiskTest, WriterFailsClearlyAndTheOldFileStaysWhole) {
  std::string kind(GetParam());
  testing::TempTree tree{"mnt/"};
  std::filesystem::path output = tree / "probe.out";
  pid_t child = fork();
  if (child == 0) {
    int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, STDOUT_FILENO);
    execl(WRITER_PROBE_PATH, WRITER_PROBE_PATH, kind.c_str(), (tree / "mnt").c_str(),
          (tree / "work").c_str(), "full-disk", nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::string line = testing::readFile(output);
  ASSERT_TRUE(WIFEXITED(status)) << "probe status " << status;
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << line;
  EXPECT_EQ(WEXITSTATUS(status), 0) << line;
  EXPECT_EQ(line.substr(0, 3), "ok ") << line;
  RecordProperty("error", line);
}

INSTANTIATE_TEST_SUITE_P(Writers, FullDiskTest, ::testing::ValuesIn(probe::kinds),
                         [](const auto& info) {
                           std::string name(info.param);
                           std::erase(name, '-');
                           return name;
                         });

}  // namespace
}  // namespace tarvolin
