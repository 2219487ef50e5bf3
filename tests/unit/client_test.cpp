// The client library and orvelctl's text: what it reads from the helper and
// what it writes for it and for people.
#include <gtest/gtest.h>

#include "client/answer_text.h"
#include "client/http_exchange.h"
#include "client/urltest_request.h"
#include "orvelctl/console_text.h"
#include "urltest/urltest_body.h"

namespace orvel::client {
namespace {

TEST(ReadWholeAnswer, TakesTheHelpersAnswersAndRefusesOthers) {
  struct Case {
    std::string_view raw;
    bool good;
    int status;
    std::string_view body;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\n"
       "Connection: close\r\n\r\npongEXTRA",
       true, 200, "pong"},
      {"HTTP/1.1 403 Forbidden\r\ncontent-length:  9 \r\n\r\nforbidden", true, 403, "forbidden"},
      // The URL test stream has no length: the body runs to the close.
      {"HTTP/1.1 200 OK\r\nContent-Type: application/x-ndjson\r\n\r\n{\"a\":1}\n", true, 200,
       "{\"a\":1}\n"},
      {"HTTP/1.0 404\r\n\r\n", true, 404, ""},
      {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\npong", false, 0, ""},   // cut short
      {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n", false, 0, ""},           // no blank line
      {"HTTP/1.1 200 OK\r\nContent-Length: +4\r\n\r\npong", false, 0, ""},  // not digits
      {"HTTP/1.1 200 OK\r\nNoColon\r\n\r\n", false, 0, ""},
      {"HTTP/2 200 OK\r\n\r\n", false, 0, ""},
      {"SSH-2.0-OpenSSH_9.2\r\n\r\n", false, 0, ""},
  };
  for (const Case& c : cases) {
    HttpAnswer answer;
    EXPECT_EQ(ReadWholeAnswer(c.raw, answer), c.good) << c.raw;
    if (!c.good) continue;
    EXPECT_EQ(answer.status, c.status) << c.raw;
    EXPECT_EQ(answer.body, c.body) << c.raw;
  }
  HttpAnswer answer;
  std::size_t headBytes = 0;
  EXPECT_EQ(ReadAnswerHead(std::string(kMaxAnswerHeadBytes, 'x'), answer, headBytes),
            HeadState::kMalformed);
}

TEST(BuildHttpRequest, SendsHostAndLength) {
  ClientAddress address;
  std::string error;
  ASSERT_TRUE(ParseAddress("localhost:17891", address, error));
  EXPECT_EQ(BuildHttpRequest("POST", "/stop", "", address),
            "POST /stop HTTP/1.1\r\nHost: localhost:17891\r\nUser-Agent: orvelctl\r\n"
            "Connection: close\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(BuildHttpRequest("GET", "/ping", "", address),
            "GET /ping HTTP/1.1\r\nHost: localhost:17891\r\nUser-Agent: orvelctl\r\n"
            "Connection: close\r\n\r\n");
  for (std::string_view bad :
       {"127.0.0.1", "127.0.0.1:0", "127.0.0.1:65536", "::1:80", ":80", "[::1]x:80", "h:8o"}) {
    EXPECT_FALSE(ParseAddress(bad, address, error)) << bad;
  }
  ASSERT_TRUE(ParseAddress("[::1]:65535", address, error));
  EXPECT_EQ(address.host, "::1");
  EXPECT_EQ(address.port, 65535);
}

TEST(AnswerText, ReadsTheHelpersShapesWithAnyBytesInStrings) {
  StatusAnswer status;
  // A core's coloured output reaches the message with its raw escape byte.
  ASSERT_TRUE(
      ParseStatusBody("{\"status\":\"disconnected\",\"platform\":\"windows\",\"message\":"
                      "\"a\\\"b\\\\c\\n\x1b[31m\"}",
                      status));
  EXPECT_EQ(status.status, "disconnected");
  EXPECT_EQ(status.message, "a\"b\\c\n\x1b[31m");
  EXPECT_FALSE(ParseStatusBody("{\"status\":\"connected\"}", status));
  EXPECT_FALSE(
      ParseStatusBody("{\"status\":\"x\",\"platform\":\"windows\",\"message\":\"m\"} ", status));

  struct Case {
    std::string_view line;
    bool good;
    std::string_view tag;
    std::int64_t delay;
  } cases[] = {
      {R"({"nodeTag":"hk-01","delayMs":412})", true, "hk-01", 412},
      {"{\"nodeTag\":\"\xE6\x9D\xB1\\u4eac\\\"\t\",\"delayMs\":0}", true,
       "\xE6\x9D\xB1\xE4\xBA\xAC\"\t", 0},
      {R"({"nodeTag":"x","delayMs":-5})", true, "x", -5},
      {R"({"nodeTag":"x","delayMs":})", false, "", 0},
      {R"({"nodeTag":"x","delayMs":5)", false, "", 0},
      {R"({"nodeTag":"x\q","delayMs":5})", false, "", 0},
      {R"({"delayMs":5,"nodeTag":"x"})", false, "", 0},
  };
  for (const Case& c : cases) {
    UrlTestResult result;
    EXPECT_EQ(ParseUrlTestResultLine(c.line, result), c.good) << c.line;
    if (!c.good) continue;
    EXPECT_EQ(result.nodeTag, c.tag);
    EXPECT_EQ(result.delayMs, c.delay);
  }
}

TEST(FeedLines, SameLinesWhateverTheChunks) {
  const std::string stream = "{\"a\":1}\n\n{\"b\":2}\n{\"c\"";
  for (std::size_t split = 0; split <= stream.size(); ++split) {
    LineReader reader;
    std::vector<std::string> lines;
    ASSERT_TRUE(FeedLines(reader, std::string_view(stream).substr(0, split), lines));
    ASSERT_TRUE(FeedLines(reader, std::string_view(stream).substr(split), lines));
    EXPECT_EQ(lines, (std::vector<std::string>{"{\"a\":1}", "", "{\"b\":2}"})) << split;
    EXPECT_EQ(reader.pending, "{\"c\"");
  }
  LineReader small{.pending = {}, .maxLineBytes = 4};
  std::vector<std::string> lines;
  EXPECT_TRUE(FeedLines(small, "abcd\nab", lines));
  EXPECT_FALSE(FeedLines(small, "cde", lines));
}

TEST(UrlTestRequest, BodyReadsBackAndTagsComeFromProxyOutbounds) {
  UrlTestRequest parsed;
  ASSERT_TRUE(ParseUrlTestBody(
      BuildUrlTestRequestBody("orvelctl-1", "http://x/", {"a\nb", "東京"}, "{}\n"), parsed));
  EXPECT_EQ(parsed.requestId, "orvelctl-1");
  EXPECT_EQ(parsed.url, "http://x/");
  EXPECT_EQ(parsed.nodeTags, (std::vector<std::string>{"a\nb", "東京"}));
  EXPECT_EQ(parsed.config, "{}\n");
  EXPECT_NE(NewUrlTestRequestId(), NewUrlTestRequestId());

  struct Case {
    std::string_view config;
    ConfigCheck check;
    std::vector<std::string> tags;
  } cases[] = {
      {R"({// the core accepts comments
          "outbounds":[{"type":"selector","tag":"select"},{"type":"vless","tag":"hk"},
          /* block */ {"type":"direct","tag":"d"},{"type":"block","tag":"b"},
          {"type":"dns","tag":"n"},{"type":"urltest","tag":"u"},{"type":"trojan","tag":"jp"},
          {"type":"vless","tag":"hk"},{"type":"vmess"},{"tag":"untyped"}]})",
       ConfigCheck::kGood,
       {"hk", "jp"}},
      {R"({"outbounds":[{"type":"direct","tag":"direct"}]})", ConfigCheck::kNoProxyOutbounds, {}},
      {R"({"inbounds":[]})", ConfigCheck::kNoProxyOutbounds, {}},
      {R"([1,2])", ConfigCheck::kNoProxyOutbounds, {}},
      {R"({"outbounds":[})", ConfigCheck::kNotJson, {}},
      {"", ConfigCheck::kNotJson, {}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> tags;
    std::string error;
    EXPECT_EQ(ListProxyOutboundTags(c.config, tags, error), c.check) << c.config;
    EXPECT_EQ(tags, c.tags) << c.config;
    EXPECT_EQ(error.empty(), c.check == ConfigCheck::kGood) << c.config;
  }
}

}  // namespace
}  // namespace orvel::client

namespace orvel::orvelctl {
namespace {

TEST(FormatBytes, BinaryUnitsRoundedDown) {
  const std::pair<std::int64_t, std::string_view> cases[] = {
      {0, "0 B"},
      {1023, "1023 B"},
      {1024, "1.0 KiB"},
      {1535, "1.4 KiB"},
      {1024 * 1024 - 1, "1023.9 KiB"},
      {5 * 1024 * 1024 + 512 * 1024, "5.5 MiB"},
      {-2048, "-2.0 KiB"},
      {INT64_MAX, "7.9 EiB"},
      {INT64_MIN, "-8.0 EiB"},
  };
  for (const auto& [bytes, text] : cases) EXPECT_EQ(FormatBytes(bytes), text) << bytes;
  EXPECT_EQ(FormatRate(2048), "2.0 KiB/s");
  EXPECT_EQ(Sparkline({0, 7, 14, 3}), "▁▅█▃");  // a small rate still shows above zero
}

TEST(FormatUrlTestTable, SortsByDelayWithFailuresLast) {
  const std::vector<client::UrlTestResult> results = {
      {"b", 300}, {"dead", 0}, {"東京", 120}, {"a", 300}};
  EXPECT_EQ(FormatUrlTestProgress(results, 5), "4/5 done, 1 failed, fastest 東京 (120 ms)");
  EXPECT_EQ(FormatUrlTestTable(results, 5),
            " #  node  delay\n"
            " 1  東京    120 ms\n"
            " 2  a     300 ms\n"
            " 3  b     300 ms\n"
            " 4  dead  failed\n"
            "4 of 5 nodes reported, 1 failed\n");
}

TEST(NewLogText, EachLinePrintedOnceAsTheRingDropsOldBytes) {
  const std::string full = std::string(kHelperLogCapacity - 6, 'x') + "\r\nL1\r\n";
  struct Case {
    std::string previous, current;
    std::string_view added;
  } cases[] = {
      {"", "A\r\nB\r\n", "A\r\nB\r\n"},
      {"A\r\nB\r\n", "A\r\nB\r\n", ""},
      {"A\r\nB\r\n", "A\r\nB\r\nC\r\n", "C\r\n"},
      {"A\r\nB\r\n", "\r\nB\r\nC\r\n", "C\r\n"},  // the front was dropped
      {"A\r\nA\r\n", "A\r\nA\r\nA\r\n", "A\r\n"},
      // Nothing in common and the ring is full: it starts inside a line.
      {"old\r\n", full, "L1\r\n"},
  };
  for (const Case& c : cases) EXPECT_EQ(NewLogText(c.previous, c.current), c.added) << c.current;
}

}  // namespace
}  // namespace orvel::orvelctl
