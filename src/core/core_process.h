#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace orvel {

// The one main core process (sing-box run -c ...), recorded by the platform
// file (core_process_win.cpp, core_process_linux.cpp). A core that was
// started and not stopped since is asked of the system each time whether it
// still runs. Starts and stops come one at a time (the command layer above
// orders them); the record itself may be read from any thread.

// How a core that was not stopped from here ended.
struct CoreEnd {
  bool bySignal = false;  // Linux: `code` is the number of the signal that ended it
  std::uint32_t code = 0;
  std::string lastOutput;  // the last kCoreOutputTailBytes it wrote
};

// Told, on a thread of the core's own, that the core recorded as
// `generation` ended without StopCore. Whoever reacts must check with
// ReleaseEndedCore that the record still holds that core: a start or a stop
// may have come first.
using CoreEndedHandler = void (*)(std::uint64_t generation, const CoreEnd& end);

// Finds the core, launches it with `configPath` in the data directory (which
// must exist) and waits 800 ms. True when it still runs then. A core that died
// in that time is explained by its first output in `errorMessage`. The caller
// must have stopped any previous core: the record is overwritten. The core
// enters the record only once it has survived that wait; from then on its
// output is read and kept, and its end is watched: `onEnd` hears of an end
// that StopCore did not cause.
bool StartCore(const std::filesystem::path& configPath, CoreEndedHandler onEnd,
               std::string& errorMessage);
// Forgets the ended core of `generation` if the record still holds it. True
// when it did.
bool ReleaseEndedCore(std::uint64_t generation);
// Stops a running core (Windows: terminated at once; Linux: SIGTERM, then
// SIGKILL after 3 s) and forgets it. Safe at any time, any number of times.
// Logs nothing.
void StopCore();
// A core was started, not stopped, and the system still reports it running.
bool IsCoreRunning();

}  // namespace orvel
