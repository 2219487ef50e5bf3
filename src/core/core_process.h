#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "core/child_process.h"

namespace orvel {

// The one main core process (sing-box run -c ...), started and watched
// through child_process.h. A core that was
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
// must exist) and waits up to 800 ms. True when it still runs then. A core
// that died in that time is explained by its first output in `errorMessage`,
// the answer's text; every failure is logged, a failed launch with the call
// that failed. The caller
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
// A handle of its own to the recorded core, for a thread that must end with
// the core without touching the record, which a stop clears at any moment;
// kNoChildHandle when there is none. The caller closes it (CloseChildHandle).
ChildHandle DuplicateCoreHandle();

// The core a start or a URL test runs: FindCoreExecutable's. In the service
// only one that is root's alone (see root_only.h), as its resolved path; one
// that is not is logged ("sing-box is not root's alone: <path> (uid N, mode
// 0NNN)") and, like a missing core, gives false and "".
bool ResolveCoreToRun(std::filesystem::path& exe);

}  // namespace orvel
