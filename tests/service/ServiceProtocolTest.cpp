// The wire format: which request payloads are accepted and why the others are refused, answers
// that survive encoding with names that are not UTF-8, truncated answers refused, and the
// little-endian frame header.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <variant>
#include <vector>

#include "tarvolin/service/ServiceProtocol.h"

namespace tarvolin {
namespace {

using namespace ServiceProtocol;

std::vector<uint8_t> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

std::variant<Request, RequestError> decode(const std::string& text) {
  return decodeRequest(bytesOf(text));
}

TEST(ServiceProtocolTest, RequestsAreAcceptedOrRefusedForTheirReason) {
  struct Case {
    std::string payload;
    std::variant<Request, RequestError> expected;
  };
  const Case cases[] = {
      {R"({"v":1,"op":"search","text":"report ext:md"})",
       SearchRequest{"report ext:md", false, 20}},
      {R"({"v":1,"op":"search","text":"fo","keystroke":true,"limit":5})",
       SearchRequest{"fo", true, 5}},
      {R"({"op":"search","limit":10000,"v":1,"text":"","later":[1,2]})",
       SearchRequest{"", false, 10000}},
      {R"({"v":1,"op":"status"})", StatusRequest{}},
      {R"({"v":1,"op":"status","text":7})", StatusRequest{}},
      {"", RequestError::malformed},
      {"null", RequestError::malformed},
      {"[1]", RequestError::malformed},
      {R"({"v":1,"op":"search","text":"x")", RequestError::malformed},
      {R"({"op":"search","text":"x"})", RequestError::malformed},
      {R"({"v":"1","op":"search","text":"x"})", RequestError::malformed},
      {R"({"v":-1,"op":"search","text":"x"})", RequestError::unsupportedVersion},
      {R"({"v":2,"op":"search","text":"x"})", RequestError::unsupportedVersion},
      {R"({"v":1,"op":"delete"})", RequestError::unknownOperation},
      {R"({"v":1,"op":3})", RequestError::malformed},
      {R"({"v":1,"op":"search"})", RequestError::malformed},
      {R"({"v":1,"op":"search","text":5})", RequestError::malformed},
      {R"({"v":1,"op":"search","text":"x","keystroke":1})", RequestError::malformed},
      {R"({"v":1,"op":"search","text":"x","limit":0})", RequestError::malformed},
      {R"({"v":1,"op":"search","text":"x","limit":10001})", RequestError::malformed},
      {R"({"v":1,"op":"search","text":"x","limit":2.5})", RequestError::malformed},
      {R"({"v":1,"op":"search","text":"x","limit":18446744073709551615})", RequestError::malformed},
      {"{\"v\":1,\"op\":\"search\",\"text\":\"\xff\xfe\"}", RequestError::malformed},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(decode(c.payload), c.expected) << c.payload;
  }
}

TEST(ServiceProtocolTest, RequestsOverTheBoundAreRefusedUnread) {
  std::string text(maxRequestBytes, 'a');
  std::string payload = R"({"v":1,"op":"search","text":")" + text + "\"}";
  EXPECT_EQ(decode(payload), (std::variant<Request, RequestError>(RequestError::malformed)));
  std::string fits =
      R"({"v":1,"op":"search","text":")" + text.substr(0, maxRequestBytes - 64) + "\"}";
  EXPECT_TRUE(std::holds_alternative<Request>(decode(fits)));
}

TEST(ServiceProtocolTest, EncodedRequestsDecodeToThemselves) {
  const Request requests[] = {SearchRequest{"a \"quoted\" \\ text\n", true, 1},
                              SearchRequest{"gr\xc3\xbc\xc3\x9f", false, 10000}, StatusRequest{}};
  for (const Request& request : requests) {
    EXPECT_EQ(decodeRequest(encodeRequest(request)),
              (std::variant<Request, RequestError>(request)));
  }
  // Text that is not UTF-8 is sent with replacement characters rather than refused.
  auto decoded = decodeRequest(encodeRequest(SearchRequest{"a\xff", false, 20}));
  ASSERT_TRUE(std::holds_alternative<Request>(decoded));
  EXPECT_EQ(std::get<SearchRequest>(std::get<Request>(decoded)).text, "a\xef\xbf\xbd");
}

TEST(ServiceProtocolTest, AnswersKeepRawBytesAndRefuseTruncation) {
  StatusAnswer status;
  status.indexPath = "/home/me/index.bin";
  status.processID = 42;
  status.entries = 5'000'000'000ULL;
  status.deletedEntries = 3;
  status.indexFileBytes = 1 << 30;
  status.residentBytes = 123456789;
  status.startedAt = 1'700'000'000;
  status.lastChangeAt = 1'700'000'100;
  status.watchMode = "inotify";
  status.roots = {"/home/me", "/data"};
  status.unwatched = {"/data/huge"};
  status.connections = 7;
  const Answer answers[] = {
      SearchAnswer{25,
                   1.25,
                   AttributeWarning::partialAttributes,
                   {"/a/caf\xe9.txt", "/b/\xff\xfe", ""},
                   "/i.bin"},
      SearchAnswer{0, 0, AttributeWarning::none, {}, ""},
      status,
      ErrorAnswer{"content search is done by the client", true},
      ErrorAnswer{"the query has 300 different terms", false, true},
  };
  for (const Answer& answer : answers) {
    std::vector<uint8_t> payload = encodeAnswer(answer);
    EXPECT_EQ(decodeAnswer(payload), answer);
    for (size_t cut = 0; cut < payload.size(); ++cut) {
      EXPECT_FALSE(decodeAnswer(std::span(payload).first(cut)).has_value()) << cut;
    }
  }
}

TEST(ServiceProtocolTest, HostileAnswersAreRefusedWithoutThrowingOrDeepRecursion) {
  std::vector<uint8_t> valid = encodeAnswer(ErrorAnswer{"x", false, false});
  struct Case {
    const char* name;
    std::vector<uint8_t> payload;
  };
  std::vector<uint8_t> deep(100'000, 0x81);  // arrays of one array of one ...
  deep.push_back(0x00);
  const Case cases[] = {
      // An array announcing 2^64-1 elements (more than any container can hold).
      {"huge array", {0x9b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe, 0x00}},
      {"huge map", {0xbb, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x61, 'v'}},
      {"more elements than bytes", {0x9a, 0x00, 0x01, 0x00, 0x00, 0x00}},
      {"deep nesting", deep},
      {"tagged", {0xc1, 0x00}},
      {"trailing bytes",
       [&] {
         std::vector<uint8_t> longer = valid;
         longer.push_back(0x00);
         return longer;
       }()},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(decodeAnswer(c.payload).has_value()) << c.name;
  }
  // The failure flag must be a boolean when present.
  std::vector<uint8_t> failed = encodeAnswer(ErrorAnswer{"x", false, true});
  EXPECT_TRUE(decodeAnswer(failed).has_value());
  auto at = std::search(failed.begin(), failed.end(), std::begin("failed"), std::end("failed") - 1);
  ASSERT_NE(at, failed.end());
  *(at + 6) = 0x01;  // true (0xf5) becomes the integer 1
  EXPECT_FALSE(decodeAnswer(failed).has_value());
}

TEST(ServiceProtocolTest, FrameHeaderIsLittleEndianLength) {
  std::vector<uint8_t> payload(0x010203, 'x');
  std::vector<uint8_t> framed = frame(payload);
  ASSERT_EQ(framed.size(), payload.size() + 4);
  EXPECT_EQ((std::vector<uint8_t>(framed.begin(), framed.begin() + 4)),
            (std::vector<uint8_t>{0x03, 0x02, 0x01, 0x00}));
  EXPECT_EQ(frameLength(std::span<const uint8_t, 4>(framed.data(), 4)), 0x010203u);
  const uint8_t top[4] = {0xff, 0xff, 0xff, 0xff};
  EXPECT_EQ(frameLength(top), 0xffffffffu);
}

}  // namespace
}  // namespace tarvolin
