#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "core/data_files.h"

namespace orvel {

namespace {

// 0 when `path` is now a directory (made here or found), else the errno.
int MakeOneDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0700) == 0) return 0;
  const int error = errno;
  struct stat info {};
  if (error == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return 0;
  return error == EEXIST ? ENOTDIR : error;
}

// All of `bytes`, again after a signal; a write that takes nothing counts as
// the device's fault.
bool WriteAll(int file, std::string_view bytes, const std::string& path, SystemError& error) {
  for (std::size_t offset = 0; offset < bytes.size();) {
    const ssize_t written = write(file, bytes.data() + offset, bytes.size() - offset);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      if (written == 0) errno = EIO;
      error = LastSystemError("write", path);
      return false;
    }
    offset += static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

bool CreateDirectoryTree(const std::filesystem::path& directory, std::string& errorMessage) {
  // Each missing prefix, then the whole path, whose own result decides.
  const std::string& text = directory.native();
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '/' && text[i - 1] != '/') MakeOneDirectory(text.substr(0, i));
  }
  const int error = MakeOneDirectory(text);
  if (error == 0) return true;
  errorMessage = std::system_category().message(error);
  return false;
}

bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes, SystemError& error) {
  // O_NOFOLLOW: a link in the file's place would send the bytes (and, in the
  // service, root's truncation) to wherever it points. O_NONBLOCK and the
  // check that follows: a FIFO there would otherwise hold the open for ever,
  // and a device would take the bytes.
  const int file =
      open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (file < 0) {
    error = LastSystemError("open", path.native());
    return false;
  }
  struct stat info {};
  bool written = fstat(file, &info) == 0;
  if (!written) error = LastSystemError("fstat", path.native());
  if (written && !S_ISREG(info.st_mode)) {
    error = {"open", path.native(), static_cast<std::uint32_t>(EINVAL)};
    written = false;
  }
  if (written && ftruncate(file, 0) != 0) {
    error = LastSystemError("ftruncate", path.native());
    written = false;
  }
  written = written && WriteAll(file, bytes, path.native(), error);
  if (close(file) != 0 && written) {
    error = LastSystemError("close", path.native());
    return false;
  }
  return written;
}

bool ReplaceFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                           SystemError& error) {
  // mkostemp: O_EXCL under a name it makes up, mode 0600.
  std::string temporary = path.native() + ".XXXXXX";
  const int file = mkostemp(temporary.data(), O_CLOEXEC);
  if (file < 0) {
    error = LastSystemError("mkostemp", temporary);
    return false;
  }
  bool done = WriteAll(file, bytes, temporary, error);
  // Synced before the rename: otherwise a power cut could leave the new name
  // pointing at data that never reached the disk.
  if (done && fsync(file) != 0) {
    error = LastSystemError("fsync", temporary);
    done = false;
  }
  if (close(file) != 0 && done) {
    error = LastSystemError("close", temporary);
    done = false;
  }
  if (done && rename(temporary.c_str(), path.c_str()) != 0) {
    error = LastSystemError("rename", path.native());
    done = false;
  }
  if (!done) unlink(temporary.c_str());
  return done;
}

}  // namespace orvel
