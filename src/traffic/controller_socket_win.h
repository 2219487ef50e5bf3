#pragma once

// The connection to the core's controller, shared by the one-shot fetches and
// the stream reader.

#include <winsock2.h>

#include <cstdint>

namespace orvel {

// An overlapped TCP socket that no child inherits (a core or URL test started
// while it is open must not hold the connection), told where Windows supports
// it not to resend its SYN after a refusal. INVALID_SOCKET on failure.
SOCKET OpenControllerSocket();

// Connects `s` to 127.0.0.1:`port` with `ready` selected for FD_CONNECT,
// FD_READ and FD_CLOSE (the socket is non-blocking from then on). Waits at
// most `timeoutMs`, and no longer than `endEarly` (may be null) stays
// unsignalled. True once connected.
bool ConnectController(SOCKET s, std::uint16_t port, WSAEVENT ready, DWORD timeoutMs,
                       HANDLE endEarly);

}  // namespace orvel
