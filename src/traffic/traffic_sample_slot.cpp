#include "traffic/traffic_sample_slot.h"

#include <chrono>
#include <mutex>

#include "traffic/traffic_reader.h"

namespace orvel {

namespace {

struct TrafficSampleSlot {
  std::mutex lock;
  std::uint64_t generation = 0;
  std::string sample;  // "" when the current reader has none
  std::chrono::steady_clock::time_point arrived;
};

TrafficSampleSlot& Slot() {
  static TrafficSampleSlot slot;
  return slot;
}

}  // namespace

std::uint64_t BeginTrafficReaderGeneration() {
  TrafficSampleSlot& slot = Slot();
  std::lock_guard<std::mutex> hold(slot.lock);
  slot.sample.clear();
  return ++slot.generation;
}

bool IsCurrentTrafficReader(std::uint64_t generation) {
  TrafficSampleSlot& slot = Slot();
  std::lock_guard<std::mutex> hold(slot.lock);
  return slot.generation == generation;
}

void StoreTrafficSample(std::uint64_t generation, const std::string& sample) {
  TrafficSampleSlot& slot = Slot();
  std::lock_guard<std::mutex> hold(slot.lock);
  if (slot.generation != generation) return;
  slot.sample = sample;
  slot.arrived = std::chrono::steady_clock::now();
}

void RetireTrafficReader() { BeginTrafficReaderGeneration(); }

bool TakeFreshTrafficSample(std::string& sample) {
  TrafficSampleSlot& slot = Slot();
  std::lock_guard<std::mutex> hold(slot.lock);
  if (slot.sample.empty() || std::chrono::steady_clock::now() - slot.arrived >
                                 std::chrono::milliseconds(kTrafficSampleMaxAgeMs)) {
    return false;
  }
  sample = slot.sample;
  return true;
}

}  // namespace orvel
