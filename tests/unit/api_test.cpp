// The helper's side of HTTP: numbers and headers, framing a request, the
// answer layout, the request guard, JSON text and the log ring.
#include <gtest/gtest.h>

#include "api/caller_policy.h"
#include "api/http_request.h"
#include "api/request_guard.h"
#include "log/log_buffer.h"
#include "text/json_text.h"
#include "text/number_text.h"

using namespace orvel;
using namespace std::string_literals;

TEST(ParseUnsignedLong32, FollowsTheWindowsStrtoulRules) {
  std::string read;
  for (std::string_view text : {"  \t42", "+7", "-2", "12abc", "abc", "-", "007", "4294967295",
                                "4294967296", "99999999999999999999999"})
    read += std::to_string(ParseUnsignedLong32(text)) + ",";
  EXPECT_EQ(read, "42,7,4294967294,12,0,0,7,4294967295,4294967295,4294967295,");
}

TEST(HttpRequest, HeadersMatchInAnyCaseAndFramingHoldsInAnySplit) {
  // Trailing spaces are kept, the last line needs no terminator, only spaces
  // are skipped, and a plain substring search lets a longer name ending in the
  // wanted one match. The path must be on the request line.
  const std::string head = "POST /x HTTP/1.1\r\nHost: A\r\ncontent-LENGTH:   12 \r\nX-Y: Value";
  EXPECT_EQ(GetHeaderValue(head, "Content-Length") + "|" + GetHeaderValue(head, "x-y") + "|" +
                GetHeaderValue(head, "Missing") + "|" + GetHeaderValue("A:\tv", "a") + "|" +
                GetHeaderValue("GET / HTTP/1.1\r\nX-Content-Length: 3", "Content-Length"),
            "12 |Value||\tv|3");
  EXPECT_EQ(SplitRequestLine("  POST\t/start  ").path + "|" + SplitRequestLine("GET\r\n/ping").path,
            "/start|");
  std::string atLimit = "GET / HTTP/1.1\r\nX: ";
  atLimit += std::string(kMaxRequestHeadBytes - atLimit.size() - 4, 'a') + "\r\n\r\n";
  const std::string big(2000000, 'b');
  // Bytes, piece size, "METHOD PATH BODY" once framed. Bytes past the declared
  // length are dropped; piece 1 splits the terminator; the head limit counts
  // the read that completes the head, and the body has none.
  const std::tuple<std::string, std::size_t, std::string> cases[] = {
      {"POST /start HTTP/1.1\r\nContent-Length: 5\r\n\r\nhelloEXTRA", 1, "POST /start hello"},
      {"GET /ping HTTP/1.1\r\n\r\ntrailing", 4096, "GET /ping "},
      {atLimit, 4096, "GET / "},
      {"G" + atLimit, 4096, "head too large"},
      {"POST / HTTP/1.1\r\nContent-Length: 2000000\r\n\r\n" + big, 65536, "POST / " + big}};
  for (const auto& [bytes, piece, framed] : cases) {
    RequestFrame frame;
    FrameStatus status = FrameStatus::kNeedMore;
    for (std::size_t at = 0; at < bytes.size() && status == FrameStatus::kNeedMore; at += piece)
      status = FeedRequestBytes(frame, std::string_view(bytes).substr(at, piece));
    const HttpRequest got = FinishRequest(frame);
    EXPECT_EQ(status == FrameStatus::kNeedMore       ? "need more"
              : status == FrameStatus::kHeadTooLarge ? "head too large"
                                                     : got.method + " " + got.path + " " + got.body,
              framed);
  }
}

TEST(FindHeadRefusal, RefusesWhatOnlyBrowsersAndForeignHostsSend) {
  // What real clients send, and names that only contain a guarded one.
  for (std::string_view lines :
       {"Origin: tauri://localhost", "origin: http://tauri.localhost", "Host: localhost",
        "Origin:https://tauri.localhost  ", "Sec-Fetch-Site: none\r\nSec-Fetch-Mode: navigate",
        "Host: LOCALHOST:17891", "Host: [::1]:17891", "Host: [::1]", "",
        "X-Origin: null\r\nX-Host: evil.example\r\nOriginal: x",
        "host: 127.0.0.1:17891\r\naccept: */*\r\nsec-fetch-mode: cors\r\nuser-agent: node"})
    EXPECT_EQ(FindHeadRefusal("GET / HTTP/1.1\r\n" + std::string(lines)).header, "") << lines;
  EXPECT_EQ(FindHeadRefusal("Host: evil.example\r\n").header, "");  // the request line is no header
  // A web page's requests and hosts that are not this helper's, read as
  // "header value|" of the first refusing line.
  std::string read;
  for (std::string_view lines :
       {"Origin: http://127.0.0.5:8000\r\nSec-Fetch-Site: cross-site",
        "sec-fetch-site: same-origin", "Origin: null",
        "ORIGIN: http://tauri.localhost.evil.example", "Origin:", "Host: 127.0.0.1.nip.io:17891",
        "Host: 127.0.0.1:8080", "host: localhost:", "Host: [::1]:80", "Host: 127.0.0.2",
        "Host: ", "Host: localhost\r\nHost: evil.example\r\nOrigin: null"}) {
    const HeadRefusal found = FindHeadRefusal("GET / HTTP/1.1\r\n" + std::string(lines));
    read += std::string(found.header) + " " + found.value + "|";
  }
  EXPECT_EQ(read,
            "Origin http://127.0.0.5:8000|Sec-Fetch-Site same-origin|Origin null|"
            "Origin http://tauri.localhost.evil.example|Origin |Host 127.0.0.1.nip.io:17891|"
            "Host 127.0.0.1:8080|Host localhost:|Host [::1]:80|Host 127.0.0.2|Host |"
            "Host evil.example|");
  EXPECT_EQ(JsonEscape("a\"b\\c\r\n\t\x01\xE6\x97\xA5"), "a\\\"b\\\\c\\r\\n\t\x01\xE6\x97\xA5");
  EXPECT_EQ(DescribeRefusal("GET", "/a\"b", {"Origin", "x\ny\\"}),
            "Refused GET /a\\\"b: Origin \"x\\ny\\\\\"");
}

TEST(LogBuffer, PadsTheTimeCutsLongMessagesAndKeepsTheNewestBytes) {
  const LocalTime time{2025, 3, 7, 9, 5, 1};
  const std::string exact(kMaxLogMessageBytes, 'x');
  std::string read;
  for (const std::string& message :
       {"two\nlines\r\x1b]0;\x7f"s, std::string(1199, 'e') + "\n", exact, exact + "y"})
    read += FormatLogLine(time, message);
  EXPECT_EQ(read,
            "[2025-03-07 09:05:01] two\\x0Alines\\x0D\\x1B]0;\\x7F\r\n[2025-03-07 09:05:01] " +
                std::string(1199, 'e') + "\\...\r\n[2025-03-07 09:05:01] " + exact +
                "\r\n[2025-03-07 09:05:01] " + exact + "...\r\n");
  LogBuffer log;
  for (int i = 0; i < 70; ++i) log.AppendAt(time, std::string(1000, 'm') + std::to_string(i));
  const std::string text = log.Snapshot();
  ASSERT_EQ(text.size(), 65536u);
  // Cut by bytes, inside an older line.
  EXPECT_TRUE(text.ends_with(FormatLogLine(time, std::string(1000, 'm') + "69")) && text[0] != '[');
}

TEST(CallerPolicy, RootTheOwnUserOrTheServiceGroupThroughALiveSocketSixteenConnectionsEach) {
  // mode (service?), the client end's row (state, inode, uid; none: no row),
  // held by the helper's child, caller's groups, the service group. A closing client's row names
  // uid 0 for anyone: orphaned (inode 0) or TIME_WAIT. The core relays for anyone, whatever account
  // it runs as.
  constexpr std::uint8_t kEstablished = 1, kFinWait2 = 5;
  const std::tuple<bool, std::optional<ClientSocketRow>, bool, std::vector<std::uint32_t>,
                   std::optional<std::uint32_t>>
      cases[] = {{false, ClientSocketRow{kEstablished, 7, 1000}, false, {1000}, 990},  // own user
                 {false, ClientSocketRow{kFinWait2, 7, 0}, false, {}, std::nullopt},   // root
                 {true, ClientSocketRow{kEstablished, 7, 1001}, false, {1001, 990}, 990},
                 {false, ClientSocketRow{kEstablished, 7, 1001}, false, {990}, 990},
                 {false, std::nullopt, false, {}, 990},
                 {false, ClientSocketRow{kFinWait2, 0, 0}, false, {}, 990},
                 {true, ClientSocketRow{kTcpTimeWait, 7, 0}, false, {}, 990},
                 {true, ClientSocketRow{kEstablished, 7, 0}, true, {}, 990},
                 {true, ClientSocketRow{kEstablished, 7, 1000}, false, {1000}, 990},
                 {true, ClientSocketRow{kEstablished, 7, 1001}, false, {990}, std::nullopt}};
  std::string read;
  for (const auto& [service, row, child, groups, serviceGroup] : cases)
    read += std::to_string(MayUseHelper(
        {service, LiveSocketOwner(row), service ? 0u : 1000u, groups, serviceGroup, child}));
  EXPECT_EQ(read, "1110000000");
  EXPECT_EQ(DescribeRefusedCaller({1001, std::nullopt, "", ""}),
            "Refused a connection from uid 1001: not allowed to use this helper");
  EXPECT_EQ(DescribeRefusedCaller({0, 4242, "sing-box\x1b]0", ""}),
            "Refused a connection from pid 4242 (sing-box\\x1B]0), a process the helper "
            "started: not allowed to use this helper");
  EXPECT_EQ(DescribeRefusedCaller({std::nullopt, std::nullopt, "", "recv failed: 11"}),
            "Refused a connection from an unknown uid: not allowed to use this helper (recv "
            "failed: 11)");
  ConnectionCounts counts;
  for (std::uint32_t i = 0; i < 16; ++i) EXPECT_TRUE(AdmitConnection(counts, 1000));
  EXPECT_FALSE(AdmitConnection(counts, 1000));
  for (int i = 0; i < 48; ++i) EXPECT_TRUE(AdmitConnection(counts, std::nullopt));
  EXPECT_FALSE(AdmitConnection(counts, 1001));  // 64 in all
  ReleaseConnection(counts, 1000);
  EXPECT_TRUE(AdmitConnection(counts, 1000));
  EXPECT_EQ(CountClosedOverLimit(counts, 5000), "Connection limit reached: 1 connections closed");
  EXPECT_EQ(CountClosedOverLimit(counts, 5999), "");
  EXPECT_EQ(CountClosedOverLimit(counts, 6000), "Connection limit reached: 2 connections closed");
  // Refused callers have limits of their own and take nothing from these.
  for (std::size_t i = 0; i < kMaxRefusalsAnswering; ++i) EXPECT_TRUE(AdmitRefusal(counts));
  EXPECT_FALSE(AdmitRefusal(counts));
  ReleaseRefusal(counts);
  EXPECT_TRUE(AdmitRefusal(counts));
}
