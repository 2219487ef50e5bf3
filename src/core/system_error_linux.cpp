#include <errno.h>
#include <string.h>

#include "core/system_error.h"

namespace orvel {

SystemError LastSystemError(std::string_view call, std::string_view path) {
  const int code = errno;
  return SystemError{std::string(call), std::string(path), static_cast<std::uint32_t>(code)};
}

std::string SystemErrorText(std::uint32_t code) {
  char buffer[256];
  // The GNU strerror_r: returns the text, which may or may not be `buffer`.
  return strerror_r(static_cast<int>(code), buffer, sizeof(buffer));
}

}  // namespace orvel
