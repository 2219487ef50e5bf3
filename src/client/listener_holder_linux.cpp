#include <netinet/in.h>
#include <unistd.h>

#include "client/listener_holder.h"
#include "traffic/sock_diag_linux.h"

namespace orvel::client {

namespace {

// One dump of `family`'s listening TCP sockets; every row to `sink`. False
// when netlink is refused or the dump fails or does not end.
bool DumpListeners(std::uint8_t family, const KernelRowSink& sink) {
  inet_diag_req_v2 request{};
  request.sdiag_family = family;
  request.sdiag_protocol = IPPROTO_TCP;
  request.idiag_states = 1u << kTcpListen;
  SystemError ignored;
  return QuerySockDiag(request, true, sink, ignored);
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
