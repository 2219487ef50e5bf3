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
  // FIFO; anything but a regular file is left alone. A short write leaves a
  // file no launcher runs; the recovery at the next helper start still
  // covers it.
  WriteWholeFile(directory / kRestoreDesktopFileName, text);
}

void RemoveRestoreEntry() {
  const std::filesystem::path directory = AutostartDirectory();
  if (IsRunningAsService() || directory.empty()) return;
  unlink((directory / kRestoreDesktopFileName).c_str());
}

}  // namespace orvel
