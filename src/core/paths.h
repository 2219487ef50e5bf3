#pragma once

#include <string>

namespace orvel {

// All answers are computed afresh on every call; nothing is cached and no
// directory is created here.

// Full path of the helper's own executable, or "".
std::wstring GetExecutablePath();
// Folder holding the executable, or "." when the module name cannot be read.
std::wstring GetExecutableDirectory();
// <roaming application data>\OrvelVPN; the executable's folder (without the
// suffix) when the known folder cannot be looked up.
std::wstring GetDataDirectory();
// GetDataDirectory() + "\sing-box.json".
std::wstring GetCoreConfigPath();
// sing-box.exe beside the executable, then in its "data" sub-folder, then on
// the system search path; "" when none is found.
std::wstring FindCoreExecutable();

}  // namespace orvel
