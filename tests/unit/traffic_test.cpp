// The text side of the traffic snapshot: reading the core's figures out of
// raw controller answers, deciding when such an answer is complete, and the
// process entries built from made-up socket observations.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "traffic/core_stats_client.h"
#include "traffic/kernel_socket_rows.h"
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

TEST(CoreStatsClient, ReadsNumbersAfterTheFirstQuotedKeyAndAnswersEndByLengthOrFirstSample) {
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
  // Read as 1 when complete. A length is found anywhere in the head in any
  // case and counted from the first blank line; the "/traffic" stream ends at
  // its first sample, keys in either order, headers searched too, even before
  // a declared length is in. A tab is not skipped, only the first length is
  // read, a length after the head is body, and a sample needs both keys in
  // their case.
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  read.clear();
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

TEST(BuildControllerRequest, CarriesTheConfigurationsSecretAsABearer) {
  // The secret taken from each configuration: only a string where the core reads it.
  std::string read;
  for (std::string_view config :
       {R"({"experimental":{"clash_api":{"secret":"s3 cr3t"}}})",
        "{\"experimental\": // comment\n{\"clash_api\":{\"secret\":\"\\u00e9\"}}}",
        R"({"clash_api":{"secret":"top-level is not it"}})",
        R"({"experimental":{"clash_api":{"secret":7}}})",
        R"({"experimental":{"clash_api":{"secret":"a\r\nX-Injected: 1"}}})",
        R"({"experimental":{"clash_api":{"secret":"unterminated)"})
    read += FindControllerSecret(config) + "|";
  EXPECT_EQ(read, "s3 cr3t|\xC3\xA9|||||");
  SetControllerSecret("s3 cr3t");
  EXPECT_EQ(BuildControllerRequest("/traffic"),
            "GET /traffic HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer s3 cr3t\r\n"
            "Connection: close\r\n\r\n");
  SetControllerSecret("");
  EXPECT_EQ(BuildControllerRequest("/connections"),
            "GET /connections HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
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
      {10, "TCP", "1::2", 3},       {10, "TCP", "1::", 23}};
  for (const SocketObservation& observation : observations) AppendProcessEntry(list, observation);
  // The entries shown as "name method host", around the fixed fields.
  const auto entries = [](std::initializer_list<std::string_view> shown) {
    std::string text;
    for (std::string_view e : shown) {
      const std::size_t a = e.find(' '), b = e.rfind(' ');
      text.append(text.empty() ? "[{\"processName\":\"" : ",{\"processName\":\"")
          .append(e.substr(0, a))
          .append(
              "\",\"policy\":\"Proxy\",\"totalBytes\":0,\"uploadBytesPerSecond\":0,"
              "\"downloadBytesPerSecond\":0,\"durationSeconds\":0,\"status\":\"Active\","
              "\"method\":\"")
          .append(e.substr(a + 1, b - a - 1))
          .append("\",\"host\":\"")
          .append(e.substr(b + 1))
          .append("\"}");
    }
    return text;
  };
  EXPECT_EQ(
      list.text,
      entries({"app10.exe HTTPS 10.0.0.1:443", "we\\\"ird\\\\name.exe HTTP 10.0.0.1:80",
               "app7.exe UDP 127.0.0.2:53", "app7.exe TCP 0:0:0:0:0:0:0:1:8443",
               "app11.exe HTTPS 10.0.0.1:443", "app10.exe HTTPS 10.0.0.1:443",
               "app10.exe TCP 10.0.0.1:444", "app10.exe TCP 1::2:3", "app10.exe TCP 1:::23"}));
  EXPECT_EQ(gLookups, 9);
  for (std::uint32_t pid = 1000; pid < 1200; ++pid)
    AppendProcessEntry(list, {pid, "TCP", "10.1.0.1", 8000});
  EXPECT_EQ(list.count, kMaxProcessEntries);
  EXPECT_EQ(gLookups, 80);
  EXPECT_TRUE(list.text.ends_with(
      entries({"app1069.exe TCP 10.1.0.1:8000", "app1070.exe TCP 10.1.0.1:8000"}).substr(1)));
}

// Each row as "local remote st<state> uid<uid> ino<inode>|", an endpoint as
// its address bytes (4 or 16) in decimal, dotted, then ":port".
static std::string Rows(std::function<void(const KernelRowSink&)> read) {
  std::ostringstream rows;
  read([&](const KernelSocketRow& r) {
    for (const auto& [address, port] :
         {std::pair{r.local, r.localPort}, {r.remote, r.remotePort}}) {
      for (std::size_t i = 0; i < (r.ipv6 ? 16u : 4u); ++i)
        rows << (i > 0 ? "." : "") << +address[i];
      rows << ':' << port << ' ';
    }
    rows << "st" << +r.state << " uid" << r.uid << " ino" << r.inode << '|';
  });
  return rows.str();
}
// One netlink message: its header, then `body`.
static std::string NetlinkMessage(std::uint16_t type, const std::string& body) {
  std::string message(16, '\0');
  const std::uint32_t length = static_cast<std::uint32_t>(16 + body.size());
  std::memcpy(message.data(), &length, 4);
  std::memcpy(message.data() + 4, &type, 2);
  return message + body + std::string((4 - body.size() % 4) % 4, '\0');
}
// An inet_diag_msg as the kernel sends it: `head` holds family, state, two
// unused bytes, then both ports big-endian.
static std::string DiagMessage(const std::string& head, const std::string& src,
                               const std::string& dst, std::uint32_t uid, std::uint32_t inode) {
  std::string body = head + std::string(72 - head.size(), '\0');
  body.replace(8, src.size(), src).replace(24, dst.size(), dst);
  std::memcpy(body.data() + 64, &uid, 4);
  std::memcpy(body.data() + 68, &inode, 4);
  return body;
}

TEST(KernelSocketRows, ProcNetTablesAndDiagAnswersGiveOnlyWholeRows) {
  const std::string head =
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
      "timeout inode\n";
  const std::string v4 =
      head +
      "   0: 0100007F:0035 00000000:0000 0A 00000000:00000000 00:00000000 00000000   102        0 "
      "21507 1 0000000000000000 100 0 0 10 0\n"
      "   1: 0200007F:B1A6 0200007F:15B3 01 00000000:00000000 00:00000000 00000000  1000        0 "
      "77001 1 0000000000000000 20 4 30 10 -1\n"
      "   2: garbage\n"
      "   3: 0100007F:0050 0100007F:C000 01 00000000:00000000 00:000";  // cut by a growing table
  EXPECT_EQ(Rows([&](const KernelRowSink& sink) { ReadProcNetTable(v4, false, sink); }),
            "127.0.0.1:53 0.0.0.0:0 st10 uid102 ino21507|"
            "127.0.0.2:45478 127.0.0.2:5555 st1 uid1000 ino77001|");
  // IPv6: four words, each byte-swapped; the mapped form keeps ::ffff:.
  const std::string v6 = head +
                         "   0: 0000000000000000FFFF00000100007F:1F90 "
                         "20010DB8000000000000000001000000:01BB 01 00000000:00000000 "
                         "00:00000000 00000000     0        0 9 1\n";
  EXPECT_EQ(Rows([&](const KernelRowSink& sink) { ReadProcNetTable(v6, true, sink); }),
            "0.0.0.0.0.0.0.0.0.0.255.255.127.0.0.1:8080 "
            "184.13.1.32.0.0.0.0.0.0.0.0.0.0.0.1:443 st1 uid0 ino9|");
  // The same rows from a sock_diag answer: 40000 -> 443 over IPv4, then port 53 over IPv6.
  const std::string tcp = NetlinkMessage(
      20,
      DiagMessage("\x02\x01\0\0\x9C\x40\x01\xBB"s, "\x7F\0\0\x02"s, "\x7F\0\0\x01"s, 1000, 4242));
  const std::string udp6 = NetlinkMessage(
      20, DiagMessage("\x0A\x07\0\0\0\x35"s, std::string(15, '\0') + "\x01", "", 0, 7));
  const std::string done = NetlinkMessage(3, std::string(4, '\0'));
  std::string rows;
  const auto read = [&](std::string_view bytes) {
    DiagStatus status = DiagStatus::kMore;
    rows = Rows([&](const KernelRowSink& sink) { status = ReadDiagAnswer(bytes, sink); });
    return status;
  };
  EXPECT_EQ(read(tcp + udp6), DiagStatus::kMore);
  EXPECT_EQ(rows,
            "127.0.0.2:40000 127.0.0.1:443 st1 uid1000 ino4242|"
            "0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.1:53 0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0:0 st7 uid0 ino7|");
  EXPECT_EQ(read(tcp + done), DiagStatus::kDone);
  EXPECT_EQ(read(NetlinkMessage(2, std::string(20, '\0'))), DiagStatus::kFailed);
  EXPECT_EQ(read(tcp.substr(0, tcp.size() - 1)), DiagStatus::kFailed);  // runs past the bytes
  EXPECT_EQ(read(NetlinkMessage(20, std::string(8, '\0'))), DiagStatus::kFailed);  // too short
}

TEST(ProcessNameFrom, ExecutableNameThenCommThenThePid) {
  // The link cannot be read, then the process has ended too.
  EXPECT_EQ(ProcessNameFrom("/usr/bin/python3.11", "python3", 4321) + "|" +
                ProcessNameFrom("/opt/app/chrome (deleted)", "chrome", 4321) + "|" +
                ProcessNameFrom("/tmp/ (deleted)", "x", 4321) + "|" +
                ProcessNameFrom(std::nullopt, "kworker/0:1", 4321) + "|" +
                ProcessNameFrom(std::nullopt, std::nullopt, 4321),
            "python3.11|chrome| (deleted)|kworker/0:1|pid-4321");
}
