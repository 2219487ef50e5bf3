// What the helper reads out of a configuration before it starts the core, and
// how it reports a core that died.
#include <gtest/gtest.h>

#include "core/command_line.h"
#include "core/config_guard.h"
#include "core/core_output.h"
#include "core/mixed_port.h"
#include "entry/service_unit.h"

using namespace orvel;

static std::string Nested(std::size_t n) { return std::string(n, '[') + std::string(n, ']'); }
// {"log":{"output":<path>}} with `path` given as JSON string content.
static std::string Output(std::string_view p) {
  return R"({"log":{"output":")" + std::string(p) + "\"}}";
}

TEST(CheckServiceConfig, RefusesProgramsAndPathsOutsideTheDataDirectory) {
  // A configuration a user really runs: URL paths where the type says so, a
  // program path that only matches connections, a tag named like a program.
  const std::string kTun =
      R"({"outbounds":[{"type":"vless","tag":"hk","transport":{"type":"ws","path":"/ray"}},)"
      R"({"type":"http","path":"/"},{"type":"direct","tag":"tor"}],"dns":{"servers":[)"
      R"({"type":"https","path":"/dns-query"},{"type":"hosts","path":["hosts"]}]},"route":)"
      R"({"rules":[{"process_path":["C:\\Program Files\\app.exe"]}]},"experimental":{"cache_file":)"
      R"({"path":"cache\\cache.db"},"clash_api":{"external_ui_download_url":"https://x/ui.zip",)"
      R"("external_ui":"ui"}}})";
  const std::string kRun = " runs a program", kUp = " climbs out of the data directory with '..'",
                    kDrive = " contains ':' (a drive, stream or device)";
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"",
       {kTun, R"({"inbounds":[{"type":"hysteria2","masquerade":"https://example.com"}]})",
        R"({"services":[{"type":"api","dashboard":{"path":"dash","download_url":"https://x/d.zip"}}]})",
        "// comment\n{/* \"executable_path\" */ \"log\": {\"output\": \"\"}}",
        Output("logs/console.log"), Output("nullable/com10/lpt.txt"), Nested(kMaxConfigDepth)}},
      {"outbounds[2].executable_path" + kRun,
       {R"({"outbounds":[{},{},{"executable\u005fpath":1}]})"}},
      {"OUTBOUNDS[0].Extra_Args" + kRun, {R"({"OUTBOUNDS":[{"Extra_Args":[]}]})"}},
      // Folded by the core's decoder to extra_args and mesh_psk_file.
      {"outbounds[0].extra_arg\u017f" + kRun, {R"({"outbounds":[{"extra_arg\u017f":null}]})"}},
      {"services[0].mesh_ps\u212a_file" + kDrive,
       {R"({"services":[{"mesh_ps\u212a_file":"C:\\k"}]})"}},
      {"endpoints[0].type is tor, which runs a program", {R"({"endpoints":[{"type":"TOR"}]})"}},
      {"outbounds[0].torrc" + kRun, {R"({"outbounds":[{"torrc":{}}],"x":{"command":1}})"}},
      {"endpoints[0].csd.wrapper_path" + kRun, {R"({"endpoints":[{"csd":{"wrapper_path":1}}]})"}},
      {"a?b.command" + kRun, {R"({"a\u0001b":{"command":"calc"}})"}},
      // Every occurrence counts, and comments do not hide a member.
      {"log.output" + kUp,
       {R"({"log":{"output":"ok","output":"..\\x"}})", Output(R"(a\\..\\..\\x)")}},
      {"log.output starts at the root of a drive",
       {"{/* c */\"log\"://x\n{\"output\":\"/etc/passwd\"}}", Output(R"(\\Windows)")}},
      {"log.output" + kDrive, {Output(R"(C:\\Windows\\evil.txt)"), Output("box.log:hidden")}},
      {"log.output is a UNC or device path",
       {Output(R"(\\\\?\\C:\\x)"), Output(R"(\\\\.\\pipe\\x)"), Output("//server/share/x")}},
      {"log.output has an empty segment", {Output("a//b"), Output(R"(logs\\)")}},
      {"log.output has a '.' segment", {Output(R"(.\\box.log)")}},
      {"log.output has a segment ending in a dot or space", {Output(R"(...\\x)"), Output("box ")}},
      {"log.output contains '$' (the core expands environment variables)", {Output("$Root")}},
      {"log.output names a device",
       {Output("CON"), Output("logs/nul.txt"), Output("aux .log"), Output("Com1"),
        Output("lpt9.log"), Output("com\u00b9")}},
      {"experimental.clash_api.external_ui" + kDrive,
       {R"({"experimental":{"clash_api":{"external_ui":"C:\\"}}})"}},
      {"experimental.clash_api.external_ui_download_url needs an external_ui inside the data "
       "directory",
       {R"({"experimental":{"clash_api":{"external_ui_download_url":""}}})"}},
      {"services[0].dashboard.download_url needs a path inside the data directory",
       {R"({"services":[{"dashboard":{"download_url":"https://x/d.zip"}}]})"}},
      {"inbounds[0].masquerade serves files; only an http:// or https:// address is allowed",
       {R"({"inbounds":[{"masquerade":"FILE:///C:/"}]})"}},
      // `path` is a URL path only where every "type" says so; the first
      // offending member in document order wins.
      {"route.rule_set[0].path" + kDrive,
       {R"({"route":{"rule_set":[{"type":"http","type":"local","path":"C:\\r.srs"}]}})"}},
      {"a.path" + kDrive, {R"({"a":{"path":"C:\\x","output":"..\\y"}})"}},
      {"dns.servers[0].path[1]" + kDrive,
       {R"({"dns":{"servers":[{"type":"hosts","path":["hosts","C:\\hosts"]}]}})"}},
      {"route.dhcp_lease_files[1]" + kUp, {R"({"route":{"dhcp_lease_files":["a","..\\b"]}})"}},
      {"not valid JSON", {"{", R"({"log":{},})", "{} x"}},
      {"nested too deeply", {Nested(kMaxConfigDepth + 1), Nested(100000)}}};
  for (const auto& [expected, configs] : cases)
    for (const std::string& config : configs) {
      std::string refusal;
      EXPECT_EQ(CheckServiceConfig(config, PathRules::kWindows, refusal), expected.empty())
          << config.substr(0, 200);
      EXPECT_EQ(refusal, expected) << config.substr(0, 200);
    }
}

TEST(CheckDataRelativePath, LinuxKnowsOnlySlashesHomesAndNul) {
  // Bytes that Windows refuses are plain on Linux; the reason, or "" for a path inside.
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},
      {"logs/box.log", ""},
      {R"(a\..\b:c nul. )", ""},
      {"/etc/passwd", "starts at the root of the file system"},
      {"~/x", "starts at a home directory ('~')"},
      {std::string_view("a\0b", 3), "contains a NUL byte"},
      {"$HOME", "contains '$' (the core expands environment variables)"},
      {"a//b", "has an empty segment"},
      {"logs/", "has an empty segment"},
      {"./x", "has a '.' segment"},
      {"a/../../x", "climbs out of the data directory with '..'"},
  };
  for (const auto& [path, expected] : cases) {
    std::string reason;
    EXPECT_EQ(CheckDataRelativePath(path, PathRules::kLinux, reason), expected.empty()) << path;
    EXPECT_EQ(reason, expected) << path;
  }
  std::string refusal;
  EXPECT_FALSE(CheckServiceConfig(R"({"log":{"output":"/tmp/x"}})", PathRules::kLinux, refusal));
  EXPECT_EQ(refusal, "log.output starts at the root of the file system");
}

TEST(SummarizeCoreOutput, FlattensBreaksAndTabsAndCutsAtTheLimit) {
  // Leading breaks are dropped, a trailing one stays as a space; spaces are
  // kept and a tab after a space adds none; other bytes pass as they are.
  std::string read;
  for (std::string_view text :
       {"", "\r\n\t\n", "one\ntwo\nthree\n", "a\r\n\r\n\tb", "  a  \t  b\t"})
    read += SummarizeCoreOutput(text, 900) + "|";
  EXPECT_EQ(read, "<empty>|<empty>|one two three |a b|  a    b |");
  const std::string raw("\x1b[31mnul\0b", 10);
  EXPECT_EQ(SummarizeCoreOutput(raw, 900), raw);
  // Reaching the limit exactly already counts as cut, and the limit counts
  // output bytes: collapsed breaks do not use it up.
  const std::string x899(899, 'x');
  EXPECT_EQ(SummarizeCoreOutput(x899, 900), x899);
  EXPECT_EQ(SummarizeCoreOutput(x899 + "x", 900), x899 + "x...");
  EXPECT_EQ(SummarizeCoreOutput("ab\n\n", 3), "ab ...");
  EXPECT_EQ(SummarizeCoreOutput("anything", 0), "a...");
}

TEST(FindMixedInboundPort, ReadsTheTaggedInboundPort) {
  // The tagged inbound's port wins even after another inbound's; with two
  // spaces after the colon the tag is not recognised and the first port wins;
  // a tagged inbound without a port takes the next object's.
  std::string read;
  for (std::string_view config :
       {R"({"inbounds":[{"type":"mixed","tag": "orvel-vpn-mixed","listen_port": 2080}]})",
        R"([{"listen_port":1111},{"tag":"orvel-vpn-mixed","listen_port":2222}])",
        R"([{"listen_port":1111},{"tag":  "orvel-vpn-mixed","listen_port":2222}])",
        R"([{"tag":"orvel-vpn-mixed"},{"listen_port":3333}])",
        R"({"tag":"orvel-vpn-mixed","listen_port" : 02080})", R"({"listen_port":65535})",
        R"({"listen_port":0})", R"({"listen_port":65536})",
        R"({"listen_port":99999999999999999999})", R"({"listen_port":"2080"})",
        R"({"listen_port":)", R"({"listen_port"})", ""})
    read += std::to_string(FindMixedInboundPort(config)) + ",";
  EXPECT_EQ(read, "2080,2222,1111,3333,2080,65535,7897,7897,7897,7897,7897,7897,7897,");
}

TEST(QuoteForSystemd, QuotesEscapesAndDoublesWhatSystemdExpands) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"/usr/bin/orvel-vpn-helper", R"("/usr/bin/orvel-vpn-helper")"},
      {"/opt/Orvel VPN/helper", R"("/opt/Orvel VPN/helper")"},
      {R"(/a"b\c)", R"("/a\"b\\c")"},
      {"/100%/$HOME", R"("/100%%/$$HOME")"},
      {"/x\ny\tz\x01", R"("/x\ny\tz\x01")"},
  };
  for (const auto& [path, quoted] : cases) EXPECT_EQ(QuoteForSystemd(path), quoted) << path;
  const std::string unit = BuildServiceUnit("/opt/Orvel VPN/helper");
  EXPECT_NE(
      unit.find("\n[Service]\nType=notify\nExecStart=\"/opt/Orvel VPN/helper\" --service\n"
                "Restart=on-failure\nKillMode=control-group\nStateDirectory=orvel-vpn-helper\n"
                "StateDirectoryMode=0700\n\n[Install]\nWantedBy=multi-user.target\n"),
      std::string::npos)
      << unit;
}

TEST(QuoteCommandLineArgument, BackslashesDoubleOnlyBeforeAQuoteOrTheEnd) {
  const std::pair<std::wstring_view, std::wstring_view> cases[] = {
      {L"", LR"("")"},
      {L"a b\tc", L"\"a b\tc\""},
      {LR"(\\server\share\x.json)", LR"("\\server\share\x.json")"},
      {LR"(a"b)", LR"("a\"b")"},
      {LR"(a\"b)", LR"("a\\\"b")"},
      {LR"(tag\)", LR"("tag\\")"},
      {LR"(tag\\)", LR"("tag\\\\")"},
      {LR"(proxy" -c "C:\users\Public\evil.json" -D "C:\windows\system32)",
       LR"("proxy\" -c \"C:\users\Public\evil.json\" -D \"C:\windows\system32")"},
  };
  for (const auto& [argument, quoted] : cases) EXPECT_EQ(QuoteCommandLineArgument(argument), quoted);
  EXPECT_EQ(BuildCommandLine(LR"(C:\Program Files\sing-box.exe)", {L"run", L"-c", LR"(C:\a b\)"}),
            LR"("C:\Program Files\sing-box.exe" "run" "-c" "C:\a b\\")");
}
