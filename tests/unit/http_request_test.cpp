#include "api/http_request.h"

#include <gtest/gtest.h>

#include "api/number_text.h"

namespace orvel {
namespace {

TEST(ParseUnsignedLong32, FollowsTheWindowsStrtoulRules) {
  struct Case {
    std::string_view text;
    std::uint32_t expected;
  } cases[] = {
      {"42", 42},
      {"  \t42", 42},
      {"+7", 7},
      {"-1", 4294967295u},
      {"-2", 4294967294u},
      {"12abc", 12},
      {"abc", 0},
      {"", 0},
      {"4294967295", 4294967295u},
      {"4294967296", 4294967295u},
      {"99999999999999999999999", 4294967295u},
      {"-", 0},
      {"007", 7},
  };
  for (const Case& c : cases) EXPECT_EQ(ParseUnsignedLong32(c.text), c.expected) << c.text;
}

TEST(GetHeaderValue, MatchesNameInAnyCaseAndKeepsValueCase) {
  const std::string head = "POST /x HTTP/1.1\r\nHost: A\r\ncontent-LENGTH:   12 \r\nX-Y: Value";
  EXPECT_EQ(GetHeaderValue(head, "Content-Length"), "12 ");  // trailing spaces kept
  EXPECT_EQ(GetHeaderValue(head, "x-y"), "Value");           // last line has no terminator
  EXPECT_EQ(GetHeaderValue(head, "Missing"), "");
  EXPECT_EQ(GetHeaderValue("A:\tv", "a"), "\tv");  // only spaces are skipped
  // A plain substring search: a longer name ending in the wanted one matches.
  EXPECT_EQ(GetHeaderValue("GET / HTTP/1.1\r\nX-Content-Length: 3", "Content-Length"), "3");
}

TEST(SplitRequestLine, TakesTheFirstTwoWords) {
  EXPECT_EQ(SplitRequestLine("GET /ping HTTP/1.1\r\nHost: x").method, "GET");
  EXPECT_EQ(SplitRequestLine("GET /ping HTTP/1.1\r\nHost: x").path, "/ping");
  EXPECT_EQ(SplitRequestLine("  POST\t/start  ").path, "/start");
  EXPECT_EQ(SplitRequestLine("GET").path, "");
  EXPECT_EQ(SplitRequestLine("").method, "");
  EXPECT_EQ(SplitRequestLine("GET\r\n/ping").path, "");  // path must be on the request line
}

FrameStatus FeedInPieces(RequestFrame& frame, std::string_view bytes, std::size_t piece) {
  FrameStatus status = FrameStatus::kNeedMore;
  for (std::size_t at = 0; at < bytes.size() && status == FrameStatus::kNeedMore; at += piece) {
    status = FeedRequestBytes(frame, bytes.substr(at, piece));
  }
  return status;
}

TEST(FeedRequestBytes, AssemblesAnySplit) {
  const std::string request = "POST /start HTTP/1.1\r\nContent-Length: 5\r\n\r\nhelloEXTRA";
  for (std::size_t piece : {1, 2, 3, 7, 4096}) {
    RequestFrame frame;
    ASSERT_EQ(FeedInPieces(frame, request, piece), FrameStatus::kComplete) << piece;
    const HttpRequest parsed = FinishRequest(frame);
    EXPECT_EQ(parsed.method, "POST");
    EXPECT_EQ(parsed.path, "/start");
    EXPECT_EQ(parsed.body, "hello");  // bytes past the declared length are dropped
  }
}

TEST(FeedRequestBytes, WaitsForTheDeclaredBody) {
  RequestFrame frame;
  EXPECT_EQ(FeedRequestBytes(frame, "GET / HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345"),
            FrameStatus::kNeedMore);
  EXPECT_EQ(FeedRequestBytes(frame, "67890"), FrameStatus::kComplete);
  EXPECT_EQ(FinishRequest(frame).body, "1234567890");
}

TEST(FeedRequestBytes, NoLengthMeansEmptyBody) {
  RequestFrame frame;
  EXPECT_EQ(FeedRequestBytes(frame, "GET / HTTP/1.1\r\n\r\ntrailing"), FrameStatus::kComplete);
  EXPECT_EQ(FinishRequest(frame).body, "");
}

TEST(FeedRequestBytes, HeadLimitCountsTheReadThatCompletesTheHead) {
  {
    RequestFrame frame;  // exactly at the limit, terminator included: accepted
    std::string head = "GET / HTTP/1.1\r\nX: ";
    head += std::string(kMaxRequestHeadBytes - head.size() - 4, 'a') + "\r\n\r\n";
    ASSERT_EQ(head.size(), kMaxRequestHeadBytes);
    EXPECT_EQ(FeedInPieces(frame, head, 4096), FrameStatus::kComplete);
  }
  {
    RequestFrame frame;  // one byte more in the same read: refused
    std::string head = "GET / HTTP/1.1\r\nX: ";
    head += std::string(kMaxRequestHeadBytes - head.size() - 3, 'a') + "\r\n\r\n";
    EXPECT_EQ(FeedInPieces(frame, head, 4096), FrameStatus::kHeadTooLarge);
  }
  {
    RequestFrame frame;  // once the head is in, the body has no limit
    std::string request = "POST / HTTP/1.1\r\nContent-Length: 2000000\r\n\r\n";
    request += std::string(2000000, 'b');
    EXPECT_EQ(FeedInPieces(frame, request, 65536), FrameStatus::kComplete);
    EXPECT_EQ(FinishRequest(frame).body.size(), 2000000u);
  }
}

TEST(FeedRequestBytes, TerminatorSplitAcrossReadsIsFound) {
  RequestFrame frame;
  EXPECT_EQ(FeedRequestBytes(frame, "GET /ping HTTP/1.1\r\n\r"), FrameStatus::kNeedMore);
  EXPECT_EQ(FeedRequestBytes(frame, "\n"), FrameStatus::kComplete);
  EXPECT_EQ(FinishRequest(frame).path, "/ping");
}

TEST(BuildResponse, WritesTheExactLayout) {
  EXPECT_EQ(BuildResponse("text/plain", "not found", 404, "Not Found"),
            "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n"
            "Connection: close\r\n\r\nnot found");
  EXPECT_EQ(BuildResponse("application/x-ndjson", "", 200, "OK"),
            "HTTP/1.1 200 OK\r\nContent-Type: application/x-ndjson\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n");
}

}  // namespace
}  // namespace orvel
