#include <windows.h>

#include "core/system_error.h"

namespace orvel {

SystemError LastSystemError(std::string_view call, std::string_view path) {
  const DWORD code = GetLastError();
  return SystemError{std::string(call), std::string(path), static_cast<std::uint32_t>(code)};
}

std::string SystemErrorText(std::uint32_t code) {
  char buffer[512];
  // English where the system has it, else its own language.
  DWORD length = 0;
  for (const DWORD language : {DWORD{MAKELANGID(LANG_ENGLISH, SUBLANG_DEFAULT)}, DWORD{0}}) {
    length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                            code, language, buffer, sizeof(buffer), nullptr);
    if (length != 0) break;
  }
  std::string text(buffer, length);
  while (!text.empty() &&
         (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '.')) {
    text.pop_back();
  }
  return text;
}

}  // namespace orvel
