#pragma once

#include <filesystem>

namespace orvel {

// All answers are computed afresh on every call; nothing is cached and no
// directory is created here.

// Full path of the helper's own executable, or "".
std::filesystem::path GetExecutablePath();
// Folder holding the executable, or "." when its name cannot be read.
std::filesystem::path GetExecutableDirectory();
// Windows: <roaming application data>\OrvelVPN, or the executable's folder
// (without the suffix) when the known folder cannot be looked up.
// Linux: the service's state directory, or the user's data home + /OrvelVPN.
std::filesystem::path GetDataDirectory();
// The data directory's sing-box.json.
std::filesystem::path GetCoreConfigPath();
// The core beside the executable, then in its "data" sub-folder, then (for
// the stand-alone helper only, never the service) on the system search path;
// "" when none is found.
std::filesystem::path FindCoreExecutable();

}  // namespace orvel
