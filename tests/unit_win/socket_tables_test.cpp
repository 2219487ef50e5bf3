// The socket owner tables and process names, checked against sockets and
// processes this test makes itself.
//
// Under Wine the tables are the Linux host's sockets, and a row may carry
// owning pid 0 where Wine does not map the host socket to a Windows process
// (TCP rows here); on Windows the owner must be this process.
#include "traffic/socket_tables.h"

#include <gtest/gtest.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/harness.h"

namespace orvel {
namespace {

// Sockets of this test, closed at the end.
struct Sockets {
  std::vector<SOCKET> all;
  ~Sockets() {
    for (SOCKET s : all) closesocket(s);
  }
  // A new socket bound to `address` port 0 (one of IPv6 takes IPv4 too); the
  // port chosen, 0 on failure.
  std::uint16_t Bind(int family, int type, const char* address) {
    all.push_back(socket(family, type, 0));
    const DWORD off = 0;
    setsockopt(all.back(), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&off), 4);
    sockaddr_in6 storage{};  // either family; the port sits at the same place
    storage.sin6_family = static_cast<ADDRESS_FAMILY>(family);
    auto* in = reinterpret_cast<sockaddr_in*>(&storage);
    inet_pton(family, address,
              family == AF_INET ? static_cast<void*>(&in->sin_addr) : &storage.sin6_addr);
    int length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    auto* any = reinterpret_cast<sockaddr*>(&storage);
    if (bind(all.back(), any, length) != 0 || getsockname(all.back(), any, &length) != 0) return 0;
    return ntohs(storage.sin6_port);
  }
  // A listener on `at` and an accepted client bound to the IPv4 address
  // `from`, which it also connects to; {listener's port, client's port}.
  std::pair<std::uint16_t, std::uint16_t> Connection(int family, const char* at, const char* from) {
    const std::uint16_t port = Bind(family, SOCK_STREAM, at);
    const SOCKET listener = all.back();
    listen(listener, 1);
    const std::uint16_t clientPort = Bind(AF_INET, SOCK_STREAM, from);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    inet_pton(AF_INET, from, &peer.sin_addr);
    connect(all.back(), reinterpret_cast<sockaddr*>(&peer), sizeof(peer));
    all.push_back(accept(listener, nullptr, nullptr));
    return {port, clientPort};
  }
};

TEST(SocketTables, EachScanGivesOurEndpointWithItsOwner) {
  test::EnsureWinsock();
  const bool wine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
  Sockets own;
  // Other loopback addresses than 127.0.0.1: they must come through the scans.
  const std::uint16_t udp4 = own.Bind(AF_INET, SOCK_DGRAM, "127.0.0.2");
  const std::uint16_t udp6 = own.Bind(AF_INET6, SOCK_DGRAM, "::1");
  const std::uint16_t tcp4 = own.Connection(AF_INET, "127.0.0.2", "127.0.0.2").first;
  const std::uint16_t tcp6 = own.Connection(AF_INET6, "::", "127.0.0.3").second;
  const struct {
    void (*scan)(const ObservationSink&);
    std::string address;
    std::uint16_t port;
    std::string_view protocol;
  } cases[] = {
      // Wine binds a UDP socket meant for one IPv4 address to the wildcard
      // address on the host (to get broadcasts as on Windows), and the
      // host's table shows that.
      {&ScanUdp4, wine ? "0.0.0.0" : "127.0.0.2", udp4, "UDP"},
      {&ScanTcp4, "127.0.0.2", tcp4, "TCP"},  // the client's row names its peer
      {&ScanUdp6, "::1", udp6, "UDP"},
      // The accepted end of an IPv4 client names it in the mapped form.
      {&ScanTcp6, "::ffff:127.0.0.3", tcp6, "TCP"},
  };
  for (const auto& c : cases) {
    if (c.port == 0) {
      GTEST_SKIP() << c.address << " cannot be bound here";
    }
    SCOPED_TRACE(c.address);
    bool found = false;
    c.scan([&](const SocketObservation& o) {
      // Listening rows (peer port 0) are not established and never come out.
      EXPECT_TRUE(o.protocol == "UDP" || o.port != 0) << o.address;
      if (o.address != c.address || o.port != c.port) return;
      found = true;
      EXPECT_EQ(o.protocol, c.protocol);
      EXPECT_TRUE(o.pid == GetCurrentProcessId() || (wine && o.pid == 0)) << o.pid;
    });
    EXPECT_TRUE(found) << "port " << c.port;
  }
}

TEST(ProcessNameForPid, FileNameInUtf8OrThePidForm) {
  // A suspended copy of this test program under a name that is not ASCII.
  namespace fs = std::filesystem;
  const fs::path bin = test::BinDirectory();
  const fs::path copy = bin / L"process-name-test" / L"na\u00efve-\u540d\u524d.exe";
  std::error_code ec;
  fs::remove_all(copy.parent_path(), ec);
  fs::create_directories(copy.parent_path(), ec);
  fs::copy_file(bin / L"orvel_win_unit_tests.exe", copy, ec);
  ASSERT_FALSE(ec) << ec.message();
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  std::wstring commandLine = L"\"" + copy.wstring() + L"\"";
  ASSERT_TRUE(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE,
                             CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                             &process));
  const struct {
    std::uint32_t pid;
    std::string name;
  } cases[] = {
      {GetCurrentProcessId(), "orvel_win_unit_tests.exe"},
      {process.dwProcessId, "na\xC3\xAFve-\xE5\x90\x8D\xE5\x89\x8D.exe"},
      {0, "pid-0"},
      // Process ids are multiples of four and this one is far beyond any in use.
      {0x7FFFFFFC, "pid-2147483644"},
  };
  for (const auto& c : cases) EXPECT_EQ(ProcessNameForPid(c.pid), c.name);
  TerminateProcess(process.hProcess, 1);
  WaitForSingleObject(process.hProcess, 10000);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
}

}  // namespace
}  // namespace orvel
