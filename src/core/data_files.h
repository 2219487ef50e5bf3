#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace orvel {

// Creates `directory` with every missing parent folder. An existing directory
// is success. On failure `errorMessage` holds the operating system's text for
// the error code. Linux makes the folders it creates private (0700): the data
// directory holds the user's configuration.
bool CreateDirectoryTree(const std::filesystem::path& directory, std::string& errorMessage);

// Replaces the file at `path` with `bytes` (binary, truncating, other programs
// may keep it open) and closes it. False when the open, a write or the close
// failed. Linux never writes through a link at `path` (O_NOFOLLOW): false.
bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes);

}  // namespace orvel
