// Platform pieces that need Windows but no running helper: the pipe drain of
// core management, the controller client's own ends, and the socket owner
// tables and process names. The system proxy cycle, the registry types, the
// data files and the controller's answers are the end-to-end tests'.
//
// Under Wine the socket tables are the Linux host's, and a row may carry
// owning pid 0 where Wine does not map the host socket to a Windows process
// (TCP rows here); on Windows the owner must be this process.
#include <gtest/gtest.h>
#include <ws2tcpip.h>

#include <thread>

#include "core/child_process.h"
#include "support/harness.h"
#include "traffic/core_stats_client.h"
#include "traffic/socket_tables.h"

namespace orvel {
namespace {

// A new socket in `own` bound to `address` (of `family`) port 0; the port
// chosen, 0 on failure.
std::uint16_t Bound(std::vector<SOCKET>& own, int family, int type, const char* address) {
  WSADATA data{};  // counted: one more start is harmless
  WSAStartup(MAKEWORD(2, 2), &data);
  own.push_back(socket(family, type, 0));
  const DWORD off = 0;  // an IPv6 socket takes IPv4 too
  setsockopt(own.back(), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&off), 4);
  sockaddr_in6 storage{};
  int length = sizeof(storage);
  auto* any = reinterpret_cast<sockaddr*>(&storage);
  WSAStringToAddressA(const_cast<char*>(address), family, nullptr, any, &length);
  if (bind(own.back(), any, length) != 0 || getsockname(own.back(), any, &length) != 0) return 0;
  return ntohs(storage.sin6_port);
}

// More than a dying core's first lines ever need: the drain stops at the
// chunk that passes 4 KiB.
TEST(DrainChildOutput, StopsAtTheChunkPastFourKiB) {
  std::string text;
  for (int i = 0; i < 12000; ++i) text += static_cast<char>('a' + i % 26);
  HANDLE read = nullptr, write = nullptr;
  ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 65536));
  DWORD written = 0;
  WriteFile(write, text.data(), text.size(), &written, nullptr);
  CloseHandle(write);
  ChildProcess child;
  child.output = reinterpret_cast<ChildHandle>(read);
  EXPECT_EQ(DrainChildOutput(child), text.substr(0, 8192));
  ReleaseChild(child);
}

// The two ends the core's controller double does not drive: a server that
// closes an answer with no length, and an answer that never completes.
TEST(LocalHttpGet, ReadsUntilTheCloseOrTheCap) {
  const std::pair<std::string, std::size_t> cases[] = {
      // Sent, then the server closes; the bytes kept.
      {"HTTP/1.1 200 OK\r\n\r\nno length", 28},
      // Checked before each receive: at most one chunk lies beyond the cap.
      {std::string(kCoreResponseCapBytes + 300000, 'x'), kCoreResponseCapBytes},
  };
  for (const auto& [sent, kept] : cases) {
    std::vector<SOCKET> listener;
    const std::uint16_t port = Bound(listener, AF_INET, SOCK_STREAM, "127.0.0.1");
    listen(listener[0], 1);
    std::thread server([&] {
      client::ClientSocket client;
      client.handle = static_cast<client::SocketHandle>(accept(listener[0], nullptr, nullptr));
      char chunk[4096];  // the request (its text is BuildControllerRequest's) is one small send
      recv(static_cast<SOCKET>(client.handle), chunk, 4096, 0);
      client::SendAllBytes(client, sent);
    });
    std::string response;
    EXPECT_TRUE(LocalHttpGet(port, "/traffic", 20000, response));
    server.join();
    closesocket(listener[0]);
    EXPECT_EQ(response, sent.substr(0, response.size()));
    EXPECT_TRUE(response.size() >= kept && response.size() < kept + kCoreReceiveChunkBytes);
  }
}

TEST(SocketTables, EachScanGivesOurEndpointWithItsOwner) {
  const bool wine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
  std::vector<SOCKET> own;
  // Other loopback addresses than 127.0.0.1: they must come through the scans.
  const std::uint16_t udp4 = Bound(own, AF_INET, SOCK_DGRAM, "127.0.0.2");
  const std::uint16_t udp6 = Bound(own, AF_INET6, SOCK_DGRAM, "::1");
  // An IPv4 client of a listener that takes both families: the client's row
  // is in the IPv4 table, the accepted end's in the IPv6 one.
  const std::uint16_t server = Bound(own, AF_INET6, SOCK_STREAM, "::");
  const SOCKET listener = own.back();
  listen(listener, 1);
  const std::uint16_t client = Bound(own, AF_INET, SOCK_STREAM, "127.0.0.3");
  const sockaddr_in peer{AF_INET, htons(server), {{{127, 0, 0, 3}}}, {}};
  connect(own.back(), reinterpret_cast<const sockaddr*>(&peer), sizeof(peer));
  own.push_back(accept(listener, nullptr, nullptr));
  const std::tuple<void (*)(const ObservationSink&), std::string, std::string, std::uint16_t>
      cases[] = {
          // Wine binds a UDP socket meant for one IPv4 address to the wildcard
          // address on the host (to get broadcasts as on Windows), and the
          // host's table shows that.
          {&ScanUdp4, "UDP", wine ? "0.0.0.0" : "127.0.0.2", udp4},
          {&ScanUdp6, "UDP", "::1", udp6},
          {&ScanTcp4, "TCP", "127.0.0.3", server},  // a TCP row names the peer
          {&ScanTcp6, "TCP", "::ffff:127.0.0.3", client},
      };
  for (const auto& [scan, protocol, address, port] : cases) {
    if (port == 0) GTEST_SKIP() << address << " cannot be bound here";
    int found = 0;
    scan([&](const SocketObservation& o) {
      if (o.protocol != protocol || o.address != address || o.port != port) return;
      found += o.pid == GetCurrentProcessId() || (wine && o.pid == 0);
    });
    EXPECT_EQ(found, 1) << address << " port " << port;
  }
  for (SOCKET s : own) closesocket(s);
}

TEST(ProcessNameForPid, FileNameOrThePidForm) {
  EXPECT_EQ(ProcessNameForPid(GetCurrentProcessId()), "orvel_win_unit_tests.exe");
  // Process ids are multiples of four and this one is far beyond any in use.
  EXPECT_EQ(ProcessNameForPid(0x7FFFFFFC), "pid-2147483644");
}

}  // namespace
}  // namespace orvel
