#pragma once

#include <string>

namespace orvel {

// The four commands the client switches the VPN with. Each returns a status
// body ("connected" or "disconnected" and a message), always sent with HTTP
// 200. The body of a start is the complete core configuration, written
// unchanged to sing-box.json.

// Proxy mode: core plus the per-user system proxy at its mixed inbound.
std::string HandleStart(const std::string& body);
// TUN mode: core only; the system proxy is left as the user had it.
std::string HandleStartTun(const std::string& body);
// Restores the system proxy and stops the core; the same answer every time.
std::string HandleStop();
// Whether a core runs now; changes nothing.
std::string HandleStatus();

}  // namespace orvel
