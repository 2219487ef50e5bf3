#pragma once

// Who may use the helper, and how many connections it serves at once. Pure
// rules; the platform files learn the facts (api/caller_identity.h).

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace orvel {

// The group whose members may use the service (and start and stop its unit).
constexpr const char* kServiceGroupName = "orvel-vpn";

// Connections being read or served at once, in all and per user id.
constexpr std::size_t kMaxConnections = 64;
constexpr std::size_t kMaxConnectionsPerUser = 16;
// A head must be in within this time of the accept; a body may not pause longer.
constexpr int kRequestDeadlineMs = 10000;

struct CallerFacts {
  bool service = false;                       // the helper runs as the system service
  std::optional<std::uint32_t> callerUid;     // none when the kernel could not tell
  std::uint32_t ownUid = 0;                   // the helper's effective user id
  std::vector<std::uint32_t> callerGroups;    // primary and supplementary group ids
  std::optional<std::uint32_t> serviceGroup;  // the id of kServiceGroupName, if it exists
};

// Root always; the stand-alone helper its own user; the service every member
// of the service group. An unknown caller never.
bool MayUseHelper(const CallerFacts& facts);

// "Refused a connection from uid N: not allowed to use this helper".
std::string DescribeRefusedCaller(std::optional<std::uint32_t> callerUid);

// The connections being served now, by user id (none for callers that are not
// identified, as on Windows). Guarded by its own lock.
struct ConnectionCounts {
  std::mutex lock;
  std::size_t total = 0;
  std::map<std::uint32_t, std::size_t> perUser;
  // Closed over a limit and not logged yet, and when the last line went out.
  std::uint64_t closedUnlogged = 0;
  std::optional<std::uint64_t> lastLogMs;
};

// Counts the connection in when both limits allow it; true then, and the
// caller must release it once it is done.
bool AdmitConnection(ConnectionCounts& counts, std::optional<std::uint32_t> uid);
void ReleaseConnection(ConnectionCounts& counts, std::optional<std::uint32_t> uid);
// A connection closed over a limit at `nowMs`: the log line to write now
// ("Connection limit reached: N connections closed"), at most one a second,
// or "" while the last one is younger than a second.
std::string CountClosedOverLimit(ConnectionCounts& counts, std::uint64_t nowMs);

}  // namespace orvel
