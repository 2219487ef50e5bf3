#pragma once

#include <string_view>

namespace orvel {

constexpr int kDefaultMixedPort = 7897;

// Port of the inbound tagged "orvel-vpn-mixed" in the core configuration text,
// found by a plain byte search (no JSON parsing); 7897 on every miss. Always
// in 1..65535. When the tag is missing the first "listen_port" of the whole
// text is used, and the search is not bounded by the tagged object.
int FindMixedInboundPort(std::string_view config);

}  // namespace orvel
