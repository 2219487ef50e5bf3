#pragma once

#include <cstdint>
#include <optional>

#include "api/socket_io.h"

namespace orvel {

// One accepted connection, counted in under the connection limits.
struct AcceptedConnection {
  SocketHandle socket = 0;
  std::optional<std::uint32_t> caller;  // the user behind it, when known
  std::uint64_t acceptedMs = 0;         // steady clock
};

// Right after the accept, on the accepting thread: identifies the caller and
// counts the connection in. False when a limit is reached: the socket is then
// already closed (no answer) and counted for the log.
bool AdmitAcceptedConnection(SocketHandle socket, AcceptedConnection& connection);

// For an admitted connection whose thread could not be started.
void DropConnection(const AcceptedConnection& connection);

// Reads one request within its deadlines, refuses a caller that may not use
// the helper and a web page's request, answers the rest through the route
// table, closes the socket and counts the connection out, on every path. Runs
// on the connection's own thread.
void HandleConnection(const AcceptedConnection& connection);

}  // namespace orvel
