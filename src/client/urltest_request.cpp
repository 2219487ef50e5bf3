#include "client/urltest_request.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <random>

namespace orvel::client {

namespace {

using nlohmann::json;

void AppendField(std::string& body, std::string_view content) {
  body += std::to_string(content.size());
  body += '\n';
  body += content;
  body += '\n';
}

// Only the parse error matters: every other event is accepted and dropped.
struct ErrorOnlySax {
  std::string error;
  bool null() { return true; }
  bool boolean(bool) { return true; }
  bool number_integer(json::number_integer_t) { return true; }
  bool number_unsigned(json::number_unsigned_t) { return true; }
  bool number_float(json::number_float_t, const std::string&) { return true; }
  bool string(std::string&) { return true; }
  bool binary(json::binary_t&) { return true; }
  bool start_object(std::size_t) { return true; }
  bool key(std::string&) { return true; }
  bool end_object() { return true; }
  bool start_array(std::size_t) { return true; }
  bool end_array() { return true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& e) {
    error = e.what();
    // "[json.exception.parse_error.101] parse error at line 3, ...": the
    // bracketed library code means nothing to the reader.
    const std::size_t close = error.find("] ");
    if (close != std::string::npos) error.erase(0, close + 2);
    return false;
  }
};

ConfigCheck ParseConfig(std::string_view config, json& document, std::string& error) {
  document = json::parse(config.begin(), config.end(), nullptr, false, true);
  if (!document.is_discarded()) return ConfigCheck::kGood;
  ErrorOnlySax sax;
  json::sax_parse(config.begin(), config.end(), &sax, json::input_format_t::json, true, true);
  error = sax.error.empty() ? "not JSON" : sax.error;
  return ConfigCheck::kNotJson;
}

}  // namespace

std::string BuildUrlTestRequestBody(std::string_view requestId, std::string_view url,
                                    const std::vector<std::string>& nodeTags,
                                    std::string_view config) {
  std::string body = "ORVELVPN_URLTEST_V2\n";
  AppendField(body, requestId);
  AppendField(body, url);
  body += std::to_string(nodeTags.size());
  body += '\n';
  for (const std::string& tag : nodeTags) AppendField(body, tag);
  AppendField(body, config);
  return body;
}

std::string NewUrlTestRequestId() {
  // random_device alone may be a fixed sequence on some runtimes; the clock
  // keeps two runs apart even then.
  std::random_device device;
  const std::uint64_t seed =
      (static_cast<std::uint64_t>(device()) << 32) ^ device() ^
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  std::mt19937_64 generator(seed);
  static const char kHex[] = "0123456789abcdef";
  std::string id = "orvelctl-";
  std::uint64_t value = generator();
  for (int i = 0; i < 16; ++i, value >>= 4) id += kHex[value & 0xF];
  return id;
}

ConfigCheck CheckConfigJson(std::string_view config, std::string& error) {
  json document;
  return ParseConfig(config, document, error);
}

ConfigCheck ListProxyOutboundTags(std::string_view config, std::vector<std::string>& tags,
                                  std::string& error) {
  json document;
  const ConfigCheck parsed = ParseConfig(config, document, error);
  if (parsed != ConfigCheck::kGood) return parsed;
  static const std::string_view kNotNodes[] = {"direct", "block", "dns", "selector", "urltest"};
  tags.clear();
  const auto outbounds = document.is_object() ? document.find("outbounds") : document.end();
  if (outbounds != document.end() && outbounds->is_array()) {
    for (const json& outbound : *outbounds) {
      if (!outbound.is_object()) continue;
      const auto tag = outbound.find("tag");
      const auto type = outbound.find("type");
      if (tag == outbound.end() || !tag->is_string() || type == outbound.end() ||
          !type->is_string()) {
        continue;
      }
      const std::string& typeName = type->get_ref<const std::string&>();
      const std::string& tagName = tag->get_ref<const std::string&>();
      if (tagName.empty() || std::ranges::find(kNotNodes, typeName) != std::end(kNotNodes))
        continue;
      if (std::ranges::find(tags, tagName) == tags.end()) tags.push_back(tagName);
    }
  }
  if (!tags.empty()) return ConfigCheck::kGood;
  error =
      "the configuration has no proxy outbounds (only direct, block, dns, selector or "
      "urltest); name nodes with --tag";
  return ConfigCheck::kNoProxyOutbounds;
}

}  // namespace orvel::client
