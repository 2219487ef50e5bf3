// The one-line summary of a dying core's output: never longer than the limit
// plus "...", never holds a line break or a tab, never empty, and a text
// without breaks that fits comes back unchanged.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/core_output.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte picks the limit, so small limits get exercised too.
  const std::size_t limit = data[0] % 2 == 0 ? 900 : data[0];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  const std::string summary = orvel::SummarizeCoreOutput(text, limit);
  if (summary.empty()) std::abort();
  if (summary != "<empty>" && summary.size() > limit + 3) std::abort();
  if (summary.find_first_of("\r\n\t") != std::string::npos) std::abort();
  // Without breaks and within the limit, the text comes back as it is.
  if (!text.empty() && text.size() < limit && text.find_first_of("\r\n\t") == std::string::npos &&
      summary != text) {
    std::abort();
  }
  return 0;
}
