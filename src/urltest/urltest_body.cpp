#include "urltest/urltest_body.h"

#include "text/json_text.h"
#include "text/number_text.h"

namespace orvel {

namespace {

// The decimal line at `pos`: its value, with `pos` moved past its line feed.
bool ReadDecimalLine(std::string_view body, std::size_t& pos, std::uint32_t& value) {
  const std::size_t lineEnd = body.find('\n', pos);
  if (lineEnd == std::string_view::npos) return false;
  // Only the bytes before the line feed count: an empty line is 0, not the
  // number on the next line (a plain strtoul on the buffer would skip the
  // line feed as white space and read on).
  value = ParseUnsignedLong32(body.substr(pos, lineEnd - pos));
  pos = lineEnd + 1;
  return true;
}

void AppendField(std::string& body, std::string_view content) {
  body += std::to_string(content.size());
  body += '\n';
  body += content;
  body += '\n';
}

// The first control byte in `text` as "0xNN", or "" when there is none.
std::string FindControlByte(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) return {'0', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
  }
  return {};
}

bool HasPrefixIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

}  // namespace

bool CheckServiceUrlTest(const UrlTestRequest& request, std::string& refusal) {
  if (const std::string byte = FindControlByte(request.url); !byte.empty()) {
    refusal = "the test URL holds a control character (" + byte + ")";
    return false;
  }
  if (!HasPrefixIgnoringCase(request.url, "http://") &&
      !HasPrefixIgnoringCase(request.url, "https://")) {
    refusal = "the test URL is not an http:// or https:// address";
    return false;
  }
  for (std::size_t i = 0; i < request.nodeTags.size(); ++i) {
    if (const std::string byte = FindControlByte(request.nodeTags[i]); !byte.empty()) {
      refusal = "node tag " + std::to_string(i + 1) + " holds a control character (" + byte + ")";
      return false;
    }
  }
  refusal.clear();
  return true;
}

bool ReadLengthPrefixedField(std::string_view body, std::size_t& pos, std::string& out) {
  if (pos >= body.size()) return false;
  std::size_t start = pos;
  std::uint32_t length = 0;
  if (!ReadDecimalLine(body, start, length)) return false;
  if (length > body.size() - start) return false;
  out.assign(body.substr(start, length));
  pos = start + length;
  if (pos < body.size() && body[pos] == '\n') ++pos;
  return true;
}

bool ParseUrlTestBody(std::string_view body, UrlTestRequest& request) {
  std::size_t pos = kUrlTestMagicV2.size();
  if (body.starts_with(kUrlTestMagicV2)) {
    if (!ReadLengthPrefixedField(body, pos, request.requestId)) return false;
  } else if (!body.starts_with(kUrlTestMagicV1)) {
    return false;
  }
  if (!ReadLengthPrefixedField(body, pos, request.url)) return false;
  std::uint32_t count = 0;
  if (!ReadDecimalLine(body, pos, count)) return false;
  std::string tag;
  for (std::uint32_t i = 0; i < count; ++i) {
    // A huge count cannot reserve anything: every field needs at least two
    // bytes, so the loop ends at the body's end.
    if (!ReadLengthPrefixedField(body, pos, tag)) return false;
    if (!tag.empty()) request.nodeTags.push_back(tag);
  }
  return ReadLengthPrefixedField(body, pos, request.config);
}

std::string EncodeUrlTestBody(const UrlTestRequest& request, int version) {
  std::string body(version == 1 ? kUrlTestMagicV1 : kUrlTestMagicV2);
  if (version != 1) AppendField(body, request.requestId);
  AppendField(body, request.url);
  body += std::to_string(request.nodeTags.size());
  body += '\n';
  for (const std::string& tag : request.nodeTags) AppendField(body, tag);
  AppendField(body, request.config);
  return body;
}

std::string BuildUrlTestResultLine(std::string_view nodeTag, std::int32_t delayMs) {
  std::string line = "{\"nodeTag\":\"";
  line += JsonEscape(nodeTag);
  line += "\",\"delayMs\":";
  line += std::to_string(delayMs);
  line += "}\n";
  return line;
}

}  // namespace orvel
