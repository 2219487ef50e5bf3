// "/urltest" as the client application sees it: the body format, the
// streamed answer, the test processes it starts and ends, and the temporary
// configuration files. The node tags choose what the sing-box.exe double does
// (fake_sing_box_tools.cpp): "delay-N", "exit-N", "hang", "flood-N", "gather-N".
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/urltest_client.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

constexpr std::string_view kEmptyAnswer =
    "HTTP/1.1 200 OK\r\nContent-Type: application/x-ndjson\r\nContent-Length: 0\r\n"
    "Connection: close\r\n\r\n";
constexpr std::string_view kUrl = "http://cp.example.test/generate_204";
const std::string kConfig = "{\"outbounds\":[{\"type\":\"direct\",\"tag\":\"d\"}]}\n";

std::string Body(const std::string& id, const std::vector<std::string>& tags, int version = 2) {
  UrlTestRequest request;
  request.requestId = id;
  request.url = kUrl;
  request.nodeTags = tags;
  request.config = kConfig;
  return EncodeUrlTestBody(request, version);
}

std::vector<ResultLine> Results(const UrlTestStream& stream) {
  std::vector<ResultLine> results;
  for (const StreamLine& line : stream.lines) {
    ResultLine result;
    EXPECT_TRUE(ParseResultLine(line, result)) << line.text;
    results.push_back(result);
  }
  return results;
}

const ResultLine* FindResult(const std::vector<ResultLine>& results, const std::string& tag) {
  for (const ResultLine& result : results) {
    if (result.nodeTag == tag) return &result;
  }
  return nullptr;
}

const FetchRecord* FindRecord(const std::vector<FetchRecord>& records, const std::string& tag) {
  for (const FetchRecord& record : records) {
    if (record.Get("tag") == tag) return &record;
  }
  return nullptr;
}

std::wstring ConfigPathOfSession(const ScopedHelper& helper, int sequence) {
  return HelperDataDirectory() + L"\\sing-box-urltest-" +
         std::to_wstring(helper.process.dwProcessId) + L"-" + std::to_wstring(sequence) + L".json";
}

class UrlTest : public ::testing::Test {
 protected:
  void SetUp() override { ClearFetchRecords(); }
  void StartHelper(const HelperOptions& options = {}) {
    ASSERT_TRUE(helper.Start(options)) << helper.error;
  }
  std::string Logs() { return Request("GET", "/logs").body; }
  ScopedHelper helper;
};

TEST_F(UrlTest, BadBodiesGetAnEmptyAnswerAndStartNothing) {
  StartHelper();
  const std::string good = Body("r1", {"a"});
  std::string version3 = good;
  version3[18] = '3';
  struct Case {
    const char* what;
    std::string body;
  } cases[] = {
      {"empty body", ""},
      {"19 bytes of magic", "ORVELVPN_URLTEST_V2"},
      {"version 3", version3},
      {"no magic line", good.substr(20)},
      {"node count 0", "ORVELVPN_URLTEST_V1\n3\nurl\n0\n2\n{}\n"},
      {"count above the fields given", "ORVELVPN_URLTEST_V1\n3\nurl\n3\n1\na\n1\nb\n2\n{}\n"},
      {"only empty tags", "ORVELVPN_URLTEST_V1\n3\nurl\n2\n0\n0\n2\n{}\n"},
      {"empty configuration", "ORVELVPN_URLTEST_V1\n3\nurl\n1\n1\na\n0\n"},
      {"configuration cut short", good.substr(0, good.size() - 3)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Request("POST", "/urltest", c.body).raw, kEmptyAnswer) << c.what;
  }
  EXPECT_EQ(Logs().find("URLTest"), std::string::npos);
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_TRUE(UrlTestConfigFiles().empty());
}

TEST_F(UrlTest, StreamsEachNodeAsItFinishesAndEndsEveryProcess) {
  StartHelper();
  const std::string utf8Tag = "\xE6\x9D\xB1\xE4\xBA\xAC-\xC3\xA9-delay-50";  // 東京-é-delay-50
  const std::vector<std::string> tags = {"fast-delay-100", "exit-2",        "hang",
                                         utf8Tag,          "flood-1048576", "slow-delay-400"};
  const UrlTestStream stream = RunUrlTest(Body("r7", tags));

  ASSERT_TRUE(helper.Running()) << "helper ended with " << helper.WaitExit(0);
  // Head exactly as sent, no Content-Length; nothing after the last line.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_EQ(stream.head.size(), 74u);
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_EQ(stream.rest, "");
  const std::vector<ResultLine> results = Results(stream);
  ASSERT_EQ(results.size(), tags.size());

  struct Expect {
    std::string tag;
    long long atLeastMs;  // -1: the node failed and reports 0
  } expects[] = {{"fast-delay-100", 100}, {utf8Tag, 50}, {"slow-delay-400", 400},
                 {"exit-2", -1},          {"hang", -1},  {"flood-1048576", -1}};
  for (const Expect& e : expects) {
    const ResultLine* result = FindResult(results, e.tag);
    ASSERT_NE(result, nullptr) << e.tag;
    if (e.atLeastMs < 0) {
      EXPECT_EQ(result->delayMs, 0) << e.tag;
    } else {
      EXPECT_GT(result->delayMs, e.atLeastMs) << e.tag;
    }
  }
  // Lines go out as nodes finish: the good nodes long before the stream ends,
  // the two that run into the time limit last.
  EXPECT_TRUE(results[4].nodeTag == "hang" || results[5].nodeTag == "hang");
  EXPECT_TRUE(results[4].nodeTag == "flood-1048576" || results[5].nodeTag == "flood-1048576");
  for (const std::string tag : {"fast-delay-100", "slow-delay-400", utf8Tag.c_str()}) {
    EXPECT_LT(FindResult(results, tag)->atTick - stream.sentTick, 2500u) << tag;
  }

  // The hanging node and the one whose output fills its pipe are ended by the
  // time limit: not before 3 s after the request went out (the process cannot
  // have started earlier; its own start tick comes after a start-up that a
  // loaded machine makes slow), and the worker is free again by about 4 s.
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), tags.size());
  for (const std::string tag : {"hang", "flood-1048576"}) {
    const FetchRecord* record = FindRecord(records, tag);
    ASSERT_NE(record, nullptr) << tag;
    const std::uint64_t started = std::stoull(record->Get("startTick"));
    const std::uint64_t reported = FindResult(results, tag)->atTick;
    EXPECT_GE(reported - stream.sentTick, 2950u) << tag;
    EXPECT_LE(reported - started, 4800u) << tag;
  }
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);

  // What each test process was given: the exact command line with the UTF-8
  // tag intact, the data directory as working directory, the three variables,
  // and the configuration in the session's temporary file.
  const std::wstring configPath = ConfigPathOfSession(helper, 1);
  const FetchRecord* record = FindRecord(records, utf8Tag);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->Get("commandLine"), "\"" + ToUtf8(helper.directory) +
                                            "\\sing-box.exe\" --disable-color -c \"" +
                                            ToUtf8(configPath) + "\" tools -o \"" + utf8Tag +
                                            "\" fetch \"" + std::string(kUrl) + "\"");
  EXPECT_EQ(record->Get("workingDirectory"), ToUtf8(HelperDataDirectory()));
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    EXPECT_EQ(record->Get(name), "true") << name;
  }
  EXPECT_EQ(record->configText, kConfig);
  EXPECT_TRUE(UrlTestConfigFiles().empty());

  const std::string logs = Logs();
  const std::size_t started = logs.find("] URLTest stream started for 6 nodes, requestId=r7\r\n");
  const std::size_t completed = logs.find("] URLTest stream completed for 6 nodes\r\n");
  ASSERT_NE(started, std::string::npos) << logs;
  ASSERT_NE(completed, std::string::npos) << logs;
  EXPECT_LT(started, completed);
}

TEST_F(UrlTest, ThirteenNodesRunOnTwelveProcessesAtMost) {
  StartHelper();
  // The first twelve each wait until twelve fetches have run at once, so the
  // pool must really run twelve, and then stay 300 ms more; the thirteenth can
  // only start when one of them has ended.
  std::vector<std::string> tags;
  for (int i = 1; i <= 12; ++i) tags.push_back(std::to_string(i) + "-gather-12-delay-300");
  tags.push_back("13-delay-10");
  const UrlTestStream stream = RunUrlTest(Body("thirteen", tags));

  ASSERT_TRUE(helper.Running()) << "helper ended with " << helper.WaitExit(0);
  const std::vector<ResultLine> results = Results(stream);
  ASSERT_EQ(results.size(), 13u);
  for (const std::string& tag : tags) {
    const ResultLine* result = FindResult(results, tag);
    ASSERT_NE(result, nullptr) << tag;
    EXPECT_GT(result->delayMs, 0) << tag;
  }
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), 13u);
  EXPECT_EQ(MaxRunningAtStart(records), 12);
  std::uint64_t lastGatherStart = 0;
  for (const FetchRecord& record : records) {
    if (record.Get("tag") == "13-delay-10") continue;
    lastGatherStart =
        std::max<std::uint64_t>(lastGatherStart, std::stoull(record.Get("startTick")));
  }
  const FetchRecord* thirteenth = FindRecord(records, "13-delay-10");
  ASSERT_NE(thirteenth, nullptr);
  EXPECT_GE(std::stoull(thirteenth->Get("startTick")), lastGatherStart + 300);
}

TEST_F(UrlTest, SessionsNumberTheirFilesAndLeaveNoneBehind) {
  StartHelper();
  // A repeated tag is tested and reported twice.
  const UrlTestStream first = RunUrlTest(Body("s1", {"twice-delay-10", "twice-delay-10"}));
  EXPECT_EQ(Results(first).size(), 2u);
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  // Version 1: no request id; the empty tag is dropped from the count.
  const UrlTestStream second = RunUrlTest(Body("", {"v1-delay-10", ""}, 1));
  ASSERT_EQ(Results(second).size(), 1u);
  EXPECT_GT(Results(second)[0].delayMs, 10);
  EXPECT_TRUE(UrlTestConfigFiles().empty());

  std::vector<std::string> configs;
  for (const FetchRecord& record : ReadFetchRecords()) configs.push_back(record.Get("config"));
  std::sort(configs.begin(), configs.end());
  const std::vector<std::string> expected = {ToUtf8(ConfigPathOfSession(helper, 1)),
                                             ToUtf8(ConfigPathOfSession(helper, 1)),
                                             ToUtf8(ConfigPathOfSession(helper, 2))};
  EXPECT_EQ(configs, expected);

  const std::string logs = Logs();
  EXPECT_NE(logs.find("] URLTest stream started for 2 nodes, requestId=s1\r\n"), std::string::npos);
  EXPECT_NE(logs.find("] URLTest stream started for 1 nodes, requestId=\r\n"), std::string::npos);
  EXPECT_NE(logs.find("] URLTest stream completed for 1 nodes\r\n"), std::string::npos);
}

TEST_F(UrlTest, DataDirectoryThatIsAFileIsLogged) {
  std::error_code ec;
  std::filesystem::remove_all(std::filesystem::path(HelperDataDirectory()), ec);
  ASSERT_TRUE(WriteFileText(HelperDataDirectory(), "in the way"));
  HelperOptions options;
  options.keepDataDirectory = true;
  StartHelper(options);
  EXPECT_EQ(Request("POST", "/urltest", Body("d", {"a"})).raw, kEmptyAnswer);
  std::filesystem::remove(std::filesystem::path(HelperDataDirectory()), ec);
  EXPECT_NE(Logs().find("] URLTest failed to create runtime directory\r\n"), std::string::npos);
  EXPECT_TRUE(ReadFetchRecords().empty());
}

TEST_F(UrlTest, ConfigFileThatCannotBeWrittenIsLogged) {
  StartHelper();
  // A directory where the first session's file would go: opening it for
  // writing is refused with access denied.
  ASSERT_TRUE(std::filesystem::create_directories(ConfigPathOfSession(helper, 1)));
  EXPECT_EQ(Request("POST", "/urltest", Body("w", {"a"})).raw, kEmptyAnswer);
  EXPECT_NE(Logs().find("] URLTest failed to write config: CreateFile failed: 5\r\n"),
            std::string::npos);
  EXPECT_TRUE(ReadFetchRecords().empty());
  // The next session takes the next number and runs.
  EXPECT_EQ(Results(RunUrlTest(Body("w", {"a"}))).size(), 1u);
  std::filesystem::remove(ConfigPathOfSession(helper, 1));
  EXPECT_EQ(ReadFetchRecords().at(0).Get("config"), ToUtf8(ConfigPathOfSession(helper, 2)));
}

}  // namespace
}  // namespace orvel::test
