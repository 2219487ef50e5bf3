// The system proxy value the helper writes and the state file it keeps to put
// the user's own settings back.
#include <gtest/gtest.h>

#include "sysproxy/desktop_proxy_state.h"
#include "sysproxy/proxy_server_value.h"
#include "sysproxy/proxy_state.h"
#include "sysproxy/restore_entry.h"

using namespace orvel;

static const SavedProxyState kState{10, L"corp:8080", L"*.lan;100%\t\x00E9\x65E5",
                                    L"http=127.0.0.1:2080"};
static const std::string kText =
    "orvel-proxy-state 1\nProxyEnable=10\nProxyServer=corp:8080\n"
    "ProxyOverride=*.lan;100%0025%0009%00E9%65E5\nHelperProxyServer=http=127.0.0.1:2080\nend\n";

TEST(ProxyState, EncodesUnitsThatAreNotPlainAsciiAndReadsBackOnlyWholeFilesUpToTheLimit) {
  EXPECT_EQ(EncodeProxyState(kState), kText);
  SavedProxyState big{4294967295u, L"", L"", L"h"}, parsed;
  big.proxyOverride.assign(kMaxProxyStateBytes - EncodeProxyState(big).size(), L'a');
  for (const SavedProxyState& state : {kState, big})
    EXPECT_TRUE(ParseProxyState(EncodeProxyState(state), parsed) && parsed == state);
  big.proxyOverride.push_back(L'a');
  auto replaced = [](std::string_view from, std::string_view to) {
    std::string text = kText;
    return text.replace(text.find(from), from.size(), to);
  };
  // A refused file leaves what was read before untouched.
  const SavedProxyState untouched = parsed;
  for (const std::string& bytes :
       {EncodeProxyState(big), std::string(), kText.substr(0, kText.size() - 1),
        kText.substr(0, kText.find("end")), kText + "x", replaced("state 1", "state 2"),
        replaced("\n", "\r\n"), replaced("ProxyEnable=10", "ProxyEnable=4294967296"),
        replaced("ProxyEnable=10", "ProxyEnable=-10"), replaced("ProxyEnable=10", "ProxyEnable="),
        replaced("ProxyServer=", "ProxyServer "), replaced("%00E9", "%00e9"),
        replaced("%00E9", "%0G"), replaced("%65E5", "\xE6\x97\xA5"),
        replaced("HelperProxyServer=http=127.0.0.1:2080", "HelperProxyServer="),
        replaced("ProxyServer=corp:8080\nProxyOverride=*.lan;100%0025%0009%00E9%65E5",
                 "ProxyOverride=*.lan\nProxyServer=corp:8080")}) {
    EXPECT_FALSE(ParseProxyState(bytes, parsed)) << bytes.substr(0, 200);
    EXPECT_TRUE(parsed == untouched) << bytes.substr(0, 200);
  }
}

TEST(BuildProxyServerValue, UsesThePortOnlyWhenValid) {
  const std::pair<int, std::wstring_view> cases[] = {
      {2080, L"2080"}, {1, L"1"}, {65535, L"65535"}, {0, L"7897"}, {65536, L"7897"}, {-1, L"7897"}};
  for (const auto& [port, shown] : cases) {
    const std::wstring at = L"127.0.0.1:" + std::wstring(shown);
    EXPECT_EQ(BuildProxyServerValue(port), L"http=" + at + L";https=" + at + L";socks=" + at);
  }
}

TEST(DesktopProxyState, KeysValuesAndDefaultsReadBackAndNothingElse) {
  const DesktopProxyState state{"http://127.0.0.1:2080",
                                {{"gsettings:org.gnome.system.proxy:mode", false, "'auto'"},
                                 {"gsettings:org.gnome.system.proxy.http:port", true, ""},
                                 {"kde:NoProxyFor", false, "*.lan,100%\n\xC3\xA9"}}};
  const std::string text =
      "orvel-desktop-proxy-state 1\nhelper=http://127.0.0.1:2080\n"
      "gsettings:org.gnome.system.proxy:mode='auto'\ngsettings:org.gnome.system.proxy.http:port!\n"
      "kde:NoProxyFor=*.lan,100%25%0A%C3%A9\nend\n";
  EXPECT_EQ(EncodeDesktopProxyState(state), text);
  DesktopProxyState parsed;
  EXPECT_TRUE(ParseDesktopProxyState(text, parsed) && parsed == state);
  const DesktopProxyState untouched = parsed;
  for (const std::string& bytes :
       {std::string(), text.substr(0, text.size() - 1), "x" + text,
        std::string("orvel-desktop-proxy-state 1\nhelper=\nend\n"),  // never an empty helper
        text.substr(0, 57) + "other:key=1\n" + text.substr(57),
        text.substr(0, 57) + "gsettings:org.gnome.system.proxy:mode=%2\n" + text.substr(57)})
    EXPECT_FALSE(ParseDesktopProxyState(bytes, parsed)) << bytes;
  EXPECT_EQ(parsed, untouched);
}

TEST(RestoreEntry, QuotesThePathAsEachLauncherReadsItAndRefusesWhatNoLineCarries) {
  EXPECT_EQ(BuildRestoreRunCommand(L"C:\\Program Files\\H.exe"),
            L"\"C:\\Program Files\\H.exe\" --restore-proxy");
  const std::pair<std::string, std::string> cases[] = {
      {"/usr/libexec/helper", "Exec=/usr/libexec/helper --restore-proxy\n"},
      {"/opt/a b/100%/$x\\y\"", "Exec=\"/opt/a b/100%%/\\\\$x\\\\\\\\y\\\\\"\" --restore-proxy\n"},
      {"relative/helper", ""},
      {"/opt/new\nline", ""}};
  for (const auto& [path, exec] : cases) {
    std::string text;
    EXPECT_EQ(BuildRestoreDesktopEntry(path, text), !exec.empty()) << path;
    EXPECT_EQ(text.find("\n" + exec + "Hidden=false\nNoDisplay=true\n") != std::string::npos,
              !exec.empty())
        << text;
  }
}
