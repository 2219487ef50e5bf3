#pragma once

#include <linux/inet_diag.h>

#include "core/system_error.h"
#include "traffic/kernel_socket_rows.h"

namespace orvel {

// One NETLINK_SOCK_DIAG request: a dump of the table `request` names (every
// row to `sink`, true once the dump is complete), or with `dump` false the
// one socket its id names exactly (true when the kernel knew it). False when
// netlink is refused or answers with an error; rows of a failed dump may have
// reached `sink` already. `error` names the system call when one failed (an
// error answer from the kernel, such as an unknown socket, leaves it alone).
bool QuerySockDiag(const inet_diag_req_v2& request, bool dump, const KernelRowSink& sink,
                   SystemError& error);

}  // namespace orvel
