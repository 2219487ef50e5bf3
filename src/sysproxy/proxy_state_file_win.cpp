#include <windows.h>

#include <system_error>

#include "core/data_files.h"
#include "core/paths.h"
#include "sysproxy/system_proxy_win.h"

namespace orvel {

std::wstring GetProxyStatePath() { return GetDataDirectory().wstring() + L"\\proxy-state.txt"; }

namespace {

// The step that failed and the system's text for the last error.
bool Fail(const char* step, std::string& reason) {
  reason =
      std::string(step) + ": " + std::system_category().message(static_cast<int>(GetLastError()));
  return false;
}

}  // namespace

bool WriteProxyStateFile(const SavedProxyState& state, std::string& reason) {
  // Refused rather than written: a helper that starts later would not read it.
  const std::string bytes = EncodeProxyState(state);
  if (bytes.size() > kMaxProxyStateBytes) {
    reason = "the settings are too large to keep";
    return false;
  }
  std::string directoryError;
  if (!CreateDirectoryTree(GetDataDirectory(), directoryError)) {
    reason = "data directory: " + directoryError;
    return false;
  }

  const std::wstring path = GetProxyStatePath();
  const std::wstring temporary = path + L".tmp";
  HANDLE file = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return Fail("create", reason);
  DWORD written = 0;
  // Flushed before the rename: otherwise a power cut could leave the new name
  // pointing at data that never reached the disk.
  const bool complete =
      WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
      written == bytes.size() && FlushFileBuffers(file);
  const bool closed = CloseHandle(file) != FALSE;
  if (complete && closed &&
      MoveFileExW(temporary.c_str(), path.c_str(),
                  MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    return true;
  }
  Fail(complete && closed ? "rename" : "write", reason);
  DeleteFileW(temporary.c_str());
  return false;
}

bool ReadProxyStateFile(std::string& bytes) {
  bytes.clear();
  HANDLE file = CreateFileW(GetProxyStatePath().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
  }
  // One byte over the limit is enough for the parser to refuse the file.
  char chunk[4096];
  DWORD got = 0;
  while (bytes.size() <= kMaxProxyStateBytes &&
         ReadFile(file, chunk, sizeof(chunk), &got, nullptr) && got > 0) {
    bytes.append(chunk, got);
  }
  CloseHandle(file);
  if (bytes.size() > kMaxProxyStateBytes + 1) bytes.resize(kMaxProxyStateBytes + 1);
  return true;
}

}  // namespace orvel
