#include <windows.h>

#include "log/log_buffer.h"

namespace orvel {

LocalTime ReadLocalTime() {
  SYSTEMTIME now{};
  GetLocalTime(&now);
  return LocalTime{now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond};
}

}  // namespace orvel
