// The text side of the traffic snapshot: reading the core's figures out of
// raw controller answers, deciding when such an answer is complete, and the
// process entries built from made-up socket observations.
#include <gtest/gtest.h>

#include <regex>

#include "traffic/core_stats_client.h"
#include "traffic/traffic_snapshot.h"

using namespace orvel;
using namespace std::string_literals;

// What the core's controller sends, byte for byte.
const std::string kTrafficHead =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\n"
    "Date: Mon, 05 May 2025 10:00:01 GMT\r\nTransfer-Encoding: chunked\r\n\r\n";
const std::string kTrafficFirstSample = kTrafficHead + "1a\r\n{\"up\":-1250,\"down\":98304}\n\r\n";
const std::string kConnections =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nVary: Origin\r\nContent-Length: "
    "87\r\n\r\n{\"connections\":[],\"downloadTotal\":9007199254740993,\"memory\":8388608,"
    "\"uploadTotal\":123}\n";

TEST(FindJsonNumber, ReadsTheRunAfterTheFirstQuotedKey) {
  std::string read;
  for (std::string_view text :
       {R"({"up":-42,"down":7})", R"({"down":7})", R"({"up":12-3})", R"({"up":--5})", R"({"up":})",
        R"({"up":"5"})", "{\"up\": \t\r\n 31}", R"({"up" :5})", R"({"upload":9,"up":4})",
        R"({"up":1,"up":2})", R"({"up":1.5e3})", R"({"up":9223372036854775807})",
        R"({"up":9223372036854775808})", R"({"up":-9223372036854775808})",
        R"({"up":-99999999999999999999})", R"({"up":00042})"})
    read += std::to_string(FindJsonNumber(text, "up")) + ",";
  EXPECT_EQ(read,
            "-42,0,12,0,0,0,31,0,4,1,1,9223372036854775807,9223372036854775807,"
            "-9223372036854775808,-9223372036854775808,42,");
  EXPECT_EQ(FormatTrafficSnapshot(ReadCoreFigures(kTrafficFirstSample, kConnections), "[{}]"),
            "{\"uploadBytesPerSecond\":-1250,\"downloadBytesPerSecond\":98304,"
            "\"uploadTotalBytes\":123,\"downloadTotalBytes\":9007199254740993,\"processes\":[{}]}");
  // Swapped answers: the totals are not looked for in the rate text.
  EXPECT_EQ(FormatTrafficSnapshot(ReadCoreFigures(kConnections, kTrafficFirstSample), "[]"),
            kEmptyTrafficSnapshot);
}

TEST(IsCoreResponseComplete, EndsByDeclaredLengthOrFirstSample) {
  // Read as 1 when complete. A length is found anywhere in the head in any
  // case and counted from the first blank line; the "/traffic" stream ends at
  // its first sample, keys in either order, headers searched too, even before
  // a declared length is in. A tab is not skipped, only the first length is
  // read, a length after the head is body, and a sample needs both keys in
  // their case.
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  std::string read;
  for (const std::string& response :
       {ok + "CONTENT-LENGTH:     3\r\n\r\nabc", ok + "Content-Length:3x\r\n\r\nabc",
        ok + "X-Content-Length: 0\r\n\r\n", ok + "Content-Length: 4\r\n\r\nab\r\n\r\n",
        kTrafficHead + "1a\r\n{\"up\":-1250,\"down\":", ok + "\r\n{\"down\":1,\"up\":2}",
        std::string("\"up\":\"down\":"), ok + "Content-Length: 500\r\n\r\n{\"up\":1,\"down\":2",
        kConnections, kConnections.substr(0, kConnections.size() - 1), ok + "Content-Length: 0\r\n",
        kTrafficHead, ok + "Content-Length:\t3\r\n\r\nabc", ok + "Content-Length: x3\r\n\r\nabc",
        ok + "Content-Length: 9\r\nContent-Length: 0\r\n\r\n", ok + "\r\nContent-Length: 0\r\n\r\n",
        ok + "Content-Length: 4294967296\r\n\r\nabc", kTrafficHead + "1a\r\n{\"up\":-1250,",
        ok + "\r\n{\"UP\":1,\"DOWN\":2}"})
    read += IsCoreResponseComplete(response) ? "1" : "0";
  EXPECT_EQ(read, "1111111110000000000");
}

TEST(TakeLatestTrafficSample, KeepsTheLastWholeSampleOfEachReceive) {
  // Receives in the order a kept-open stream delivers them, and what the
  // caller holds after each: "found|sample|pending".
  std::string pending, sample, read;
  for (const std::string& received :
       {kTrafficHead, "1a\r\n{\"up\":-1250,"s, "\"down\":98304}\n\r\n"s,
        "{\"message\":\"Unauthorized\"}\n"s,
        "10\r\n{\"up\":1,\"down\":2}\n\r\n10\r\n{\"up\":3,\"down\":4}\n\r\n10\r\n{\"up\":5"s,
        std::string(kCoreResponseCapBytes, 'x')}) {
    pending += received;
    const bool found = TakeLatestTrafficSample(pending, sample);
    read += std::to_string(found) + "|" + sample + "|" + pending + "\n";
  }
  EXPECT_EQ(read,
            "0||\n0||{\"up\":-1250,\n1|{\"up\":-1250,\"down\":98304}|\n"
            "0|{\"up\":-1250,\"down\":98304}|\n1|{\"up\":3,\"down\":4}|{\"up\":5\n"
            "0|{\"up\":3,\"down\":4}|\n");
}

// Made-up names: "app<pid>.exe", with a quote and a backslash for pid 666.
static int gLookups = 0;
static std::string FakeName(std::uint32_t pid) {
  ++gLookups;
  return pid == 666 ? "we\"ird\\name.exe" : "app" + std::to_string(pid) + ".exe";
}

TEST(AppendProcessEntry, WritesEachEndpointOnceWithItsMethodUpToEightyEntries) {
  ProcessEntryList list;
  list.nameForPid = &FakeName;
  // Only these four addresses and empty text are dropped, and go unnamed.
  for (std::string_view address : {"", "0.0.0.0", "::", "127.0.0.1", "::1"})
    AppendProcessEntry(list, {7, "UDP", address, 53});
  // The key is pid, protocol, address and port; address and port are joined
  // with a colon, so the last two differ.
  const SocketObservation observations[] = {
      {10, "TCP", "10.0.0.1", 443}, {666, "UDP", "10.0.0.1", 80},
      {7, "UDP", "127.0.0.2", 53},  {7, "TCP", "0:0:0:0:0:0:0:1", 8443},
      {10, "TCP", "10.0.0.1", 443}, {11, "TCP", "10.0.0.1", 443},
      {10, "UDP", "10.0.0.1", 443}, {10, "TCP", "10.0.0.1", 444},
      {10, "TCP", "1::2", 3},       {10, "TCP", "1::", 23},
  };
  for (const SocketObservation& observation : observations) AppendProcessEntry(list, observation);
  // Every entry shown as "name method host", the fixed fields checked on the way.
  const std::regex entry(
      R"re(\{"processName":"(.*?)","policy":"Proxy","totalBytes":0,"uploadBytesPerSecond":0,)re"
      R"re("downloadBytesPerSecond":0,"durationSeconds":0,"status":"Active","method":"(.*?)",)re"
      R"re("host":"(.*?)"\})re");
  EXPECT_EQ(std::regex_replace(list.text, entry, "$1 $2 $3"),
            "[app10.exe HTTPS 10.0.0.1:443,we\\\"ird\\\\name.exe HTTP 10.0.0.1:80,"
            "app7.exe UDP 127.0.0.2:53,app7.exe TCP 0:0:0:0:0:0:0:1:8443,"
            "app11.exe HTTPS 10.0.0.1:443,app10.exe HTTPS 10.0.0.1:443,app10.exe TCP 10.0.0.1:444,"
            "app10.exe TCP 1::2:3,app10.exe TCP 1:::23");
  EXPECT_EQ(gLookups, 9);
  for (std::uint32_t pid = 1000; pid < 1200; ++pid)
    AppendProcessEntry(list, {pid, "TCP", "10.1.0.1", 8000});
  EXPECT_EQ(list.count, kMaxProcessEntries);
  EXPECT_EQ(gLookups, 80);
  EXPECT_TRUE(
      std::regex_replace(list.text, entry, "$1 $2 $3").ends_with(",app1070.exe TCP 10.1.0.1:8000"));
}
