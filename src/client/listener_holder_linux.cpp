#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string_view>

#include "client/listener_holder.h"

namespace orvel::client {

namespace {

// One dump of `family`'s listening TCP sockets; every row to `sink`. False
// when netlink is refused or the dump fails or does not end.
bool DumpListeners(std::uint8_t family, const KernelRowSink& sink) {
  const int diag = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (diag < 0) return false;
  // The kernel answers at once; the bound only keeps a broken one from
  // holding the command for ever.
  const timeval bound{2, 0};
  setsockopt(diag, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } query{};
  query.header.nlmsg_len = sizeof(query);
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = static_cast<__u16>(NLM_F_REQUEST | NLM_F_DUMP);
  query.request.sdiag_family = family;
  query.request.sdiag_protocol = IPPROTO_TCP;
  query.request.idiag_states = 1u << kTcpListen;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  DiagStatus status = DiagStatus::kFailed;
  if (sendto(diag, &query, sizeof(query), 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof(kernel)) == static_cast<ssize_t>(sizeof(query))) {
    alignas(nlmsghdr) char buffer[32768];
    do {
      sockaddr_nl from{};
      socklen_t fromSize = sizeof(from);
      const ssize_t got =
          recvfrom(diag, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &fromSize);
      // Only the kernel (port 0) speaks for the table.
      status = got <= 0 || from.nl_pid != 0
                   ? DiagStatus::kFailed
                   : ReadDiagAnswer(std::string_view(buffer, static_cast<std::size_t>(got)), sink);
    } while (status == DiagStatus::kMore);
  }
  close(diag);
  return status == DiagStatus::kDone;
}

}  // namespace

ListenerHolder FindListenerHolder(const DialTarget& target, std::uint32_t& strangerUid) {
  const std::uint32_t caller = geteuid();
  bool found = false;
  bool stranger = false;
  const KernelRowSink judge = [&](const KernelSocketRow& row) {
    if (stranger || !ListenerReaches(row, target)) return;
    found = true;
    if (row.uid != 0 && row.uid != caller) {
      stranger = true;
      strangerUid = row.uid;
    }
  };
  // An IPv6 socket on :: takes IPv4 connections too, so both tables count
  // for an IPv4 target.
  if ((!target.ipv6 && !DumpListeners(AF_INET, judge)) || !DumpListeners(AF_INET6, judge)) {
    return ListenerHolder::kUnknown;
  }
  if (stranger) return ListenerHolder::kStranger;
  return found ? ListenerHolder::kTrusted : ListenerHolder::kNone;
}

}  // namespace orvel::client
