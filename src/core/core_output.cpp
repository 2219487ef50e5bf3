#include "core/core_output.h"

#include <algorithm>

namespace orvel {

std::string SummarizeCoreOutput(std::string_view text, std::size_t limit) {
  std::string out;
  out.reserve(std::min(limit, text.size()));
  for (char c : text) {
    if (c == '\r' || c == '\n' || c == '\t') {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += c;
    }
    // Checked after every byte, appended or not: a limit of 0 cuts at once.
    if (out.size() >= limit) {
      out += "...";
      break;
    }
  }
  return out.empty() ? std::string("<empty>") : out;
}

void KeepCoreOutputTail(std::string& tail, std::string_view more) {
  tail.append(more);
  if (tail.size() > kCoreOutputTailBytes) tail.erase(0, tail.size() - kCoreOutputTailBytes);
}

}  // namespace orvel
