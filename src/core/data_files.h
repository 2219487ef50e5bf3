#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "core/system_error.h"

namespace orvel {

// Creates `directory` with every missing parent folder. An existing directory
// is success. On failure `errorMessage` holds the operating system's text for
// the error code. Linux makes the folders it creates private (0700): the data
// directory holds the user's configuration.
bool CreateDirectoryTree(const std::filesystem::path& directory, std::string& errorMessage);

// Replaces the file at `path` with `bytes` (binary, truncating, other programs
// may keep it open) and closes it. On failure `error` names the call that
// failed (the open, a write or the close) with the path; a partly written file
// is left in place. Linux creates the file 0600 (it may carry the user's
// server credentials), never writes through a link at `path` (O_NOFOLLOW) and
// leaves anything but a regular file there alone (a FIFO, a device): false.
bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes, SystemError& error);
// The same for a caller that logs nothing of the cause.
inline bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes) {
  SystemError ignored;
  return WriteWholeFile(path, bytes, ignored);
}

// Writes `bytes` whole under a temporary name beside `path` ("<name>." and a
// suffix new each time, created exclusively: O_EXCL, CREATE_NEW), so no file
// or link that someone left under a known name is ever written through;
// flushes it to the disk and only then renames it over `path`. A crash or a
// power cut at any moment leaves the old file or the new one whole, at worst
// with the temporary file beside it. On failure the temporary file is removed
// and `error` names the call. Linux: 0600.
bool ReplaceFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                           SystemError& error);

}  // namespace orvel
