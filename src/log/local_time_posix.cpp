#include <time.h>

#include "log/log_buffer.h"

namespace orvel {

LocalTime ReadLocalTime() {
  const time_t now = time(nullptr);
  struct tm parts {};
  localtime_r(&now, &parts);
  return LocalTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                   parts.tm_hour,        parts.tm_min,     parts.tm_sec};
}

}  // namespace orvel
