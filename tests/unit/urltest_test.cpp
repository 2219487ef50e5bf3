// The URL test request body, its result lines, and the registry that lets a
// cancel reach the running test processes.
#include <gtest/gtest.h>

#include "client/urltest_request.h"
#include "urltest/urltest_body.h"
#include "urltest/urltest_registry.h"

using namespace orvel;
using namespace std::string_literals;

// "requestId|url|[tag][tag]|config", or "refused".
static std::string Parsed(std::string_view body) {
  UrlTestRequest request;
  if (!ParseUrlTestBody(body, request)) return "refused";
  std::string tags;
  for (const std::string& tag : request.nodeTags) tags += "[" + tag + "]";
  return request.requestId + "|" + request.url + "|" + tags + "|" + request.config;
}

TEST(ParseUrlTestBody, ReadsBothVersionsAndRefusesBodiesThatEndEarlyOrClaimTooMuch) {
  const std::string v1 = "ORVELVPN_URLTEST_V1\n", v2 = "ORVELVPN_URLTEST_V2\n";
  // The line feed after a field is optional, but only one is skipped: a second
  // is read as an empty count line (0 nodes), and the tag field becomes the
  // configuration. Empty tags are dropped, repeats kept. A number line is read
  // like strtoul and an empty one is 0, not the number below it. Count 3 with
  // two tags takes the configuration as the third tag; "-1" reads as
  // 4294967295, which no body can hold.
  std::string read;
  for (const std::string& body :
       {v2 + "2\nr7\n3\nu:x\n2\n5\nhk-01\n5\njp-02\n2\n{}\n", v1 + "3\nu:x\n1\n1\na\n2\n{}",
        v2 + "2\nr73\nu:x1\n1\na2\n{}", v1 + "3\nu:x\n\n1\na\n2\n{}",
        v1 + "3\nu\nx\n1\n3\na\nb\n4\n{\n}\n", v1 + "1\nu\n1\n1\na\n2\n{}\ntrailing junk 99\n",
        v1 + "1\nu\n3\n0\n1\na\n1\na\n0\n", v1 + "1\nu\n\n2\n{}", v1 + "1\nu\n1abc\n1\na\n2\n{}",
        v1 + "\n1\n1\na\n2\n{}"})
    read += Parsed(body) + "#";
  EXPECT_EQ(read,
            "r7|u:x|[hk-01][jp-02]|{}#|u:x|[a]|{}#r7|u:x|[a]|{}#|u:x||a#|u\nx|[a\nb]|{\n}\n#"
            "|u|[a]|{}#|u|[a][a]|#|u||{}#|u|[a]|{}#||[a]|{}#");
  for (const std::string& body :
       {std::string(), v2.substr(0, 19), v2, "ORVELVPN_URLTEST_V3\n1\nu\n1\n1\na\n2\n{}"s,
        "orvelvpn_urltest_v1\n1\nu\n1\n1\na\n2\n{}"s, "ORVELVPN_URLTEST_V1 1\nu\n1\n1\na\n2\n{}"s,
        v1 + "1\nu\n3\n1\na\n1\nb\n2\n{}\n", v1 + "1\nu\n", v1 + "1\nu\n1",
        v1 + "1\nu\n1\n1\na\n3\n{}", v1 + "1\nu\n1\n1\na\n2", v1 + "1\nu\n1\n1\na\n",
        v1 + "-1\nu\n0\n0\n", v1 + "1\nu\n-1\n0\n"})
    EXPECT_EQ(Parsed(body), "refused") << body;
}

TEST(ReadLengthPrefixedField, StopsAtTheBodyEndAndEncodedBodiesReadBack) {
  // Body, start, "content@position after".
  const std::tuple<std::string_view, std::size_t, std::string_view> cases[] = {
      {"0\n\n", 3, "refused@3"}, {"3\nabc", 0, "abc@5"},     {"3\nabc\n\n", 0, "abc@6"},
      {"xx0\n", 2, "@4"},        {"4\nabc", 0, "refused@0"},
  };
  for (const auto& [body, start, expected] : cases) {
    std::size_t pos = start;
    std::string out;
    const bool read = ReadLengthPrefixedField(body, pos, out);
    EXPECT_EQ((read ? out : "refused") + "@" + std::to_string(pos), expected) << body;
  }
  const UrlTestRequest request{"id\n1", "http://x/\n", {"a", "b\nc", "\xE6\x9D\xB1"}, "{\n}"};
  const std::string read = "|http://x/\n|[a][b\nc][\xE6\x9D\xB1]|{\n}";
  EXPECT_EQ(Parsed(EncodeUrlTestBody(request, 1)), read);
  EXPECT_EQ(Parsed(EncodeUrlTestBody(request, 2)), "id\n1" + read);
  // And what orvelctl sends.
  EXPECT_EQ(
      Parsed(client::BuildUrlTestRequestBody("id\n1", "http://x/\n", request.nodeTags, "{\n}")),
      "id\n1" + read);
}

TEST(CheckServiceUrlTest, AllowsHttpAddressesAndRefusesControlBytes) {
  // URL, tags, refusal ("" for allowed).
  const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
      {"http://x/a b", {"a\"b\\", "\xE6\x9D\xB1"}, ""},
      {"HTTPS://x", {"a"}, ""},
      {"file:///C:/x", {"a"}, "the test URL is not an http:// or https:// address"},
      {" http://x", {"a"}, "the test URL is not an http:// or https:// address"},
      {"http:/x", {"a"}, "the test URL is not an http:// or https:// address"},
      {"http://x/\n", {"a"}, "the test URL holds a control character (0x0A)"},
      {"http://x/\x7F", {"a"}, "the test URL holds a control character (0x7F)"},
      {"http://x", {"a", "b\x1F"}, "node tag 2 holds a control character (0x1F)"},
      {"http://x", {"a"s + '\0'}, "node tag 1 holds a control character (0x00)"},
  };
  for (const auto& [url, tags, expected] : cases) {
    std::string refusal = "stale";
    EXPECT_EQ(CheckServiceUrlTest({"id", url, tags, "{}"}, refusal), expected.empty()) << url;
    EXPECT_EQ(refusal, expected) << url;
  }
  // Result lines escape the tag only.
  EXPECT_EQ(BuildUrlTestResultLine("a\"b\\c\n\xE6\x9D\xB1", 412),
            "{\"nodeTag\":\"a\\\"b\\\\c\\n\xE6\x9D\xB1\",\"delayMs\":412}\n");
  EXPECT_EQ(BuildUrlTestResultLine("", -2147483647 - 1),
            "{\"nodeTag\":\"\",\"delayMs\":-2147483648}\n");
}

// Handles here are plain tokens: the registry never dereferences them.
using Handles = std::vector<ChildHandle>;
static ChildHandle Token(std::intptr_t n) { return n; }
static ChildHandle Same(ChildHandle process) { return process; }
static ChildHandle Twice(ChildHandle p) { return p * 2; }

TEST(UrlTestRegistry, CancelMarksAndReturnsTheRunningProcessesAndWaitingCancelsAreBounded) {
  EXPECT_FALSE(IsUrlTestCanceled("reg-a"));
  for (std::uintptr_t n : {1, 2, 1, 3}) RegisterTestProcess("reg-a", Token(n));
  RegisterTestProcess("reg-b", Token(9));
  RegisterTestProcess("reg-b", kNoChildHandle);  // neither a null handle
  RegisterTestProcess("", Token(5));             // nor an empty id is recorded
  UnregisterTestProcess("reg-a", Token(1));      // every occurrence, the order of the rest kept
  UnregisterTestProcess("reg-A", Token(2));      // ids are case-sensitive
  UnregisterTestProcess("reg-a", Token(7));
  EXPECT_EQ(MarkUrlTestCanceled("reg-a", Same), (Handles{Token(2), Token(3)}));
  EXPECT_EQ(MarkUrlTestCanceled("reg-b", Twice), (Handles{Token(18)}));
  EXPECT_TRUE(MarkUrlTestCanceled("", Same).empty());
  EXPECT_TRUE(IsUrlTestCanceled("reg-a") && !IsUrlTestCanceled("reg-a\n") &&
              !IsUrlTestCanceled(""));
  // A second cancel reports what is still registered; the last removal
  // erases the entry; a reset drops the mark and the list.
  UnregisterTestProcess("reg-a", Token(2));
  EXPECT_EQ(MarkUrlTestCanceled("reg-a", Same), (Handles{Token(3)}));
  UnregisterTestProcess("reg-a", Token(3));
  EXPECT_TRUE(MarkUrlTestCanceled("reg-a", Same).empty());
  for (std::string_view id : {"reg-a", "reg-b"}) EndUrlTest(id);
  EXPECT_FALSE(IsUrlTestCanceled("reg-a") || IsUrlTestCanceled("reg-b"));
  EXPECT_TRUE(MarkUrlTestCanceled("reg-b", Same).empty());
  EndUrlTest("reg-b");
  // Too long to be kept, unless its test runs.
  const std::string longId(kMaxWaitingCancelIdBytes + 1, 'x');
  MarkUrlTestCanceled(longId, Same, 1000);
  EXPECT_FALSE(IsUrlTestCanceled(longId, 1000));
  BeginUrlTest(longId);
  MarkUrlTestCanceled(longId, Same, 1000);
  EXPECT_TRUE(IsUrlTestCanceled(longId, 1000 + kWaitingCancelMs * 10));  // for the test's life
  EndUrlTest(longId);
  EXPECT_FALSE(IsUrlTestCanceled(longId, 1000));
  // A minute at most, and the oldest go first beyond 64.
  MarkUrlTestCanceled(std::string(kMaxWaitingCancelIdBytes, 'y'), Same, 1000);
  EXPECT_TRUE(IsUrlTestCanceled(std::string(kMaxWaitingCancelIdBytes, 'y'), 60999));
  EXPECT_FALSE(IsUrlTestCanceled(std::string(kMaxWaitingCancelIdBytes, 'y'), 61000));
  for (std::uint64_t i = 0; i <= kMaxWaitingCancels; ++i)
    MarkUrlTestCanceled("wait-" + std::to_string(i), Same, 2000 + i);
  EXPECT_FALSE(IsUrlTestCanceled("wait-0", 3000));
  EXPECT_TRUE(IsUrlTestCanceled("wait-1", 3000) && IsUrlTestCanceled("wait-64", 3000));
  for (std::uint64_t i = 0; i <= kMaxWaitingCancels; ++i) EndUrlTest("wait-" + std::to_string(i));
}
