#include "sysproxy/proxy_state.h"

#include <utility>

#include "sysproxy/state_text_escape.h"

namespace orvel {

namespace {

constexpr std::string_view kHeaderLine = "orvel-proxy-state 1";
constexpr std::string_view kEndLine = "end";

void AppendText(std::string& out, const std::wstring& text) {
  for (const wchar_t c : text) {
    // Where wchar_t is wider than 16 bits (native test builds only) a unit
    // that cannot be written is replaced; Windows strings always fit.
    const std::uint32_t wide = static_cast<std::uint32_t>(c);
    AppendEscapedUnit(out, (wide >> 16) != 0 ? 0xFFFDu : wide, 4);
  }
}

// The next line without its line feed; false when no complete line is left.
bool TakeLine(std::string_view& rest, std::string_view& line) {
  const std::size_t end = rest.find('\n');
  if (end == std::string_view::npos) return false;
  line = rest.substr(0, end);
  rest.remove_prefix(end + 1);
  return true;
}

// The next line, which must be "<key>=<value>"; `value` is what follows '='.
bool TakeField(std::string_view& rest, std::string_view key, std::string_view& value) {
  std::string_view line;
  if (!TakeLine(rest, line) || line.size() <= key.size() || line.substr(0, key.size()) != key ||
      line[key.size()] != '=') {
    return false;
  }
  value = line.substr(key.size() + 1);
  return true;
}

bool DecodeText(std::string_view text, std::wstring& out) {
  out.clear();
  for (std::size_t at = 0; at < text.size();) {
    std::uint32_t unit = 0;
    if (!TakeEscapedUnit(text, at, 4, unit)) return false;
    out.push_back(static_cast<wchar_t>(unit));
  }
  return true;
}

bool DecodeNumber(std::string_view text, std::uint32_t& out) {
  if (text.empty() || text.size() > 10) return false;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (value > 0xFFFFFFFFu) return false;
  out = static_cast<std::uint32_t>(value);
  return true;
}

}  // namespace

std::string EncodeProxyState(const SavedProxyState& state) {
  std::string out(kHeaderLine);
  out += "\nProxyEnable=" + std::to_string(state.proxyEnable) + "\nProxyServer=";
  AppendText(out, state.proxyServer);
  out += "\nProxyOverride=";
  AppendText(out, state.proxyOverride);
  out += "\nHelperProxyServer=";
  AppendText(out, state.helperProxyServer);
  out += "\n";
  out += kEndLine;
  out += "\n";
  return out;
}

bool ParseProxyState(std::string_view bytes, SavedProxyState& state) {
  if (bytes.size() > kMaxProxyStateBytes) return false;
  std::string_view rest = bytes;
  std::string_view line;
  std::string_view enable;
  std::string_view server;
  std::string_view bypass;
  std::string_view helper;
  SavedProxyState parsed;
  if (!TakeLine(rest, line) || line != kHeaderLine || !TakeField(rest, "ProxyEnable", enable) ||
      !TakeField(rest, "ProxyServer", server) || !TakeField(rest, "ProxyOverride", bypass) ||
      !TakeField(rest, "HelperProxyServer", helper) || !TakeLine(rest, line) || line != kEndLine ||
      !rest.empty()) {
    return false;
  }
  if (!DecodeNumber(enable, parsed.proxyEnable) || !DecodeText(server, parsed.proxyServer) ||
      !DecodeText(bypass, parsed.proxyOverride) || !DecodeText(helper, parsed.helperProxyServer) ||
      parsed.helperProxyServer.empty()) {
    return false;
  }
  state = std::move(parsed);
  return true;
}

}  // namespace orvel
