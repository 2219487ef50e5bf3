#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/data_files.h"
#include "core/paths.h"
#include "core/run_mode.h"
#include "sysproxy/restore_entry.h"

namespace orvel {

namespace {

// $XDG_CONFIG_HOME/autostart, else ~/.config/autostart; empty without either
// (no desktop session reads autostart files then anyway).
std::filesystem::path AutostartDirectory() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && config[0] == '/') return std::filesystem::path(config) / "autostart";
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] == '/') return std::filesystem::path(home) / ".config/autostart";
  return {};
}

}  // namespace

void CreateRestoreEntry() {
  const std::filesystem::path directory = AutostartDirectory();
  std::string text;
  std::string ignored;
  if (IsRunningAsService() || directory.empty() ||
      !BuildRestoreDesktopEntry(GetExecutablePath().string(), text) ||
      !CreateDirectoryTree(directory, ignored)) {
    return;
  }
  // Never through a link someone left in its place, and never blocking on a
  // FIFO; anything but a regular file is left alone.
  const int file = open((directory / kRestoreDesktopFileName).c_str(),
                        O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (file < 0) return;
  struct stat info {};
  if (fstat(file, &info) == 0 && S_ISREG(info.st_mode) && ftruncate(file, 0) == 0) {
    // A short write leaves a file no launcher runs; the recovery at the next
    // helper start still covers it.
    ssize_t written = write(file, text.data(), text.size());
    static_cast<void>(written);
  }
  close(file);
}

void RemoveRestoreEntry() {
  const std::filesystem::path directory = AutostartDirectory();
  if (IsRunningAsService() || directory.empty()) return;
  unlink((directory / kRestoreDesktopFileName).c_str());
}

}  // namespace orvel
