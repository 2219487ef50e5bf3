#pragma once

// The user behind a client's connection, as the kernel knows it (Linux: the
// owner of the client's own socket, found by the connection's exact
// addresses, and whether a process the helper started holds it). Windows does
// not identify callers yet: everyone is allowed.

#include "api/caller_policy.h"
#include "net/socket_io.h"

namespace orvel {

// Who holds the client's end of `socket`. One exact kernel look-up, never a
// scan of a whole table: this runs on the accepting thread.
CallerIdentity IdentifyCaller(SocketHandle socket);

// Whether that caller may use this helper in its run mode; the groups are
// looked up now, so a user just added to the service group is served at once.
bool IsCallerAllowed(const CallerIdentity& caller);

}  // namespace orvel
