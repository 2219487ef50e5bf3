#pragma once

// The connection to the core's controller, shared by the one-shot fetches and
// the stream reader.

#include <cstdint>

namespace orvel {

// A TCP socket, close-on-exec (a core or URL test started while it is open
// must not hold the connection) and non-blocking, connected to
// 127.0.0.1:`port` within `timeoutMs`, or sooner abandoned when `endEarly`
// (a pidfd, or -1) becomes readable. The socket, or -1.
int ConnectController(std::uint16_t port, int timeoutMs, int endEarly);

}  // namespace orvel
