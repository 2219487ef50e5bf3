#pragma once

#include <filesystem>

namespace orvel {

// A pidfd of its own (close-on-exec) for the recorded core, for a thread
// that must end with the core without touching the record, which a stop
// clears at any moment; -1 when there is none. The caller closes it.
int DuplicateCorePidfd();

// The core a start or a URL test runs: FindCoreExecutable's. In the service
// only one that is root's alone (see root_only.h), as its resolved path; one
// that is not is logged ("sing-box is not root's alone: <path> (uid N, mode
// 0NNN)") and, like a missing core, gives false and "".
bool ResolveCoreToRun(std::filesystem::path& exe);

}  // namespace orvel
