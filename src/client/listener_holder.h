#pragma once

// Who holds the loopback port a request is about to go to. While neither the
// service nor the user's helper runs, any local account may listen on the
// helper's port and would be handed the whole configuration (server passwords
// included) and answer "connected". So before a request leaves, the listening
// socket's owner must be root or the caller. The matching rule is pure; the
// kernel's table is read in listener_holder_linux.cpp.

#include <array>
#include <cstdint>

#include "traffic/kernel_socket_rows.h"

namespace orvel::client {

// TCP_LISTEN in the kernel's tables.
constexpr std::uint8_t kTcpListen = 10;

// An address a connection is made to, as the kernel sees it: an IPv4-mapped
// IPv6 address is given as IPv4, the unspecified address as its loopback (a
// connection to 0.0.0.0 or :: reaches this host's loopback).
struct DialTarget {
  bool ipv6 = false;
  std::array<std::uint8_t, 16> address{};  // network byte order; IPv4 in the first 4
  std::uint16_t port = 0;
};

// 127.0.0.0/8 or ::1: only such a target is looked up.
bool IsLoopbackTarget(const DialTarget& target);

// Whether a connection to `target` may reach the socket of `row`: a listening
// socket on the same port and on the target's address or a wildcard. An IPv6
// socket on :: or on the mapped form of an IPv4 address also takes IPv4
// connections (unless IPV6_V6ONLY, which the table does not tell, so it counts).
bool ListenerReaches(const KernelSocketRow& row, const DialTarget& target);

enum class ListenerHolder {
  kNone,      // no listening socket reaches the target
  kTrusted,   // every one that does belongs to root or to the caller
  kStranger,  // one belongs to another account
  kUnknown    // the table could not be read
};

// Reads the listening TCP sockets of this network namespace (Linux only: the
// Windows build does not look, see ConnectToTrustedListener). kStranger sets
// `strangerUid`.
ListenerHolder FindListenerHolder(const DialTarget& target, std::uint32_t& strangerUid);

}  // namespace orvel::client
