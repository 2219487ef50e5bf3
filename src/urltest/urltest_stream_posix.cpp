#include <unistd.h>

#include <atomic>

#include "core/paths.h"
#include "urltest/urltest_stream.h"

namespace orvel {

std::filesystem::path MakeUrlTestConfigPath() {
  static std::atomic<std::uint64_t> sequence{0};
  const std::uint64_t number = ++sequence;
  return GetDataDirectory() /
         ("sing-box-urltest-" + std::to_string(getpid()) + "-" + std::to_string(number) + ".json");
}

}  // namespace orvel
