#include "sysproxy/restore_entry.h"

#include <string_view>

namespace orvel {

std::wstring BuildRestoreRunCommand(const std::wstring& executablePath) {
  return L"\"" + executablePath + L"\" --restore-proxy";
}

bool BuildRestoreDesktopEntry(const std::string& executablePath, std::string& text) {
  if (executablePath.empty() || executablePath[0] != '/') return false;
  constexpr std::string_view kReserved = " \t\n\"'\\><~|&;$*?#()`";
  bool quote = false;
  for (const char c : executablePath) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
    quote = quote || kReserved.find(c) != std::string_view::npos;
  }
  std::string exec = quote ? "\"" : "";
  for (const char c : executablePath) {
    if (quote && (c == '"' || c == '`' || c == '$' || c == '\\')) exec += '\\';
    exec += c;
  }
  if (quote) exec += '"';
  // The string value's own escape: what was written as '\' reaches the Exec
  // parser only when doubled. Then '%', which would start a field code.
  std::string value;
  for (const char c : exec) {
    if (c == '\\' || c == '%') value += c;
    value += c;
  }
  text =
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=Orvel VPN helper: restore the proxy settings\n"
      "Exec=" +
      value +
      " --restore-proxy\n"
      "Hidden=false\n"
      "NoDisplay=true\n"
      "X-GNOME-Autostart-Phase=Initialization\n";
  return true;
}

}  // namespace orvel
