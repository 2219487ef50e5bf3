#pragma once

#include <string>

namespace orvel {

// The four commands the client switches the VPN with. Each returns a status
// body ("connected" or "disconnected" and a message), always sent with HTTP
// 200. The body of a start is the complete core configuration, written to
// sing-box.json (unchanged, or in the service as its guard read it).
//
// The commands that change what runs take turns in arrival order, each to its
// end, with the stops and the recovery below; any mix of concurrent requests
// leaves at most one core. A status never waits for them.

// Proxy mode: core plus the per-user system proxy at its mixed inbound.
std::string HandleStart(const std::string& body);
// TUN mode: core only; the system proxy is left as the user had it.
std::string HandleStartTun(const std::string& body);
// Restores the system proxy and stops the core; the same answer every time.
std::string HandleStop();
// Whether a core runs: now, or while a command runs, as it was before that
// command began. Changes nothing and never waits for a command.
std::string HandleStatus();

// Every orderly end of the helper (a termination signal, the service's stop,
// a listener that could not be set up): after the commands that arrived
// before it, puts the user's proxy settings back and stops the core. The turn
// is never given back, so nothing starts again; the caller exits.
void RestoreProxyThenStopCore();

// Start-up, before the listener opens: the proxy values a helper that ended
// while they were in place left behind go back (RecoverSystemProxyAtStartup).
void RecoverProxyAtStartup();

}  // namespace orvel
