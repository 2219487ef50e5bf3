#include "api/caller_policy.h"

#include <algorithm>

#include "log/log_buffer.h"

namespace orvel {

std::optional<std::uint32_t> LiveSocketOwner(const std::optional<ClientSocketRow>& row) {
  if (!row || row->inode == 0 || row->state == kTcpTimeWait) return std::nullopt;
  return row->uid;
}

bool MayUseHelper(const CallerFacts& facts) {
  if (!facts.callerUid || facts.helperChild) return false;
  if (*facts.callerUid == 0) return true;
  if (!facts.service) return *facts.callerUid == facts.ownUid;
  return facts.serviceGroup && std::find(facts.callerGroups.begin(), facts.callerGroups.end(),
                                         *facts.serviceGroup) != facts.callerGroups.end();
}

std::string DescribeRefusedCaller(const CallerIdentity& caller) {
  std::string who;
  if (caller.childPid) {
    who = "pid " + std::to_string(*caller.childPid) + " (" + EscapeControlBytes(caller.childName) +
          "), a process the helper started";
  } else {
    who = caller.uid ? "uid " + std::to_string(*caller.uid) : std::string("an unknown uid");
  }
  std::string line = "Refused a connection from " + who + ": not allowed to use this helper";
  if (!caller.failure.empty()) line += " (" + caller.failure + ")";
  return line;
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

bool AdmitRefusal(ConnectionCounts& counts) {
  std::lock_guard<std::mutex> hold(counts.lock);
  if (counts.refusing >= kMaxRefusalsAnswering) return false;
  ++counts.refusing;
  return true;
}

void ReleaseRefusal(ConnectionCounts& counts) {
  std::lock_guard<std::mutex> hold(counts.lock);
  --counts.refusing;
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
