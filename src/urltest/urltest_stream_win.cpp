#include <windows.h>

#include <atomic>

#include "core/paths.h"
#include "urltest/urltest_stream.h"

namespace orvel {

std::filesystem::path MakeUrlTestConfigPath() {
  static std::atomic<std::uint64_t> sequence{0};
  const std::uint64_t number = ++sequence;
  return GetDataDirectory().wstring() + L"\\sing-box-urltest-" +
         std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(number) + L".json";
}

}  // namespace orvel
