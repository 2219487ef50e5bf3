#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "api/caller_identity.h"
#include "api/caller_policy.h"
#include "core/run_mode.h"
#include "traffic/sock_diag_linux.h"

namespace orvel {

namespace {

// The client's end of the connection is the socket whose own address is our
// peer and whose peer is our address. SO_PEERCRED gives nothing on TCP.
struct ClientEnd {
  sockaddr_in client{};
  sockaddr_in server{};
};

bool FindEnds(int socket, ClientEnd& ends) {
  socklen_t length = sizeof(ends.client);
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&ends.client), &length) != 0) return false;
  length = sizeof(ends.server);
  return getsockname(socket, reinterpret_cast<sockaddr*>(&ends.server), &length) == 0 &&
         ends.client.sin_family == AF_INET;
}

// One sock_diag request for exactly that socket; its owner from the answer.
std::optional<std::uint32_t> AskSockDiag(const ClientEnd& ends) {
  inet_diag_req_v2 request{};
  request.sdiag_family = AF_INET;
  request.sdiag_protocol = IPPROTO_TCP;
  request.idiag_states = ~0U;
  request.id.idiag_sport = ends.client.sin_port;
  request.id.idiag_dport = ends.server.sin_port;
  request.id.idiag_src[0] = ends.client.sin_addr.s_addr;
  request.id.idiag_dst[0] = ends.server.sin_addr.s_addr;
  request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  std::optional<std::uint32_t> uid;
  QuerySockDiag(request, false, [&](const KernelSocketRow& row) { uid = row.uid; });
  return uid;
}

// The same row in /proc/net/tcp, where sock_diag is refused: addresses as the
// kernel's 32-bit words and ports in hexadecimal, the owner in column 8.
std::optional<std::uint32_t> AskProcNetTcp(const ClientEnd& ends) {
  char local[32];
  char remote[32];
  std::snprintf(local, sizeof(local), "%08X:%04X", ends.client.sin_addr.s_addr,
                ntohs(ends.client.sin_port));
  std::snprintf(remote, sizeof(remote), "%08X:%04X", ends.server.sin_addr.s_addr,
                ntohs(ends.server.sin_port));
  std::ifstream table("/proc/net/tcp");
  std::string line;
  std::getline(table, line);  // the column names
  while (std::getline(table, line)) {
    char rowLocal[64];
    char rowRemote[64];
    unsigned uid = 0;
    if (std::sscanf(line.c_str(), " %*s %63s %63s %*s %*s %*s %*s %u", rowLocal, rowRemote, &uid) ==
            3 &&
        std::strcmp(rowLocal, local) == 0 && std::strcmp(rowRemote, remote) == 0) {
      return uid;
    }
  }
  return std::nullopt;
}

// The caller's primary and supplementary groups, from the databases now.
std::vector<std::uint32_t> GroupsOf(std::uint32_t uid) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return {};
  }
  std::vector<gid_t> groups(64);
  int count = static_cast<int>(groups.size());
  if (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count));
    getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count);
  }
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  return std::vector<std::uint32_t>(groups.begin(), groups.end());
}

std::optional<std::uint32_t> ServiceGroupId() {
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  if (getgrnam_r(kServiceGroupName, &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    return std::nullopt;
  }
  return found->gr_gid;
}

}  // namespace

std::optional<std::uint32_t> IdentifyCaller(SocketHandle socket) {
  ClientEnd ends;
  if (!FindEnds(static_cast<int>(socket), ends)) return std::nullopt;
  if (const std::optional<std::uint32_t> uid = AskSockDiag(ends)) return uid;
  return AskProcNetTcp(ends);
}

bool IsCallerAllowed(std::optional<std::uint32_t> callerUid) {
  CallerFacts facts;
  facts.service = IsRunningAsService();
  facts.callerUid = callerUid;
  facts.ownUid = geteuid();
  // Only the service needs the databases; a root or own-user caller never.
  if (facts.service && callerUid && *callerUid != 0) {
    facts.callerGroups = GroupsOf(*callerUid);
    facts.serviceGroup = ServiceGroupId();
  }
  return MayUseHelper(facts);
}

}  // namespace orvel
