#include <winsock2.h>
#include <ws2tcpip.h>
// iphlpapi.h after the Winsock headers: it pulls in windows.h.
#include <iphlpapi.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "core/unique_handle_win.h"
#include "traffic/socket_tables.h"

namespace orvel {

namespace {

using GetExtendedTcpTableCall = DWORD(WINAPI*)(PVOID, PDWORD, BOOL, ULONG, TCP_TABLE_CLASS, ULONG);
using GetExtendedUdpTableCall = DWORD(WINAPI*)(PVOID, PDWORD, BOOL, ULONG, UDP_TABLE_CLASS, ULONG);

struct IpHelperCalls {
  GetExtendedTcpTableCall tcp = nullptr;
  GetExtendedUdpTableCall udp = nullptr;
};

template <typename Call>
Call LookUp(HMODULE module, const char* name) {
  // Through a plain function pointer type: casting FARPROC straight to a
  // pointer of another signature trips -Wcast-function-type.
  return reinterpret_cast<Call>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

// iphlpapi.dll is not a KnownDLL, so a plain load would search the
// executable's folder first; the helper may run as LocalSystem from a folder a
// user can write to. Loaded once and kept for the life of the process.
const IpHelperCalls& IpHelper() {
  static const IpHelperCalls calls = [] {
    IpHelperCalls found;
    if (HMODULE module = LoadLibraryExW(L"iphlpapi.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
      found.tcp = LookUp<GetExtendedTcpTableCall>(module, "GetExtendedTcpTable");
      found.udp = LookUp<GetExtendedUdpTableCall>(module, "GetExtendedUdpTable");
    }
    return found;
  }();
  return calls;
}

// Room for this many bytes of rows beyond the size first reported: the
// snapshot reads the tables while its own controller connections open and
// close, and each adds rows between the two calls. 64 of the largest row.
constexpr DWORD kTableGrowthRoomBytes = 64 * sizeof(MIB_TCP6ROW_OWNER_PID);

// Two calls: the first only learns the size. There is no retry when the table
// grows in between by more than the room left for it; the second call then
// fails and the table is skipped for this snapshot. Empty when the table
// cannot be read or holds no rows.
template <typename Read>
std::vector<unsigned char> ReadTable(Read read) {
  DWORD size = 0;
  read(nullptr, &size);
  if (size == 0) return {};
  size += kTableGrowthRoomBytes;
  std::vector<unsigned char> buffer(size);
  if (read(buffer.data(), &size) != NO_ERROR) return {};
  return buffer;
}

std::vector<unsigned char> ReadTcpTable(ULONG family) {
  const GetExtendedTcpTableCall call = IpHelper().tcp;
  if (call == nullptr) return {};
  return ReadTable([&](void* buffer, DWORD* size) {
    return call(buffer, size, FALSE, family, TCP_TABLE_OWNER_PID_ALL, 0);
  });
}

std::vector<unsigned char> ReadUdpTable(ULONG family) {
  const GetExtendedUdpTableCall call = IpHelper().udp;
  if (call == nullptr) return {};
  return ReadTable([&](void* buffer, DWORD* size) {
    return call(buffer, size, FALSE, family, UDP_TABLE_OWNER_PID, 0);
  });
}

// Calls `visit` for each row of a MIB_*TABLE_OWNER_PID held in `buffer`,
// never reading past the buffer even if the row count claims more.
template <typename Table, typename Visit>
void ForEachRow(const std::vector<unsigned char>& buffer, Visit visit) {
  constexpr std::size_t kRowsAt = offsetof(Table, table);
  if (buffer.size() < kRowsAt) return;
  const Table* table = reinterpret_cast<const Table*>(buffer.data());
  const std::size_t fit = (buffer.size() - kRowsAt) / sizeof(table->table[0]);
  const std::size_t count = std::min<std::size_t>(table->dwNumEntries, fit);
  const auto* rows = table->table;
  for (std::size_t i = 0; i < count; ++i) visit(rows[i]);
}

std::uint16_t PortFromRow(DWORD port) { return ntohs(static_cast<u_short>(port)); }

void Observe4(const ObservationSink& sink, DWORD pid, const char* protocol, DWORD address,
              DWORD port) {
  in_addr ip{};
  ip.S_un.S_addr = address;
  char text[22] = {};
  inet_ntop(AF_INET, &ip, text, sizeof(text));
  sink(SocketObservation{pid, protocol, text, PortFromRow(port)});
}

void Observe6(const ObservationSink& sink, DWORD pid, const char* protocol,
              const UCHAR (&address)[16], DWORD port) {
  in6_addr ip{};
  std::memcpy(&ip, address, sizeof(address));
  char text[65] = {};
  inet_ntop(AF_INET6, &ip, text, sizeof(text));
  sink(SocketObservation{pid, protocol, text, PortFromRow(port)});
}

}  // namespace

void ScanTcp4(const ObservationSink& sink) {
  ForEachRow<MIB_TCPTABLE_OWNER_PID>(ReadTcpTable(AF_INET), [&](const MIB_TCPROW_OWNER_PID& row) {
    if (row.dwState != MIB_TCP_STATE_ESTAB) return;
    Observe4(sink, row.dwOwningPid, "TCP", row.dwRemoteAddr, row.dwRemotePort);
  });
}

void ScanTcp6(const ObservationSink& sink) {
  ForEachRow<MIB_TCP6TABLE_OWNER_PID>(
      ReadTcpTable(AF_INET6), [&](const MIB_TCP6ROW_OWNER_PID& row) {
        if (row.dwState != MIB_TCP_STATE_ESTAB) return;
        Observe6(sink, row.dwOwningPid, "TCP", row.ucRemoteAddr, row.dwRemotePort);
      });
}

void ScanUdp4(const ObservationSink& sink) {
  ForEachRow<MIB_UDPTABLE_OWNER_PID>(ReadUdpTable(AF_INET), [&](const MIB_UDPROW_OWNER_PID& row) {
    Observe4(sink, row.dwOwningPid, "UDP", row.dwLocalAddr, row.dwLocalPort);
  });
}

void ScanUdp6(const ObservationSink& sink) {
  ForEachRow<MIB_UDP6TABLE_OWNER_PID>(
      ReadUdpTable(AF_INET6), [&](const MIB_UDP6ROW_OWNER_PID& row) {
        Observe6(sink, row.dwOwningPid, "UDP", row.ucLocalAddr, row.dwLocalPort);
      });
}

void ScanAllTables(const ObservationSink& sink) {
  ScanTcp4(sink);
  ScanTcp6(sink);
  ScanUdp4(sink);
  ScanUdp6(sink);
}

std::string ProcessNameForPid(std::uint32_t pid) {
  const std::string unnamed = "pid-" + std::to_string(pid);
  std::wstring name;
  {
    UniqueHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    if (!process.Valid()) return unnamed;
    // MAX_PATH characters: a longer image path makes the query fail and the
    // process is named by its id.
    wchar_t path[MAX_PATH] = {};
    DWORD length = MAX_PATH;
    if (!QueryFullProcessImageNameW(process.h, 0, path, &length)) return unnamed;
    const std::wstring_view full(path, length);
    // After the last separator; the colon also leaves out a drive root name.
    const std::size_t separator = full.find_last_of(L"\\/:");
    name = separator == std::wstring_view::npos ? full : full.substr(separator + 1);
  }
  if (name.empty()) return unnamed;
  const int size = WideCharToMultiByte(CP_UTF8, 0, name.data(), static_cast<int>(name.size()),
                                       nullptr, 0, nullptr, nullptr);
  // A name that exists but cannot be converted is reported as "", not by id.
  if (size <= 0) return "";
  std::string utf8(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, name.data(), static_cast<int>(name.size()), utf8.data(), size,
                      nullptr, nullptr);
  return utf8;
}

}  // namespace orvel
