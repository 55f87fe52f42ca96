// The socket server with real connections in this process: answers equal to searching the store
// directly, the typing session of one connection, many clients at once, clients that misbehave
// (each loses its own connection and nobody else notices), the connection bound, the socket's
// mode and the same-user rule.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/Eventually.h"
#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/service/ServiceClient.h"
#include "tarvolin/service/ServiceServer.h"

namespace tarvolin {
namespace {

using namespace ServiceProtocol;
using platform::UnixSocket;
using Clock = std::chrono::steady_clock;

// A live index whose store the test replaces, as applied changes do.
class SwappableIndex : public LiveIndex {
 public:
  using LiveIndex::LiveIndex;
  using LiveIndex::publish;
};

std::vector<testing::FixtureEntry> fixtureEntries(const std::string& extra = "") {
  std::vector<testing::FixtureEntry> entries = {{"/home/me/report.md"},
                                                {"/home/me/old/report-2023.md"},
                                                {"/home/me/notes.txt"},
                                                {"/home/me/docs/"},
                                                {"/home/me/food.txt"},
                                                {"/home/me/foo/"},
                                                {"/home/me/foo/foo.c"},
                                                {"/home/me/fox.png"},
                                                {"/home/me/folder/"},
                                                {"/home/me/.config/fog.ini"},
                                                {"/home/me/big.iso", 5'000'000, 1'700'000'000}};
  for (int i = 0; i < 40; ++i) entries.push_back({"/data/file" + std::to_string(i) + ".txt"});
  if (!extra.empty()) entries.push_back({extra});
  return entries;
}

SearchAnswer directSearch(const std::shared_ptr<const IndexStore>& store, const std::string& text,
                          int64_t limit, const std::string& indexPath) {
  Query query = QueryParser::parse(text);
  Matcher matcher(store);
  std::vector<Match> matches = matcher.matchWithFuzzyFallback(query);
  Ranker ranker(store);
  PathResolver resolver(store);
  SearchAnswer answer;
  answer.total = static_cast<int64_t>(matches.size());
  for (const RankedResult& result : ranker.rank(matches, limit)) {
    answer.paths.push_back(resolver.absolutePath(result.match.id));
  }
  if (query.requiresAttributes()) answer.warning = AttributeWarning::partialAttributes;
  answer.indexPath = indexPath;
  return answer;
}

// The search answer of `answer`, with the time zeroed for comparison.
SearchAnswer searched(const std::optional<Answer>& answer) {
  EXPECT_TRUE(answer && std::holds_alternative<SearchAnswer>(*answer));
  if (!answer || !std::holds_alternative<SearchAnswer>(*answer)) return {};
  SearchAnswer found = std::get<SearchAnswer>(*answer);
  found.elapsedMs = 0;
  return found;
}

using testing::eventually;

class ServiceServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = testing::writeAndLoad(testing::buildTree(fixtureEntries()), indexPath());
    index_ = std::make_unique<SwappableIndex>(indexPath(), store_);
  }
  void start(ServiceServer::Limits limits = {}) {
    server_ = std::make_unique<ServiceServer>(socketPath(), *index_, limits);
  }
  std::filesystem::path indexPath() const { return folder_ / "index.bin"; }
  std::filesystem::path socketPath() const { return folder_ / "tvl.sock"; }
  ServiceClient client() {
    auto connected = ServiceClient::connect(socketPath());
    EXPECT_TRUE(connected.has_value());
    return std::move(*connected);
  }
  UnixSocket raw() { return std::move(*UnixSocket::connect(socketPath())); }

  // Reads one answer frame from a raw connection.
  static std::optional<Answer> readAnswer(const UnixSocket& socket) {
    std::vector<uint8_t> bytes;
    uint8_t chunk[4096];
    while (bytes.size() < 4 ||
           bytes.size() < 4 + frameLength(std::span<const uint8_t, 4>(bytes.data(), 4))) {
      size_t got = 0;
      if (socket.receiveSome(chunk, 5000, got) != UnixSocket::Received::data) return std::nullopt;
      bytes.insert(bytes.end(), chunk, chunk + got);
    }
    return decodeAnswer(std::span(bytes).subspan(4));
  }
  static bool closedByPeer(const UnixSocket& socket, int timeoutMs = 5000) {
    uint8_t byte;
    size_t got = 0;
    return socket.receiveSome({&byte, 1}, timeoutMs, got) == UnixSocket::Received::closed;
  }
  static void send(const UnixSocket& socket, const std::vector<uint8_t>& bytes) {
    ASSERT_TRUE(socket.sendAll(bytes, 1000));
  }
  void expectServiceAnswers() {
    auto answer = client().ask(SearchRequest{"report", false, 20});
    EXPECT_EQ(searched(answer), directSearch(store_, "report", 20, indexPath().string()));
  }

  testing::TempTree folder_;
  std::shared_ptr<const IndexStore> store_;
  std::unique_ptr<SwappableIndex> index_;
  std::unique_ptr<ServiceServer> server_;
};

TEST_F(ServiceServerTest, AnswersEqualSearchingTheStoreDirectly) {
  start();
  ServiceClient connection = client();
  const char* queries[] = {"report",       "report ext:md", "foo",         "fo",
                           "file",         "fxo",           "zzz-nothing", "size:>1mb",
                           "/rep.*\\.md/", "path:old",      "a | b",       ""};
  for (const char* text : queries) {
    for (int64_t limit : {1, 20, 10000}) {
      EXPECT_EQ(searched(connection.ask(SearchRequest{text, false, limit})),
                directSearch(store_, text, limit, indexPath().string()))
          << text << " limit " << limit;
    }
  }
  auto content = connection.ask(SearchRequest{"report contains:x", false, 20});
  ASSERT_TRUE(content && std::holds_alternative<ErrorAnswer>(*content));
  EXPECT_TRUE(std::get<ErrorAnswer>(*content).useDirect);
}

TEST_F(ServiceServerTest, QueryTheMatcherRefusesFailsAsItWouldDirectly) {
  start();
  std::string tooMany;
  for (int i = 0; i <= static_cast<int>(Matcher::maxTerms); ++i) {
    tooMany += "t" + std::to_string(i) + " ";
  }
  std::string message;
  try {
    Matcher(store_).match(QueryParser::parse(tooMany));
  } catch (const std::length_error& error) {
    message = error.what();
  }
  ASSERT_FALSE(message.empty());
  ServiceClient connection = client();
  for (bool keystroke : {false, true}) {
    SCOPED_TRACE(keystroke);
    auto answer = connection.ask(SearchRequest{tooMany, keystroke, 20});
    ASSERT_TRUE(answer && std::holds_alternative<ErrorAnswer>(*answer));
    EXPECT_EQ(std::get<ErrorAnswer>(*answer), (ErrorAnswer{message, false, true}));
    // The connection and its typing run go on.
    EXPECT_EQ(searched(connection.ask(SearchRequest{"report", keystroke, 20})),
              directSearch(store_, "report", 20, indexPath().string()));
  }
}

TEST_F(ServiceServerTest, KeystrokesOfOneConnectionFollowTheTypingRun) {
  start();
  ServiceClient typing = client();
  for (const char* text : {"f", "fo", "foo", "fo", "food"}) {
    SearchAnswer keystroke = searched(typing.ask(SearchRequest{text, true, 50}));
    SearchAnswer whole = directSearch(store_, text, 50, indexPath().string());
    EXPECT_EQ(keystroke.total, whole.total) << text;
    EXPECT_EQ(keystroke.paths, whole.paths) << text;
  }
  // A newer store: the next keystroke searches it, not the remembered levels.
  auto newer = testing::writeAndLoad(testing::buildTree(fixtureEntries("/home/me/food-new.txt")),
                                     folder_ / "newer.bin");
  index_->publish(newer);
  SearchAnswer after = searched(typing.ask(SearchRequest{"food", true, 50}));
  EXPECT_EQ(after.paths, directSearch(newer, "food", 50, indexPath().string()).paths);
  EXPECT_EQ(after.total, 2);
}

TEST_F(ServiceServerTest, StatusDescribesTheIndexAndTheConnections) {
  start();
  ServiceClient first = client();
  ServiceClient second = client();
  auto answer = second.ask(StatusRequest{});
  ASSERT_TRUE(answer && std::holds_alternative<StatusAnswer>(*answer));
  const auto& status = std::get<StatusAnswer>(*answer);
  EXPECT_EQ(status.indexPath, indexPath().string());
  EXPECT_EQ(status.processID, platform::processID());
  EXPECT_EQ(status.entries, store_->count());
  EXPECT_EQ(status.indexFileBytes, store_->mappedLength());
  EXPECT_EQ(status.roots, std::vector<std::string>{"/"});
  EXPECT_GT(status.residentBytes, 0u);
  EXPECT_EQ(status.connections, 2);
}

TEST_F(ServiceServerTest, MisbehavingClientsLoseOnlyTheirOwnConnection) {
  ServiceServer::Limits limits;
  limits.requestTimeoutMs = 200;
  start(limits);
  auto bytes = [](const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
  };
  struct Case {
    const char* name;
    std::vector<uint8_t> sent;
    std::optional<std::string> error;  // the error answer expected before the connection ends
  };
  const Case cases[] = {
      {"garbage", bytes("GET / HTTP/1.1\r\n\r\n"), "malformed request"},
      {"huge length", {0xff, 0xff, 0xff, 0xff, '{'}, "malformed request"},
      {"just over the bound", frame(std::vector<uint8_t>(maxRequestBytes + 1, ' ')),
       "malformed request"},
      {"empty frame", {0, 0, 0, 0}, "malformed request"},
      {"not JSON", frame(bytes("{\"v\":1,")), "malformed request"},
      {"newer version", frame(bytes(R"({"v":9,"op":"search","text":"x"})")),
       "unsupported protocol version"},
      {"unknown operation", frame(bytes(R"({"v":1,"op":"shutdown"})")), "unknown operation"},
      {"half a request", std::vector<uint8_t>{100, 0, 0, 0, '{', '"'}, std::nullopt},
      {"half a header", std::vector<uint8_t>{100, 0}, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    UnixSocket socket = raw();
    send(socket, c.sent);
    if (c.error) {
      auto answer = readAnswer(socket);
      ASSERT_TRUE(answer && std::holds_alternative<ErrorAnswer>(*answer));
      EXPECT_EQ(std::get<ErrorAnswer>(*answer).error, *c.error);
    }
    EXPECT_TRUE(closedByPeer(socket));
    expectServiceAnswers();
  }
  // Gone before its answer is written: a large answer to a request sent just before leaving.
  for (int i = 0; i < 20; ++i) {
    UnixSocket socket = raw();
    send(socket, frame(encodeRequest(SearchRequest{"e", false, 10000})));
  }
  expectServiceAnswers();
  EXPECT_TRUE(eventually([&] { return server_->connectionCount() == 0; }));
}

TEST_F(ServiceServerTest, StalledClientDoesNotHoldUpOthers) {
  start();  // a begun request may take 5 s to complete
  UnixSocket stalled = raw();
  send(stalled, {50, 0, 0, 0, '{'});
  UnixSocket silent = raw();  // connected, never sends
  auto began = Clock::now();
  expectServiceAnswers();
  EXPECT_LT(Clock::now() - began, std::chrono::seconds(2));
  // The answering client's thread may not have ended yet; the two stalled ones stay.
  EXPECT_TRUE(eventually([&] { return server_->connectionCount() == 2; }));
}

TEST_F(ServiceServerTest, ManyClientsAtOnceGetTheirOwnAnswers) {
  start();
  const char* queries[] = {"report", "foo", "file", "ext:md", "fxo"};
  std::vector<SearchAnswer> expected;
  for (const char* text : queries) {
    expected.push_back(directSearch(store_, text, 20, indexPath().string()));
  }
  std::atomic<int> wrong = 0;
  std::vector<std::thread> clients;
  for (int t = 0; t < 16; ++t) {
    clients.emplace_back([&, t] {
      auto connection = ServiceClient::connect(socketPath());
      if (!connection) {
        ++wrong;
        return;
      }
      for (int i = 0; i < 40; ++i) {
        size_t which = static_cast<size_t>(t + i) % std::size(queries);
        auto answer = connection->ask(SearchRequest{queries[which], false, 20});
        if (!answer || !std::holds_alternative<SearchAnswer>(*answer)) {
          ++wrong;
          continue;
        }
        SearchAnswer found = std::get<SearchAnswer>(*answer);
        found.elapsedMs = 0;
        if (!(found == expected[which])) ++wrong;
      }
    });
  }
  for (std::thread& thread : clients) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(ServiceServerTest, ConnectionsBeyondTheBoundAreRefusedUntilOneLeaves) {
  ServiceServer::Limits limits;
  limits.maxConnections = 2;
  start(limits);
  std::optional<ServiceClient> first = client();
  ServiceClient second = client();
  ASSERT_TRUE(first->ask(StatusRequest{}).has_value());
  ASSERT_TRUE(second.ask(StatusRequest{}).has_value());
  EXPECT_FALSE(client().ask(StatusRequest{}).has_value());
  first.reset();
  ASSERT_TRUE(eventually([&] { return server_->connectionCount() == 1; }));
  EXPECT_TRUE(client().ask(StatusRequest{}).has_value());
}

TEST_F(ServiceServerTest, SocketIsTheOwnersAloneAndGoesWithTheServer) {
  start();
  auto status = std::filesystem::symlink_status(socketPath());
  EXPECT_EQ(status.type(), std::filesystem::file_type::socket);
  EXPECT_EQ(status.permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  server_.reset();
  EXPECT_FALSE(std::filesystem::exists(socketPath()));
  EXPECT_FALSE(ServiceClient::connect(socketPath()).has_value());
}

TEST_F(ServiceServerTest, PeerCredentialsNameThisProcessAndOnlyItsUserIsServed) {
  platform::StopEvent stop;
  UnixSocket listener = UnixSocket::listen(folder_ / "peer.sock", 4);
  UnixSocket outgoing = std::move(*UnixSocket::connect(folder_ / "peer.sock"));
  std::optional<UnixSocket> incoming = listener.accept(stop);
  ASSERT_TRUE(incoming.has_value());
  platform::PeerCredentials peer = incoming->peerCredentials();
  EXPECT_EQ(peer, (platform::PeerCredentials{platform::processID(), ::getuid(), ::getgid()}));
  EXPECT_TRUE(platform::isSameUser(peer, platform::currentUserID()));
  EXPECT_FALSE(platform::isSameUser(peer, platform::currentUserID() + 1));
  EXPECT_FALSE(platform::isSameUser({peer.processID, 0, 0}, 1000));
  stop.signal();
  EXPECT_FALSE(listener.accept(stop).has_value());
}

}  // namespace
}  // namespace tarvolin
