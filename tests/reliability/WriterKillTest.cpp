// Every writer replaces its file in one step: a process killed at any moment of a write leaves
// the old file or the new one at the target, and it loads. A probe process writes two versions
// of a file alternately; the test kills it with SIGKILL after a random delay, again and again,
// and loads what is at the target after each kill.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "support/TempTree.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/query/TrigramIndex.h"

namespace tarvolin {
namespace {

constexpr int kKills = 200;
constexpr uint32_t kVersionA = 30000;  // as in WriterProbe.cpp
constexpr uint32_t kVersionB = 60000;

// Runs the probe to its end and returns its exit status.
int runProbe(const std::string& kind, const std::filesystem::path& target, const char* mode,
             std::chrono::microseconds killAfter = std::chrono::microseconds::max()) {
  pid_t child = fork();
  if (child == 0) {
    execl(WRITER_PROBE_PATH, WRITER_PROBE_PATH, kind.c_str(), target.c_str(), mode, nullptr);
    _exit(127);
  }
  if (killAfter != std::chrono::microseconds::max()) {
    std::this_thread::sleep_for(killAfter);
    kill(child, SIGKILL);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

// The version found at the target: its size (records or documents), or -1 when it does not
// load or is neither version.
int64_t loadedVersion(const std::string& kind, const std::filesystem::path& target) {
  if (kind == "index") {
    auto outcome = loadIndex(target);
    const auto* store = std::get_if<std::shared_ptr<const IndexStore>>(&outcome);
    return store != nullptr ? static_cast<int64_t>((*store)->count()) : -1;
  }
  if (kind == "trigrams") {
    for (uint32_t version : {kVersionA, kVersionB}) {
      if (TrigramIndex::load(target, version)) return version;
    }
    return -1;
  }
  try {
    return static_cast<int64_t>(ContentIndex::read(target).documents().size()) * 100;
  } catch (const std::exception&) {
    return -1;
  }
}

class WriterKillTest : public ::testing::TestWithParam<const char*> {};

TEST_P(WriterKillTest, EveryKillLeavesTheOldFileOrTheNewOne) {
  std::string kind = GetParam();
  testing::TempTree tree;
  std::filesystem::path target = tree / "target.bin";
  ASSERT_EQ(runProbe(kind, target, "once"), 0);
  ASSERT_EQ(loadedVersion(kind, target), kVersionA);

  // Delays spread over a probe's start and several of its writes.
  std::mt19937 random(std::hash<std::string>{}(kind));
  std::uniform_int_distribution<int> delay(0, 60'000);
  int sawB = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    int status = runProbe(kind, target, "forever", std::chrono::microseconds(delay(random)));
    ASSERT_TRUE(WIFSIGNALED(status)) << "the probe ended by itself: " << status;
    int64_t version = loadedVersion(kind, target);
    ASSERT_TRUE(version == kVersionA || version == kVersionB)
        << "after kill " << kill << " the file at the target is " << version;
    sawB += version == kVersionB;
  }
  // Some kills must have come after a whole write of B, or the test never saw a replacement.
  EXPECT_GT(sawB, 0);
}

INSTANTIATE_TEST_SUITE_P(Writers, WriterKillTest, ::testing::Values("index", "trigrams", "content"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace tarvolin
