#pragma once

// The slot the core's traffic reader (traffic_reader.cpp) fills and snapshots
// take from.
// Each start gets a new generation; only the current generation may store,
// and only its sample is handed out, so a sample of a core that was stopped
// or replaced is never taken for the new core's, however late its reader
// notices.

#include <cstdint>
#include <string>

namespace orvel {

// A new generation for a reader that is about to start; the sample held is
// forgotten.
std::uint64_t BeginTrafficReaderGeneration();
bool IsCurrentTrafficReader(std::uint64_t generation);
// Stores `sample` (an empty one forgets the one held) when `generation` is
// still the current one.
void StoreTrafficSample(std::uint64_t generation, const std::string& sample);

}  // namespace orvel
