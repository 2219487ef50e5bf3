#pragma once

// The Linux service's files, as text: the systemd unit the installer writes
// and the polkit rule that lets the group start and stop it.

#include <string>
#include <string_view>

namespace orvel {

constexpr const char* kServiceUnitName = "orvel-vpn-helper.service";
constexpr const char* kServiceUnitPath = "/etc/systemd/system/orvel-vpn-helper.service";
constexpr const char* kPolkitRuleDirectory = "/etc/polkit-1/rules.d";
constexpr const char* kPolkitRulePath = "/etc/polkit-1/rules.d/50-orvel-vpn-helper.rules";
// The link `systemctl enable` makes, made directly where systemd does not run.
constexpr const char* kServiceWantsLink =
    "/etc/systemd/system/multi-user.target.wants/orvel-vpn-helper.service";
// The service's own files (StateDirectory=): the last configuration, with
// the servers' credentials in it.
constexpr const char* kServiceStateDirectory = "/var/lib/orvel-vpn-helper";
// Where the Debian package puts the helper, and so its unit's ExecStart.
constexpr const char* kPackagedHelperPath = "/usr/libexec/orvel-vpn-helper/orvel-vpn-helper";

// One word of a unit's command line as systemd reads it back: in double
// quotes, with backslash and double quote escaped, control bytes as C
// escapes, and '%' and '$' doubled (systemd expands specifiers and
// variables in ExecStart, inside quotes too).
std::string QuoteForSystemd(std::string_view word);

// The whole unit for the helper at `executable` (an absolute path): the one
// the installer writes and the one the package ships.
std::string BuildServiceUnit(std::string_view executable);

// Members of the service group may start, stop and restart this unit, and
// nothing else.
std::string BuildPolkitRule();

}  // namespace orvel
