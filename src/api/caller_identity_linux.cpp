#include <dirent.h>
#include <grp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "api/caller_identity.h"
#include "core/run_mode.h"
#include "core/system_error.h"
#include "traffic/sock_diag_linux.h"

namespace orvel {

namespace {

// The client's end of the connection is the socket whose own address is our
// peer and whose peer is our address. SO_PEERCRED gives nothing on TCP.
struct ClientEnd {
  sockaddr_storage client{};
  sockaddr_storage server{};
};

// False with `error` naming the call that failed, or with it untouched for
// addresses that are not one TCP family's.
bool FindEnds(int socket, ClientEnd& ends, SystemError& error) {
  socklen_t length = sizeof(ends.client);
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&ends.client), &length) != 0) {
    error = LastSystemError("getpeername");
    return false;
  }
  length = sizeof(ends.server);
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&ends.server), &length) != 0) {
    error = LastSystemError("getsockname");
    return false;
  }
  return ends.client.ss_family == ends.server.ss_family &&
         (ends.client.ss_family == AF_INET || ends.client.ss_family == AF_INET6);
}

void FillSocketId(const ClientEnd& ends, inet_diag_req_v2& request) {
  if (ends.client.ss_family == AF_INET) {
    const auto& client = reinterpret_cast<const sockaddr_in&>(ends.client);
    const auto& server = reinterpret_cast<const sockaddr_in&>(ends.server);
    request.id.idiag_sport = client.sin_port;
    request.id.idiag_dport = server.sin_port;
    request.id.idiag_src[0] = client.sin_addr.s_addr;
    request.id.idiag_dst[0] = server.sin_addr.s_addr;
  } else {
    const auto& client = reinterpret_cast<const sockaddr_in6&>(ends.client);
    const auto& server = reinterpret_cast<const sockaddr_in6&>(ends.server);
    request.id.idiag_sport = client.sin6_port;
    request.id.idiag_dport = server.sin6_port;
    std::memcpy(request.id.idiag_src, &client.sin6_addr, sizeof(client.sin6_addr));
    std::memcpy(request.id.idiag_dst, &server.sin6_addr, sizeof(server.sin6_addr));
  }
}

// One sock_diag request for exactly that socket. A client socket bound to a
// device (SO_BINDTODEVICE, open to every user) is found only when the request
// names the same device, so the loopback interface is asked for second.
std::optional<ClientSocketRow> AskSockDiag(const ClientEnd& ends, SystemError& error) {
  inet_diag_req_v2 request{};
  request.sdiag_family = static_cast<__u8>(ends.client.ss_family);
  request.sdiag_protocol = IPPROTO_TCP;
  request.idiag_states = ~0U;
  FillSocketId(ends, request);
  request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  std::optional<ClientSocketRow> found;
  const KernelRowSink keep = [&](const KernelSocketRow& row) {
    found = ClientSocketRow{row.state, row.inode, row.uid};
  };
  if (QuerySockDiag(request, false, keep, error)) return found;
  static const unsigned loopbackIndex = if_nametoindex("lo");
  if (loopbackIndex == 0) return std::nullopt;
  request.id.idiag_if = loopbackIndex;
  QuerySockDiag(request, false, keep, error);
  return found;
}

std::string ReadFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// Every process descended from the helper: its children are listed per
// thread (the spawner thread forks them), theirs the same way.
std::vector<pid_t> HelperDescendants() {
  std::vector<pid_t> found;
  std::vector<pid_t> pending{getpid()};
  while (!pending.empty() && found.size() < 4096) {
    const pid_t parent = pending.back();
    pending.pop_back();
    const std::string tasks = "/proc/" + std::to_string(parent) + "/task";
    DIR* directory = opendir(tasks.c_str());
    if (directory == nullptr) continue;
    while (const dirent* task = readdir(directory)) {
      if (task->d_name[0] == '.') continue;
      std::ifstream children(tasks + "/" + task->d_name + "/children");
      for (pid_t child = 0; children >> child;) {
        found.push_back(child);
        pending.push_back(child);
      }
    }
    closedir(directory);
  }
  return found;
}

bool HoldsSocket(pid_t pid, const std::string& link) {
  const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
  DIR* directory = opendir(fds.c_str());
  if (directory == nullptr) return false;
  bool holds = false;
  char target[64];
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    const ssize_t length = readlinkat(dirfd(directory), entry->d_name, target, sizeof(target) - 1);
    if (length > 0 &&
        link.compare(0, std::string::npos, target, static_cast<std::size_t>(length)) == 0) {
      holds = true;
      break;
    }
  }
  closedir(directory);
  return holds;
}

// The helper's own child (the core, a URL test process or anything they
// started) that holds socket `inode`, if any. Only the helper's descendants
// are read, so the cost is theirs, whatever the rest of the system holds.
void FindHelperChild(std::uint64_t inode, CallerIdentity& identity) {
  const std::string link = "socket:[" + std::to_string(inode) + "]";
  for (const pid_t pid : HelperDescendants()) {
    if (!HoldsSocket(pid, link)) continue;
    identity.childPid = static_cast<std::uint32_t>(pid);
    identity.childName = ReadFirstLine("/proc/" + std::to_string(pid) + "/comm");
    return;
  }
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

CallerIdentity IdentifyCaller(SocketHandle socket) {
  CallerIdentity identity;
  ClientEnd ends;
  SystemError error;
  std::optional<ClientSocketRow> row;
  if (FindEnds(static_cast<int>(socket), ends, error)) row = AskSockDiag(ends, error);
  if (!row && !error.call.empty()) identity.failure = DescribeSystemError(error);
  identity.uid = LiveSocketOwner(row);
  if (identity.uid) FindHelperChild(row->inode, identity);
  return identity;
}

bool IsCallerAllowed(const CallerIdentity& caller) {
  CallerFacts facts;
  facts.service = IsRunningAsService();
  facts.callerUid = caller.uid;
  facts.ownUid = geteuid();
  facts.helperChild = caller.childPid.has_value();
  // Only the service needs the databases; a root or own-user caller never.
  if (facts.service && caller.uid && *caller.uid != 0) {
    facts.callerGroups = GroupsOf(*caller.uid);
    facts.serviceGroup = ServiceGroupId();
  }
  return MayUseHelper(facts);
}

}  // namespace orvel
