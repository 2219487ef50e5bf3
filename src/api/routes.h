#pragma once

#include "api/http_request.h"
#include "net/socket_io.h"

namespace orvel {

// Picks the route by exact method and path, runs its handler on this thread and
// writes the one response. Does not close the socket.
void DispatchRequest(SocketHandle socket, const HttpRequest& request);

}  // namespace orvel
