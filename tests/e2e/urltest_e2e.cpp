// "/urltest" and "/cancel-urltest" as the client sees them: the streamed
// answer, the test processes started and ended, the temporary configuration
// files, and what a cancel does to a running test. The node tags choose what
// the sing-box.exe double does (fake_sing_box_tools.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "support/harness.h"
#include "urltest/urltest_body.h"

namespace orvel::test {
namespace {

namespace fs = std::filesystem;

const std::string kEmptyAnswer = OkAnswer("application/x-ndjson", "");
const std::string kCanceled = OkAnswer("application/json", "{\"status\":\"canceled\"}");
const std::string kIgnored = OkAnswer("application/json", "{\"status\":\"ignored\"}");
constexpr std::string_view kUrl = "http://cp.example.test/generate_204";
const std::string kConfig = "{\"outbounds\":[{\"type\":\"direct\",\"tag\":\"d\"}]}\n";

std::string Body(const std::string& id, const std::vector<std::string>& tags, int version = 2) {
  return EncodeUrlTestBody({id, std::string(kUrl), tags, kConfig}, version);
}
std::string Post(std::string_view path, std::string_view body = {}) {
  return ExchangeRaw(BuildRequest("POST", path, body));
}

// tag -> (delay, tick the line arrived); every line must parse.
std::map<std::string, std::pair<std::int64_t, std::uint64_t>> Results(const UrlTestStream& s) {
  std::map<std::string, std::pair<std::int64_t, std::uint64_t>> results;
  for (const auto& [line, tick] : s.lines) {
    client::UrlTestResult result;
    EXPECT_TRUE(client::ParseUrlTestResultLine(line, result)) << line;
    results[result.nodeTag] = {result.delayMs, tick};
  }
  return results;
}
const FetchRecord& RecordOf(const std::vector<FetchRecord>& records, const std::string& tag) {
  static const FetchRecord kNone;
  const auto found = std::find_if(records.begin(), records.end(),
                                  [&](const FetchRecord& r) { return r.at("tag") == tag; });
  return found == records.end() ? kNone : *found;
}
std::uint64_t Tick(const FetchRecord& record) {
  return record.contains("startTick") ? std::stoull(record.at("startTick")) : 0;
}

class UrlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { started = helper.Start(); }
  static void TearDownTestSuite() { helper.Stop(); }
  void SetUp() override {
    ASSERT_TRUE(started) << helper.error;
    ResetTestRecords();
  }
  std::wstring SessionFile(int sequence) const {
    return HelperDataDirectory() + L"\\sing-box-urltest-" +
           std::to_wstring(helper.process.dwProcessId) + L"-" + std::to_wstring(sequence) +
           L".json";
  }
  static ScopedHelper helper;
  static bool started;
};
ScopedHelper UrlTest::helper;
bool UrlTest::started = false;

// Runs first: the session numbers below count from the helper's start.
TEST_F(UrlTest, BadBodiesAndFailedSetUpsAnswerEmptyAndStartNothing) {
  const std::string good = Body("r1", {"a"});
  std::string version3 = good;
  version3[18] = '3';
  // A directory where the first session's file goes: access denied, logged;
  // the next session takes the next number and runs.
  ASSERT_TRUE(fs::create_directories(SessionFile(1)));
  EXPECT_EQ(Post("/urltest", good), kEmptyAnswer);
  EXPECT_TRUE(LogHasLine("URLTest failed to write config: CreateFile failed: 5"));
  EXPECT_TRUE(ReadFetchRecords().empty());
  EXPECT_EQ(Results(RunUrlTest(good)).size(), 1u);
  fs::remove(SessionFile(1));
  EXPECT_EQ(ReadFetchRecords().at(0).at("config"), ToUtf8(SessionFile(2)));
  const std::size_t logMark = Logs().size();
  for (const std::string& body :
       {std::string(), std::string("ORVELVPN_URLTEST_V2"), version3, good.substr(20),
        std::string("ORVELVPN_URLTEST_V1\n3\nurl\n0\n2\n{}\n"),              // no nodes
        std::string("ORVELVPN_URLTEST_V1\n3\nurl\n3\n1\na\n1\nb\n2\n{}\n"),  // count too high
        std::string("ORVELVPN_URLTEST_V1\n3\nurl\n2\n0\n0\n2\n{}\n"),        // only empty tags
        std::string("ORVELVPN_URLTEST_V1\n3\nurl\n1\n1\na\n0\n"),            // empty config
        good.substr(0, good.size() - 3)}) {
    EXPECT_EQ(Post("/urltest", body), kEmptyAnswer) << body;
  }
  EXPECT_EQ(Logs().find("URLTest", logMark), std::string::npos);
  // A file where the data directory goes.
  std::error_code ec;
  fs::remove_all(HelperDataDirectory(), ec);
  ASSERT_TRUE(WriteFileText(HelperDataDirectory(), "in the way"));
  EXPECT_EQ(Post("/urltest", good), kEmptyAnswer);
  fs::remove(HelperDataDirectory(), ec);
  EXPECT_TRUE(LogHasLine("URLTest failed to create runtime directory"));
  EXPECT_EQ(ReadFetchRecords().size(), 1u);
}

TEST_F(UrlTest, StreamsEachNodeAsItFinishesAndEndsEveryProcess) {
  const std::string utf8Tag = "\xE6\x9D\xB1\xE4\xBA\xAC-\xC3\xA9-delay-50";  // 東京-é-delay-50
  const std::vector<std::string> tags = {"fast-delay-100", "exit-2",        "hang",
                                         utf8Tag,          "flood-1048576", "slow-delay-400"};
  const UrlTestStream stream = RunUrlTest(Body("r7", tags));
  // Head exactly as sent, no Content-Length; nothing after the last line.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_EQ(stream.rest, "");
  auto results = Results(stream);
  ASSERT_EQ(stream.lines.size(), tags.size());
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), tags.size());
  // Good nodes report more than their delay, long before the stream ends.
  for (const auto& [tag, delay] : {std::pair<std::string, int>{"fast-delay-100", 100},
                                   {utf8Tag, 50},
                                   {"slow-delay-400", 400}}) {
    EXPECT_GT(results[tag].first, delay) << tag;
    EXPECT_LT(results[tag].second - stream.sentTick, 2500u) << tag;
  }
  // Failed nodes report 0; the hanging one and the one whose output fills its
  // pipe are ended by the 3 s limit (counted from the request: the process
  // cannot have started earlier) and reported last.
  EXPECT_EQ(results["exit-2"].first, 0);
  for (const std::string tag : {"hang", "flood-1048576"}) {
    EXPECT_EQ(results[tag].first, 0) << tag;
    EXPECT_GE(results[tag].second - stream.sentTick, 2950u) << tag;
    EXPECT_LE(results[tag].second - Tick(RecordOf(records, tag)), 4800u) << tag;
    const auto line = std::find_if(stream.lines.begin(), stream.lines.end(), [&](const auto& l) {
      return l.first.find(tag) != l.first.npos;
    });
    EXPECT_GE(line - stream.lines.begin(), 4) << tag;
  }
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  // What each test process was given: the exact command line with the UTF-8
  // tag intact, the data directory as working directory, the three variables,
  // and the configuration in the session's temporary file.
  const FetchRecord& record = RecordOf(records, utf8Tag);
  const std::string file = record.at("config");
  EXPECT_EQ(record.at("commandLine"), std::string("\"") + ToUtf8(helper.directory) +
                                          "\\sing-box.exe\" --disable-color -c \"" + file +
                                          "\" tools -o \"" + utf8Tag + "\" fetch \"" +
                                          std::string(kUrl) + "\"");
  EXPECT_EQ(file.substr(0, file.rfind('-')), ToUtf8(HelperDataDirectory() + L"\\sing-box-urltest-" +
                                                    std::to_wstring(helper.process.dwProcessId)));
  EXPECT_EQ(record.at("workingDirectory"), ToUtf8(HelperDataDirectory()));
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"}) {
    EXPECT_EQ(record.at(name), "true") << name;
  }
  EXPECT_EQ(record.at("configText"), kConfig);
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  const std::string logs = Logs();
  const std::size_t begun = logs.find("] URLTest stream started for 6 nodes, requestId=r7\r\n");
  EXPECT_NE(begun, std::string::npos);
  EXPECT_GT(logs.find("] URLTest stream completed for 6 nodes\r\n", begun), begun);
}

TEST_F(UrlTest, ThirteenNodesRunOnTwelveProcessesAtMost) {
  // The first twelve each wait until twelve fetches run at once, then 300 ms
  // more; the thirteenth can only start when one of them has ended.
  std::vector<std::string> tags;
  for (int i = 1; i <= 12; ++i) tags.push_back(std::to_string(i) + "-gather-12-delay-300");
  tags.push_back("13-delay-10");
  auto results = Results(RunUrlTest(Body("thirteen", tags)));
  for (const std::string& tag : tags) EXPECT_GT(results[tag].first, 0) << tag;
  const std::vector<FetchRecord> records = ReadFetchRecords();
  ASSERT_EQ(records.size(), 13u);
  std::uint64_t lastGatherStart = 0;
  int most = 0;
  for (const FetchRecord& record : records) {
    most = std::max(most, std::stoi(record.at("runningAtStart")));
    if (record.at("tag") != "13-delay-10")
      lastGatherStart = std::max(lastGatherStart, Tick(record));
  }
  EXPECT_EQ(most, 12);
  EXPECT_GE(Tick(RecordOf(records, "13-delay-10")), lastGatherStart + 300);
}

TEST_F(UrlTest, RepeatedTagsAndVersionOneAndSessionFiles) {
  const UrlTestStream first = RunUrlTest(Body("s1", {"twice-delay-10", "twice-delay-10"}));
  EXPECT_EQ(first.lines.size(), 2u);  // a repeated tag is tested and reported twice
  // Version 1 has no request id; an empty tag is dropped from the count.
  auto second = Results(RunUrlTest(Body("", {"v1-delay-10", ""}, 1)));
  ASSERT_EQ(second.size(), 1u);
  EXPECT_GT(second["v1-delay-10"].first, 10);
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  std::vector<std::string> files;
  for (const FetchRecord& record : ReadFetchRecords()) files.push_back(record.at("config"));
  std::sort(files.begin(), files.end());
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files[0], files[1]);
  EXPECT_LT(files[1], files[2]);  // the next session has the next number
  EXPECT_TRUE(LogHasLine("URLTest stream started for 2 nodes, requestId=s1"));
  EXPECT_TRUE(LogHasLine("URLTest stream started for 1 nodes, requestId="));
  EXPECT_TRUE(LogHasLine("URLTest stream completed for 1 nodes"));
}

TEST_F(UrlTest, CancelEndsTheRunningProcessesAndStartsNoMore) {
  const std::size_t logMark = Logs().size();
  // Empty ids are ignored; any other is canceled, line feed and all.
  EXPECT_EQ(Post("/cancel-urltest"), kIgnored);
  EXPECT_EQ(Post("/cancel-urltest", "nobody\n"), kCanceled);
  EXPECT_EQ(ExchangeRaw(BuildRequest("GET", "/cancel-urltest", "x")).substr(0, 13),
            "HTTP/1.1 404 ");
  std::vector<std::string> tags;
  for (int i = 1; i <= 13; ++i) tags.push_back(std::to_string(i) + "-hang");
  const SOCKET socket = StartUrlTest(Body("cancel-me", tags));
  UrlTestStream stream;
  std::thread reader([&] { stream = ReadUrlTestStream(socket); });
  const std::vector<FetchRecord> records = WaitForFetchRecords(12, 15000);
  ASSERT_EQ(records.size(), 12u);
  std::vector<HANDLE> processes;
  for (const FetchRecord& record : records) {
    // On a loaded machine the first may have reached their 3 s limit already.
    if (HANDLE process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                     std::stoul(record.at("pid")))) {
      processes.push_back(process);
    }
  }
  // The helper registers a process just after creating it, long before the
  // process has written its record; a short pause covers a slow thread.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me\n"), kCanceled);
  const std::uint64_t cancelTick = GetTickCount64();
  EXPECT_EQ(Post("/cancel-urltest", "cancel-me"), kCanceled);
  for (HANDLE process : processes) {
    EXPECT_EQ(WaitForSingleObject(process, 2000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(process, &code);
    EXPECT_EQ(code, 1u);
    CloseHandle(process);
  }
  reader.join();
  closesocket(socket);
  // No lines for the ended nodes; the stream closes well before the limit.
  EXPECT_EQ(stream.head, kUrlTestStreamHead);
  EXPECT_TRUE(stream.lines.empty());
  EXPECT_TRUE(stream.closedByPeer);
  EXPECT_LT(stream.closedTick - cancelTick, 2000u);
  EXPECT_EQ(ReadFetchRecords().size(), 12u);  // the thirteenth never started
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
  EXPECT_TRUE(UrlTestConfigFiles().empty());
  const std::string logs = Logs().substr(logMark);
  EXPECT_EQ(logs.find("URLTest cancel requested: \r\n"), std::string::npos);
  std::size_t at = 0;
  for (const char* line : {"] URLTest cancel requested: nobody\n, processes=0\r\n",
                           "] URLTest cancel requested: cancel-me\n, processes=0\r\n",
                           "] URLTest cancel requested: cancel-me, processes=12\r\n",
                           "] URLTest stream completed for 13 nodes\r\n"}) {
    at = logs.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << logs;
  }
}

TEST_F(UrlTest, CancelOutsideATestsLifeIsForgotten) {
  // A version 1 test cannot be canceled, by its tag or otherwise.
  const SOCKET socket = StartUrlTest(Body("", {"a-delay-300", "b-delay-300"}, 1));
  ASSERT_EQ(WaitForFetchRecords(2, 15000).size(), 2u);
  EXPECT_EQ(Post("/cancel-urltest"), kIgnored);
  EXPECT_EQ(Post("/cancel-urltest", "a-delay-300"), kCanceled);
  auto results = Results(ReadUrlTestStream(socket));
  closesocket(socket);
  EXPECT_GT(results["a-delay-300"].first, 300);
  EXPECT_GT(results["b-delay-300"].first, 300);
  // Before a test starts, and after one with the id has ended, a cancel
  // leaves the next test with the id to run to its end.
  EXPECT_EQ(Post("/cancel-urltest", "early"), kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"x-delay-20", "y-delay-20"})).lines.size(), 2u);
  EXPECT_EQ(Post("/cancel-urltest", "early"), kCanceled);
  EXPECT_EQ(RunUrlTest(Body("early", {"z-delay-20"})).lines.size(), 1u);
}

}  // namespace
}  // namespace orvel::test
