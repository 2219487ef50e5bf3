// The socket owner tables and process names, checked against sockets and
// processes this test makes itself.
//
// Under Wine the tables are the Linux host's sockets and every row carries
// owning pid 0 (Wine does not map host sockets to Windows processes), so
// there the owner of our own sockets can only be checked to be 0; on Windows
// it must be this process.
#include "traffic/socket_tables.h"
#include "support/harness.h"

#include <gtest/gtest.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>


namespace orvel {
namespace {

bool RunningUnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::uint32_t ExpectedOwner() { return RunningUnderWine() ? 0 : GetCurrentProcessId(); }

struct Seen {
  std::uint32_t pid;
  std::string protocol;
  std::string address;
  std::uint16_t port;
};

std::vector<Seen> Collect(void (*scan)(const ObservationSink&)) {
  std::vector<Seen> seen;
  scan([&](const SocketObservation& o) {
    seen.push_back({o.pid, std::string(o.protocol), std::string(o.address), o.port});
  });
  return seen;
}

const Seen* FindEndpoint(const std::vector<Seen>& seen, std::string_view address,
                         std::uint16_t port) {
  for (const Seen& s : seen) {
    if (s.address == address && s.port == port) return &s;
  }
  return nullptr;
}

// For failure messages: every row a scan gave.
std::string Describe(const std::vector<Seen>& seen) {
  std::ostringstream text;
  text << seen.size() << " rows:";
  for (const Seen& s : seen)
    text << ' ' << s.pid << '/' << s.protocol << '/' << s.address << ':' << s.port;
  return text.str();
}

// A socket bound to `address` port 0; returns the port chosen, 0 on failure.
std::uint16_t BindAny(SOCKET s, int family, const char* address) {
  sockaddr_storage storage{};
  int length = 0;
  if (family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&storage);
    in->sin_family = AF_INET;
    inet_pton(AF_INET, address, &in->sin_addr);
    length = sizeof(sockaddr_in);
  } else {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
    in6->sin6_family = AF_INET6;
    inet_pton(AF_INET6, address, &in6->sin6_addr);
    length = sizeof(sockaddr_in6);
  }
  if (bind(s, reinterpret_cast<sockaddr*>(&storage), length) != 0) return 0;
  if (getsockname(s, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return 0;
  return ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&storage)->sin_port
                                 : reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port);
}

bool Connect4(SOCKET s, const char* address, std::uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  inet_pton(AF_INET, address, &peer.sin_addr);
  return connect(s, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) == 0;
}

// Closes every socket it was given.
struct Sockets {
  std::vector<SOCKET> all;
  SOCKET Add(SOCKET s) {
    all.push_back(s);
    return s;
  }
  ~Sockets() {
    for (SOCKET s : all) closesocket(s);
  }
};

class SocketTables : public ::testing::Test {
 protected:
  void SetUp() override { test::EnsureWinsock(); }
  Sockets sockets;
};

TEST_F(SocketTables, UdpRowsGiveTheLocalAddressAndPort) {
  SOCKET udp = sockets.Add(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
  // Another loopback address than 127.0.0.1: it must come through the scan.
  const std::uint16_t port = BindAny(udp, AF_INET, "127.0.0.2");
  ASSERT_NE(port, 0);
  const std::vector<Seen> seen = Collect(&ScanUdp4);
  // Wine binds a UDP socket meant for one IPv4 interface address to the
  // wildcard address on the host (so that it receives broadcasts as on
  // Windows), and the host's table, which it reads, shows 0.0.0.0 there.
  const char* expected = RunningUnderWine() ? "0.0.0.0" : "127.0.0.2";
  const Seen* ours = FindEndpoint(seen, expected, port);
  ASSERT_NE(ours, nullptr) << "port " << port << ", " << Describe(seen);
  EXPECT_EQ(ours->protocol, "UDP");
  EXPECT_EQ(ours->pid, ExpectedOwner());
}

TEST_F(SocketTables, TcpRowsGiveTheEstablishedPeerOnly) {
  SOCKET listener = sockets.Add(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const std::uint16_t port = BindAny(listener, AF_INET, "127.0.0.2");
  ASSERT_NE(port, 0);
  ASSERT_EQ(listen(listener, 1), 0);
  SOCKET client = sockets.Add(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  ASSERT_TRUE(Connect4(client, "127.0.0.2", port));
  sockets.Add(accept(listener, nullptr, nullptr));

  const std::vector<Seen> seen = Collect(&ScanTcp4);
  // The client's row names the listener as its peer.
  const Seen* ours = FindEndpoint(seen, "127.0.0.2", port);
  ASSERT_NE(ours, nullptr) << Describe(seen);
  EXPECT_EQ(ours->protocol, "TCP");
  EXPECT_EQ(ours->pid, ExpectedOwner());
  // Listening rows (peer 0.0.0.0:0) are not established and never come out.
  for (const Seen& s : seen) EXPECT_NE(s.address, "0.0.0.0") << s.port;
}

TEST_F(SocketTables, IPv6RowsUseTheCompressedFormAndMappedPeers) {
  SOCKET udp = sockets.Add(socket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP));
  const std::uint16_t udpPort = BindAny(udp, AF_INET6, "::1");
  if (udpPort == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
  const Seen* ours = nullptr;
  std::vector<Seen> seen = Collect(&ScanUdp6);
  ours = FindEndpoint(seen, "::1", udpPort);
  ASSERT_NE(ours, nullptr) << Describe(seen);
  EXPECT_EQ(ours->protocol, "UDP");

  // A dual-stack listener reached over IPv4: the accepted socket's row in the
  // IPv6 table names its peer in the mapped form.
  SOCKET listener = sockets.Add(socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP));
  const DWORD off = 0;
  setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&off), sizeof(off));
  const std::uint16_t port = BindAny(listener, AF_INET6, "::");
  ASSERT_NE(port, 0);
  ASSERT_EQ(listen(listener, 1), 0);
  SOCKET client = sockets.Add(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const std::uint16_t clientPort = BindAny(client, AF_INET, "127.0.0.3");
  ASSERT_NE(clientPort, 0);
  ASSERT_TRUE(Connect4(client, "127.0.0.3", port));
  sockets.Add(accept(listener, nullptr, nullptr));

  seen = Collect(&ScanTcp6);
  ours = FindEndpoint(seen, "::ffff:127.0.0.3", clientPort);
  ASSERT_NE(ours, nullptr) << Describe(seen);
  EXPECT_EQ(ours->protocol, "TCP");
  EXPECT_EQ(ours->pid, ExpectedOwner());
}

TEST(ProcessNameForPid, NamesALiveProcessByItsFileName) {
  EXPECT_EQ(ProcessNameForPid(GetCurrentProcessId()), "orvel_win_unit_tests.exe");
}

TEST(ProcessNameForPid, UsesThePidFormWhenTheProcessCannotBeOpened) {
  EXPECT_EQ(ProcessNameForPid(0), "pid-0");
  // Process ids are multiples of four and this one is far beyond any in use.
  EXPECT_EQ(ProcessNameForPid(0x7FFFFFFC), "pid-2147483644");
}

TEST(ProcessNameForPid, GivesTheNameInUtf8) {
  // A suspended copy of this test program under a name that is not ASCII.
  namespace fs = std::filesystem;
  const fs::path directory = fs::path(test::BinDirectory()) / L"process-name-test";
  std::error_code ec;
  fs::remove_all(directory, ec);
  fs::create_directories(directory, ec);
  const fs::path copy = directory / L"na\u00efve-\u540d\u524d.exe";
  fs::copy_file(fs::path(test::BinDirectory()) / L"orvel_win_unit_tests.exe", copy, ec);
  ASSERT_FALSE(ec) << ec.message();
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  std::wstring commandLine = L"\"" + copy.wstring() + L"\"";
  ASSERT_TRUE(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE,
                             CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                             &process));
  const std::string name = ProcessNameForPid(process.dwProcessId);
  TerminateProcess(process.hProcess, 1);
  WaitForSingleObject(process.hProcess, 10000);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  EXPECT_EQ(name, "na\xC3\xAFve-\xE5\x90\x8D\xE5\x89\x8D.exe");
}

}  // namespace
}  // namespace orvel
