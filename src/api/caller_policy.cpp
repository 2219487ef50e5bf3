#include "api/caller_policy.h"

#include <algorithm>

namespace orvel {

bool MayUseHelper(const CallerFacts& facts) {
  if (!facts.callerUid) return false;
  if (*facts.callerUid == 0) return true;
  if (!facts.service) return *facts.callerUid == facts.ownUid;
  return facts.serviceGroup && std::find(facts.callerGroups.begin(), facts.callerGroups.end(),
                                         *facts.serviceGroup) != facts.callerGroups.end();
}

std::string DescribeRefusedCaller(std::optional<std::uint32_t> callerUid) {
  return "Refused a connection from " +
         (callerUid ? "uid " + std::to_string(*callerUid) : std::string("an unknown uid")) +
         ": not allowed to use this helper";
}

bool AdmitConnection(ConnectionCounts& counts, std::optional<std::uint32_t> uid) {
  std::lock_guard<std::mutex> hold(counts.lock);
  if (counts.total >= kMaxConnections) return false;
  if (uid) {
    std::size_t& mine = counts.perUser[*uid];
    if (mine >= kMaxConnectionsPerUser) return false;
    ++mine;
  }
  ++counts.total;
  return true;
}

void ReleaseConnection(ConnectionCounts& counts, std::optional<std::uint32_t> uid) {
  std::lock_guard<std::mutex> hold(counts.lock);
  --counts.total;
  if (uid) {
    const auto entry = counts.perUser.find(*uid);
    if (entry != counts.perUser.end() && --entry->second == 0) counts.perUser.erase(entry);
  }
}

std::string CountClosedOverLimit(ConnectionCounts& counts, std::uint64_t nowMs) {
  std::lock_guard<std::mutex> hold(counts.lock);
  ++counts.closedUnlogged;
  if (counts.lastLogMs && nowMs - *counts.lastLogMs < 1000) return {};
  counts.lastLogMs = nowMs;
  const std::uint64_t closed = counts.closedUnlogged;
  counts.closedUnlogged = 0;
  return "Connection limit reached: " + std::to_string(closed) + " connections closed";
}

}  // namespace orvel
