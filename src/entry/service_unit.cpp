#include "entry/service_unit.h"

#include <cstdio>

#include "api/caller_policy.h"

namespace orvel {

std::string QuoteForSystemd(std::string_view word) {
  std::string quoted = "\"";
  for (const char c : word) {
    switch (c) {
      case '\\':
        quoted += "\\\\";
        break;
      case '"':
        quoted += "\\\"";
        break;
      case '%':
        quoted += "%%";
        break;
      case '$':
        quoted += "$$";
        break;
      case '\n':
        quoted += "\\n";
        break;
      case '\t':
        quoted += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\x%02x", static_cast<unsigned char>(c));
          quoted += escaped;
        } else {
          quoted += c;
        }
    }
  }
  return quoted + "\"";
}

std::string BuildServiceUnit(std::string_view executable) {
  return "[Unit]\n"
         "Description=Orvel VPN Helper Service\n"
         "Documentation=file:///usr/share/doc/orvel-vpn-helper/README.md\n"
         "After=network-online.target\n"
         "Wants=network-online.target\n"
         "\n"
         "[Service]\n"
         "Type=notify\n"
         "ExecStart=" +
         QuoteForSystemd(executable) +
         " --service\n"
         "Restart=on-failure\n"
         "KillMode=control-group\n"
         "StateDirectory=orvel-vpn-helper\n"
         "StateDirectoryMode=0700\n"
         // The helper's log lines go to standard error in service mode. Its
         // lines may carry a caller's text: a leading "<0>" must never be
         // read as a priority (an emergency is sent to every terminal).
         "SyslogIdentifier=orvel-vpn-helper\n"
         "SyslogLevelPrefix=no\n"
         "\n"
         "[Install]\n"
         "WantedBy=multi-user.target\n";
}

std::string BuildPolkitRule() {
  return std::string(
             "// Members of the group orvel-vpn may start, stop and restart the Orvel VPN\n"
             "// helper's service without a password (it runs the core for TUN mode).\n"
             "// Nothing else is granted.\n"
             "polkit.addRule(function(action, subject) {\n"
             "    if (action.id == \"org.freedesktop.systemd1.manage-units\" &&\n"
             "        action.lookup(\"unit\") == \"") +
         kServiceUnitName +
         "\" &&\n"
         "        subject.isInGroup(\"" +
         kServiceGroupName +
         "\")) {\n"
         "        var verb = action.lookup(\"verb\");\n"
         "        if (verb == \"start\" || verb == \"stop\" || verb == \"restart\") {\n"
         "            return polkit.Result.YES;\n"
         "        }\n"
         "    }\n"
         "});\n";
}

}  // namespace orvel
