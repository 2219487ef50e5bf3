// What the service hands the core is what its guard judged: a configuration
// the guard accepts comes back as plain JSON that the guard accepts again and
// writes back byte for byte, that parses without comments, and that holds the
// same document as the caller's text (repeated names: the last one).
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/config_guard.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view config(reinterpret_cast<const char*>(data), size);
  for (const orvel::PathRules rules : {orvel::PathRules::kWindows, orvel::PathRules::kLinux}) {
    std::string plain, refusal;
    if (!orvel::JudgeServiceConfig(config, rules, plain, refusal)) {
      if (!plain.empty()) std::abort();
      continue;
    }
    std::string again, againRefusal;
    if (!orvel::JudgeServiceConfig(plain, rules, again, againRefusal) || again != plain) {
      std::abort();
    }
    for (const char c : plain) {
      if (static_cast<unsigned char>(c) < 0x20) std::abort();  // no raw control byte, no break
    }
    using Json = nlohmann::json;
    const Json read = Json::parse(config.begin(), config.end(), nullptr, false, true);
    const Json written = Json::parse(plain, nullptr, false, false);
    if (written.is_discarded() || read != written) std::abort();
  }
  return 0;
}
