#include <winsock2.h>

#include <climits>
#include <string>

#include "api/http_request.h"
#include "api/socket_io.h"

namespace orvel {

void SendBytes(SocketHandle socket, std::string_view bytes) {
  const int length = bytes.size() > INT_MAX ? INT_MAX : static_cast<int>(bytes.size());
  send(static_cast<SOCKET>(socket), bytes.data(), length, 0);
}

void SendResponse(SocketHandle socket, std::string_view contentType, std::string_view body,
                  int status, std::string_view reason) {
  SendBytes(socket, BuildResponse(contentType, body, status, reason));
}

}  // namespace orvel
