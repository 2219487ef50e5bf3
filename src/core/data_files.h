#pragma once

#include <string>
#include <string_view>

namespace orvel {

// Creates `directory` with every missing parent folder. An existing directory
// is success. On failure `errorMessage` holds the operating system's text for
// the error code.
bool CreateDirectoryTree(const std::wstring& directory, std::string& errorMessage);

// Replaces the file at `path` with `bytes` (binary, truncating, other programs
// may keep it open) and closes it. False when the open, a write or the close
// failed.
bool WriteWholeFile(const std::wstring& path, std::string_view bytes);

}  // namespace orvel
