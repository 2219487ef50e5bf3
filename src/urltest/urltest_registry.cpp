#include "urltest/urltest_registry.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <unordered_map>

namespace orvel {

namespace {

struct UrlTestRegistry {
  std::mutex lock;
  std::unordered_map<std::string, std::uint64_t> canceledIds;  // when each was marked
  std::unordered_map<std::string, int> runningTests;           // tests running, by id
  std::unordered_map<std::string, std::vector<ChildHandle>> runningProcesses;
};

// Whether the mark of `id` made at `markedMs` still counts at `nowMs`.
bool MarkHolds(const UrlTestRegistry& registry, const std::string& id, std::uint64_t markedMs,
               std::uint64_t nowMs) {
  return registry.runningTests.contains(id) || nowMs - markedMs < kWaitingCancelMs;
}

// Drops the marks of ids without a running test that are too old, then the
// oldest of them while there are too many. Called with the lock held.
void PruneWaitingCancels(UrlTestRegistry& registry, std::uint64_t nowMs) {
  std::erase_if(registry.canceledIds, [&](const auto& mark) {
    return !MarkHolds(registry, mark.first, mark.second, nowMs);
  });
  for (;;) {
    std::size_t waiting = 0;
    auto oldest = registry.canceledIds.end();
    for (auto mark = registry.canceledIds.begin(); mark != registry.canceledIds.end(); ++mark) {
      if (registry.runningTests.contains(mark->first)) continue;
      ++waiting;
      if (oldest == registry.canceledIds.end() || mark->second < oldest->second) oldest = mark;
    }
    if (waiting <= kMaxWaitingCancels) return;
    registry.canceledIds.erase(oldest);
  }
}

UrlTestRegistry& Registry() {
  static UrlTestRegistry registry;
  return registry;
}

}  // namespace

std::uint64_t SteadyNowMs() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

bool IsUrlTestCanceled(std::string_view requestId, std::uint64_t nowMs) {
  if (requestId.empty()) return false;
  UrlTestRegistry& registry = Registry();
  const std::string id(requestId);
  std::lock_guard<std::mutex> guard(registry.lock);
  const auto mark = registry.canceledIds.find(id);
  return mark != registry.canceledIds.end() && MarkHolds(registry, id, mark->second, nowMs);
}

void BeginUrlTest(std::string_view requestId) {
  if (requestId.empty()) return;
  UrlTestRegistry& registry = Registry();
  const std::string id(requestId);
  std::lock_guard<std::mutex> guard(registry.lock);
  registry.canceledIds.erase(id);
  registry.runningProcesses.erase(id);
  ++registry.runningTests[id];
}

void EndUrlTest(std::string_view requestId) {
  if (requestId.empty()) return;
  UrlTestRegistry& registry = Registry();
  const std::string id(requestId);
  std::lock_guard<std::mutex> guard(registry.lock);
  registry.canceledIds.erase(id);
  registry.runningProcesses.erase(id);
  const auto running = registry.runningTests.find(id);
  if (running != registry.runningTests.end() && --running->second <= 0) {
    registry.runningTests.erase(running);
  }
}

void RegisterTestProcess(std::string_view requestId, ChildHandle process) {
  if (requestId.empty() || process == kNoChildHandle) return;
  UrlTestRegistry& registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  registry.runningProcesses[std::string(requestId)].push_back(process);
}

void UnregisterTestProcess(std::string_view requestId, ChildHandle process) {
  if (requestId.empty() || process == kNoChildHandle) return;
  UrlTestRegistry& registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  const auto entry = registry.runningProcesses.find(std::string(requestId));
  if (entry == registry.runningProcesses.end()) return;
  std::erase(entry->second, process);
  if (entry->second.empty()) registry.runningProcesses.erase(entry);
}

std::vector<ChildHandle> MarkUrlTestCanceled(std::string_view requestId,
                                             ChildHandle (*keep)(ChildHandle),
                                             std::uint64_t nowMs) {
  std::vector<ChildHandle> kept;
  UrlTestRegistry& registry = Registry();
  const std::string id(requestId);
  std::lock_guard<std::mutex> guard(registry.lock);
  if (registry.runningTests.contains(id) || id.size() <= kMaxWaitingCancelIdBytes) {
    registry.canceledIds[id] = nowMs;
    PruneWaitingCancels(registry, nowMs);
  }
  const auto entry = registry.runningProcesses.find(id);
  if (entry != registry.runningProcesses.end()) {
    for (ChildHandle process : entry->second) kept.push_back(keep(process));
  }
  return kept;
}

}  // namespace orvel
