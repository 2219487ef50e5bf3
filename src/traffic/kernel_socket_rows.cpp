#include "traffic/kernel_socket_rows.h"

#include <algorithm>
#include <cstring>

namespace orvel {

namespace {

// Netlink's framing and the inet_diag_msg layout (linux/netlink.h,
// linux/inet_diag.h).
constexpr std::size_t kNetlinkHeaderBytes = 16;
constexpr std::uint16_t kNetlinkError = 2;
constexpr std::uint16_t kNetlinkDone = 3;
constexpr std::uint16_t kSockDiagByFamily = 20;
constexpr std::size_t kDiagMessageBytes = 72;
constexpr std::uint8_t kFamilyInet6 = 10;

std::uint32_t Native32(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) {
    value = value << 8 | static_cast<std::uint8_t>(bytes[at + static_cast<std::size_t>(i)]);
  }
  return value;
}

std::uint16_t Big16(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(static_cast<std::uint8_t>(bytes[at]) << 8 |
                                    static_cast<std::uint8_t>(bytes[at + 1]));
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// 1 to 16 hexadecimal digits; false for anything else.
bool ReadHex(std::string_view text, std::uint64_t& value) {
  if (text.empty() || text.size() > 16) return false;
  value = 0;
  for (const char c : text) {
    const int digit = HexValue(c);
    if (digit < 0) return false;
    value = value << 4 | static_cast<std::uint64_t>(digit);
  }
  return true;
}

bool ReadDecimal(std::string_view text, std::uint64_t& value) {
  if (text.empty() || text.size() > 20) return false;
  value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return true;
}

// "0100007F:0035": the address as the kernel's 32-bit words, each printed as
// a number (so its bytes come out reversed on a little-endian kernel), then
// the port.
bool ReadEndpoint(std::string_view text, bool ipv6, std::array<std::uint8_t, 16>& address,
                  std::uint16_t& port) {
  const std::size_t words = ipv6 ? 4 : 1;
  std::uint64_t value = 0;
  if (text.size() != words * 8 + 5 || text[words * 8] != ':' ||
      !ReadHex(text.substr(words * 8 + 1), value)) {
    return false;
  }
  port = static_cast<std::uint16_t>(value);
  for (std::size_t w = 0; w < words; ++w) {
    if (!ReadHex(text.substr(w * 8, 8), value)) return false;
    for (std::size_t b = 0; b < 4; ++b)
      address[w * 4 + b] = static_cast<std::uint8_t>(value >> (8 * b));
  }
  return true;
}

// The next field separated by spaces, or "" at the end.
std::string_view NextField(std::string_view& rest) {
  const std::size_t start = rest.find_first_not_of(' ');
  if (start == std::string_view::npos) {
    rest = {};
    return {};
  }
  const std::size_t end = rest.find(' ', start);
  const std::string_view field = rest.substr(start, end - start);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
  return field;
}

// "  0: 0100007F:0035 00000000:0000 0A 00000000:00000000 00:00000000 00000000  0 0 1234 ...":
// slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode.
bool ReadProcNetRow(std::string_view line, bool ipv6, KernelSocketRow& row) {
  std::string_view rest = line;
  const std::string_view slot = NextField(rest);
  std::string_view fields[9];
  for (std::string_view& field : fields) field = NextField(rest);
  std::uint64_t state = 0;
  std::uint64_t uid = 0;
  std::uint64_t inode = 0;
  if (slot.empty() || slot.back() != ':' ||
      !ReadEndpoint(fields[0], ipv6, row.local, row.localPort) ||
      !ReadEndpoint(fields[1], ipv6, row.remote, row.remotePort) || !ReadHex(fields[2], state) ||
      state > 0xFF || !ReadDecimal(fields[6], uid) || uid > 0xFFFFFFFFu ||
      !ReadDecimal(fields[8], inode)) {
    return false;
  }
  row.ipv6 = ipv6;
  row.state = static_cast<std::uint8_t>(state);
  row.uid = static_cast<std::uint32_t>(uid);
  row.inode = inode;
  return true;
}

}  // namespace

void ReadProcNetTable(std::string_view text, bool ipv6, const KernelRowSink& sink) {
  const std::size_t headingEnd = text.find('\n');
  if (headingEnd == std::string_view::npos) return;
  text.remove_prefix(headingEnd + 1);
  // A table that grew while it was read may end inside a row: only rows with
  // their line feed count.
  for (std::size_t end; (end = text.find('\n')) != std::string_view::npos;
       text.remove_prefix(end + 1)) {
    KernelSocketRow row;
    if (ReadProcNetRow(text.substr(0, end), ipv6, row)) sink(row);
  }
}

DiagStatus ReadDiagAnswer(std::string_view bytes, const KernelRowSink& sink) {
  while (bytes.size() >= kNetlinkHeaderBytes) {
    const std::uint32_t length = Native32(bytes, 0);
    const std::uint16_t type = static_cast<std::uint16_t>(Native32(bytes, 4) & 0xFFFF);
    if (length < kNetlinkHeaderBytes || length > bytes.size()) return DiagStatus::kFailed;
    if (type == kNetlinkDone) return DiagStatus::kDone;
    if (type == kNetlinkError) return DiagStatus::kFailed;
    if (type == kSockDiagByFamily) {
      if (length < kNetlinkHeaderBytes + kDiagMessageBytes) return DiagStatus::kFailed;
      const std::string_view message = bytes.substr(kNetlinkHeaderBytes, kDiagMessageBytes);
      KernelSocketRow row;
      row.ipv6 = static_cast<std::uint8_t>(message[0]) == kFamilyInet6;
      row.state = static_cast<std::uint8_t>(message[1]);
      row.localPort = Big16(message, 4);
      row.remotePort = Big16(message, 6);
      std::memcpy(row.local.data(), message.data() + 8, 16);
      std::memcpy(row.remote.data(), message.data() + 24, 16);
      row.uid = Native32(message, 64);
      row.inode = Native32(message, 68);
      sink(row);
    }
    // Messages are aligned to 4 bytes.
    const std::size_t aligned = (static_cast<std::size_t>(length) + 3) & ~std::size_t{3};
    bytes.remove_prefix(std::min(aligned, bytes.size()));
  }
  return bytes.empty() ? DiagStatus::kMore : DiagStatus::kFailed;
}

std::string ProcessNameFrom(std::optional<std::string_view> exeTarget,
                            std::optional<std::string_view> comm, std::uint32_t pid) {
  if (exeTarget) {
    std::string_view name = exeTarget->substr(exeTarget->rfind('/') + 1);
    constexpr std::string_view kDeleted = " (deleted)";
    if (name.size() > kDeleted.size() && name.ends_with(kDeleted)) {
      name.remove_suffix(kDeleted.size());
    }
    if (!name.empty()) return std::string(name);
  }
  if (comm && !comm->empty()) return std::string(*comm);
  return "pid-" + std::to_string(pid);
}

}  // namespace orvel
