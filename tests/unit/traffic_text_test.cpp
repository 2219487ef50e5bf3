// The text side of the traffic snapshot: reading the core's figures out of
// raw controller answers, deciding when such an answer is complete, and the
// process entries built from made-up socket observations.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "traffic/core_stats_client.h"
#include "traffic/traffic_snapshot.h"

namespace orvel {
namespace {

// What the core's controller sends, byte for byte.
const std::string kTrafficHead =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\n"
    "Date: Mon, 05 May 2025 10:00:01 GMT\r\nTransfer-Encoding: chunked\r\n\r\n";
const std::string kTrafficFirstSample = kTrafficHead + "1a\r\n{\"up\":-1250,\"down\":98304}\n\r\n";
const std::string kConnections =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\nContent-Length: "
    "87\r\n\r\n"
    "{\"connections\":[],\"downloadTotal\":9007199254740993,\"memory\":8388608,"
    "\"uploadTotal\":123}\n";
const std::string kUnauthorized =
    "HTTP/1.1 401 Unauthorized\r\nContent-Type: application/json\r\nVary: Origin\r\n"
    "Content-Length: 27\r\n\r\n{\"message\":\"Unauthorized\"}\n";

TEST(FindJsonNumber, ReadsTheRunAfterTheFirstQuotedKey) {
  struct Case {
    std::string_view text;
    std::string_view key;
    std::int64_t expected;
  } cases[] = {
      {R"({"up":-42,"down":7})", "up", -42},
      {R"({"up":-42,"down":7})", "down", 7},
      {R"({"down":7})", "up", 0},    // missing key
      {R"({"up":12-3})", "up", 12},  // minus inside the run ends the number
      {R"({"up":--5})", "up", 0},    // no number at the start of the run
      {R"({"up":-})", "up", 0},
      {R"({"up":})", "up", 0},              // empty run
      {R"({"up":"5"})", "up", 0},           // a string is not a number
      {"{\"up\": \t\r\n 31}", "up", 31},    // white space after the colon is skipped
      {R"({"up" :5})", "up", 0},            // but not before it
      {R"({"upload":9,"up":4})", "up", 4},  // the quotes delimit the key
      {R"({"up":1,"up":2})", "up", 1},      // first occurrence wins
      {R"({"up":1.5e3})", "up", 1},
      {R"({"up":9223372036854775807})", "up", INT64_MAX},
      {R"({"up":9223372036854775808})", "up", INT64_MAX},  // saturates
      {R"({"up":-9223372036854775808})", "up", INT64_MIN},
      {R"({"up":-99999999999999999999})", "up", INT64_MIN},
      {R"({"up":00042})", "up", 42},
  };
  for (const Case& c : cases) EXPECT_EQ(FindJsonNumber(c.text, c.key), c.expected) << c.text;
}

TEST(ReadCoreFigures, TakesEachFigureFromItsOwnAnswer) {
  CoreFigures figures = ReadCoreFigures(kTrafficFirstSample, kConnections);
  EXPECT_EQ(figures.up, -1250);
  EXPECT_EQ(figures.down, 98304);
  EXPECT_EQ(figures.uploadTotal, 123);
  EXPECT_EQ(figures.downloadTotal, 9007199254740993);  // beyond a double's exact range

  // Swapped answers: the totals are not looked for in the rate text.
  figures = ReadCoreFigures(kConnections, kTrafficFirstSample);
  EXPECT_EQ(figures.up, 0);
  EXPECT_EQ(figures.down, 0);
  EXPECT_EQ(figures.uploadTotal, 0);
  EXPECT_EQ(figures.downloadTotal, 0);

  figures = ReadCoreFigures(kUnauthorized, kUnauthorized);
  EXPECT_EQ(figures.up + figures.down + figures.uploadTotal + figures.downloadTotal, 0);
}

TEST(FormatTrafficSnapshot, KeyOrderAndTheEmptyAnswer) {
  EXPECT_EQ(kEmptyTrafficSnapshot.size(), 112u);
  EXPECT_EQ(FormatTrafficSnapshot({}, "[]"), kEmptyTrafficSnapshot);
  EXPECT_EQ(FormatTrafficSnapshot({-1, 2, 3000000000, 4}, "[{}]"),
            "{\"uploadBytesPerSecond\":-1,\"downloadBytesPerSecond\":2,"
            "\"uploadTotalBytes\":3000000000,\"downloadTotalBytes\":4,\"processes\":[{}]}");
}

TEST(IsCoreResponseComplete, EndsByDeclaredLengthOrFirstSample) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  struct Case {
    std::string response;
    bool complete;
  } cases[] = {
      {"", false},
      {ok + "Content-Length: 0\r\n", false},  // head not finished
      {ok + "Content-Length: 0\r\n\r\n", true},
      {ok + "Content-Length: 5\r\n\r\nabcd", false},
      {ok + "Content-Length: 5\r\n\r\nabcde", true},
      {ok + "Content-Length: 5\r\n\r\nabcdefgh", true},
      {ok + "CONTENT-LENGTH:     3\r\n\r\nabc", true},  // any case, several spaces
      {ok + "Content-Length:3\r\n\r\nabc", true},
      {ok + "Content-Length:\t3\r\n\r\nabc", false},  // a tab is not skipped
      {ok + "Content-Length: \t3\r\n\r\nabc", false},
      {ok + "Content-Length: x3\r\n\r\nabc", false},  // no digits: ignored
      {ok + "Content-Length: 3x\r\n\r\nabc", true},
      {ok + "X-Content-Length: 0\r\n\r\n", true},  // found anywhere in the head
      // Only the first occurrence is read.
      {ok + "Content-Length: 9\r\nContent-Length: 0\r\n\r\n", false},
      // The declared length counts from the first blank line only.
      {ok + "Content-Length: 4\r\n\r\nab\r\n\r\n", true},
      {ok + "\r\nContent-Length: 0\r\n\r\n", false},  // a length after the head is body
      {ok + "Content-Length: 4294967296\r\n\r\nabc", false},
      // The core's "/traffic" stream: nothing decides it until a whole sample is in.
      {kTrafficHead, false},
      {kTrafficHead + "1a\r\n{\"up\":-1250,", false},
      {kTrafficHead + "1a\r\n{\"up\":-1250,\"down\":", true},
      {kTrafficFirstSample, true},
      {ok + "\r\n{\"down\":1,\"up\":2}", true},   // either order
      {ok + "\r\n{\"UP\":1,\"DOWN\":2}", false},  // case-sensitive
      {"\"up\":\"down\":", true},                 // headers are searched too
      // A body mentioning both keys ends the read before its declared length.
      {ok + "Content-Length: 500\r\n\r\n{\"up\":1,\"down\":2", true},
      {kConnections, true},
      {kConnections.substr(0, kConnections.size() - 1), false},
      {kUnauthorized, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsCoreResponseComplete(c.response), c.complete) << c.response;
  }
}

TEST(TakeLatestTrafficSample, KeepsTheLastWholeSampleOfEachReceive) {
  // Receives in the order a kept-open stream delivers them.
  struct Step {
    std::string received;
    bool found;
    std::string sample;  // what the caller holds afterwards
    std::string pending;
  } steps[] = {
      {kTrafficHead, false, "", ""},
      {"1a\r\n{\"up\":-1250,", false, "", "{\"up\":-1250,"},
      {"\"down\":98304}\n\r\n", true, "{\"up\":-1250,\"down\":98304}", ""},
      {"{\"message\":\"Unauthorized\"}\n", false, "{\"up\":-1250,\"down\":98304}", ""},
      {"10\r\n{\"up\":1,\"down\":2}\n\r\n10\r\n{\"up\":3,\"down\":4}\n\r\n10\r\n{\"up\":5", true,
       "{\"up\":3,\"down\":4}", "{\"up\":5"},
      {std::string(kCoreResponseCapBytes, 'x'), false, "{\"up\":3,\"down\":4}", ""},
  };
  std::string pending;
  std::string sample;
  for (const Step& step : steps) {
    pending += step.received;
    EXPECT_EQ(TakeLatestTrafficSample(pending, sample), step.found) << step.received;
    EXPECT_EQ(sample, step.sample);
    EXPECT_EQ(pending, step.pending);
  }
}

// Made-up names: "app<pid>.exe", with a quote and a backslash for pid 666.
int gLookups = 0;
std::string FakeName(std::uint32_t pid) {
  ++gLookups;
  if (pid == 666) return "we\"ird\\name.exe";
  return "app" + std::to_string(pid) + ".exe";
}

ProcessEntryList NewList() {
  gLookups = 0;
  ProcessEntryList list;
  list.nameForPid = &FakeName;
  return list;
}

std::string Entry(std::string_view name, std::string_view method, std::string_view host) {
  return "{\"processName\":\"" + std::string(name) +
         "\",\"policy\":\"Proxy\",\"totalBytes\":0,\"uploadBytesPerSecond\":0,"
         "\"downloadBytesPerSecond\":0,\"durationSeconds\":0,\"status\":\"Active\",\"method\":\"" +
         std::string(method) + "\",\"host\":\"" + std::string(host) + "\"}";
}

// The list text as it stands before the closing bracket.
std::string OpenArray(const std::vector<std::string>& entries) {
  std::string text = "[";
  for (const std::string& entry : entries) {
    if (text.size() > 1) text += ',';
    text += entry;
  }
  return text;
}

TEST(AppendProcessEntry, WritesTheExactEntryText) {
  ProcessEntryList list = NewList();
  AppendProcessEntry(list, {1234, "TCP", "93.184.216.34", 443});
  AppendProcessEntry(list, {666, "UDP", "2001:db8::7", 5353});
  EXPECT_EQ(list.text, OpenArray({Entry("app1234.exe", "HTTPS", "93.184.216.34:443"),
                                  Entry("we\\\"ird\\\\name.exe", "UDP", "2001:db8::7:5353")}));
  EXPECT_EQ(list.count, 2u);
  EXPECT_EQ(gLookups, 2);
}

TEST(AppendProcessEntry, MethodFollowsThePortAlone) {
  struct Case {
    std::string_view protocol;
    std::uint16_t port;
    std::string_view method;
  } cases[] = {
      {"TCP", 443, "HTTPS"}, {"UDP", 443, "HTTPS"}, {"TCP", 80, "HTTP"}, {"UDP", 80, "HTTP"},
      {"TCP", 8443, "TCP"},  {"UDP", 53, "UDP"},    {"TCP", 0, "TCP"},   {"UDP", 65535, "UDP"},
  };
  for (const Case& c : cases) {
    ProcessEntryList list = NewList();
    AppendProcessEntry(list, {7, c.protocol, "10.0.0.1", c.port});
    EXPECT_EQ(list.text,
              OpenArray({Entry("app7.exe", c.method, "10.0.0.1:" + std::to_string(c.port))}))
        << c.protocol << " " << c.port;
  }
}

TEST(AppendProcessEntry, DropsOnlyTheFourAddressesAndEmptyText) {
  ProcessEntryList list = NewList();
  for (std::string_view dropped : {"", "0.0.0.0", "::", "127.0.0.1", "::1"}) {
    AppendProcessEntry(list, {7, "TCP", dropped, 443});
    AppendProcessEntry(list, {7, "UDP", dropped, 53});
  }
  EXPECT_EQ(list.text, "[");
  EXPECT_EQ(list.count, 0u);
  EXPECT_EQ(gLookups, 0);  // no name is looked up for what is not written

  const std::vector<std::string_view> kept = {
      "127.0.0.2", "127.255.255.254", "::ffff:127.0.0.1", "0:0:0:0:0:0:0:1", "::2", "0.0.0.1"};
  for (std::string_view address : kept) AppendProcessEntry(list, {7, "UDP", address, 9});
  EXPECT_EQ(list.count, kept.size());
  for (std::string_view address : kept) {
    EXPECT_NE(list.text.find("\"host\":\"" + std::string(address) + ":9\""), std::string::npos)
        << address;
  }
}

TEST(AppendProcessEntry, FirstObservationOfEachEndpointWins) {
  ProcessEntryList list = NewList();
  const SocketObservation observations[] = {
      {10, "TCP", "10.0.0.1", 443},  // written
      {10, "TCP", "10.0.0.1", 443},  // same pid, protocol, address and port: dropped
      {11, "TCP", "10.0.0.1", 443},  // other pid
      {10, "UDP", "10.0.0.1", 443},  // other protocol
      {10, "TCP", "10.0.0.2", 443},  // other address
      {10, "TCP", "10.0.0.1", 444},  // other port
      {10, "TCP", "10.0.0.1", 443},  // dropped again
      {11, "TCP", "10.0.0.1", 443},  // dropped
      // Keys join the address and the port with a colon, so these two differ.
      {10, "TCP", "1::2", 3},
      {10, "TCP", "1::", 23},
  };
  for (const SocketObservation& observation : observations) AppendProcessEntry(list, observation);
  EXPECT_EQ(list.count, 7u);
  EXPECT_EQ(gLookups, 7);
  EXPECT_EQ(
      list.text,
      OpenArray(
          {Entry("app10.exe", "HTTPS", "10.0.0.1:443"), Entry("app11.exe", "HTTPS", "10.0.0.1:443"),
           Entry("app10.exe", "HTTPS", "10.0.0.1:443"), Entry("app10.exe", "HTTPS", "10.0.0.2:443"),
           Entry("app10.exe", "TCP", "10.0.0.1:444"), Entry("app10.exe", "TCP", "1::2:3"),
           Entry("app10.exe", "TCP", "1:::23")}));
}

TEST(AppendProcessEntry, StopsAtEightyEntriesWithSingleCommas) {
  ProcessEntryList list = NewList();
  for (int i = 0; i < 200; ++i) {
    AppendProcessEntry(list, {static_cast<std::uint32_t>(i), "TCP", "10.1.0.1", 8000});
  }
  EXPECT_EQ(list.count, kMaxProcessEntries);
  EXPECT_EQ(gLookups, 80);
  const std::string text = list.text + "]";
  // Every entry is exactly one object, objects are joined by exactly one comma.
  std::size_t objects = 0;
  for (std::size_t at = text.find("{\"processName\""); at != std::string::npos;
       at = text.find("{\"processName\"", at + 1)) {
    ++objects;
  }
  EXPECT_EQ(objects, 80u);
  std::size_t separators = 0;
  for (std::size_t at = text.find("},{"); at != std::string::npos; at = text.find("},{", at + 1)) {
    ++separators;
  }
  EXPECT_EQ(separators, 79u);
  EXPECT_EQ(text.find(",,"), std::string::npos);
  EXPECT_EQ(text.find("[,"), std::string::npos);
  EXPECT_EQ(text.find(",]"), std::string::npos);
  std::string last = Entry("app79.exe", "TCP", "10.1.0.1:8000");
  last += ']';
  EXPECT_TRUE(text.ends_with(last));
  EXPECT_EQ(text.find("\"processName\":\"app80.exe\""), std::string::npos);

  // A full list ignores even an endpoint it has never seen.
  AppendProcessEntry(list, {999, "UDP", "10.9.9.9", 1});
  EXPECT_EQ(list.count, 80u);
  EXPECT_EQ(list.text + "]", text);
}

}  // namespace
}  // namespace orvel
