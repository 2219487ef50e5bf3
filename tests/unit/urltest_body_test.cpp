#include "urltest/urltest_body.h"

#include <gtest/gtest.h>

#include "urltest/node_test.h"  // kMaxTestOutputBytes
#include "urltest/urltest_registry.h"

namespace orvel {
namespace {

struct ParseCase {
  const char* what;
  std::string body;
  bool ok;
  UrlTestRequest expected;  // compared only when ok
};

void ExpectParse(const ParseCase& c) {
  UrlTestRequest parsed;
  ASSERT_EQ(ParseUrlTestBody(c.body, parsed), c.ok) << c.what;
  if (!c.ok) return;
  EXPECT_EQ(parsed.requestId, c.expected.requestId) << c.what;
  EXPECT_EQ(parsed.url, c.expected.url) << c.what;
  EXPECT_EQ(parsed.nodeTags, c.expected.nodeTags) << c.what;
  EXPECT_EQ(parsed.config, c.expected.config) << c.what;
}

TEST(ParseUrlTestBody, ReadsBothVersions) {
  const ParseCase cases[] = {
      {"version 2",
       "ORVELVPN_URLTEST_V2\n2\nr7\n3\nu:x\n2\n5\nhk-01\n5\njp-02\n2\n{}\n",
       true,
       {"r7", "u:x", {"hk-01", "jp-02"}, "{}"}},
      {"version 1 has no request id",
       "ORVELVPN_URLTEST_V1\n3\nu:x\n1\n1\na\n2\n{}",
       true,
       {"", "u:x", {"a"}, "{}"}},
      {"the line feed after a field is optional",
       "ORVELVPN_URLTEST_V2\n2\nr73\nu:x1\n1\na2\n{}",
       true,
       {"r7", "u:x", {"a"}, "{}"}},
      // Only one line feed after a field is skipped: the second is read as an
      // empty count line (0 nodes), and the tag field becomes the configuration.
      {"a second line feed after a field",
       "ORVELVPN_URLTEST_V1\n3\nu:x\n\n1\na\n2\n{}",
       true,
       {"", "u:x", {}, "a"}},
      {"content holds line feeds",
       "ORVELVPN_URLTEST_V1\n3\nu\nx\n1\n3\na\nb\n4\n{\n}\n",
       true,
       {"", "u\nx", {"a\nb"}, "{\n}\n"}},
      {"bytes after the configuration are ignored",
       "ORVELVPN_URLTEST_V1\n1\nu\n1\n1\na\n2\n{}\ntrailing junk 99\n",
       true,
       {"", "u", {"a"}, "{}"}},
      {"a zero-length tag is dropped",
       "ORVELVPN_URLTEST_V1\n1\nu\n3\n0\n1\na\n0\n2\n{}",
       true,
       {"", "u", {"a"}, "{}"}},
      {"node count 0", "ORVELVPN_URLTEST_V1\n1\nu\n0\n2\n{}", true, {"", "u", {}, "{}"}},
      {"empty configuration", "ORVELVPN_URLTEST_V1\n1\nu\n0\n0\n", true, {"", "u", {}, ""}},
      {"a tag may repeat",
       "ORVELVPN_URLTEST_V1\n1\nu\n2\n1\na\n1\na\n0\n",
       true,
       {"", "u", {"a", "a"}, ""}},
  };
  for (const ParseCase& c : cases) ExpectParse(c);
}

TEST(ParseUrlTestBody, RefusesBrokenBodies) {
  const ParseCase cases[] = {
      {"empty", "", false, {}},
      {"19 bytes", "ORVELVPN_URLTEST_V2", false, {}},
      {"magic only", "ORVELVPN_URLTEST_V2\n", false, {}},
      {"version 3", "ORVELVPN_URLTEST_V3\n1\nu\n1\n1\na\n2\n{}", false, {}},
      {"lower case magic", "orvelvpn_urltest_v1\n1\nu\n1\n1\na\n2\n{}", false, {}},
      {"magic without its line feed", "ORVELVPN_URLTEST_V1 1\nu\n1\n1\na\n2\n{}", false, {}},
      {"count 3, two tags: the configuration is taken as the third tag",
       "ORVELVPN_URLTEST_V1\n1\nu\n3\n1\na\n1\nb\n2\n{}\n",
       false,
       {}},
      {"no count line", "ORVELVPN_URLTEST_V1\n1\nu\n", false, {}},
      {"count line without line feed", "ORVELVPN_URLTEST_V1\n1\nu\n1", false, {}},
      {"field longer than the rest", "ORVELVPN_URLTEST_V1\n1\nu\n1\n1\na\n3\n{}", false, {}},
      {"length line without line feed", "ORVELVPN_URLTEST_V1\n1\nu\n1\n1\na\n2", false, {}},
      {"missing configuration", "ORVELVPN_URLTEST_V1\n1\nu\n1\n1\na\n", false, {}},
      {"missing request id", "ORVELVPN_URLTEST_V2\n", false, {}},
      // "-1" reads as 4294967295, which no body can hold.
      {"negative length", "ORVELVPN_URLTEST_V1\n-1\nu\n0\n0\n", false, {}},
      {"count 4294967295 with no tags", "ORVELVPN_URLTEST_V1\n1\nu\n-1\n0\n", false, {}},
  };
  for (const ParseCase& c : cases) ExpectParse(c);
}

TEST(ParseUrlTestBody, ReadsNumbersLikeStrtoul) {
  const ParseCase cases[] = {
      // No leading digits give 0: an empty count line means no nodes.
      {"empty count line", "ORVELVPN_URLTEST_V1\n1\nu\n\n2\n{}", true, {"", "u", {}, "{}"}},
      {"letters as count", "ORVELVPN_URLTEST_V1\n1\nu\nxyz\n2\n{}", true, {"", "u", {}, "{}"}},
      {"digits then letters",
       "ORVELVPN_URLTEST_V1\n1\nu\n1abc\n1\na\n2\n{}",
       true,
       {"", "u", {"a"}, "{}"}},
      {"leading blanks and a plus sign",
       "ORVELVPN_URLTEST_V1\n1\nu\n \t+1\n1\na\n2\n{}",
       true,
       {"", "u", {"a"}, "{}"}},
      // An empty length line is a field of length 0, not the number below it.
      {"empty length line", "ORVELVPN_URLTEST_V1\n\n1\n1\na\n2\n{}", true, {"", "", {"a"}, "{}"}},
  };
  for (const ParseCase& c : cases) ExpectParse(c);
}

TEST(ReadLengthPrefixedField, StopsAtTheBodyEnd) {
  std::string out = "kept";
  std::size_t pos = 3;
  EXPECT_FALSE(ReadLengthPrefixedField("0\n\n", pos, out));  // pos at the end
  pos = 0;
  ASSERT_TRUE(ReadLengthPrefixedField("3\nabc", pos, out));
  EXPECT_EQ(out, "abc");
  EXPECT_EQ(pos, 5u);
  pos = 0;
  ASSERT_TRUE(ReadLengthPrefixedField("3\nabc\n\n", pos, out));
  EXPECT_EQ(pos, 6u);  // one line feed skipped, the next one left
  pos = 2;
  ASSERT_TRUE(ReadLengthPrefixedField("xx0\n", pos, out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(pos, 4u);
  pos = 0;
  EXPECT_FALSE(ReadLengthPrefixedField("4\nabc", pos, out));
  EXPECT_EQ(pos, 0u);
}

TEST(EncodeUrlTestBody, ReadsBackAsItWasWritten) {
  const UrlTestRequest request{"id\n1", "http://x/\n", {"a", "b\nc", "\xE6\x9D\xB1"}, "{\n}"};
  for (int version : {1, 2}) {
    UrlTestRequest parsed;
    ASSERT_TRUE(ParseUrlTestBody(EncodeUrlTestBody(request, version), parsed));
    EXPECT_EQ(parsed.requestId, version == 1 ? "" : request.requestId);
    EXPECT_EQ(parsed.url, request.url);
    EXPECT_EQ(parsed.nodeTags, request.nodeTags);
    EXPECT_EQ(parsed.config, request.config);
  }
}

TEST(BuildUrlTestResultLine, EscapesTheTagOnly) {
  EXPECT_EQ(BuildUrlTestResultLine("hk-01", 412), "{\"nodeTag\":\"hk-01\",\"delayMs\":412}\n");
  EXPECT_EQ(BuildUrlTestResultLine("a\"b\\c\n\xE6\x9D\xB1", 0),
            "{\"nodeTag\":\"a\\\"b\\\\c\\n\xE6\x9D\xB1\",\"delayMs\":0}\n");
  EXPECT_EQ(BuildUrlTestResultLine("", -2147483647 - 1),
            "{\"nodeTag\":\"\",\"delayMs\":-2147483648}\n");
}

TEST(AppendCapped, KeepsExactlyTheLimit) {
  std::string output;
  const std::string chunk(1024, 'a');
  for (int i = 0; i < 3; ++i) AppendCapped(output, chunk, kMaxTestOutputBytes);
  AppendCapped(output, std::string(1023, 'b'), kMaxTestOutputBytes);
  EXPECT_EQ(output.size(), 4095u);
  AppendCapped(output, "cd", kMaxTestOutputBytes);
  EXPECT_EQ(output.size(), 4096u);
  EXPECT_EQ(output.back(), 'c');
  AppendCapped(output, "e", kMaxTestOutputBytes);
  EXPECT_EQ(output.size(), 4096u);
}

// Handles here are plain tokens: the registry never dereferences them.
TestProcessHandle Token(std::uintptr_t n) { return reinterpret_cast<TestProcessHandle>(n); }
TestProcessHandle Same(TestProcessHandle process) { return process; }

TEST(UrlTestRegistry, CancelMarksAndReturnsTheRunningProcesses) {
  EXPECT_FALSE(IsUrlTestCanceled("reg-a"));
  RegisterTestProcess("reg-a", Token(1));
  RegisterTestProcess("reg-a", Token(2));
  RegisterTestProcess("reg-a", Token(1));
  RegisterTestProcess("reg-a", Token(3));
  RegisterTestProcess("reg-b", Token(9));
  UnregisterTestProcess("reg-a", Token(1));  // every occurrence, the order of the rest kept
  UnregisterTestProcess("reg-A", Token(2));  // ids are case-sensitive
  UnregisterTestProcess("reg-a", Token(7));
  EXPECT_EQ(MarkUrlTestCanceled("reg-a", Same),
            (std::vector<TestProcessHandle>{Token(2), Token(3)}));
  EXPECT_TRUE(IsUrlTestCanceled("reg-a"));
  EXPECT_FALSE(IsUrlTestCanceled("reg-b"));
  EXPECT_FALSE(IsUrlTestCanceled("reg-a\n"));

  // The last removal erases the entry; a cancel then finds nothing to end.
  UnregisterTestProcess("reg-a", Token(2));
  UnregisterTestProcess("reg-a", Token(3));
  EXPECT_TRUE(MarkUrlTestCanceled("reg-a", Same).empty());

  // A reset drops the mark and the process list together.
  ResetUrlTest("reg-b");
  EXPECT_TRUE(MarkUrlTestCanceled("reg-b", Same).empty());
  ResetUrlTest("reg-a");
  ResetUrlTest("reg-b");
  EXPECT_FALSE(IsUrlTestCanceled("reg-a"));
  EXPECT_FALSE(IsUrlTestCanceled("reg-b"));
}

TEST(UrlTestRegistry, EmptyIdAndNullHandleAreNeverRecorded) {
  RegisterTestProcess("", Token(5));
  RegisterTestProcess("reg-c", nullptr);
  EXPECT_TRUE(MarkUrlTestCanceled("reg-c", Same).empty());
  EXPECT_FALSE(IsUrlTestCanceled(""));
  ResetUrlTest("reg-c");
}

TEST(UrlTestRegistry, CancelPassesEachHandleThroughKeep) {
  RegisterTestProcess("reg-d", Token(4));
  RegisterTestProcess("reg-d", Token(6));
  const auto twice = [](TestProcessHandle process) {
    return Token(reinterpret_cast<std::uintptr_t>(process) * 2);
  };
  EXPECT_EQ(MarkUrlTestCanceled("reg-d", twice),
            (std::vector<TestProcessHandle>{Token(8), Token(12)}));
  // Cancelling twice reports the processes still registered.
  UnregisterTestProcess("reg-d", Token(4));
  EXPECT_EQ(MarkUrlTestCanceled("reg-d", Same), (std::vector<TestProcessHandle>{Token(6)}));
  ResetUrlTest("reg-d");
}

}  // namespace
}  // namespace orvel
