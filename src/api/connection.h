#pragma once

#include <cstdint>

#include "api/caller_policy.h"
#include "net/socket_io.h"

namespace orvel {

// One accepted connection, counted in under the connection limits.
struct AcceptedConnection {
  SocketHandle socket = 0;
  CallerIdentity caller;
  bool allowed = false;          // judged at the accept, before a byte is read
  std::uint64_t acceptedMs = 0;  // steady clock
};

// Right after the accept, on the accepting thread: identifies and judges the
// caller and counts the connection in (a refused caller only among the
// refusals being answered). False when a limit is reached: the socket is then
// already closed (no answer) and counted for the log.
bool AdmitAcceptedConnection(SocketHandle socket, AcceptedConnection& connection);

// Hands an admitted connection to a thread of its own that runs
// HandleConnection; false when no thread could be started.
bool StartConnectionThread(const AcceptedConnection& connection);

// For an admitted connection whose thread could not be started.
void DropConnection(const AcceptedConnection& connection);

// Refuses a caller that may not use the helper before reading anything, reads
// one request within its deadline, refuses a web page's request, answers the rest through the route
// table, closes the socket and counts the connection out, on every path. Runs
// on the connection's own thread.
void HandleConnection(const AcceptedConnection& connection);

}  // namespace orvel
