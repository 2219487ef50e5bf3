#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvel {

// A failed system call as the log names it: which call, on which path when
// there is one, and the system's own code (errno on Linux, GetLastError() on
// Windows). Recorded where the call fails, formatted once where it is logged,
// so "Failed to start sing-box" can say whether fork, chdir or exec failed.
// The answer texts the client reads never carry it; only log lines do.
struct SystemError {
  std::string call;
  std::string path;
  std::uint32_t code = 0;
};

// The calling thread's last error for `call` (read it before any other call
// can overwrite errno or the last-error value).
SystemError LastSystemError(std::string_view call, std::string_view path = {});

// "chdir(/var/lib/orvel) failed: 2 (No such file or directory)"; without a
// path "fork failed: 11 (Resource temporarily unavailable)".
std::string DescribeSystemError(const SystemError& error);

// The system's own text for `code`, without a trailing newline or period.
std::string SystemErrorText(std::uint32_t code);

}  // namespace orvel
