#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/host_platform.h"

namespace orvel {

// Deeper configurations are refused; real ones stay well below 20 levels.
constexpr std::size_t kMaxConfigDepth = 64;

// The service runs the core as LocalSystem (root on Linux) for any local
// caller, so before it hands a configuration to the core it refuses every
// member that would let the core start a program, touch a file outside the
// data directory (the core's working directory), fetch an archive to unpack,
// change the machine (its clock, its proxy, another network namespace) or
// serve beyond the loopback address. True when the configuration may run;
// otherwise `refusal` names the first offending member (in document order) by
// its JSON path and says why, e.g. "outbounds[2].executable_path runs a
// program", or is "not valid JSON" / "nested too deeply" for a text the guard
// cannot read.
//
// Member names are matched the way the core's decoder matches them: after
// unescaping and without regard to case (including the two non-ASCII letters
// that fold to 's' and 'k'); every occurrence of a repeated member counts.
// Comments are accepted, as the core accepts them.
//
// On acceptance `plainJson` is the guard's own reading written back as plain
// JSON: no comments, no white space, strings re-escaped, of each repeated
// member name (exactly equal bytes) only the last occurrence, in its place.
// The service hands the core that text and never the caller's bytes: the
// core's comment filter and this parser disagree on where a comment ends
// (CR and NUL end a line comment here, not there), so the caller's text can
// mean one thing to the guard and another to the core. Empty on refusal.
bool JudgeServiceConfig(std::string_view config, PathRules rules, std::string& plainJson,
                        std::string& refusal);

// The rule for every file or directory named in a configuration: empty (the
// member's default), or a relative path of plain segments that stays inside
// the working directory. False with the reason otherwise. Windows also knows
// drives, streams, devices and backslashes; on Linux a backslash or a colon
// is an ordinary byte, but "~" (a home directory to the core) and NUL are not.
bool CheckDataRelativePath(std::string_view path, PathRules rules, std::string& reason);

}  // namespace orvel
