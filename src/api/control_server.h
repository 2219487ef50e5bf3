#pragma once

namespace orvel {

constexpr unsigned short kControlPort = 17891;

// Logs "OrvelVpnHelper started", listens on 127.0.0.1:17891 and [::1]:17891
// and serves each connection on its own detached thread, for ever. Where IPv6
// is off it serves 127.0.0.1 alone and says so in one log line; either port
// taken by another program ends it (that program would get the clients).
// `listening`, when given, is called once the listeners accept connections.
// Returns 1 only when the listeners cannot be set up.
int RunControlServer(void (*listening)() = nullptr);

}  // namespace orvel
