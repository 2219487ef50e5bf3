#pragma once

namespace orvel {

constexpr unsigned short kControlPort = 17891;

// Logs "OrvelVpnHelper started", listens on 127.0.0.1:17891 and serves each
// connection on its own detached thread, for ever. `listening`, when given,
// is called once the listener accepts connections. Returns 1 only when the
// listener cannot be set up.
int RunControlServer(void (*listening)() = nullptr);

}  // namespace orvel
