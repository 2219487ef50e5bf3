#pragma once

// What a client sends to start a URL test, and where the node tags come from.

#include <string>
#include <string_view>
#include <vector>

namespace orvel::client {

// The version 2 "/urltest" body: "ORVELVPN_URLTEST_V2\n", then the request id,
// the URL, the node count line, one field per tag and the configuration. A
// field is its byte length in decimal, "\n", the bytes and "\n".
std::string BuildUrlTestRequestBody(std::string_view requestId, std::string_view url,
                                    const std::vector<std::string>& nodeTags,
                                    std::string_view config);

// A request id no other run is likely to use: "orvelctl-" and 16 hex digits.
std::string NewUrlTestRequestId();

enum class ConfigCheck { kGood, kNotJson, kNoProxyOutbounds };

// Parses the configuration the way the core does (comments allowed). kNotJson
// fills `error` with the parser's description of the first fault.
ConfigCheck CheckConfigJson(std::string_view config, std::string& error);

// The tags of the configuration's proxy outbounds in file order, duplicates
// once: every outbound with a tag except the types "direct", "block", "dns",
// "selector" and "urltest", which carry no node of their own.
ConfigCheck ListProxyOutboundTags(std::string_view config, std::vector<std::string>& tags,
                                  std::string& error);

}  // namespace orvel::client
