#include <windows.h>

#include <utility>

#include "core/detached_thread.h"

namespace orvel {

namespace {

constexpr SIZE_T kThreadStackBytes = 256 * 1024;

DWORD WINAPI RunThread(LPVOID parameter) {
  const auto* start = static_cast<std::pair<void (*)(void*), void*>*>(parameter);
  const auto [run, argument] = *start;
  delete start;
  run(argument);
  return 0;
}

}  // namespace

bool StartDetachedThread(void (*run)(void*), void* argument) {
  auto* start = new std::pair<void (*)(void*), void*>(run, argument);
  HANDLE thread = CreateThread(nullptr, kThreadStackBytes, RunThread, start,
                               STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (thread == nullptr) {
    delete start;
    return false;
  }
  CloseHandle(thread);
  return true;
}

}  // namespace orvel
