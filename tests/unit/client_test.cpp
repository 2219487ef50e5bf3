// The client library and orvelctl's text: what it reads from the helper and
// what it writes for it and for people.
#include <gtest/gtest.h>

#include "client/answer_text.h"
#include "client/http_exchange.h"
#include "client/urltest_request.h"
#include "orvelctl/console_text.h"
#include "traffic/traffic_snapshot.h"

using namespace orvel;
using namespace orvel::client;
using namespace orvel::orvelctl;
using namespace std::string_literals;

TEST(HttpExchange, TakesTheHelpersAnswersRefusesOthersAndSendsHostAndLength) {
  // Read as "status body|", or "refused|". The URL test stream has no length:
  // its body runs to the close. A length has at most 18 digits; a body cut
  // short, a head without its blank line, a signed length, a line without a
  // colon and anything but an HTTP/1.x status line are refused.
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  std::string read;
  for (const std::string& raw :
       {ok + "Content-Type: text/plain\r\nContent-Length: 4\r\nConnection: close\r\n\r\npongEXTRA",
        "HTTP/1.1 403 Forbidden\r\ncontent-length:9 \r\n\r\nforbidden"s,
        ok + "Content-Type: application/x-ndjson\r\n\r\n{\"a\":1}\n", "HTTP/1.0 404\r\n\r\n"s,
        ok + "Content-Length: 000000000000000002\r\n\r\nok",
        ok + "Content-Length: 0000000000000000002\r\n\r\nok", ok + "Content-Length: 5\r\n\r\npong",
        ok + "Content-Length: 4\r\n", ok + "Content-Length: +4\r\n\r\npong", ok + "NoColon\r\n\r\n",
        "HTTP/1.1 2x0 OK\r\n\r\n"s, "HTTP/2 200 OK\r\n\r\n"s}) {
    HttpAnswer answer;
    read += ReadWholeAnswer(raw, answer) ? std::to_string(answer.status) + " " + answer.body + "|"
                                         : "refused|";
  }
  EXPECT_EQ(read,
            "200 pong|403 forbidden|200 {\"a\":1}\n|404 |200 ok|refused|refused|refused|refused|"
            "refused|refused|refused|");
  HttpAnswer answer;
  std::size_t headBytes = 0;
  EXPECT_EQ(ReadAnswerHead(std::string(kMaxAnswerHeadBytes, 'x'), answer, headBytes),
            HeadState::kMalformed);
  ClientAddress address;
  std::string error;
  ASSERT_TRUE(ParseAddress("localhost:17891", address, error));
  EXPECT_EQ(BuildHttpRequest("POST", "/stop", "", address),
            "POST /stop HTTP/1.1\r\nHost: localhost:17891\r\nUser-Agent: orvelctl\r\n"
            "Connection: close\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(BuildHttpRequest("GET", "/", "", address).find("Content-Length"), std::string::npos);
  for (std::string_view bad :
       {"127.0.0.1", "127.0.0.1:0", "127.0.0.1:65536", "::1:80", ":80", "[::1]x:80", "h:8o"})
    EXPECT_FALSE(ParseAddress(bad, address, error)) << bad;
  ASSERT_TRUE(ParseAddress("[::1]:65535", address, error));
  EXPECT_EQ(address.host + " " + std::to_string(address.port), "::1 65535");
}

TEST(AnswerText, ReadsTheHelpersShapesAndTheSameLinesWhateverTheChunks) {
  // A core's coloured output reaches the message with its raw escape byte.
  StatusAnswer status;
  ASSERT_TRUE(ParseStatusBody(
      "{\"status\":\"off\",\"platform\":\"windows\",\"message\":\"\\\"\\\\\\n\x1b\"}", status));
  EXPECT_EQ(status.status + "|" + status.message, "off|\"\\\n\x1b");
  EXPECT_FALSE(ParseStatusBody(R"({"status":"connected"})", status));
  EXPECT_FALSE(ParseStatusBody(R"({"status":"x","platform":"windows","message":"m"} )", status));
  UrlTestResult result;
  ASSERT_TRUE(
      ParseUrlTestResultLine("{\"nodeTag\":\"\xE6\x9D\xB1\\u4eac\\\"\t\",\"delayMs\":-5}", result));
  EXPECT_EQ(result.nodeTag + std::to_string(result.delayMs), "\xE6\x9D\xB1\xE4\xBA\xAC\"\t-5");
  for (std::string_view line :
       {R"({"nodeTag":"x","delayMs":})", R"({"nodeTag":"x","delayMs":5)",
        R"({"nodeTag":"x\q","delayMs":5})", R"({"delayMs":5,"nodeTag":"x"})"})
    EXPECT_FALSE(ParseUrlTestResultLine(line, result)) << line;
  // The result stream gives the same lines whatever the chunks.
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

TEST(ListProxyOutboundTags, TakesTagsOfProxyOutboundsOnce) {
  EXPECT_NE(NewUrlTestRequestId(), NewUrlTestRequestId());
  std::vector<std::string> tags;
  std::string error;
  const std::string config = R"({// the core accepts comments
    "outbounds":[{"type":"selector","tag":"select"},{"type":"vless","tag":"hk"},/* block */
    {"type":"direct","tag":"d"},{"type":"block","tag":"b"},{"type":"dns","tag":"n"},
    {"type":"urltest","tag":"u"},{"type":"trojan","tag":"jp"},{"type":"vless","tag":"hk"},
    {"type":"vmess"},{"tag":"untyped"}]})";
  EXPECT_EQ(ListProxyOutboundTags(config, tags, error), ConfigCheck::kGood);
  EXPECT_EQ(tags, (std::vector<std::string>{"hk", "jp"}));
  for (std::string_view other :
       {R"({"outbounds":[{"type":"direct","tag":"direct"}]})", R"({"inbounds":[]})", "[1,2]"})
    EXPECT_EQ(ListProxyOutboundTags(other, tags, error), ConfigCheck::kNoProxyOutbounds);
  EXPECT_EQ(ListProxyOutboundTags(R"({"outbounds":[})", tags, error), ConfigCheck::kNotJson);
  // The parser's own words, without its bracketed code.
  EXPECT_TRUE(error.starts_with("parse error at line 1, column 15: ")) << error;
}

TEST(ConsoleText, FormatsBytesNodesAndNewLogLinesAndNeedsTheProcessesArray) {
  // Binary units rounded down; a small rate still shows above zero.
  std::string shown;
  for (std::int64_t bytes : std::initializer_list<std::int64_t>{
           0, 1023, 1024, 1535, 1024 * 1024 - 1, 5767168, -2048, INT64_MAX, INT64_MIN})
    shown += FormatBytes(bytes) + "|";
  EXPECT_EQ(shown, "0 B|1023 B|1.0 KiB|1.4 KiB|1023.9 KiB|5.5 MiB|-2.0 KiB|7.9 EiB|-8.0 EiB|");
  EXPECT_EQ(FormatRate(2048) + Sparkline({0, 7, 14, 3}), "2.0 KiB/s▁▅█▃");
  // Sorted by delay, failures last; a tag's control bytes shown as text.
  const std::vector<UrlTestResult> results = {
      {"b", 300}, {"dead\x1b[2J\n", 0}, {"東京", 120}, {"a", 300}};
  EXPECT_EQ(FormatUrlTestProgress(results, 5), "4/5 done, 1 failed, fastest 東京 (120 ms)");
  EXPECT_EQ(FormatUrlTestTable(results, 5),
            " #  node             delay\n 1  東京               120 ms\n"
            " 2  a                300 ms\n 3  b                300 ms\n"
            " 4  dead\\x1B[2J\\x0A  failed\n4 of 5 nodes reported, 1 failed\n");
  std::string snapshot(kEmptyTrafficSnapshot);
  SnapshotView view;
  EXPECT_TRUE(ParseSnapshot(snapshot, view));
  EXPECT_FALSE(ParseSnapshot(snapshot.replace(snapshot.find("[]"), 2, "{}"), view));
  // Each helper log line printed once as the ring drops old bytes: previous
  // text, current text, what is shown. The front may have been
  // dropped; with nothing in common and the ring full, it starts inside a line.
  // Control bytes are shown as text, all but the line ends.
  const std::string full = std::string(kHelperLogCapacity - 6, 'x') + "\r\nL1\r\n";
  const std::array<std::string, 3> cases[] = {
      {"", "A\r\nB\r\n", "A\r\nB\r\n"},
      {"A\r\nB\r\n", "A\r\nB\r\n", ""},
      {"A\r\nB\r\n", "\r\nB\r\nC\r\n", "C\r\n"},
      {"A\r\nA\r\n", "A\r\nA\r\nA\r\n", "A\r\n"},
      {"old\r\n", full, "L1\r\n"},
      {"A\r\n", "A\r\n\x1b]0;x\x07\r\n\0\r\x7f\n\r"s, "\\x1B]0;x\\x07\r\n\\x00\\x0D\\x7F\n\\x0D"}};
  for (const auto& [previous, current, added] : cases)
    EXPECT_EQ(EscapeForTerminal(NewLogText(previous, current), true), added) << current;
}
