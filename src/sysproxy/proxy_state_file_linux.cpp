#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "core/data_files.h"
#include "core/paths.h"
#include "sysproxy/desktop_proxy_linux.h"

namespace orvel {

std::filesystem::path StatePath() { return GetDataDirectory() / "proxy-state.txt"; }

bool WriteStateFile(const DesktopProxyState& state, std::string& reason) {
  const std::string bytes = EncodeDesktopProxyState(state);
  std::string directoryError;
  if (!CreateDirectoryTree(GetDataDirectory(), directoryError)) {
    reason = "data directory: " + directoryError;
    return false;
  }
  const std::filesystem::path path = StatePath();
  std::string temporary = path.string() + ".XXXXXX";
  const int file = mkostemp(temporary.data(), O_CLOEXEC);
  const bool written =
      file >= 0 && write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
      fsync(file) == 0;
  const int error = errno;
  if (file >= 0) close(file);
  std::error_code ec;
  if (written) std::filesystem::rename(temporary, path, ec);
  if (written && !ec) return true;
  reason = std::string(file < 0  ? "create"
                       : written ? "rename"
                                 : "write") +
           ": " + std::system_category().message(ec ? ec.value() : error);
  if (file >= 0) std::filesystem::remove(temporary, ec);
  return false;
}

void RemoveUnfinishedStateFiles() {
  const std::string prefix = StatePath().filename().string() + ".";
  std::error_code ec;
  for (std::filesystem::directory_iterator entry(GetDataDirectory(), ec);
       !ec && entry != std::filesystem::directory_iterator(); entry.increment(ec)) {
    std::error_code ignored;
    if (entry->path().filename().string().starts_with(prefix)) {
      std::filesystem::remove(entry->path(), ignored);
    }
  }
}

}  // namespace orvel
