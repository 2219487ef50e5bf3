#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "core/paths.h"
#include "urltest/urltest_stream.h"

namespace orvel {

std::filesystem::path MakeUrlTestConfigPath() {
  static std::atomic<std::uint64_t> sequence{0};
  const std::uint64_t number = ++sequence;
  return GetDataDirectory() /
         ("sing-box-urltest-" + std::to_string(getpid()) + "-" + std::to_string(number) + ".json");
}

// The messages keep the Windows build's call names, with errno for the code.
bool WriteFileBytes(const std::filesystem::path& path, const std::string& content,
                    std::string& error) {
  // Never through a link left in the file's place.
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file < 0) {
    error = "CreateFile failed: " + std::to_string(errno);
    return false;
  }
  for (std::size_t written = 0; written < content.size();) {
    const ssize_t done = write(file, content.data() + written, content.size() - written);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      error = "WriteFile failed: " + std::to_string(done < 0 ? errno : EIO);
      close(file);
      return false;
    }
    written += static_cast<std::size_t>(done);
  }
  if (close(file) != 0) {
    error = "CloseHandle failed: " + std::to_string(errno);
    return false;
  }
  return true;
}

}  // namespace orvel
