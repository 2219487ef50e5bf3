#include "client/answer_text.h"

namespace orvel::client {

namespace {

bool TakeLiteral(std::string_view& text, std::string_view literal) {
  if (!text.starts_with(literal)) return false;
  text.remove_prefix(literal.size());
  return true;
}

void AppendUtf8(std::string& out, std::uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

bool TakeHex4(std::string_view& text, std::uint32_t& value) {
  if (text.size() < 4) return false;
  value = 0;
  for (int i = 0; i < 4; ++i) {
    const char c = text[static_cast<std::size_t>(i)];
    value <<= 4;
    if (c >= '0' && c <= '9') {
      value |= static_cast<std::uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      value |= static_cast<std::uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      value |= static_cast<std::uint32_t>(c - 'A' + 10);
    } else {
      return false;
    }
  }
  text.remove_prefix(4);
  return true;
}

// The rest of a string whose opening quote is already taken, up to and
// including its closing quote. The helper's own four escapes and the other
// standard ones are decoded; every other byte is copied as it is.
bool TakeStringRest(std::string_view& text, std::string& out) {
  out.clear();
  while (!text.empty()) {
    const char c = text.front();
    text.remove_prefix(1);
    if (c == '"') return true;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (text.empty()) return false;
    const char e = text.front();
    text.remove_prefix(1);
    switch (e) {
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case 'b':
        out += '\b';
        break;
      case 'f':
        out += '\f';
        break;
      case '"':
      case '\\':
      case '/':
        out += e;
        break;
      case 'u': {
        std::uint32_t code = 0;
        if (!TakeHex4(text, code)) return false;
        std::uint32_t low = 0;
        if (code >= 0xD800 && code < 0xDC00 && text.starts_with("\\u")) {
          std::string_view peek = text.substr(2);
          if (TakeHex4(peek, low) && low >= 0xDC00 && low < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
            text = peek;
          }
        }
        AppendUtf8(out, code);
        break;
      }
      default:
        return false;
    }
  }
  return false;
}

bool TakeInteger(std::string_view& text, std::int64_t& value) {
  const bool negative = TakeLiteral(text, "-");
  std::size_t digits = 0;
  std::int64_t magnitude = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    if (digits == 18) return false;  // far beyond any delay
    magnitude = magnitude * 10 + (text[digits] - '0');
    ++digits;
  }
  if (digits == 0) return false;
  text.remove_prefix(digits);
  value = negative ? -magnitude : magnitude;
  return true;
}

}  // namespace

bool ParseStatusBody(std::string_view body, StatusAnswer& answer) {
  return TakeLiteral(body, "{\"status\":\"") && TakeStringRest(body, answer.status) &&
         TakeLiteral(body, ",\"platform\":\"") && TakeStringRest(body, answer.platform) &&
         TakeLiteral(body, ",\"message\":\"") && TakeStringRest(body, answer.message) &&
         TakeLiteral(body, "}") && body.empty();
}

bool ParseUrlTestResultLine(std::string_view line, UrlTestResult& result) {
  return TakeLiteral(line, "{\"nodeTag\":\"") && TakeStringRest(line, result.nodeTag) &&
         TakeLiteral(line, ",\"delayMs\":") && TakeInteger(line, result.delayMs) &&
         TakeLiteral(line, "}") && line.empty();
}

bool FeedLines(LineReader& reader, std::string_view chunk, std::vector<std::string>& lines) {
  while (!chunk.empty()) {
    const std::size_t end = chunk.find('\n');
    const std::string_view piece = chunk.substr(0, end);
    if (reader.pending.size() + piece.size() > reader.maxLineBytes) {
      reader.pending.clear();
      return false;
    }
    reader.pending.append(piece);
    if (end == std::string_view::npos) break;
    lines.push_back(std::move(reader.pending));
    reader.pending.clear();
    chunk.remove_prefix(end + 1);
  }
  return true;
}

}  // namespace orvel::client
