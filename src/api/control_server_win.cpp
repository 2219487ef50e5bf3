#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdint>
#include <string_view>

#include "api/connection.h"
#include "api/control_server.h"
#include "core/system_error.h"
#include "log/log_buffer.h"

namespace orvel {

namespace {

// A listening socket on `address` (`where` in the log) that no other socket
// can share, or INVALID_SOCKET with `error` naming the call that failed. Not
// inheritable: a core started later must not keep the port bound.
SOCKET OpenListener(const sockaddr* address, int length, std::string_view where,
                    SystemError& error) {
  SOCKET listener = WSASocketW(address->sa_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                               WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (listener == INVALID_SOCKET) {
    error = LastSystemError("WSASocketW", where);
    return INVALID_SOCKET;
  }
  SetHandleInformation(reinterpret_cast<HANDLE>(listener), HANDLE_FLAG_INHERIT, 0);
  // Exclusive rather than SO_REUSEADDR: with that, any other program (of any
  // user) may bind the same address with SO_REUSEADDR of its own and take
  // over the clients' connections, commands and configurations included.
  const BOOL exclusive = TRUE;
  const char* failed = nullptr;
  if (setsockopt(listener, SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
                 reinterpret_cast<const char*>(&exclusive), sizeof(exclusive)) != 0) {
    failed = "setsockopt";
  } else if (bind(listener, address, length) != 0) {
    failed = "bind";
  } else if (listen(listener, SOMAXCONN) != 0) {
    failed = "listen";
  }
  if (failed == nullptr) return listener;
  // Winsock's error is the thread's last error: read before closesocket.
  error = LastSystemError(failed, where);
  closesocket(listener);
  return INVALID_SOCKET;
}

[[noreturn]] void AcceptConnections(SOCKET listener) {
  for (;;) {
    SOCKET client = accept(listener, nullptr, nullptr);
    if (client == INVALID_SOCKET) continue;
    // Windows carries the listener's no-inherit flag over to accepted sockets
    // but Wine does not; clearing it here makes both behave alike.
    SetHandleInformation(reinterpret_cast<HANDLE>(client), HANDLE_FLAG_INHERIT, 0);
    AcceptedConnection connection;
    if (!AdmitAcceptedConnection(static_cast<SocketHandle>(client), connection)) continue;
    // No thread, no answer: the connection is closed rather than the helper ended.
    if (!StartConnectionThread(connection)) DropConnection(connection);
  }
}

DWORD WINAPI AcceptThread(LPVOID listener) {
  AcceptConnections(reinterpret_cast<SOCKET>(listener));
}

// The errors of a system without IPv6, or with it off on the loopback.
bool MeansNoIpv6(std::uint32_t error) {
  return error == WSAEAFNOSUPPORT || error == WSAEPROTONOSUPPORT || error == WSAEADDRNOTAVAIL;
}

}  // namespace

// The helper ends after this line.
int FailListening(const SystemError& error) {
  HelperLog().Append("Control server not started: " + DescribeSystemError(error));
  return 1;
}

int RunControlServer(void (*listening)()) {
  HelperLog().Append("OrvelVpnHelper started");
  WSADATA wsaData{};
  // WSAStartup returns its error rather than setting the last one.
  if (const int code = WSAStartup(MAKEWORD(2, 2), &wsaData); code != 0) {
    return FailListening({"WSAStartup", "", static_cast<std::uint32_t>(code)});
  }

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kControlPort);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  SystemError error;
  const SOCKET listener = OpenListener(reinterpret_cast<const sockaddr*>(&address), sizeof(address),
                                       "127.0.0.1:17891", error);
  if (listener == INVALID_SOCKET) {
    WSACleanup();
    return FailListening(error);
  }
  // Clients that resolve "localhost" may try ::1 first. Every rule is the
  // same there: the same admission and connection handling. A port taken on
  // ::1 ends the helper like one taken on 127.0.0.1, since its holder would
  // get those clients; only a system without IPv6 is served on IPv4 alone.
  sockaddr_in6 address6{};
  address6.sin6_family = AF_INET6;
  address6.sin6_port = htons(kControlPort);
  address6.sin6_addr = in6addr_loopback;
  const SOCKET listener6 = OpenListener(reinterpret_cast<const sockaddr*>(&address6),
                                        sizeof(address6), "[::1]:17891", error);
  if (listener6 == INVALID_SOCKET && !MeansNoIpv6(error.code)) {
    closesocket(listener);
    WSACleanup();
    return FailListening(error);
  }
  if (listener6 == INVALID_SOCKET) {
    HelperLog().Append("IPv6 loopback [::1]:17891 not available, serving 127.0.0.1 only");
  } else {
    HANDLE thread =
        CreateThread(nullptr, 0, AcceptThread, reinterpret_cast<LPVOID>(listener6), 0, nullptr);
    if (thread == nullptr) {
      error = LastSystemError("CreateThread", "[::1]:17891");
      closesocket(listener6);
      closesocket(listener);
      WSACleanup();
      return FailListening(error);
    }
    CloseHandle(thread);
  }
  if (listening != nullptr) listening();
  AcceptConnections(listener);
}

}  // namespace orvel
