#include "core/core_output.h"

#include <gtest/gtest.h>

#include "sysproxy/proxy_server_value.h"

namespace orvel {
namespace {

TEST(SummarizeCoreOutput, FlattensLineBreaksAndTabsOnly) {
  struct Case {
    std::string_view text;
    std::string_view expected;
  } cases[] = {
      {"", "<empty>"},
      {"\r\n\t\n", "<empty>"},                  // leading breaks are dropped, nothing else is left
      {"one\ntwo\nthree\n", "one two three "},  // the trailing break stays as a space
      {"a\r\n\r\n\tb", "a b"},
      {"a  \t  b", "a    b"},  // spaces kept; the tab after a space adds none
      {"  lead", "  lead"},
      {"x\t", "x "},
      {"\x1b[31mFATAL\x1b[0m[0000] bad\n", "\x1b[31mFATAL\x1b[0m[0000] bad "},
      {std::string_view("nul\0byte", 8), std::string_view("nul\0byte", 8)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(SummarizeCoreOutput(c.text, kCoreOutputSummaryLimit), c.expected) << c.text;
  }
}

TEST(SummarizeCoreOutput, CutsAtTheLimitAndMarksTheCut) {
  const std::string exact(900, 'x');
  EXPECT_EQ(SummarizeCoreOutput(std::string(899, 'x'), 900), std::string(899, 'x'));
  // Reaching the limit exactly already counts as cut.
  EXPECT_EQ(SummarizeCoreOutput(exact, 900), exact + "...");
  EXPECT_EQ(SummarizeCoreOutput(exact + "yyyy", 900), exact + "...");
  EXPECT_EQ(SummarizeCoreOutput(std::string(8192, 'z'), 900).size(), 903u);
  // The limit counts output bytes: collapsed breaks do not use it up.
  const std::string broken = std::string(899, 'x') + "\n\n\n\ny";
  EXPECT_EQ(SummarizeCoreOutput(broken, 900), std::string(899, 'x') + " ...");
  // A break that adds nothing does not end the text early.
  EXPECT_EQ(SummarizeCoreOutput("ab\n\n", 3), "ab ...");
  EXPECT_EQ(SummarizeCoreOutput("anything", 0), "a...");
}

TEST(BuildProxyServerValue, UsesThePortOnlyWhenValid) {
  struct Case {
    int port;
    std::wstring_view expected;
  } cases[] = {
      {2080, L"http=127.0.0.1:2080;https=127.0.0.1:2080;socks=127.0.0.1:2080"},
      {1, L"http=127.0.0.1:1;https=127.0.0.1:1;socks=127.0.0.1:1"},
      {65535, L"http=127.0.0.1:65535;https=127.0.0.1:65535;socks=127.0.0.1:65535"},
      {0, L"http=127.0.0.1:7897;https=127.0.0.1:7897;socks=127.0.0.1:7897"},
      {65536, L"http=127.0.0.1:7897;https=127.0.0.1:7897;socks=127.0.0.1:7897"},
      {-1, L"http=127.0.0.1:7897;https=127.0.0.1:7897;socks=127.0.0.1:7897"},
  };
  for (const Case& c : cases) EXPECT_EQ(BuildProxyServerValue(c.port), c.expected) << c.port;
}

}  // namespace
}  // namespace orvel
