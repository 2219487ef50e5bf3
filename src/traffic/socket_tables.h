#pragma once

// The operating system's TCP and UDP tables with the owning process of each
// socket, and process names by id.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace orvel {

// One kept table row. TCP rows give the remote peer, UDP rows the local
// address and port (the UDP tables hold no peer). The views point into the
// scan's own buffers and are valid only during the sink call.
struct SocketObservation {
  std::uint32_t pid = 0;
  std::string_view protocol;  // "TCP" or "UDP"
  std::string_view address;   // inet_ntop text: no brackets, no zone index
  std::uint16_t port = 0;     // host byte order
};

using ObservationSink = std::function<void(const SocketObservation&)>;

// Each scan reads its table afresh and hands every kept row to `sink` in the
// system's order; TCP scans keep established connections only. A table that
// cannot be read (including one that grew between the size query and the
// read) contributes nothing, silently.
void ScanTcp4(const ObservationSink& sink);
void ScanTcp6(const ObservationSink& sink);
void ScanUdp4(const ObservationSink& sink);
void ScanUdp6(const ObservationSink& sink);

// The four scans in that order, as one snapshot needs them (on Linux the
// owners of all four tables come from one pass over the processes).
void ScanAllTables(const ObservationSink& sink);

// File name of the process's image in UTF-8 ("chrome.exe"), "pid-<id>" when
// the process cannot be opened or its image name read, and "" when a name
// exists but cannot be converted. Looked up afresh on every call.
std::string ProcessNameForPid(std::uint32_t pid);

}  // namespace orvel
