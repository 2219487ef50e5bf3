#include "sysproxy/proxy_state.h"

#include <utility>

namespace orvel {

namespace {

constexpr std::string_view kHeaderLine = "orvel-proxy-state 1";
constexpr std::string_view kEndLine = "end";

void AppendText(std::string& out, const std::wstring& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (const wchar_t c : text) {
    // Where wchar_t is wider than 16 bits (native test builds only) a unit
    // that cannot be written is replaced; Windows strings always fit.
    const std::uint32_t wide = static_cast<std::uint32_t>(c);
    const unsigned unit = (wide >> 16) != 0 ? 0xFFFDu : static_cast<unsigned>(wide);
    if (unit >= 0x20 && unit <= 0x7E && unit != '%') {
      out.push_back(static_cast<char>(unit));
      continue;
    }
    out.push_back('%');
    for (int shift = 12; shift >= 0; shift -= 4) out.push_back(kHex[(unit >> shift) & 0xF]);
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

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool DecodeText(std::string_view text, std::wstring& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '%') {
      if (text.size() - i < 5) return false;
      unsigned unit = 0;
      for (std::size_t k = 1; k <= 4; ++k) {
        const int digit = HexDigit(text[i + k]);
        if (digit < 0) return false;
        unit = unit * 16 + static_cast<unsigned>(digit);
      }
      out.push_back(static_cast<wchar_t>(unit));
      i += 4;
    } else if (c >= 0x20 && c <= 0x7E) {
      out.push_back(static_cast<wchar_t>(c));
    } else {
      return false;
    }
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
