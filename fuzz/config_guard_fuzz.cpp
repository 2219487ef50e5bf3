// The configuration guard never crashes, and it refuses a configuration that
// parses only for a member whose name its rules watch: a text without such a
// member is accepted, or refused as unreadable.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/config_guard.h"

namespace {

using Json = nlohmann::json;

// Over-approximates the watched names: any member name with a non-ASCII byte
// (it may fold to an ASCII letter) or one that contains a watched word.
bool MightBeWatched(const std::string& name) {
  std::string lower;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) >= 0x80) return true;
    lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  for (const char* word : {"path", "output", "external_ui", "director", "dashboard", "masquerade",
                           "download_url", "_file", "type", "extra_args", "torrc", "command"}) {
    if (lower.find(word) != std::string::npos) return true;
  }
  return false;
}

struct NameScan {
  bool watched = false;
  bool null() { return true; }
  bool boolean(bool) { return true; }
  bool number_integer(Json::number_integer_t) { return true; }
  bool number_unsigned(Json::number_unsigned_t) { return true; }
  bool number_float(Json::number_float_t, const std::string&) { return true; }
  bool string(std::string&) { return true; }
  bool binary(Json::binary_t&) { return true; }
  bool start_object(std::size_t) { return true; }
  bool end_object() { return true; }
  bool start_array(std::size_t) { return true; }
  bool end_array() { return true; }
  bool key(std::string& name) {
    watched = watched || MightBeWatched(name);
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view config(reinterpret_cast<const char*>(data), size);
  std::string plain, refusal;
  const bool accepted =
      orvel::JudgeServiceConfig(config, orvel::PathRules::kWindows, plain, refusal);
  std::string linuxRefusal;
  if (orvel::JudgeServiceConfig(config, orvel::PathRules::kLinux, plain, linuxRefusal) !=
      linuxRefusal.empty()) {
    std::abort();
  }
  if (accepted != refusal.empty()) std::abort();

  NameScan scan;
  const bool parsed =
      Json::sax_parse(config.begin(), config.end(), &scan, Json::input_format_t::json, true, true);
  if (!parsed && accepted) std::abort();
  if (parsed && !scan.watched && !accepted && refusal != "nested too deeply") std::abort();
  return 0;
}
