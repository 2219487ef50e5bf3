#pragma once

#include <cstdint>
#include <string>

namespace orvel {

// The one main core process (sing-box.exe run -c ...). The handles are the
// operating system's (HANDLE on Windows). A non-null process handle means a
// core was started and not stopped since; whether it still runs is asked of
// the system each time. There is no lock: commands come one at a time.
struct CoreProcess {
  void* process = nullptr;
  void* thread = nullptr;
  std::uint32_t processId = 0;  // kept after a stop, for diagnosis only
  std::uint32_t threadId = 0;
};

// Finds sing-box.exe, launches it with `configPath` in the data directory
// (which must exist) and waits 800 ms. True when it still runs then. A core
// that died in that time is explained by its first output in `errorMessage`.
// The caller must have stopped any previous core: the record is overwritten.
bool StartCore(const std::wstring& configPath, std::string& errorMessage);
// Terminates a running core (exit code 0, waiting up to 3 s) and closes its
// handles. Safe at any time, any number of times. Logs nothing.
void StopCore();
// A core was started, not stopped, and the system still reports it running.
bool IsCoreRunning();
// A handle of its own (waitable, not inheritable) to the recorded core's
// process, for a thread that must end with the core without touching the
// record, which a stop clears at any moment; null when there is none. The
// caller closes it.
void* DuplicateCoreProcessHandle();

}  // namespace orvel
