#include "sysproxy/proxy_recovery.h"

#include <fstream>
#include <system_error>

#include "core/data_files.h"
#include "core/paths.h"
#include "core/system_error.h"
#include "log/log_buffer.h"
#include "sysproxy/proxy_state.h"
#include "sysproxy/restore_entry.h"
#include "sysproxy/system_proxy.h"

namespace orvel {

namespace {

// False when there is no file; otherwise true with `bytes` holding its first
// kMaxProxyStateBytes + 1 bytes (one over the limit is enough for the parser
// to refuse it; empty when it cannot be read at all).
bool ReadProxyStateFile(std::string& bytes) {
  const std::filesystem::path path = ProxyStatePath();
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) return false;
  std::ifstream file(path, std::ios::binary);
  bytes.resize(kMaxProxyStateBytes + 1);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return true;
}

// The temporary files of writes that a helper did not finish
// ("proxy-state.txt.<suffix>"); the file each would have replaced, if any, is
// still whole.
void RemoveUnfinishedWrites() {
  // Compared as the system's own text: a name that does not convert (an
  // unpaired UTF-16 unit on Windows) would otherwise throw.
  const std::filesystem::path::string_type prefix =
      ProxyStatePath().filename().native() + std::filesystem::path(".").native();
  std::error_code ec;
  for (std::filesystem::directory_iterator entry(GetDataDirectory(), ec);
       !ec && entry != std::filesystem::directory_iterator(); entry.increment(ec)) {
    std::error_code ignored;
    if (entry->path().filename().native().starts_with(prefix)) {
      std::filesystem::remove(entry->path(), ignored);
    }
  }
}

}  // namespace

std::filesystem::path ProxyStatePath() { return GetDataDirectory() / "proxy-state.txt"; }

void KeepProxyStateFile(const std::string& bytes) {
  std::string reason;
  SystemError error;
  if (bytes.size() > kMaxProxyStateBytes) {
    // Refused rather than written: a helper that starts later would not read it.
    reason = "the settings are too large to keep";
  } else if (!CreateDirectoryTree(GetDataDirectory(), reason)) {
    reason = "data directory: " + reason;
  } else if (!ReplaceFileAtomically(ProxyStatePath(), bytes, error)) {
    reason = DescribeSystemError(error);
  } else {
    return;
  }
  HelperLog().Append(kCrashRecoveryOff + reason);
}

void DropProxyStateFile() {
  std::error_code ignored;
  std::filesystem::remove(ProxyStatePath(), ignored);
  RemoveRestoreEntry();
}

void RecoverSystemProxyAtStartup() {
  if (!ProxyRecoveryApplies()) return;
  RemoveUnfinishedWrites();
  std::string bytes;
  // Without a file no value of the helper's can be in place, and no entry
  // is needed for them.
  if (!ReadProxyStateFile(bytes)) return RemoveRestoreEntry();
  const SavedProxyVerdict verdict = TakeOverSavedProxy(bytes);
  if (verdict != SavedProxyVerdict::kTakenOver) {
    DropProxyStateFile();
    HelperLog().Append(verdict == SavedProxyVerdict::kChangedSinceSet
                           ? kChangedSinceSet
                           : "Removed an unreadable saved proxy settings file; system proxy left "
                             "as it is");
    return;
  }
  std::string errorMessage;
  if (RestoreSystemProxy(errorMessage)) {
    HelperLog().Append("Restored the proxy settings saved before the helper last ended");
  } else {
    HelperLog().Append("Proxy settings saved before the helper last ended not restored yet: " +
                       errorMessage);
  }
}

}  // namespace orvel
