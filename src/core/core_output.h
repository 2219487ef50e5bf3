#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orvel {

// Length of the one-line explanation given for a core that died at once.
constexpr std::size_t kCoreOutputSummaryLimit = 900;

// How much of a running core's output is kept to explain its end.
constexpr std::size_t kCoreOutputTailBytes = 4096;

// Appends `more` to `tail` and keeps only its last kCoreOutputTailBytes.
void KeepCoreOutputTail(std::string& tail, std::string_view more);

// Flattens a dead core's output into one line for a message: every run of
// carriage returns, line feeds and tabs becomes one space (none at the start),
// plain spaces are kept as they are, and once `limit` bytes are out "..." is
// added and the rest dropped. So exactly `limit` bytes of text still get
// "...", a trailing line break becomes a trailing space, and the result holds
// at most limit + 3 bytes. Empty output gives "<empty>".
std::string SummarizeCoreOutput(std::string_view text, std::size_t limit);

}  // namespace orvel
