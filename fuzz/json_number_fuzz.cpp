// Number lookup in the core's raw answers. The input's first line is the key,
// the rest the text; the result must equal strtoll over the run the lookup is
// described to take, and a key that is absent must give 0.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "traffic/traffic_snapshot.h"

namespace {

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::int64_t Expected(const std::string& text, const std::string& key) {
  const std::string needle = "\"" + key + "\":";
  std::size_t at = text.find(needle);
  if (at == std::string::npos) return 0;
  at += needle.size();
  while (at < text.size() && IsSpace(text[at])) ++at;
  std::size_t end = at;
  while (end < text.size() && (text[end] == '-' || (text[end] >= '0' && text[end] <= '9'))) ++end;
  const std::string run = text.substr(at, end - at);
  errno = 0;
  return std::strtoll(run.c_str(), nullptr, 10);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t lineEnd = input.find('\n');
  const std::string key = input.substr(0, lineEnd);
  const std::string text = lineEnd == std::string::npos ? std::string() : input.substr(lineEnd + 1);
  // strtoll stops at a NUL byte that the lookup reads past; keep to texts
  // where the two must agree.
  if (text.find('\0') != std::string::npos) return 0;
  if (orvel::FindJsonNumber(text, key) != Expected(text, key)) std::abort();
  for (const char* figure : {"up", "down", "uploadTotal", "downloadTotal"}) {
    if (orvel::FindJsonNumber(text, figure) != Expected(text, figure)) std::abort();
  }
  return 0;
}
