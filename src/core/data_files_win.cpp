#include <windows.h>

#include <algorithm>
#include <system_error>

#include "core/data_files.h"

namespace orvel {

namespace {

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

bool WriteWholeFile(const std::filesystem::path& path, std::string_view bytes) {
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                            CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  bool ok = true;
  std::size_t offset = 0;
  while (ok && offset < bytes.size()) {
    const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - offset, 1u << 30));
    DWORD written = 0;
    ok = WriteFile(file, bytes.data() + offset, chunk, &written, nullptr) && written > 0;
    offset += written;
  }
  return CloseHandle(file) && ok;
}

}  // namespace orvel
