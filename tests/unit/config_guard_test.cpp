#include "core/config_guard.h"

#include <gtest/gtest.h>

namespace orvel {
namespace {

// {"log":{"output":<value>}} with `value` given as JSON string content.
std::string Output(const std::string& value) { return R"({"log":{"output":")" + value + R"("}})"; }

std::string Nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(CheckServiceConfig, RefusesProgramsAndPathsOutsideTheDataDirectory) {
  const std::string kTun =
      R"({"log":{"level":"info","output":"box.log"},)"
      R"("inbounds":[{"type":"tun","tag":"tun-in","address":["172.18.0.1/30"]}],)"
      R"("outbounds":[{"type":"vless","tag":"hk","transport":{"type":"ws","path":"/ray"}},)"
      R"({"type":"http","tag":"h","path":"/"},{"type":"direct","tag":"tor"}],)"
      R"("dns":{"servers":[{"type":"https","path":"/dns-query"},{"type":"hosts","path":["hosts"]}]},)"
      R"("route":{"rules":[{"process_path":["C:\\Program Files\\app.exe"],"outbound":"hk"}]},)"
      R"("experimental":{"cache_file":{"enabled":true,"path":"cache\\cache.db"},)"
      R"("clash_api":{"external_ui_download_url":"https://example.com/ui.zip","external_ui":"ui"}}})";
  const struct Case {
    std::string config;
    std::string refusal;  // "" when accepted
  } cases[] = {
      {kTun, ""},
      {R"({"inbounds":[{"type":"hysteria2","masquerade":"https://example.com"}]})", ""},
      {R"({"services":[{"type":"api","dashboard":{"path":"dash","download_url":"https://x/d.zip"}}]})",
       ""},
      {"// comment\n{/* \"executable_path\" */ \"log\": {\"output\": \"\"}}", ""},
      {R"({"outbounds":[{},{},{"executable_path":"tor.exe"}]})",
       "outbounds[2].executable_path runs a program"},
      {R"({"outbounds":[{"executable\u005fpath":"x"}]})",
       "outbounds[0].executable_path runs a program"},
      {R"({"OUTBOUNDS":[{"Extra_Args":[]}]})", "OUTBOUNDS[0].Extra_Args runs a program"},
      // Folded by the core's decoder to extra_args and mesh_psk_file.
      {R"({"outbounds":[{"extra_arg\u017f":null}]})",
       "outbounds[0].extra_arg\u017f runs a program"},
      {R"({"services":[{"mesh_ps\u212a_file":"C:\\k"}]})",
       "services[0].mesh_ps\u212a_file contains ':' (a drive, stream or device)"},
      {R"({"endpoints":[{"type":"TOR"}]})", "endpoints[0].type is tor, which runs a program"},
      {R"({"outbounds":[{"torrc":{}}],"x":{"command":1}})", "outbounds[0].torrc runs a program"},
      {R"({"endpoints":[{"csd":{"wrapper_path":"csd.bat"}}]})",
       "endpoints[0].csd.wrapper_path runs a program"},
      {R"({"a\u0001b":{"command":"calc"}})", "a?b.command runs a program"},
      // Every occurrence counts, and comments do not hide a member.
      {R"({"log":{"output":"ok.log","output":"..\\evil.log"}})",
       "log.output climbs out of the data directory with '..'"},
      {"{/* c */\"log\"://x\n{\"output\":\"/etc/passwd\"}}",
       "log.output starts at the root of a drive"},
      {Output(R"(C:\\Windows\\evil.txt)"), "log.output contains ':' (a drive, stream or device)"},
      {Output(R"(box.log:hidden)"), "log.output contains ':' (a drive, stream or device)"},
      {Output(R"(\\Windows)"), "log.output starts at the root of a drive"},
      {Output(R"(\\\\?\\C:\\x)"), "log.output is a UNC or device path"},
      {Output(R"(\\\\.\\pipe\\x)"), "log.output is a UNC or device path"},
      {Output(R"(//server/share/x)"), "log.output is a UNC or device path"},
      {Output(R"(a\\..\\..\\x)"), "log.output climbs out of the data directory with '..'"},
      {Output(R"(a//b)"), "log.output has an empty segment"},
      {Output(R"(logs\\)"), "log.output has an empty segment"},
      {Output(R"(.\\box.log)"), "log.output has a '.' segment"},
      {Output(R"(...\\x)"), "log.output has a segment ending in a dot or space"},
      {Output(R"(box.log )"), "log.output has a segment ending in a dot or space"},
      {Output(R"($SystemRoot\\x)"),
       "log.output contains '$' (the core expands environment variables)"},
      {Output("CON"), "log.output names a device"},
      {Output("logs/nul.txt"), "log.output names a device"},
      {Output("aux .log"), "log.output names a device"},
      {Output("Com1"), "log.output names a device"},
      {Output("lpt9.log"), "log.output names a device"},
      {Output("com\u00b9"), "log.output names a device"},
      {Output("logs/console.log"), ""},
      {Output("nullable/com10/lpt.txt"), ""},
      {R"({"experimental":{"clash_api":{"external_ui":"C:\\"}}})",
       "experimental.clash_api.external_ui contains ':' (a drive, stream or device)"},
      {R"({"experimental":{"clash_api":{"external_ui_download_url":""}}})",
       "experimental.clash_api.external_ui_download_url needs an external_ui inside the data "
       "directory"},
      {R"({"services":[{"dashboard":{"download_url":"https://x/d.zip"}}]})",
       "services[0].dashboard.download_url needs a path inside the data directory"},
      {R"({"services":[{"dashboard":"D:\\dash"}]})",
       "services[0].dashboard contains ':' (a drive, stream or device)"},
      {R"({"inbounds":[{"masquerade":"FILE:///C:/"}]})",
       "inbounds[0].masquerade serves files; only an http:// or https:// address is allowed"},
      // `path` is a URL path only where every "type" says so; the first
      // offending member in document order wins.
      {R"({"route":{"rule_set":[{"type":"http","type":"local","path":"C:\\r.srs"}]}})",
       "route.rule_set[0].path contains ':' (a drive, stream or device)"},
      {R"({"a":{"path":"C:\\x","output":"..\\y"}})",
       "a.path contains ':' (a drive, stream or device)"},
      {R"({"dns":{"servers":[{"type":"hosts","path":["hosts","C:\\hosts"]}]}})",
       "dns.servers[0].path[1] contains ':' (a drive, stream or device)"},
      {R"({"route":{"dhcp_lease_files":["leases","..\\dhcpd.leases"]}})",
       "route.dhcp_lease_files[1] climbs out of the data directory with '..'"},
      {"{", "not valid JSON"},
      {R"({"log":{},})", "not valid JSON"},
      {"{} x", "not valid JSON"},
      {Nested(kMaxConfigDepth), ""},
      {Nested(kMaxConfigDepth + 1), "nested too deeply"},
      {std::string(100000, '[') + std::string(100000, ']'), "nested too deeply"},
  };
  for (const Case& c : cases) {
    std::string refusal;
    EXPECT_EQ(CheckServiceConfig(c.config, refusal), c.refusal.empty()) << c.config;
    EXPECT_EQ(refusal, c.refusal) << c.config.substr(0, 200);
  }
}

}  // namespace
}  // namespace orvel
