// tvl pick driven in a real terminal: tmux runs it in a detached pane, types with send-keys and
// reads the screen with capture-pane. Every wait polls the pane or a file with a deadline.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "support/Eventually.h"
#include "support/IndexFixture.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using namespace std::chrono_literals;
using testing::readFile;
using testing::runProgram;
using testing::TempTree;

constexpr const char* kTmux = "/usr/bin/tmux";

// `word` quoted for the shell.
std::string quoted(const std::string& word) {
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Starts a detached tmux session running `command` on its own server, and waits for the client.
// The server lives on after the client: it must inherit no descriptor of this process (a pipe
// another helper reads to its end would never end), so the child closes every one first.
void startTmux(const std::string& socket, int width, int height, const std::string& command) {
  // -u: the pane speaks UTF-8 whatever the test's locale.
  std::vector<std::string> words = {kTmux,         "-u",
                                    "-L",          socket,
                                    "-f",          "/dev/null",
                                    "new-session", "-d",
                                    "-x",          std::to_string(width),
                                    "-y",          std::to_string(height),
                                    command};
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    close_range(3, ~0u, 0);
    execv(kTmux, argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

using testing::eventually;

// One tmux server of its own (its own socket) running one pane with tvl pick. The pane's shell
// records the terminal settings before and after, the exit status, and tvl's process id.
class PickPane {
 public:
  PickPane(const TempTree& home, const std::string& arguments, int width = 100, int height = 30)
      : dir_(home.root()) {
    static int sessions = 0;
    socket_ = "tvl-pick-" + std::to_string(getpid()) + "-" + std::to_string(++sessions);
    // A second pane of a test shares the folder: what an earlier one left must not be read as
    // this pane's status or output.
    for (const char* name : {"status", "status.tmp", "out", "pid", "before", "after"}) {
      std::filesystem::remove(dir_ / name);
    }
    testing::writeFile(dir_ / "pick.sh", "stty -a > '" + path("before") +
                                             "'\n"
                                             "HOME='" +
                                             dir_.string() + "' '" TVL_PATH "' pick " + arguments +
                                             " > '" + path("out") +
                                             "' &\n"
                                             "echo $! > '" +
                                             path("pid") +
                                             "'\n"
                                             "wait $!\n"
                                             "echo $? > '" +
                                             path("status.tmp") +
                                             "'\n"
                                             "stty -a > '" +
                                             path("after") +
                                             "'\n"
                                             "mv '" +
                                             path("status.tmp") + "' '" + path("status") +
                                             "'\n"
                                             "sleep 60\n");
    startTmux(socket_, width, height, "sh " + quoted(path("pick.sh")));
  }
  ~PickPane() { tmux({"kill-server"}); }

  testing::ToolResult tmux(std::vector<std::string> args) const {
    args.insert(args.begin(), {"-L", socket_, "-f", "/dev/null"});
    return runProgram(kTmux, args);
  }
  std::string screen() const { return tmux({"capture-pane", "-p", "-t", "0"}).out; }
  bool shows(const std::string& text) const {
    return eventually([&] { return screen().find(text) != std::string::npos; });
  }
  bool hides(const std::string& text) const {
    return eventually([&] { return screen().find(text) == std::string::npos; });
  }
  void type(const std::string& text) const { tmux({"send-keys", "-t", "0", "-l", text}); }
  void press(const std::string& key) const { tmux({"send-keys", "-t", "0", key}); }

  /// tvl's exit status once it has ended, or -1.
  int status() const {
    if (!eventually([&] { return std::filesystem::exists(path("status")); })) return -1;
    return std::stoi(readFile(path("status")));
  }
  std::string out() const { return readFile(path("out")); }
  std::string file(const std::string& name) const { return readFile(path(name)); }
  int pid() const {
    eventually([&] { return !readFile(path("pid")).empty(); });
    return std::stoi(readFile(path("pid")));
  }

 private:
  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  std::filesystem::path dir_;
  std::string socket_;
};

class PickCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kTmux)) GTEST_SKIP() << "tmux is not installed";
    IndexWriter::write(
        testing::buildTree({{"/w/report.txt", 1536, 1'700'000'000},
                            {"/w/old/report-2023.md", 10, 1'600'000'000},
                            {"/w/repo.c", 3, 1'700'000'000},
                            {"/w/notes.txt", 99, 1'700'000'000},
                            {"/w/deep/" + std::string(40, 'd') + "/target.log", 1, 1'700'000'000},
                            {"/w/bad\xff"
                             "name\x01.dat",
                             1, 1'700'000'000}}),
        {{"local", "/", 0, true}}, home_ / "Library/Application Support/Tarvolin/index.bin");
  }
  TempTree home_;
};

TEST_F(PickCommandTest, TypingNarrowsAndBackspaceRestores) {
  PickPane pane(home_, "");
  ASSERT_TRUE(pane.shows("0 matches"));
  pane.type("rep");
  ASSERT_TRUE(pane.shows("3 matches"));
  EXPECT_TRUE(pane.shows("/w/repo.c"));
  pane.type("or");
  ASSERT_TRUE(pane.shows("2 matches"));
  EXPECT_TRUE(pane.hides("/w/repo.c"));
  EXPECT_NE(pane.screen().find("/w/report.txt"), std::string::npos);
  pane.press("BSpace");
  pane.press("BSpace");
  EXPECT_TRUE(pane.shows("3 matches"));
  EXPECT_TRUE(pane.shows("/w/repo.c"));
  pane.press("Escape");
  EXPECT_EQ(pane.status(), 1);
  EXPECT_EQ(pane.out(), "");
}

TEST_F(PickCommandTest, EnterPrintsTheSelectedPathRaw) {
  PickPane pane(home_, "notes");
  ASSERT_TRUE(pane.shows("1 match"));
  EXPECT_TRUE(pane.shows("99 B"));
  pane.press("Enter");
  EXPECT_EQ(pane.status(), 0);
  EXPECT_EQ(pane.out(), "/w/notes.txt\n");

  // A control character is escaped on screen and printed raw. (The index keeps names as valid
  // UTF-8: the invalid byte was stored as U+FFFD, which is shown as it is.)
  PickPane odd(home_, "name");
  ASSERT_TRUE(odd.shows("bad\uFFFDname\\x01.dat")) << odd.screen();
  odd.press("Enter");
  EXPECT_EQ(odd.status(), 0);
  EXPECT_EQ(odd.out(),
            "/w/bad\uFFFD"
            "name\x01.dat\n");
}

TEST_F(PickCommandTest, TabMarksSeveralAndEnterPrintsThemAll) {
  PickPane pane(home_, "-0 report");
  ASSERT_TRUE(pane.shows("2 matches"));
  pane.press("Tab");
  ASSERT_TRUE(pane.shows("1 marked"));
  pane.press("Tab");
  ASSERT_TRUE(pane.shows("2 marked"));
  pane.press("Enter");
  EXPECT_EQ(pane.status(), 0);
  std::string out = pane.out();
  const std::string first = std::string("/w/report.txt") + '\0';
  const std::string second = std::string("/w/old/report-2023.md") + '\0';
  EXPECT_TRUE(out == first + second || out == second + first) << out;
}

TEST_F(PickCommandTest, EscAndCtrlCExitOneWithNothingPrinted) {
  for (const char* key : {"Escape", "C-c"}) {
    PickPane pane(home_, "report");
    ASSERT_TRUE(pane.shows("2 matches"));
    pane.press(key);
    EXPECT_EQ(pane.status(), 1) << key;
    EXPECT_EQ(pane.out(), "") << key;
  }
}

TEST_F(PickCommandTest, ResizeRedrawsAndCutsLongPaths) {
  PickPane pane(home_, "target");
  ASSERT_TRUE(pane.shows("1 match"));
  ASSERT_TRUE(pane.shows(std::string(40, 'd') + "/target.log"));
  pane.tmux({"resize-window", "-t", "0", "-x", "40", "-y", "12"});
  EXPECT_TRUE(pane.shows("\u2026"));
  EXPECT_TRUE(pane.shows("/target.log"));
  EXPECT_TRUE(pane.hides(std::string(40, 'd')));
  pane.press("Enter");
  EXPECT_EQ(pane.status(), 0);
  EXPECT_EQ(pane.out(), "/w/deep/" + std::string(40, 'd') + "/target.log\n");
}

TEST_F(PickCommandTest, TerminalIsRestoredAfterSigterm) {
  PickPane pane(home_, "report");
  ASSERT_TRUE(pane.shows("2 matches"));
  ASSERT_EQ(::kill(pane.pid(), SIGTERM), 0);
  EXPECT_EQ(pane.status(), 128 + SIGTERM);
  EXPECT_EQ(pane.out(), "");
  EXPECT_FALSE(pane.file("before").empty());
  EXPECT_EQ(pane.file("after"), pane.file("before"));
}

// Ctrl-T in each shell opens the picker and puts the chosen path on the command line.
TEST_F(PickCommandTest, ShellKeyBindingsInsertThePickedPath) {
  const std::filesystem::path bindings =
      std::filesystem::path(__FILE__).parent_path() / "../../completions";
  const std::string toolDir = std::filesystem::path(TVL_PATH).parent_path().string();
  struct Shell {
    std::string program;
    std::string command;
    std::string file;
  };
  const Shell shells[] = {{"/bin/bash", "bash --norc --noprofile -i", "key-bindings.bash"},
                          {"/bin/zsh", "zsh -f -i", "key-bindings.zsh"},
                          {"/usr/bin/fish", "fish --no-config -i", "key-bindings.fish"}};
  for (const Shell& shell : shells) {
    if (!std::filesystem::exists(shell.program)) continue;
    SCOPED_TRACE(shell.program);
    std::string session = "tvl-keys-" + std::to_string(getpid()) + "-" + shell.file;
    auto tmux = [&](std::vector<std::string> args) {
      args.insert(args.begin(), {"-L", session, "-f", "/dev/null"});
      return runProgram(kTmux, args);
    };
    auto screen = [&] { return tmux({"capture-pane", "-p", "-t", "0"}).out; };
    auto shows = [&](const std::string& text) {
      return eventually([&] { return screen().find(text) != std::string::npos; });
    };
    startTmux(session, 100, 30,
              "env -i HOME=" + quoted(home_.root().string()) +
                  " PATH=" + quoted(toolDir + ":/usr/bin:/bin") + " TERM=screen " + shell.command);
    tmux({"send-keys", "-t", "0", "-l",
          "source '" + (bindings / shell.file).lexically_normal().string() + "'; echo sourced"});
    tmux({"send-keys", "-t", "0", "Enter"});
    EXPECT_TRUE(shows("\nsourced"));
    tmux({"send-keys", "-t", "0", "C-t"});
    EXPECT_TRUE(shows("0 matches")) << screen();
    tmux({"send-keys", "-t", "0", "-l", "notes"});
    EXPECT_TRUE(shows("1 match "));
    tmux({"send-keys", "-t", "0", "Enter"});
    EXPECT_TRUE(eventually([&] {
      std::string text = screen();
      return text.find("/w/notes.txt") != std::string::npos &&
             text.find("1 match ") == std::string::npos;
    })) << screen();
    tmux({"kill-server"});
  }
}

}  // namespace
}  // namespace tarvolin
