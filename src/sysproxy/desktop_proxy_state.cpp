#include "sysproxy/desktop_proxy_state.h"

#include "sysproxy/proxy_state.h"

namespace orvel {

namespace {

constexpr std::string_view kHeaderLine = "orvel-desktop-proxy-state 1";
constexpr std::string_view kEndLine = "end";

void AppendEscaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte <= 0x7E && byte != '%') {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool Unescape(std::string_view text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte > 0x7E) return false;
    if (byte != '%') {
      out += text[i];
      continue;
    }
    if (text.size() - i < 3) return false;
    const int high = HexDigit(text[i + 1]);
    const int low = HexDigit(text[i + 2]);
    if (high < 0 || low < 0) return false;
    out += static_cast<char>(high * 16 + low);
    i += 2;
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
