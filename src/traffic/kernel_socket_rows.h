#pragma once

// The Linux kernel's socket tables as bytes: the rows of /proc/net/tcp, tcp6,
// udp and udp6, and the answers of a NETLINK_SOCK_DIAG dump. Pure readers,
// free of system headers (the layouts are written out here), so that they
// are unit tested and fuzzed on any build machine. Numbers the kernel writes
// in its own byte order are read as little-endian, as on x86-64.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace orvel {

// TCP_ESTABLISHED in both forms of the tables.
constexpr std::uint8_t kTcpEstablished = 1;

struct KernelSocketRow {
  bool ipv6 = false;
  std::array<std::uint8_t, 16> local{};  // network byte order; IPv4 in the first 4
  std::array<std::uint8_t, 16> remote{};
  std::uint16_t localPort = 0;  // host byte order
  std::uint16_t remotePort = 0;
  std::uint8_t state = 0;
  std::uint32_t uid = 0;
  std::uint64_t inode = 0;
};

using KernelRowSink = std::function<void(const KernelSocketRow&)>;

// Every complete row of one /proc/net table (the heading line and a last line
// without its line feed are skipped, and so is a row that is not the shape
// the kernel writes). `ipv6` for tcp6 and udp6.
void ReadProcNetTable(std::string_view text, bool ipv6, const KernelRowSink& sink);

enum class DiagStatus { kMore, kDone, kFailed };

// The messages of one receive of a sock_diag dump: each inet_diag_msg goes to
// `sink`. kDone at NLMSG_DONE, kFailed at NLMSG_ERROR or a message that runs
// past the bytes or is too short for its type, kMore when the dump goes on.
DiagStatus ReadDiagAnswer(std::string_view bytes, const KernelRowSink& sink);

// A process's name: the last component of its executable's path (the target
// of /proc/<pid>/exe) without a trailing " (deleted)"; its comm when that link
// could not be read; "pid-<pid>" when neither (a process that has ended).
std::string ProcessNameFrom(std::optional<std::string_view> exeTarget,
                            std::optional<std::string_view> comm, std::uint32_t pid);

}  // namespace orvel
