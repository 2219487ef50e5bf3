#pragma once

// The system calls of the core's traffic reader (traffic_reader.cpp), one
// file per system. `core` is the reader's own handle to the core it reads
// (DuplicateCoreHandle's: a pidfd on Linux, a process handle on Windows); the
// controller connection is a descriptor, or a socket with its network event,
// held as plain numbers so that the reader's loop is written once.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/child_process.h"

namespace orvel {

// Waits at most `ms` for the core to end: false only when the time ran out
// with the core still running.
bool WaitForCoreEnd(ChildHandle core, std::uint32_t ms);

// A connection to the core's controller, non-blocking once connected.
struct TrafficConnection {
  std::uintptr_t socket = 0;
  std::uintptr_t ready = 0;  // Windows: the socket's network event
};

// Connects to the controller within kCoreApiTimeoutMs, or sooner gives up
// when the core ends; false with nothing left open on failure.
bool OpenTrafficConnection(ChildHandle core, TrafficConnection& connection);
// The request is a few dozen bytes into an empty send buffer: the one
// non-blocking send takes it whole or fails, and a failure means retry.
bool SendTrafficRequest(const TrafficConnection& connection, std::string_view request);
// Waits, with no time-out, until the stream has news: true then, false when
// the core has ended or the wait failed.
bool WaitForTrafficData(const TrafficConnection& connection, ChildHandle core);
// Appends what has arrived to `pending`; false when the stream ended or failed.
bool ReceiveTrafficBytes(const TrafficConnection& connection, std::string& pending);
void CloseTrafficConnection(const TrafficConnection& connection);

}  // namespace orvel
