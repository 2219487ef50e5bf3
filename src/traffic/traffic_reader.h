#pragma once

// The running core's "/traffic" stream, kept open in the background so that a
// snapshot can take the latest per-second sample instead of waiting about a
// second for a sample of its own. The reader belongs to the core it reads:
// it starts when a core has started, and ends, with its socket closed, as
// soon as that core stops or dies. Nothing ever waits for it to end.

#include <cstdint>
#include <string>

namespace orvel {

// A sample older than this is not used; the snapshot reads the controller
// itself instead.
constexpr std::uint64_t kTrafficSampleMaxAgeMs = 1500;
// Pause before connecting again while the core runs and its controller is
// not up, refuses, or has ended the stream; it doubles up to the maximum
// while no attempt brings a sample.
constexpr std::uint32_t kTrafficReaderRetryMs = 500;
constexpr std::uint32_t kTrafficReaderMaxRetryMs = 8000;

// Starts a reader for the core that was just started (after StartCore
// succeeded). Samples of earlier readers stop counting at once.
void StartTrafficReader();
// Before a core is stopped or replaced: the current reader's samples stop
// counting at once, and the reader ends when its core has ended. Never waits.
void RetireTrafficReader();
// The current reader's latest sample line (`{"up":…,"down":…}`) when it
// arrived at most kTrafficSampleMaxAgeMs ago; false otherwise.
bool TakeFreshTrafficSample(std::string& sample);

}  // namespace orvel
