#pragma once

// The user behind a client's connection, as the kernel knows it (Linux: the
// owner of the client's own socket, found by the connection's exact
// addresses). Windows does not identify callers yet: everyone is allowed.

#include <cstdint>
#include <optional>

#include "api/socket_io.h"

namespace orvel {

// The user id that owns the client's end of `socket`; none when it cannot be
// found (and always none on Windows).
std::optional<std::uint32_t> IdentifyCaller(SocketHandle socket);

// Whether that caller may use this helper in its run mode; the groups are
// looked up now, so a user just added to the service group is served at once.
bool IsCallerAllowed(std::optional<std::uint32_t> callerUid);

}  // namespace orvel
