#pragma once

#include <windows.h>

#include <string>

namespace orvel {

// The three variables every sing-box launch needs so that configurations
// using deprecated DNS features are still accepted (set on the helper's own
// environment, so every later child inherits them).
void SetCoreEnvironmentVariables();

// Anonymous pipe for a child's output: the write end is inheritable, the read
// end is not. False when the pipe cannot be created.
bool CreateOutputPipe(HANDLE& readEnd, HANDLE& writeEnd);

// CreateProcessW with CREATE_NO_WINDOW, hidden window, standard handles set,
// and handle inheritance limited to exactly `outputWrite` and (when it is a
// valid inheritable handle) `standardInput`. Without that list a child would
// inherit every inheritable handle of the helper: another child's pipe end or
// a client's socket, which would keep that pipe or connection open for as
// long as the child lives. The child starts inside the helper's job object,
// which ends it when the helper ends, however that happens. On failure
// `error` holds GetLastError().
bool LaunchChild(const std::wstring& commandLine, HANDLE standardInput, HANDLE outputWrite,
                 const std::wstring& workingDirectory, PROCESS_INFORMATION& process, DWORD& error);

}  // namespace orvel
