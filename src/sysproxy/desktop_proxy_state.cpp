#include "sysproxy/desktop_proxy_state.h"

#include "sysproxy/proxy_state.h"
#include "sysproxy/state_text_escape.h"

namespace orvel {

namespace {

constexpr std::string_view kHeaderLine = "orvel-desktop-proxy-state 1";
constexpr std::string_view kEndLine = "end";

void AppendEscaped(std::string& out, std::string_view text) {
  for (const char c : text) AppendEscapedUnit(out, static_cast<unsigned char>(c), 2);
}

bool Unescape(std::string_view text, std::string& out) {
  out.clear();
  for (std::size_t at = 0; at < text.size();) {
    std::uint32_t byte = 0;
    if (!TakeEscapedUnit(text, at, 2, byte)) return false;
    out += static_cast<char>(byte);
  }
  return true;
}

bool IsKnownKey(std::string_view key) {
  return (key.starts_with("gsettings:org.gnome.system.proxy") || key.starts_with("kde:")) &&
         key.find_first_of("=!%") == std::string_view::npos;
}

}  // namespace

std::string EncodeDesktopProxyState(const DesktopProxyState& state) {
  std::string out(kHeaderLine);
  out += "\nhelper=";
  AppendEscaped(out, state.helper);
  out += '\n';
  for (const DesktopProxySetting& setting : state.settings) {
    out += setting.key;
    if (setting.isDefault) {
      out += '!';
    } else {
      out += '=';
      AppendEscaped(out, setting.text);
    }
    out += '\n';
  }
  out += kEndLine;
  out += '\n';
  return out;
}

bool ParseDesktopProxyState(std::string_view bytes, DesktopProxyState& state) {
  if (bytes.size() > kMaxProxyStateBytes || !bytes.ends_with("\nend\n")) return false;
  DesktopProxyState parsed;
  std::vector<std::string_view> lines;
  for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos;
       bytes.remove_prefix(end + 1)) {
    lines.push_back(bytes.substr(0, end));
  }
  if (lines.size() < 3 || lines.front() != kHeaderLine || lines.back() != kEndLine ||
      !lines[1].starts_with("helper=") || !Unescape(lines[1].substr(7), parsed.helper) ||
      parsed.helper.empty()) {
    return false;
  }
  for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
    const std::string_view line = lines[i];
    DesktopProxySetting setting;
    const std::size_t equals = line.find('=');
    if (line.ends_with('!') && equals == std::string_view::npos) {
      setting.key = line.substr(0, line.size() - 1);
      setting.isDefault = true;
    } else if (equals != std::string_view::npos) {
      setting.key = line.substr(0, equals);
      if (!Unescape(line.substr(equals + 1), setting.text)) return false;
    } else {
      return false;
    }
    if (!IsKnownKey(setting.key)) return false;
    parsed.settings.push_back(std::move(setting));
  }
  state = std::move(parsed);
  return true;
}

}  // namespace orvel
