#include <pthread.h>

#include <cstddef>
#include <utility>

#include "core/detached_thread.h"

namespace orvel {

namespace {

constexpr std::size_t kThreadStackBytes = 256 * 1024;

void* RunThread(void* parameter) {
  const auto* start = static_cast<std::pair<void (*)(void*), void*>*>(parameter);
  const auto [run, argument] = *start;
  delete start;
  run(argument);
  return nullptr;
}

}  // namespace

bool StartDetachedThread(void (*run)(void*), void* argument) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, kThreadStackBytes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  auto* start = new std::pair<void (*)(void*), void*>(run, argument);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, RunThread, start) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) delete start;
  return started;
}

}  // namespace orvel
