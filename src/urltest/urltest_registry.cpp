#include "urltest/urltest_registry.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

namespace orvel {

namespace {

struct UrlTestRegistry {
  std::mutex lock;
  std::unordered_set<std::string> canceledIds;
  std::unordered_map<std::string, std::vector<TestProcessHandle>> runningProcesses;
};

UrlTestRegistry& Registry() {
  static UrlTestRegistry registry;
  return registry;
}

}  // namespace

bool IsUrlTestCanceled(std::string_view requestId) {
  if (requestId.empty()) return false;
  UrlTestRegistry& registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  return registry.canceledIds.contains(std::string(requestId));
}

void ResetUrlTest(std::string_view requestId) {
  if (requestId.empty()) return;
  UrlTestRegistry& registry = Registry();
  const std::string id(requestId);
  std::lock_guard<std::mutex> guard(registry.lock);
  registry.canceledIds.erase(id);
  registry.runningProcesses.erase(id);
}

void RegisterTestProcess(std::string_view requestId, TestProcessHandle process) {
  if (requestId.empty() || process == 0) return;
  UrlTestRegistry& registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  registry.runningProcesses[std::string(requestId)].push_back(process);
}

void UnregisterTestProcess(std::string_view requestId, TestProcessHandle process) {
  if (requestId.empty() || process == 0) return;
  UrlTestRegistry& registry = Registry();
  std::lock_guard<std::mutex> guard(registry.lock);
  const auto entry = registry.runningProcesses.find(std::string(requestId));
  if (entry == registry.runningProcesses.end()) return;
  std::erase(entry->second, process);
  if (entry->second.empty()) registry.runningProcesses.erase(entry);
}

std::vector<TestProcessHandle> MarkUrlTestCanceled(std::string_view requestId,
                                                   TestProcessHandle (*keep)(TestProcessHandle)) {
  std::vector<TestProcessHandle> kept;
  UrlTestRegistry& registry = Registry();
  const std::string id(requestId);
  std::lock_guard<std::mutex> guard(registry.lock);
  registry.canceledIds.insert(id);
  const auto entry = registry.runningProcesses.find(id);
  if (entry != registry.runningProcesses.end()) {
    for (TestProcessHandle process : entry->second) kept.push_back(keep(process));
  }
  return kept;
}

}  // namespace orvel
