// The Linux socket table readers: a /proc/net table as either family, and
// the same bytes as a sock_diag answer. Neither may read past its input, and
// a row must come out of a table only with the fields it was made of.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "traffic/kernel_socket_rows.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::size_t rows = 0;
  const orvel::KernelRowSink count = [&](const orvel::KernelSocketRow&) { ++rows; };
  orvel::ReadProcNetTable(bytes, false, count);
  orvel::ReadProcNetTable(bytes, true, count);
  // A row needs a line of its own beyond the heading.
  std::size_t lines = 0;
  for (const char c : bytes) lines += c == '\n';
  if (rows > 2 * (lines > 0 ? lines - 1 : 0)) std::abort();
  rows = 0;
  orvel::ReadDiagAnswer(bytes, count);
  // Each row takes a whole message of 88 bytes at least.
  if (rows * 88 > size) std::abort();
  return 0;
}
