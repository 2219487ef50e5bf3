#include "client/listener_holder.h"

#include <algorithm>

namespace orvel::client {

namespace {

constexpr std::array<std::uint8_t, 12> kMappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

bool IsZero(const std::uint8_t* bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](std::uint8_t b) { return b == 0; });
}

}  // namespace

bool IsLoopbackTarget(const DialTarget& target) {
  if (!target.ipv6) return target.address[0] == 127;
  return IsZero(target.address.data(), 15) && target.address[15] == 1;
}

bool ListenerReaches(const KernelSocketRow& row, const DialTarget& target) {
  if (row.state != kTcpListen || row.localPort != target.port) return false;
  const std::uint8_t* local = row.local.data();
  if (row.ipv6 == target.ipv6) {
    const std::size_t size = target.ipv6 ? 16 : 4;
    return IsZero(local, size) || std::equal(local, local + size, target.address.data());
  }
  // An IPv6 socket that takes IPv4 connections: on :: or on ::ffff:a.b.c.d.
  if (!row.ipv6) return false;
  return IsZero(local, 16) || (std::equal(kMappedPrefix.begin(), kMappedPrefix.end(), local) &&
                               std::equal(local + 12, local + 16, target.address.data()));
}

}  // namespace orvel::client
