#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <system_error>

#include "core/data_files.h"

namespace orvel {

namespace {

// The largest single WriteFile call.
constexpr DWORD kMaxWriteChunkBytes = 1048576;
// Taken temporary names tried before the replace gives up.
constexpr int kTemporaryNameAttempts = 64;

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool IsDirectory(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Creates one folder; an existing directory counts as created. 0 or the code.
DWORD CreateOneDirectory(const std::wstring& path) {
  if (CreateDirectoryW(path.c_str(), nullptr)) return 0;
  const DWORD error = GetLastError();
  if (error == ERROR_ALREADY_EXISTS && IsDirectory(path)) return 0;
  return error;
}

// The log's form of a path: UTF-8, anything unpaired replaced.
std::string PathText(const std::filesystem::path& path) {
  const std::wstring& wide = path.native();
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                       nullptr, 0, nullptr, nullptr);
  std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  if (size > 0) {
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), size,
                        nullptr, nullptr);
  }
  return text;
}

// All of `bytes` in calls of at most kMaxWriteChunkBytes; a write that takes
// nothing counts as the device's fault.
bool WriteAll(HANDLE file, std::string_view bytes, const std::filesystem::path& path,
              SystemError& error) {
  for (std::size_t offset = 0; offset < bytes.size();) {
    const DWORD chunk =
        static_cast<DWORD>(std::min<std::size_t>(bytes.size() - offset, kMaxWriteChunkBytes));
    DWORD written = 0;
    if (!WriteFile(file, bytes.data() + offset, chunk, &written, nullptr)) {
      error = LastSystemError("WriteFile", PathText(path));
      return false;
    }
    if (written == 0) {
      error = {"WriteFile", PathText(path), ERROR_WRITE_FAULT};
      return false;
    }
    offset += written;
  }
  return true;
}

// "<path>.<pid>-<n>", created with CREATE_NEW: a name that is taken (a file
// or link someone left there, or a helper's unfinished write) is never
// opened; the next number is tried instead.
HANDLE CreateTemporaryBeside(const std::filesystem::path& path, std::wstring& temporary,
                             SystemError& error) {
  static std::atomic<std::uint64_t> sequence{0};
  for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
    temporary = path.native() + L"." + std::to_wstring(GetCurrentProcessId()) + L"-" +
                std::to_wstring(++sequence);
    HANDLE file = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) return file;
    error = LastSystemError("CreateFile", PathText(temporary));
    if (error.code != ERROR_FILE_EXISTS && error.code != ERROR_ALREADY_EXISTS) break;
  }
  return INVALID_HANDLE_VALUE;
}

}  // namespace

bool CreateDirectoryTree(const std::filesystem::path& path, std::string& errorMessage) {
  const std::wstring& directory = path.native();
  // Each missing prefix that ends before a separator, then the whole path.
  // Failures on the way are not decisive (a share name "\\server" cannot be
  // created and need not be): the whole path's own result decides.
  for (std::size_t i = 1; i < directory.size(); ++i) {
    if (!IsSeparator(directory[i]) || IsSeparator(directory[i - 1])) continue;
    const std::wstring prefix = directory.substr(0, i);
    if (prefix.back() != L':' && !IsDirectory(prefix)) CreateOneDirectory(prefix);
  }
  const DWORD error = CreateOneDirectory(directory);
  if (error == 0) return true;
  errorMessage = std::system_category().message(static_cast<int>(error));
  return false;
}

bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes, SystemError& error) {
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                            CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    error = LastSystemError("CreateFile", PathText(path));
    return false;
  }
  const bool written = WriteAll(file, bytes, path, error);
  if (!CloseHandle(file) && written) {
    error = LastSystemError("CloseHandle", PathText(path));
    return false;
  }
  return written;
}

bool ReplaceFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                           SystemError& error) {
  std::wstring temporary;
  HANDLE file = CreateTemporaryBeside(path, temporary, error);
  if (file == INVALID_HANDLE_VALUE) return false;
  bool done = WriteAll(file, bytes, temporary, error);
  // Flushed before the rename: otherwise a power cut could leave the new name
  // pointing at data that never reached the disk.
  if (done && !FlushFileBuffers(file)) {
    error = LastSystemError("FlushFileBuffers", PathText(temporary));
    done = false;
  }
  if (!CloseHandle(file) && done) {
    error = LastSystemError("CloseHandle", PathText(temporary));
    done = false;
  }
  if (done && !MoveFileExW(temporary.c_str(), path.c_str(),
                           MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    error = LastSystemError("MoveFileEx", PathText(path));
    done = false;
  }
  if (!done) DeleteFileW(temporary.c_str());
  return done;
}

}  // namespace orvel
