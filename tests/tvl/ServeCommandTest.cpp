// tvl serve and tvl status as processes on a temporary home: tvl search through the service
// prints what the direct path prints, a second service on the same index is refused, status
// reports, a stop signal removes the socket and ends the service cleanly, changes on disk reach
// searches and the index file, and a kill at any moment leaves an index that loads.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "support/Eventually.h"
#include "support/IndexFixture.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;
using Clock = std::chrono::steady_clock;

using testing::eventually;

// `tvl serve` running in the background with its output in files; stopped with SIGTERM when
// the object goes away.
class ServeProcess {
 public:
  ServeProcess(const std::string& home, std::vector<std::string> words) : home_(home) {
    outPath_ = std::filesystem::path(home) / "serve.out";
    errPath_ = std::filesystem::path(home) / "serve.err";
    pid_ = fork();
    if (pid_ == 0) {
      int out = open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1);
      dup2(err, 2);
      setenv("HOME", home.c_str(), 1);
      std::vector<std::string> args{TVL_PATH, "serve"};
      args.insert(args.end(), words.begin(), words.end());
      std::vector<char*> argv;
      for (std::string& arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      execv(TVL_PATH, argv.data());
      _exit(127);
    }
  }
  ~ServeProcess() {
    if (pid_ > 0) stop(SIGKILL);
  }
  /// Sends `signal` and returns the exit status (128 + signal when killed by it).
  int stop(int signal = SIGTERM) {
    kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  /// Waits until the service answers `tvl status`.
  bool ready() {
    return eventually([&] { return runTool({"status"}, home_).status == 0 || exited(); }) &&
           !exited();
  }
  bool exited() {
    int status;
    return pid_ <= 0 || waitpid(pid_, &status, WNOHANG) == pid_ ? (pid_ = -1, true) : false;
  }
  std::string out() const { return testing::readFile(outPath_); }
  std::string err() const { return testing::readFile(errPath_); }

 private:
  std::string home_;
  std::filesystem::path outPath_, errPath_;
  pid_t pid_ = -1;
};

class ServeCommandTest : public ::testing::Test {
 protected:
  std::filesystem::path folder() const { return home_ / "Library/Application Support/Tarvolin"; }
  std::filesystem::path indexPath() const { return folder() / "index.bin"; }
  void writeIndex(const std::vector<testing::FixtureEntry>& entries) {
    IndexWriter::write(testing::buildTree(entries), {{"local", "/home/me", 0, true}}, indexPath());
  }
  testing::ToolResult search(const std::string& text) {
    return runTool({"search", text}, home_.root().string());
  }
  TempTree home_;
};

TEST_F(ServeCommandTest, SearchThroughTheServicePrintsWhatTheDirectPathPrints) {
  std::vector<testing::FixtureEntry> entries = {
      {"/home/me/report.md"},        {"/home/me/old/report-2023.md"},
      {"/home/me/notes.txt"},        {"/home/me/caf\xc3\xa9/menu.pdf"},
      {"/home/me/raw\xff name.txt"}, {"/home/me/big.iso", 5'000'000, 1'700'000'000},
      {"/home/me/.hidden/report"},   {"/home/me/Apps/Report.app/", {}, 0, RecordFlags::isApp}};
  for (int i = 0; i < 30; ++i) entries.push_back({"/home/me/data/file" + std::to_string(i)});
  writeIndex(entries);
  // More different terms than the matcher takes: an error message and status 1 either way.
  std::string manyTerms;
  for (int i = 0; i < 300; ++i) manyTerms += "w" + std::to_string(i) + " ";
  const std::string queries[] = {"report",
                                 "report ext:md",
                                 "file",
                                 "fiel",
                                 "size:>1mb",
                                 "dm:2023",
                                 "caf\xc3\xa9",
                                 "name",
                                 "nothing-at-all",
                                 "/rep.*t$/",
                                 "report | notes",
                                 "!report",
                                 "type:folder",
                                 "path:old report",
                                 "report contains:x",
                                 manyTerms};
  std::vector<testing::ToolResult> direct;
  for (const std::string& text : queries) direct.push_back(search(text));
  ASSERT_EQ(direct.back().status, 1) << direct.back().err;

  ServeProcess service(home_.root().string(), {});
  ASSERT_TRUE(service.ready()) << service.err();
  for (size_t i = 0; i < std::size(queries); ++i) {
    testing::ToolResult served = search(queries[i]);
    EXPECT_EQ(testing::maskMilliseconds(served.out), testing::maskMilliseconds(direct[i].out))
        << queries[i];
    EXPECT_EQ(served.err, direct[i].err) << queries[i];
    EXPECT_EQ(served.status, direct[i].status) << queries[i];
  }
  // The service answers from memory: the file can go and searches still work.
  std::filesystem::remove(indexPath());
  EXPECT_EQ(testing::maskMilliseconds(search("report").out),
            testing::maskMilliseconds(direct[0].out));
  EXPECT_EQ(service.stop(SIGINT), 0);
  EXPECT_EQ(search("report").err,
            "No index found at " + indexPath().string() + ". Run `tvl scan` to build one.\n");
}

TEST_F(ServeCommandTest, SecondServiceOnTheSameIndexIsRefused) {
  writeIndex({{"/home/me/a.txt"}});
  ServeProcess first(home_.root().string(), {});
  ASSERT_TRUE(first.ready()) << first.err();
  testing::ToolResult second = runTool({"serve"}, home_.root().string());
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "tvl: a service is already running for " + indexPath().string() +
                            " (see `tvl status`)\n");
  EXPECT_EQ(second.out, "");
  EXPECT_TRUE(std::filesystem::exists(folder() / "tvl.sock"));
  EXPECT_EQ(runTool({"status"}, home_.root().string()).status, 0);
}

TEST_F(ServeCommandTest, StopSignalRemovesTheSocketAndFreesTheIndex) {
  writeIndex({{"/home/me/a.txt"}});
  for (int signal : {SIGTERM, SIGINT}) {
    ServeProcess service(home_.root().string(), {});
    ASSERT_TRUE(service.ready()) << service.err();
    EXPECT_EQ(std::filesystem::status(folder()).permissions(), std::filesystem::perms::owner_all);
    EXPECT_EQ(service.stop(signal), 0);
    EXPECT_FALSE(std::filesystem::exists(folder() / "tvl.sock"));
    EXPECT_EQ(service.err(), "");
  }
  // Killed outright: the lock goes with the process and the old socket is replaced.
  ServeProcess killed(home_.root().string(), {});
  ASSERT_TRUE(killed.ready());
  killed.stop(SIGKILL);
  ServeProcess next(home_.root().string(), {});
  EXPECT_TRUE(next.ready()) << next.err();
}

TEST_F(ServeCommandTest, StatusReportsTheServiceOrItsAbsence) {
  auto absent = runTool({"status"}, home_.root().string());
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.out, "No service is running for " + indexPath().string() + ".\n");
  auto absentJson = runTool({"status", "--json"}, home_.root().string());
  EXPECT_EQ(nlohmann::json::parse(absentJson.out),
            (nlohmann::json{{"running", false}, {"index", indexPath().string()}}));

  writeIndex({{"/home/me/a.txt"}, {"/home/me/b/"}});
  ServeProcess service(home_.root().string(), {});
  ASSERT_TRUE(service.ready()) << service.err();
  auto text = runTool({"status"}, home_.root().string());
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out.rfind("Service running (pid ", 0), 0u) << text.out;
  EXPECT_NE(text.out.find("  index:        " + indexPath().string() + "\n"), std::string::npos);
  EXPECT_NE(text.out.find("  entries:      5 (0 marked deleted)\n"), std::string::npos);
  EXPECT_NE(text.out.find("  roots:        /home/me\n"), std::string::npos);

  auto json = nlohmann::json::parse(runTool({"status", "--json"}, home_.root().string()).out);
  EXPECT_EQ(json["running"], true);
  EXPECT_EQ(json["entries"], 5);
  EXPECT_EQ(json["index"], indexPath().string());
  EXPECT_EQ(json["roots"], nlohmann::json::array({"/home/me"}));
  EXPECT_GT(json["residentBytes"].get<uint64_t>(), 0u);
  EXPECT_EQ(runTool({"status", "extra"}, home_.root().string()).status, 2);
}

TEST_F(ServeCommandTest, WithoutAUsableIndexTheRootIsScannedFirst) {
  TempTree tree({"docs/plan.txt", "docs/old/plan-b.txt", "music/"});
  std::filesystem::create_directories(folder());
  testing::writeFile(indexPath(), "not an index");
  ServeProcess service(home_.root().string(), {tree.root().string()});
  ASSERT_TRUE(service.ready()) << service.err();
  EXPECT_EQ(service.out().rfind("No usable index at " + indexPath().string() + "; scanning " +
                                    tree.root().string() + "\u2026\n",
                                0),
            0u)
      << service.out();
  auto found = search("plan");
  EXPECT_EQ(testing::maskMilliseconds(found.out),
            "  " + (tree / "docs/plan.txt").string() + "\n  " +
                (tree / "docs/old/plan-b.txt").string() + "\n\n2 matches in Tms (showing 2)\n");
}

// A root is scanned only when there is no usable index: a root that is not there is refused, and
// one the index does not hold is named on the way to serving the index as it is.
TEST_F(ServeCommandTest, AGivenRootMustBeAFolderAndIsNamedWhenTheIndexHoldsAnother) {
  TempTree tree({"docs/plan.txt", "file"});
  writeIndex({{"/home/me/a.txt"}});
  const struct {
    std::string root, err;
  } refused[] = {
      {(tree / "missing").string(), "tvl: " + (tree / "missing").string() + ": no such folder\n"},
      {(tree / "file").string(), "tvl: " + (tree / "file").string() + ": not a folder\n"},
  };
  for (const auto& c : refused) {
    testing::ToolResult result = runTool({"serve", c.root}, home_.root().string());
    EXPECT_EQ(result.status, 1) << c.root;
    EXPECT_EQ(result.err, c.err);
    EXPECT_EQ(result.out, "");
  }
  ServeProcess service(home_.root().string(), {(tree / "docs").string() + "/"});
  ASSERT_TRUE(service.ready()) << service.err();
  EXPECT_EQ(service.err(), "tvl: the index holds /home/me, not " + (tree / "docs").string() +
                               "/; serving it as it is (`tvl scan " + (tree / "docs").string() +
                               "/` indexes " + (tree / "docs").string() + "/)\n");
  EXPECT_EQ(testing::maskMilliseconds(search("a.txt").out),
            "  /home/me/a.txt\n\n1 matches in Tms (showing 1)\n");
}

TEST_F(ServeCommandTest, ChangesOnDiskReachSearchesAndTheIndexFile) {
  TempTree tree({"docs/gone.txt", "music/"});
  tree.add("docs/plan.txt", "the old wording");
  ASSERT_EQ(runTool({"content", (tree / "docs").string()}, home_.root().string()).status, 0);
  ServeProcess service(home_.root().string(), {"--rewrite-interval", "0", tree.root().string()});
  ASSERT_TRUE(service.ready()) << service.err();
  tree.add("docs/fresh-note.txt", "a quuxfresh idea");
  tree.add("docs/plan.txt", "the quuxnew wording");
  tree.add("music/new/album/fresh-song.mp3");
  std::filesystem::remove(tree / "docs/gone.txt");
  auto lists = [&](const std::string& query, size_t matches) {
    return search(query).out.find("\n" + std::to_string(matches) + " matches") != std::string::npos;
  };
  EXPECT_TRUE(eventually([&] { return lists("fresh", 2) && lists("gone", 0); }))
      << search("fresh").out << search("gone").out;
  // The documents were read again, and the content index written.
  auto finds = [&](const std::string& word) {
    return runTool({"find", word}, home_.root().string()).out.find("plan.txt") != std::string::npos;
  };
  EXPECT_TRUE(eventually([&] { return finds("quuxnew") && !finds("old wording"); }));
  EXPECT_NE(runTool({"find", "quuxfresh"}, home_.root().string()).out.find("fresh-note.txt"),
            std::string::npos);
  auto status = nlohmann::json::parse(runTool({"status", "--json"}, home_.root().string()).out);
  EXPECT_EQ(status["watchMode"], "inotify");
  EXPECT_GE(status["deletedEntries"].get<int>(), 1);

  ASSERT_EQ(service.stop(), 0) << service.err();
  // Without the service, the file on disk has the changes.
  EXPECT_TRUE(lists("fresh", 2) && lists("gone", 0)) << search("fresh").out;
}

TEST_F(ServeCommandTest, KilledAtAnyMomentLeavesAnIndexThatLoads) {
  TempTree tree({"base/a.txt"});
  std::atomic<bool> changing = true;
  std::thread changer([&] {
    for (int round = 0; changing; ++round) {
      std::string folder = "churn" + std::to_string(round % 4);
      for (int i = 0; i < 20; ++i) tree.add(folder + "/f" + std::to_string(i) + ".txt");
      std::filesystem::remove_all(tree / folder);
    }
  });
  std::mt19937 random(7);
  for (int kill = 0; kill < 8; ++kill) {
    SCOPED_TRACE(kill);
    ServeProcess service(home_.root().string(), {"--rewrite-interval", "0", tree.root().string()});
    ASSERT_TRUE(service.ready()) << service.err();
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 400));
    service.stop(SIGKILL);
    auto loaded = loadIndex(indexPath());
    ASSERT_TRUE(std::holds_alternative<std::shared_ptr<const IndexStore>>(loaded));
    // No temporary file is mistaken for the index; the next start goes on from the file.
  }
  changing = false;
  changer.join();
  ServeProcess last(home_.root().string(), {tree.root().string()});
  ASSERT_TRUE(last.ready()) << last.err();
  EXPECT_EQ(last.out().find("No usable index"), std::string::npos) << last.out();
}

TEST_F(ServeCommandTest, QueryThroughTheServicePrintsWhatTheDirectPathPrints) {
  std::vector<testing::FixtureEntry> entries = {{"/home/me/report.md"},
                                                {"/home/me/old/report-2023.md"},
                                                {"/home/me/raw\xff report.txt"},
                                                {"/home/me/notes.txt"}};
  for (int i = 0; i < 30; ++i) entries.push_back({"/home/me/data/report" + std::to_string(i)});
  writeIndex(entries);
  const std::vector<std::vector<std::string>> commands = {
      {"query", "report"},       {"query", "-n", "3", "report"}, {"query", "-0", "report"},
      {"query", "-c", "report"}, {"query", "-n", "0", "report"}, {"query", "nothing-here"},
      {"query", "-c", "zzz"},    {"query", "--json", "notes"},   {"query", "fiel"}};
  std::vector<testing::ToolResult> direct;
  for (const auto& words : commands) direct.push_back(runTool(words, home_.root().string()));

  ServeProcess service(home_.root().string(), {});
  ASSERT_TRUE(service.ready()) << service.err();
  for (size_t i = 0; i < commands.size(); ++i) {
    testing::ToolResult served = runTool(commands[i], home_.root().string());
    EXPECT_EQ(served.out, direct[i].out) << i;
    EXPECT_EQ(served.status, direct[i].status) << i;
  }
  // The service answers from memory: without the file, a plain query still works.
  std::filesystem::remove(indexPath());
  EXPECT_EQ(runTool({"query", "report"}, home_.root().string()).out, direct[0].out);
}

}  // namespace
}  // namespace tarvolin
