#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace orvel {

// The main core's record on Windows. A non-null process handle means a core
// was started and not stopped since.
struct CoreProcess {
  HANDLE process = nullptr;
  HANDLE thread = nullptr;
  std::uint32_t processId = 0;  // kept after a stop, for diagnosis only
  std::uint32_t threadId = 0;
};

// Whatever sits in the pipe now, without ever blocking: chunks of up to
// 4096 bytes while data is available, stopping once more than 4096 bytes are
// held (so at most 8192).
std::string DrainPipeOutput(HANDLE readEnd);

// A handle of its own (waitable, not inheritable) to the recorded core's
// process, for a thread that must end with the core without touching the
// record, which a stop clears at any moment; null when there is none. The
// caller closes it.
HANDLE DuplicateCoreProcessHandle();

}  // namespace orvel
