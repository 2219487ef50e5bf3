#include "sysproxy/proxy_state.h"

#include <gtest/gtest.h>

namespace orvel {
namespace {

const SavedProxyState kState{7, L"corp:8080", L"*.lan;100%\t\x00E9\x65E5", L"http=127.0.0.1:2080"};
const std::string kText =
    "orvel-proxy-state 1\nProxyEnable=7\nProxyServer=corp:8080\n"
    "ProxyOverride=*.lan;100%0025%0009%00E9%65E5\nHelperProxyServer=http=127.0.0.1:2080\nend\n";

TEST(ProxyState, EncodesEveryUnitThatIsNotPlainAsciiAndReadsItBack) {
  EXPECT_EQ(EncodeProxyState(kState), kText);
  SavedProxyState parsed;
  ASSERT_TRUE(ParseProxyState(kText, parsed));
  EXPECT_EQ(parsed, kState);
  const SavedProxyState absent{4294967295u, L"", L"", L"x"};
  ASSERT_TRUE(ParseProxyState(EncodeProxyState(absent), parsed));
  EXPECT_EQ(parsed, absent);
}

TEST(ProxyState, RefusesAnythingButAWholeWellFormedFile) {
  auto replaced = [](std::string_view from, std::string_view to) {
    std::string text = kText;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string cases[] = {
      "",
      kText.substr(0, kText.size() - 1),  // truncated: last line feed
      kText.substr(0, kText.find("end")),
      kText.substr(0, 40),
      kText + "x",
      replaced("state 1", "state 2"),
      replaced("\n", "\r\n"),
      replaced("ProxyEnable=7", "ProxyEnable=4294967296"),
      replaced("ProxyEnable=7", "ProxyEnable=-7"),
      replaced("ProxyEnable=7", "ProxyEnable="),
      replaced("ProxyServer=", "ProxyServer "),
      replaced("%00E9", "%00e9"),
      replaced("%00E9", "%0G"),
      replaced("%65E5", "\xE6\x97\xA5"),
      replaced("HelperProxyServer=http=127.0.0.1:2080", "HelperProxyServer="),
      replaced("ProxyServer=corp:8080\nProxyOverride=*.lan;100%0025%0009%00E9%65E5",
               "ProxyOverride=*.lan\nProxyServer=corp:8080"),
  };
  for (const std::string& bytes : cases) {
    SavedProxyState parsed = kState;
    parsed.proxyEnable = 1;
    EXPECT_FALSE(ParseProxyState(bytes, parsed)) << bytes;
    EXPECT_EQ(parsed.proxyEnable, 1u) << "left untouched";
  }
}

TEST(ProxyState, AcceptsUpToTheSizeLimit) {
  SavedProxyState big{0, L"", L"", L"h"};
  big.proxyOverride.assign(kMaxProxyStateBytes - EncodeProxyState(big).size(), L'a');
  SavedProxyState parsed;
  EXPECT_TRUE(ParseProxyState(EncodeProxyState(big), parsed));
  big.proxyOverride.push_back(L'a');
  EXPECT_FALSE(ParseProxyState(EncodeProxyState(big), parsed));
}

}  // namespace
}  // namespace orvel
