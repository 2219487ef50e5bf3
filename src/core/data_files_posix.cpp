#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes) {
  // 0600: the configuration carries the user's server credentials.
  // O_NOFOLLOW: a link in the file's place would send the bytes (and, in the
  // service, root's truncation) to wherever it points.
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file < 0) return false;
  bool ok = true;
  for (std::size_t offset = 0; ok && offset < bytes.size();) {
    const ssize_t written = write(file, bytes.data() + offset, bytes.size() - offset);
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) offset += static_cast<std::size_t>(written);
  }
  return close(file) == 0 && ok;
}

}  // namespace orvel
