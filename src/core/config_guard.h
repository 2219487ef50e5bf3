#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/host_platform.h"

namespace orvel {

// Deeper configurations are refused; real ones stay well below 20 levels.
constexpr std::size_t kMaxConfigDepth = 64;

// The service runs the core as LocalSystem for any local caller, so before it
// hands a configuration to sing-box.exe it refuses every member that would let
// the core start a program or touch a file outside the data directory (the
// core's working directory). True when the configuration may run; otherwise
// `refusal` names the first offending member (in document order) by its JSON
// path and says why, e.g. "outbounds[2].executable_path runs a program", or is
// "not valid JSON" / "nested too deeply" for a text the guard cannot read.
//
// Member names are matched the way the core's decoder matches them: after
// unescaping and without regard to case (including the two non-ASCII letters
// that fold to 's' and 'k'); every occurrence of a repeated member counts.
// Comments are accepted, as the core accepts them.
bool CheckServiceConfig(std::string_view config, PathRules rules, std::string& refusal);

// The rule for every file or directory named in a configuration: empty (the
// member's default), or a relative path of plain segments that stays inside
// the working directory. False with the reason otherwise. Windows also knows
// drives, streams, devices and backslashes; on Linux a backslash or a colon
// is an ordinary byte, but "~" (a home directory to the core) and NUL are not.
bool CheckDataRelativePath(std::string_view path, PathRules rules, std::string& reason);

}  // namespace orvel
