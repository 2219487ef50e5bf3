#pragma once

// What the end-to-end tests of both systems share: one helper for the whole
// executable (the cases that need another start restart it), configurations
// shaped like the client's, the exact answers, and URL test bodies.
#include <gtest/gtest.h>

#include <thread>

#include "support/harness.h"
#include "urltest/urltest_body.h"

namespace orvel::test {

const std::string kPong = OkAnswer("text/plain", "pong");
const std::string kForbidden = OkAnswer("text/plain", "forbidden", "403 Forbidden");

// A configuration shaped like the client's, with bytes that any re-encoding
// would change (CRLF, tab, UTF-8, a NUL and a 0xFF at the end).
inline std::string Config(std::string_view behaviour = {}, std::string_view port = "2080") {
  std::string config =
      "{\"log\":{\"level\":\"info\"},\r\n"
      " \"inbounds\":[{\"type\":\"mixed\",\"tag\":\"orvel-vpn-mixed\",\"listen\":\"127.0.0.1\"";
  if (!port.empty()) config += ",\"listen_port\":" + std::string(port);
  config += "}],\r\n\t\"outbounds\":[{\"type\":\"direct\",\"tag\":\"\xE6\x97\xA5\xE6\x9C\xAC\"}]";
  if (!behaviour.empty()) config += ",\"x-test-double\":\"" + std::string(behaviour) + "\"";
  return config + "}\n" + std::string("\0\xFF", 2);
}
// What the service writes for Config(): its guard's reading (which ends at the
// NUL) as plain JSON.
const std::string kPlainConfig =
    R"({"log":{"level":"info"},"inbounds":[{"type":"mixed","tag":"orvel-vpn-mixed",)"
    R"("listen":"127.0.0.1","listen_port":2080}],"outbounds":[{"type":"direct","tag":")"
    "\xE6\x97\xA5\xE6\x9C\xAC\"}]}";

inline std::string Answer(std::string_view status, std::string_view message) {
  return OkAnswer("application/json", "{\"status\":\"" + std::string(status) +
                                          "\",\"platform\":\"" + std::string(ThisPlatform().name) +
                                          "\",\"message\":\"" + std::string(message) + "\"}");
}
const std::string kConnected = Answer("connected", ThisPlatform().connected);
const std::string kTunConnected = Answer("connected", ThisPlatform().tunConnected);
const std::string kDisconnected = Answer("disconnected", ThisPlatform().disconnected);
const std::string kRunning = Answer("connected", ThisPlatform().running);
const std::string kIdle = Answer("disconnected", ThisPlatform().idle);

inline std::string Post(std::string_view path, std::string_view body = {}) {
  return ExchangeRaw(BuildRequest("POST", path, body));
}
inline std::string Status() { return ExchangeRaw(BuildRequest("GET", "/status")); }
inline fs::path DataFile(std::string_view name) { return fs::path(HelperDataDirectory()) / name; }

// The three variables the helper sets for every core process it starts.
inline void ExpectCoreVariables(const std::map<std::string, std::string>& record) {
  for (const char* name :
       {"ENABLE_DEPRECATED_LEGACY_DNS_SERVERS", "ENABLE_DEPRECATED_OUTBOUND_DNS_RULE_ITEM",
        "ENABLE_DEPRECATED_MISSING_DOMAIN_RESOLVER"})
    EXPECT_EQ(record.contains(name) ? record.at(name) : "", "true") << name;
}

constexpr std::string_view kUrl = "http://cp.example.test/generate_204";
const std::string kUrlTestConfig = "{\"outbounds\":[{\"type\":\"direct\",\"tag\":\"d\"}]}\n";

inline std::string Body(const std::string& id, const std::vector<std::string>& tags,
                        int version = 2) {
  return EncodeUrlTestBody({id, std::string(kUrl), tags, kUrlTestConfig}, version);
}

// Asked from 127.0.0.2, so that the helper's end of this very connection is
// an established endpoint the snapshot must list (127.0.0.1 is dropped).
inline std::string TakeSnapshot() {
  client::ClientSocket s;
  return ConnectToHelperFrom127002(s) &&
                 client::SendAllBytes(s, BuildRequest("GET", "/traffic-snapshot"))
             ? ReadToEnd(s)
             : "";
}

// Per system (helper_e2e_win.cpp, helper_e2e_linux.cpp):
// the user's own proxy settings: cleared before each case, set to a user's
// values before a step that must not touch them, and checked after it (the
// values, and on Windows that no change was announced).
void ResetUserProxy();
void SetUserProxy();
void ExpectUserProxyUntouched();
// Whether this system's snapshots name the owners of socket endpoints.
extern const bool kListsSocketOwners;
// Listens on 127.0.0.1:`port` at once; the thread answers one connection with
// `answer`, closes it and ends (also after 30 s without a connection).
std::thread ServeOneAnswer(unsigned short port, std::string answer);
// Before a Ctrl-C is sent to a program the test started.
void PrepareToInterruptChildren();

// One helper for the whole executable; the cases that need another start
// (core placement, a kill, a saved file, the service) restart it.
class Helper : public ::testing::Test {
 protected:
  static void TearDownTestSuite() { helper.Stop(); }
  void SetUp() override {
    if (!helper.Running()) {
      ASSERT_TRUE(Restart()) << helper.error;
    }
    // The orvelctl case works in the helper's folder, which a restart removes.
    fs::current_path(BinDirectory());
    // A helper that no longer answers its stop fails every later case at
    // once, not each after its own time-outs.
    ASSERT_TRUE(answersStop) << "an earlier case found the helper not answering /stop";
    answersStop = Request("POST", "/stop", {}, 10000).status == 200;
    ASSERT_TRUE(answersStop) << "the helper did not answer /stop within 10 s";
    ResetTestRecords();
    ResetUserProxy();
  }
  static bool Restart(CorePlacement core = CorePlacement::kBesideExe, fs::path path = {},
                      bool keepDataDirectory = false, std::vector<std::string> arguments = {}) {
    helper.Stop();
    return helper.Start({core, path, keepDataDirectory, arguments});
  }
  static ScopedHelper helper;
  static inline bool answersStop = true;
};
inline ScopedHelper Helper::helper;

}  // namespace orvel::test
