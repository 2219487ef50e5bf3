// What the helper reads out of a configuration before it starts the core, and
// how it reports a core that died.
#include <gtest/gtest.h>

#include "core/command_line.h"
#include "core/config_guard.h"
#include "core/core_output.h"
#include "core/host_platform.h"
#include "core/mixed_port.h"
#include "core/root_only.h"
#include "entry/service_failure_actions.h"
#include "entry/service_unit.h"

using namespace orvel;
using namespace std::literals;

static std::string Nested(std::size_t n) { return std::string(n, '[') + std::string(n, ']'); }
// {"log":{"output":<path>}} with `path` given as JSON string content.
static std::string Output(std::string_view p) {
  return R"({"log":{"output":")" + std::string(p) + "\"}}";
}
static std::string Controller(std::string_view address) {
  return R"({"experimental":{"clash_api":{"external_controller":")" + std::string(address) +
         "\"}}}";
}

TEST(JudgeServiceConfig, RefusesProgramsPathsOutsideTheDataDirectoryAndMachineChanges) {
  // A configuration a user really runs: URL paths where the type says so, a
  // program path that only matches connections, a tag named like a program,
  // control APIs on loopback addresses, switches that are off.
  const std::string kTun =
      R"({"outbounds":[{"type":"vless","tag":"hk","transport":{"type":"ws","path":"/ray"}},)"
      R"({"type":"http","path":"/"},{"type":"direct","tag":"tor"}],"dns":{"servers":[)"
      R"({"type":"https","path":"/dns-query"},{"type":"hosts","path":["hosts"]}]},"route":)"
      R"({"rules":[{"process_path":["C:\\Program Files\\app.exe"]}]},"experimental":{"cache_file":)"
      R"({"path":"cache\\cache.db"},"clash_api":{"external_controller":"[::1]:9090",)"
      R"("external_ui":"ui"},"v2ray_api":{"listen":"LocalHost:8080"},"debug":{"listen":""}},)"
      R"("ntp":{"write_to_system":false},"inbounds":[{"netns":"","set_system_proxy":null}]})";
  const std::string kRun = " runs a program", kUp = " climbs out of the data directory with '..'",
                    kDrive = " contains ':' (a drive, stream or device)",
                    kZip = " downloads an archive to unpack",
                    kWide = " listens beyond the loopback address";
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"",
       {kTun, R"({"inbounds":[{"type":"hysteria2","masquerade":"https://example.com"}]})",
        R"({"services":[{"type":"api","dashboard":{"path":"dash","enabled":true}}]})",
        R"({"x":{"external_controller":"127.255.0.1:0"},"v2ray_api":{"listen":null}})",
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
      // The core unpacks a downloaded zip with the names the archive gives.
      {"experimental.clash_api.external_ui_download_url" + kZip,
       {R"({"experimental":{"clash_api":{"external_ui":"ui","external_ui_download_url":""}}})"}},
      {"a.external_ui_download_detour" + kZip, {R"({"a":{"external_ui_download_detour":"p"}})"}},
      {"services[0].dashboard.download_url" + kZip,
       {R"({"services":[{"dashboard":{"path":"d","download_url":"https://x/d.zip"}}]})"}},
      {"services[0].Dashboard.HTTP_Client" + kZip,
       {R"({"services":[{"Dashboard":{"HTTP_Client":{}}}]})"}},
      {"inbounds[1].netns joins another network namespace",
       {R"({"inbounds":[{},{"netns":"/proc/1/ns/net"}]})", R"({"inbounds":[{},{"netns":0}]})"}},
      {"ntp.write_to_system sets the system clock",
       {R"({"ntp":{"write_to_system":false,"write_to_system":true}})"}},
      {"inbounds[0].set_system_proxy sets the system proxy",
       {R"({"inbounds":[{"set_system_proxy":true}]})"}},
      {"experimental.debug.listen starts a profiling server",
       {R"({"experimental":{"debug":{"listen":"127.0.0.1:6060"}}})"}},
      // An empty host is every address; only a dotted quad Go parses as one is
      // an address, anything else a name to look up.
      {"experimental.clash_api.external_controller" + kWide,
       {Controller(":9090"), Controller("0.0.0.0:9090"), Controller("[::]:9090"),
        Controller("127.1:9090"), Controller("127.0.0.01:9090"), Controller("::1:9090"),
        Controller("[::1]9090"), Controller("127.0.0.1"), Controller("localhost.:9090"),
        Controller("128.0.0.1:9090"), Controller("127.0.0.a:9090"),
        R"({"experimental":{"clash_api":{"external_controller":1}}})"}},
      {"experimental.v2ray_api.listen" + kWide,
       {R"({"experimental":{"v2ray_api":{"listen":"192.168.1.2:8080"}}})"}},
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
      std::string plain, refusal;
      EXPECT_EQ(JudgeServiceConfig(config, PathRules::kWindows, plain, refusal), expected.empty())
          << config.substr(0, 200);
      EXPECT_EQ(refusal, expected) << config.substr(0, 200);
    }
}

TEST(JudgeServiceConfig, HandsTheCoreExactlyWhatItJudgedAndKnowsLinuxPaths) {
  // The core ends a line comment only at LF and reads past a NUL; what it is
  // handed has neither comments nor bytes after the guard's end of input.
  const std::pair<std::string, std::string> cases[] = {
      {"{ //\r/*\n\"outbounds\":[{\"type\":\"tor\",\"executable_path\":\"/tmp/x.sh\"}] //*/\n}",
       "{}"},
      {"{\"a\":1} \0{\"outbounds\":[{\"type\":\"tor\"}]}"s, R"({"a":1})"},
      {"{ //\0/*\n\"command\":1 //*/\n}"s, "{}"},
      {"{/* \"*/\"a\"/**/:\t[ \"*/ /* //\" , # \n]}", "not valid JSON"},
      {"{/* \"*/\"a\"/**/:\t[ \"*/ /* //\" ]\r\n}", R"({"a":["*/ /* //"]})"},
      // The last of equal names, in its place; names differing in case stay.
      {R"({"a":1,"A":2,"a":{"x":[1,{"x":0,"x":null}]},"b":[]})",
       R"({"A":2,"a":{"x":[1,{"x":null}]},"b":[]})"},
      {R"({"h":{"X-Id":"1","x-id":"2"}})", R"({"h":{"X-Id":"1","x-id":"2"}})"},
      // Escapes read and written back: UTF-8 as it is, control bytes escaped.
      {R"({"k\u0041\u00e9":"\u0000\u001f\b\f\n\r\t\"\\\/\u007f\ud83d\ude00)"
       "\xC3\xA9\"}",
       R"({"kA)"
       "\xC3\xA9"
       R"(":"\u0000\u001f\u0008\u000c\n\r\t\"\\/)"
       "\x7F\xF0\x9F\x98\x80\xC3\xA9\"}"},
      // Numbers as written where the parser keeps the text.
      {"[1.50,-0,1E300,18446744073709551616,-9223372036854775808,true,false,null]",
       "[1.50,0,1E300,18446744073709551616,-9223372036854775808,true,false,null]"},
      {"\xEF\xBB\xBF \"top\" ", R"("top")"},
      {R"({"log":{"output":"/tmp/x"}})", "log.output starts at the root of the file system"}};
  for (const auto& [config, expected] : cases) {
    std::string plain, refusal;
    JudgeServiceConfig(config, PathRules::kLinux, plain, refusal);
    EXPECT_EQ(refusal.empty() ? plain : refusal, expected) << config;
  }
  // Bytes that Windows refuses are plain on Linux.
  std::string read;
  const std::string_view paths[] = {
      "",      "logs/box.log", R"(a\..\b:c nul. )", "/etc/passwd", "~/x", "a\0b"sv, "$HOME",
      "logs/", "./x",          "a/../../x"};
  for (std::string_view path : paths) {
    std::string reason;
    read += (CheckDataRelativePath(path, PathRules::kLinux, reason) ? "ok" : reason) + "|";
  }
  EXPECT_EQ(read,
            "ok|ok|ok|starts at the root of the file system|starts at a home directory ('~')|"
            "contains a NUL byte|contains '$' (the core expands environment variables)|"
            "has an empty segment|has a '.' segment|climbs out of the data directory with '..'|");
}

TEST(SummarizeCoreOutput, FlattensBreaksAndTabsAndCutsAtTheLimit) {
  // Leading breaks are dropped, a trailing one stays as a space; spaces are
  // kept and a tab after a space adds none; other bytes pass as they are.
  // Reaching the limit exactly already counts as cut, and the limit counts
  // output bytes: collapsed breaks do not use it up.
  const std::string x899(899, 'x'), raw("\x1b[31mnul\0b", 10);
  std::string read;
  for (std::string_view text : {"", "\r\n\t\n", "one\ntwo\nthree\n", "a\r\n\r\n\tb", "  a  \t  b\t",
                                raw.c_str(), x899.c_str()})
    read += SummarizeCoreOutput(text, kCoreOutputSummaryLimit) + "|";
  EXPECT_EQ(read, "<empty>|<empty>|one two three |a b|  a    b |\x1b[31mnul|" + x899 + "|");
  EXPECT_EQ(SummarizeCoreOutput(raw, kCoreOutputSummaryLimit), raw);
  EXPECT_EQ(SummarizeCoreOutput(x899 + "x", kCoreOutputSummaryLimit) +
                SummarizeCoreOutput("ab\n\n", 3) + SummarizeCoreOutput("anything", 0),
            x899 + "x...ab ...a...");
  // What a running core wrote is kept from its end backwards.
  std::string tail(4000, 'a');
  KeepCoreOutputTail(tail, std::string(200, 'b'));
  EXPECT_EQ(tail, std::string(3896, 'a') + std::string(200, 'b'));
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
  std::string read;
  for (std::string_view path :
       {"/opt/Orvel VPN/helper", R"(/a"b\c)", "/100%/$HOME", "/x\ny\tz\x01"})
    read += QuoteForSystemd(path) + "|";
  EXPECT_EQ(read, R"("/opt/Orvel VPN/helper"|"/a\"b\\c"|"/100%%/$$HOME"|"/x\ny\tz\x01"|)");
  const std::string unit = BuildServiceUnit("/opt/Orvel VPN/helper");
  EXPECT_NE(
      unit.find("\n[Service]\nType=notify\nExecStart=\"/opt/Orvel VPN/helper\" --service\n"
                "Restart=on-failure\nKillMode=control-group\nStateDirectory=orvel-vpn-helper\n"
                "StateDirectoryMode=0700\nSyslogIdentifier=orvel-vpn-helper\nSyslogLevelPrefix=no\n"
                "\n[Install]\nWantedBy=multi-user.target\n"),
      std::string::npos)
      << unit;
  // Restarts after 5, then 10, then 30 seconds, counted over a day.
  const ServiceFailureActions plan = BuildServiceFailureActions();
  std::string text = std::to_string(plan.resetPeriodSeconds);
  for (const ServiceFailureAction& a : plan.actions)
    text.append(" ").append(std::to_string(a.type)).append(":").append(std::to_string(a.delayMs));
  EXPECT_EQ(text, "86400 1:5000 1:10000 1:30000");
}

TEST(JudgeRootOnlyEntry, RootsAloneUnlessAnotherOwnsOrMayWriteOutsideAStickyFolder) {
  // uid and mode as stat reports them (file type bits included), directory?
  // 041777 is /tmp; the sticky bit means nothing on a file.
  const std::tuple<std::uint32_t, std::uint32_t, bool> cases[] = {
      {0, 0100755, false}, {0, 041777, true},   {1000, 041777, true},
      {0, 040775, true},   {0, 0100757, false}, {0, 0101777, false}};
  std::string read;
  for (const auto& [uid, mode, directory] : cases) {
    std::string reason;
    read += (JudgeRootOnlyEntry(uid, mode, directory, reason) ? "ok" : reason) + "|";
  }
  EXPECT_EQ(read,
            "ok|ok|is owned by uid 1000|is writable by its group (mode 0775)|"
            "is writable by others (mode 0757)|is writable by others (mode 1777)|");
  EXPECT_EQ(DescribeOwnerAndMode(1000, 0100755), "uid 1000, mode 0755");
}

TEST(QuoteCommandLineArgument, BackslashesDoubleOnlyBeforeAQuoteOrTheEnd) {
  std::wstring read;
  for (std::wstring_view argument :
       {L"", L"a b\tc", LR"(\\server\share\x.json)", LR"(a\"b)", LR"(tag\\)",
        LR"(proxy" -c "C:\users\Public\evil.json" -D "C:\windows\system32)"})
    read += QuoteCommandLineArgument(argument) + L"|";
  EXPECT_EQ(read,
            L"\"\"|\"a b\tc\"|"
            LR"("\\server\share\x.json"|"a\\\"b"|"tag\\\\"|)"
            LR"("proxy\" -c \"C:\users\Public\evil.json\" -D \"C:\windows\system32"|)");
  EXPECT_EQ(BuildCommandLine(LR"(C:\Program Files\sing-box.exe)", {L"run", L"-c", LR"(C:\a b\)"}),
            LR"("C:\Program Files\sing-box.exe" "run" "-c" "C:\a b\\")");
}

// The texts the client application reads (and the log line it shows), as each
// build must say them byte for byte: the end-to-end tests compare answers with
// this table, so it is pinned here.
TEST(ThisPlatform, SaysTheTextsOfItsOwnSystem) {
  const HostPlatform& p = ThisPlatform();
  const bool win = p.name == "windows";
  const std::string system = win ? "Windows" : "Linux", core = win ? "sing-box.exe" : "sing-box";
  EXPECT_EQ(p.name, win ? "windows" : "linux");
  for (const auto& [text, state] : {std::pair{p.connected, "connected"},
                                    {p.disconnected, "disconnected"},
                                    {p.running, "running"},
                                    {p.idle, "idle"}})
    EXPECT_EQ(text, system + " helper " + state);
  EXPECT_EQ(p.tunConnected, system + " TUN helper connected");
  EXPECT_EQ(p.tunStartedLog, win ? "TUN VPN started through OrvelVpnHelperService"
                                 : "TUN VPN started through orvel-vpn-helper.service");
  EXPECT_EQ(p.coreNotFound, core + " not found; place it next to the " +
                                (win ? "app exe" : "helper") + " or in the data directory");
  EXPECT_EQ(p.coreLaunchFailed, "Failed to start " + core + ": ");
  EXPECT_EQ(p.coreExitedImmediately, core + " exited immediately: ");
  EXPECT_EQ(p.coreExitedUnexpectedly, core + " exited unexpectedly ");
  EXPECT_EQ(p.coreWatchFailed, "Failed to watch " + core);
  EXPECT_EQ(p.pathRules, win ? PathRules::kWindows : PathRules::kLinux);
}
