// The line reader on any bytes in any chunks (the first byte picks the chunk
// size): the lines joined with "\n" plus what is pending give back the input,
// no line holds a "\n", and the chunking never changes the lines.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "client/answer_text.h"

using namespace orvel::client;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t chunk = data[0] % 16 + 1;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

  LineReader whole;
  std::vector<std::string> wholeLines;
  if (!FeedLines(whole, input, wholeLines)) std::abort();  // far below the line limit
  std::string joined;
  for (const std::string& line : wholeLines) {
    if (line.find('\n') != std::string::npos) std::abort();
    joined += line + "\n";
  }
  if (joined + whole.pending != input) std::abort();

  LineReader pieces;
  std::vector<std::string> pieceLines;
  for (std::size_t at = 0; at < input.size(); at += chunk) {
    if (!FeedLines(pieces, input.substr(at, chunk), pieceLines)) std::abort();
  }
  if (pieceLines != wholeLines || pieces.pending != whole.pending) std::abort();

  // A limit below the input's longest line must be reported, never overrun.
  LineReader small{.pending = {}, .maxLineBytes = 8};
  std::vector<std::string> smallLines;
  const bool fits = FeedLines(small, input, smallLines);
  for (const std::string& line : smallLines) {
    if (line.size() > 8) std::abort();
  }
  if (fits && small.pending.size() > 8) std::abort();
  return 0;
}
