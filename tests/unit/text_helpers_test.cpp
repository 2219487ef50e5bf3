#include <gtest/gtest.h>

#include "api/json_text.h"
#include "core/mixed_port.h"
#include "log/log_buffer.h"

namespace orvel {
namespace {

TEST(JsonEscape, EscapesOnlyTheFourCharacters) {
  EXPECT_EQ(JsonEscape(""), "");
  EXPECT_EQ(JsonEscape("a\"b\\c"), "a\\\"b\\\\c");
  EXPECT_EQ(JsonEscape("x\r\ny"), "x\\r\\ny");
  EXPECT_EQ(JsonEscape("tab\there\x01"), "tab\there\x01");
  EXPECT_EQ(JsonEscape("\xE6\x97\xA5"), "\xE6\x97\xA5");
}

TEST(BuildStatusBody, KeepsOrderAndEscapes) {
  EXPECT_EQ(BuildStatusBody("", ""), R"({"status":"","platform":"windows","message":""})");
  EXPECT_EQ(BuildStatusBody("connected", "Windows helper connected"),
            R"({"status":"connected","platform":"windows","message":"Windows helper connected"})");
  EXPECT_EQ(BuildStatusBody("a\"", "line\nnext"),
            R"({"status":"a\"","platform":"windows","message":"line\nnext"})");
}

TEST(FormatLogLine, PadsEveryFieldAndCutsLongMessages) {
  const LocalTime time{2025, 1, 5, 3, 4, 5};
  EXPECT_EQ(FormatLogLine(time, ""), "[2025-01-05 03:04:05] \r\n");
  EXPECT_EQ(FormatLogLine(LocalTime{2025, 3, 7, 9, 5, 1}, "two\nlines"),
            "[2025-03-07 09:05:01] two\nlines\r\n");
  const std::string exact(1200, 'x');
  EXPECT_EQ(FormatLogLine(time, exact), "[2025-01-05 03:04:05] " + exact + "\r\n");
  const std::string longer = exact + "y";
  EXPECT_EQ(FormatLogLine(time, longer), "[2025-01-05 03:04:05] " + exact + "...\r\n");
}

TEST(LogBuffer, KeepsTheNewest65536Bytes) {
  LogBuffer log;
  const LocalTime time{2025, 1, 5, 3, 4, 5};
  log.AppendAt(time, "first");
  EXPECT_EQ(log.Snapshot(), "[2025-01-05 03:04:05] first\r\n");
  const std::string message(1000, 'm');
  for (int i = 0; i < 70; ++i) log.AppendAt(time, message + std::to_string(i));
  const std::string text = log.Snapshot();
  ASSERT_EQ(text.size(), kLogCapacityBytes);
  const std::string newest = "[2025-01-05 03:04:05] " + message + "69\r\n";
  EXPECT_EQ(text.substr(text.size() - newest.size()), newest);
  EXPECT_NE(text.substr(0, 1), "[");  // cut by bytes, inside an older line
}

TEST(FindMixedInboundPort, ReadsTheTaggedInboundPort) {
  struct Case {
    std::string_view config;
    int expected;
  } cases[] = {
      {R"({"inbounds":[{"type":"mixed","tag": "orvel-vpn-mixed","listen_port": 2080}]})", 2080},
      {R"({"inbounds":[{"tag":"orvel-vpn-mixed","listen_port":2080}]})", 2080},
      // The tag comes after another inbound's port: the tagged one wins.
      {R"([{"listen_port":1111},{"tag":"orvel-vpn-mixed","listen_port":2222}])", 2222},
      // Two spaces or a line break after the colon: tag not recognised, first port wins.
      {R"([{"listen_port":1111},{"tag":  "orvel-vpn-mixed","listen_port":2222}])", 1111},
      {"[{\"listen_port\":1111},{\"tag\":\n\"orvel-vpn-mixed\",\"listen_port\":2222}]", 1111},
      // Tagged inbound without a port: the next object's port is taken.
      {R"([{"tag":"orvel-vpn-mixed"},{"listen_port":3333}])", 3333},
      {R"({"tag":"orvel-vpn-mixed","listen_port" : 2080})", 2080},
      {R"({"listen_port":02080})", 2080},
      {R"({"listen_port":0})", 7897},
      {R"({"listen_port":65535})", 65535},
      {R"({"listen_port":65536})", 7897},
      {R"({"listen_port":99999999999999999999})", 7897},
      {R"({"listen_port":"2080"})", 7897},
      {R"({"listen_port":-5})", 7897},
      {R"({"listen_port":)", 7897},
      {R"({"listen_port"})", 7897},
      {"\"listen_port\"", 7897},
      {"", 7897},
      {"tiny", 7897},
  };
  for (const Case& c : cases) EXPECT_EQ(FindMixedInboundPort(c.config), c.expected) << c.config;
}

}  // namespace
}  // namespace orvel
