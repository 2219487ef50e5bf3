#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <unordered_map>
#include <vector>

#include "traffic/kernel_socket_rows.h"
#include "traffic/sock_diag_linux.h"
#include "traffic/socket_tables.h"

namespace orvel {

namespace {

struct Table {
  const char* protocol;  // "TCP" or "UDP"
  int family;
  std::uint8_t ipProtocol;
  const char* procPath;
};

constexpr Table kTcp4{"TCP", AF_INET, IPPROTO_TCP, "/proc/net/tcp"};
constexpr Table kTcp6{"TCP", AF_INET6, IPPROTO_TCP, "/proc/net/tcp6"};
constexpr Table kUdp4{"UDP", AF_INET, IPPROTO_UDP, "/proc/net/udp"};
constexpr Table kUdp6{"UDP", AF_INET6, IPPROTO_UDP, "/proc/net/udp6"};

// One sock_diag dump of the table: TCP asks for established sockets only.
// False when netlink is refused or fails part way (the rows got so far are
// dropped, and the caller reads /proc/net instead).
bool DumpThroughNetlink(const Table& table, std::vector<KernelSocketRow>& rows) {
  inet_diag_req_v2 request{};
  request.sdiag_family = static_cast<std::uint8_t>(table.family);
  request.sdiag_protocol = table.ipProtocol;
  request.idiag_states = table.ipProtocol == IPPROTO_TCP ? 1U << kTcpEstablished : ~0U;
  const KernelRowSink keep = [&](const KernelSocketRow& row) { rows.push_back(row); };
  SystemError unused;  // /proc/net answers instead, whatever failed
  if (QuerySockDiag(request, true, keep, unused)) return true;
  rows.clear();
  return false;
}

void ReadTable(const Table& table, std::vector<KernelSocketRow>& rows) {
  if (DumpThroughNetlink(table, rows)) return;
  std::ifstream file(table.procPath);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  ReadProcNetTable(text, table.family == AF_INET6,
                   [&](const KernelSocketRow& row) { rows.push_back(row); });
}

// One pass over every process's descriptors: the owner of each inode asked
// for, the lowest pid where several share one. Processes the helper may not
// read are passed over, so their sockets stay ownerless (pid 0).
std::unordered_map<std::uint64_t, std::uint32_t> FindOwners(
    const std::unordered_map<std::uint64_t, std::uint32_t>& wanted) {
  std::unordered_map<std::uint64_t, std::uint32_t> owners;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return owners;
  char link[64];
  while (const dirent* process = readdir(proc)) {
    char* end = nullptr;
    const unsigned long pid = std::strtoul(process->d_name, &end, 10);
    if (*end != '\0' || pid == 0) continue;
    const std::string fdPath = "/proc/" + std::string(process->d_name) + "/fd";
    DIR* descriptors = opendir(fdPath.c_str());
    if (descriptors == nullptr) continue;
    const int directory = dirfd(descriptors);
    while (const dirent* descriptor = readdir(descriptors)) {
      const ssize_t length = readlinkat(directory, descriptor->d_name, link, sizeof(link) - 1);
      if (length < 9 || std::string_view(link, 8) != "socket:[") continue;
      const std::uint64_t inode = std::strtoull(link + 8, nullptr, 10);
      if (!wanted.contains(inode)) continue;
      const auto [entry, added] = owners.emplace(inode, static_cast<std::uint32_t>(pid));
      if (!added && pid < entry->second) entry->second = static_cast<std::uint32_t>(pid);
    }
    closedir(descriptors);
  }
  closedir(proc);
  return owners;
}

void Observe(const Table& table, const KernelSocketRow& row, std::uint32_t pid,
             const ObservationSink& sink) {
  const bool tcp = table.ipProtocol == IPPROTO_TCP;
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(table.family, (tcp ? row.remote : row.local).data(), text, sizeof(text));
  sink(SocketObservation{pid, table.protocol, text, tcp ? row.remotePort : row.localPort});
}

// The tables in the order given, owners resolved once for all of them.
void ScanTables(std::initializer_list<const Table*> tables, const ObservationSink& sink) {
  std::vector<std::vector<KernelSocketRow>> rows;
  std::unordered_map<std::uint64_t, std::uint32_t> wanted;
  for (const Table* table : tables) {
    std::vector<KernelSocketRow>& kept = rows.emplace_back();
    ReadTable(*table, kept);
    // The /proc/net tables hold every state; only established TCP counts.
    std::erase_if(kept, [&](const KernelSocketRow& row) {
      return table->ipProtocol == IPPROTO_TCP && row.state != kTcpEstablished;
    });
    for (const KernelSocketRow& row : kept) wanted.emplace(row.inode, 0);
  }
  const auto owners = wanted.empty() ? decltype(wanted)() : FindOwners(wanted);
  std::size_t index = 0;
  for (const Table* table : tables) {
    for (const KernelSocketRow& row : rows[index]) {
      const auto owner = owners.find(row.inode);
      Observe(*table, row, owner == owners.end() ? 0 : owner->second, sink);
    }
    ++index;
  }
}

// The text of a small /proc file without its last line feed; false when it
// cannot be read.
bool ReadProcText(const std::string& path, std::string& text) {
  std::ifstream file(path);
  if (!file) return false;
  std::getline(file, text);
  return !file.bad();
}

}  // namespace

void ScanTcp4(const ObservationSink& sink) { ScanTables({&kTcp4}, sink); }
void ScanTcp6(const ObservationSink& sink) { ScanTables({&kTcp6}, sink); }
void ScanUdp4(const ObservationSink& sink) { ScanTables({&kUdp4}, sink); }
void ScanUdp6(const ObservationSink& sink) { ScanTables({&kUdp6}, sink); }
void ScanAllTables(const ObservationSink& sink) {
  ScanTables({&kTcp4, &kTcp6, &kUdp4, &kUdp6}, sink);
}

std::string ProcessNameForPid(std::uint32_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  char target[4096];
  const ssize_t length = pid == 0 ? -1 : readlink((proc + "/exe").c_str(), target, sizeof(target));
  std::string comm;
  const bool named = pid != 0 && ReadProcText(proc + "/comm", comm);
  return ProcessNameFrom(length < 0 ? std::nullopt
                                    : std::optional<std::string_view>(std::string_view(
                                          target, static_cast<std::size_t>(length))),
                         named ? std::optional<std::string_view>(comm) : std::nullopt, pid);
}

}  // namespace orvel
