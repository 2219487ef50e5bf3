// The system proxy value the helper writes and the state file it keeps to put
// the user's own settings back.
#include <gtest/gtest.h>

#include "sysproxy/proxy_server_value.h"
#include "sysproxy/proxy_state.h"

namespace orvel {
namespace {

const SavedProxyState kState{7, L"corp:8080", L"*.lan;100%\t\x00E9\x65E5", L"http=127.0.0.1:2080"};
const std::string kText =
    "orvel-proxy-state 1\nProxyEnable=7\nProxyServer=corp:8080\n"
    "ProxyOverride=*.lan;100%0025%0009%00E9%65E5\nHelperProxyServer=http=127.0.0.1:2080\nend\n";

TEST(ProxyState, EncodesEveryUnitThatIsNotPlainAsciiAndReadsItBackUpToTheSizeLimit) {
  EXPECT_EQ(EncodeProxyState(kState), kText);
  SavedProxyState big{4294967295u, L"", L"", L"h"};
  big.proxyOverride.assign(kMaxProxyStateBytes - EncodeProxyState(big).size(), L'a');
  for (const SavedProxyState& state : {kState, big}) {
    SavedProxyState parsed;
    ASSERT_TRUE(ParseProxyState(EncodeProxyState(state), parsed));
    EXPECT_EQ(parsed, state);
  }
  big.proxyOverride.push_back(L'a');
  SavedProxyState parsed;
  EXPECT_FALSE(ParseProxyState(EncodeProxyState(big), parsed));
}

TEST(ProxyState, RefusesAnythingButAWholeWellFormedFile) {
  auto replaced = [](std::string_view from, std::string_view to) {
    std::string text = kText;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string cases[] = {
      "", kText.substr(0, kText.size() - 1), kText.substr(0, kText.find("end")), kText + "x",
      // One field out of shape.
      replaced("state 1", "state 2"), replaced("\n", "\r\n"),
      replaced("ProxyEnable=7", "ProxyEnable=4294967296"),
      replaced("ProxyEnable=7", "ProxyEnable=-7"), replaced("ProxyEnable=7", "ProxyEnable="),
      replaced("ProxyServer=", "ProxyServer "), replaced("%00E9", "%00e9"),
      replaced("%00E9", "%0G"), replaced("%65E5", "\xE6\x97\xA5"),
      replaced("HelperProxyServer=http=127.0.0.1:2080", "HelperProxyServer="),
      replaced("ProxyServer=corp:8080\nProxyOverride=*.lan;100%0025%0009%00E9%65E5",
               "ProxyOverride=*.lan\nProxyServer=corp:8080")};
  SavedProxyState untouched = kState;
  untouched.proxyEnable = 1;
  for (const std::string& bytes : cases) {
    SavedProxyState parsed = untouched;
    EXPECT_FALSE(ParseProxyState(bytes, parsed)) << bytes;
    EXPECT_EQ(parsed, untouched) << bytes;
  }
}

TEST(BuildProxyServerValue, UsesThePortOnlyWhenValid) {
  EXPECT_EQ(BuildProxyServerValue(2080),
            L"http=127.0.0.1:2080;https=127.0.0.1:2080;socks=127.0.0.1:2080");
  const std::pair<int, std::wstring_view> cases[] = {
      {1, L"1"}, {65535, L"65535"}, {0, L"7897"}, {65536, L"7897"}, {-1, L"7897"},
  };
  for (const auto& [port, shown] : cases) {
    const std::wstring at = L"127.0.0.1:" + std::wstring(shown);
    EXPECT_EQ(BuildProxyServerValue(port), L"http=" + at + L";https=" + at + L";socks=" + at);
  }
}

}  // namespace
}  // namespace orvel
