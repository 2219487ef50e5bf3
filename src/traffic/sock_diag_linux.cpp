#include "traffic/sock_diag_linux.h"

#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

namespace orvel {

bool QuerySockDiag(const inet_diag_req_v2& request, bool dump, const KernelRowSink& sink,
                   SystemError& error) {
  constexpr std::string_view kWhat = "NETLINK_SOCK_DIAG";
  const int diag = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (diag < 0) {
    error = LastSystemError("socket", kWhat);
    return false;
  }
  // The kernel answers at once; the bound keeps a caller's identity look-up
  // (on the accepting thread) or orvelctl's listener check from ever waiting
  // long.
  const timeval bound{1, 0};
  setsockopt(diag, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } query{};
  query.header.nlmsg_len = sizeof(query);
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = static_cast<__u16>(NLM_F_REQUEST | (dump ? NLM_F_DUMP : 0));
  query.request = request;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  bool found = false;
  const KernelRowSink count = [&](const KernelSocketRow& row) {
    found = true;
    sink(row);
  };
  DiagStatus status = DiagStatus::kFailed;
  if (sendto(diag, &query, sizeof(query), 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof(kernel)) == static_cast<ssize_t>(sizeof(query))) {
    alignas(nlmsghdr) static thread_local char buffer[32768];
    do {
      sockaddr_nl from{};
      socklen_t fromSize = sizeof(from);
      const ssize_t got =
          recvfrom(diag, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &fromSize);
      if (got < 0) error = LastSystemError("recvfrom", kWhat);
      // Only the kernel (port 0) speaks for the table.
      status = got <= 0 || from.nl_pid != 0
                   ? DiagStatus::kFailed
                   : ReadDiagAnswer(std::string_view(buffer, static_cast<std::size_t>(got)), count);
      // A request for one socket is answered with that socket alone.
    } while (dump && status == DiagStatus::kMore);
  } else {
    error = LastSystemError("sendto", kWhat);
  }
  close(diag);
  return dump ? status == DiagStatus::kDone : status != DiagStatus::kFailed && found;
}

}  // namespace orvel
