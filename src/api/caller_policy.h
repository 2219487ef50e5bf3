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
// Refused callers being answered at once; more are closed without an answer.
// They never count against the limits above.
constexpr std::size_t kMaxRefusalsAnswering = 16;
// The whole request (head and body) must be in within this time of the accept.
constexpr int kRequestDeadlineMs = 10000;

// TCP_TIME_WAIT in the kernel's tables.
constexpr std::uint8_t kTcpTimeWait = 6;

// The kernel's row for the client's end of a connection.
struct ClientSocketRow {
  std::uint8_t state = 0;
  std::uint64_t inode = 0;  // 0 once no process holds the socket
  std::uint32_t uid = 0;
};

// The uid behind a row that is still a socket of some process. A TIME_WAIT row
// or an orphaned one (inode 0: the client closed before the accept) carries
// uid 0 whoever made it, so it names nobody; neither does a missing row. A
// socket that is half closed (FIN_WAIT with its inode) is still its owner's.
std::optional<std::uint32_t> LiveSocketOwner(const std::optional<ClientSocketRow>& row);

// Who is behind one accepted connection, learned before any byte is read.
struct CallerIdentity {
  std::optional<std::uint32_t> uid;       // none when the owner is unknown
  std::optional<std::uint32_t> childPid;  // a process the helper started holds the client end
  std::string childName;
  std::string failure;  // the failed system call that left the owner unknown, if one did
};

struct CallerFacts {
  bool service = false;                       // the helper runs as the system service
  std::optional<std::uint32_t> callerUid;     // none when the kernel could not tell
  std::uint32_t ownUid = 0;                   // the helper's effective user id
  std::vector<std::uint32_t> callerGroups;    // primary and supplementary group ids
  std::optional<std::uint32_t> serviceGroup;  // the id of kServiceGroupName, if it exists
  bool helperChild = false;                   // the client end is held by the helper's own child
};

// Root always; the stand-alone helper its own user; the service every member
// of the service group. An unknown caller never, and never a process the
// helper started: the core relays connections for any local account (its
// mixed inbound has no password) and runs as root in the service.
bool MayUseHelper(const CallerFacts& facts);

// "Refused a connection from uid N: not allowed to use this helper", or for
// the helper's own child "... from pid N (name), a process the helper
// started: ...". The name is shown with its control bytes escaped; the failed
// call behind an unknown owner follows in parentheses.
std::string DescribeRefusedCaller(const CallerIdentity& caller);

// The connections being served now, by user id (none for callers that are not
// identified, as on Windows). Guarded by its own lock.
struct ConnectionCounts {
  std::mutex lock;
  std::size_t total = 0;
  std::map<std::uint32_t, std::size_t> perUser;
  std::size_t refusing = 0;  // refused callers being answered
  // Closed over a limit and not logged yet, and when the last line went out.
  std::uint64_t closedUnlogged = 0;
  std::optional<std::uint64_t> lastLogMs;
};

// Counts the connection in when both limits allow it; true then, and the
// caller must release it once it is done.
bool AdmitConnection(ConnectionCounts& counts, std::optional<std::uint32_t> uid);
void ReleaseConnection(ConnectionCounts& counts, std::optional<std::uint32_t> uid);
// The same for a refused caller, within kMaxRefusalsAnswering alone.
bool AdmitRefusal(ConnectionCounts& counts);
void ReleaseRefusal(ConnectionCounts& counts);
// A connection closed over a limit at `nowMs`: the log line to write now
// ("Connection limit reached: N connections closed"), at most one a second,
// or "" while the last one is younger than a second.
std::string CountClosedOverLimit(ConnectionCounts& counts, std::uint64_t nowMs);

}  // namespace orvel
