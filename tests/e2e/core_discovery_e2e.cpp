// Where the helper looks for sing-box.exe, in order: beside its own exe, in
// the "data" folder beside the exe, then the system search (PATH); and what
// the client hears when there is none, or when the file found is no program.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/helper_process.h"
#include "support/http_client.h"
#include "support/proxy_registry.h"

namespace orvel::test {
namespace {

namespace fs = std::filesystem;

const std::string kTunConfig = "{\"inbounds\":[{\"type\":\"tun\",\"tag\":\"tun-in\"}]}";

std::string StartTun() { return Request("POST", "/start-tun", kTunConfig).body; }

std::string FailureBody(std::string_view message) {
  return "{\"status\":\"disconnected\",\"platform\":\"windows\",\"message\":\"" +
         std::string(message) + "\"}";
}

// The executable part of the command line the core double was started with.
std::string LaunchedExe() {
  const std::string commandLine = ReadCoreInvocation()["commandLine"];
  const std::size_t close = commandLine.find('"', 1);
  if (commandLine.empty() || commandLine[0] != '"' || close == std::string::npos) return {};
  return commandLine.substr(1, close - 1);
}

class CoreDiscovery : public ::testing::Test {
 protected:
  void SetUp() override { ResetTestRecords(); }
  void TearDown() override {
    helper.Stop();
    ResetTestRecords();
  }
  ScopedHelper helper;
};

TEST_F(CoreDiscovery, SearchOrderIsBesideExeThenDataFolderThenPath) {
  const std::string connected =
      "{\"status\":\"connected\",\"platform\":\"windows\",\"message\":\"Windows TUN helper "
      "connected\"}";
  struct Case {
    const char* name;
    CorePlacement placement;
    bool alsoInDataFolder;
    bool alsoOnPath;
    std::wstring expectedRelative;  // to the helper's folder; "" means the PATH copy
  } cases[] = {
      {"beside wins over data", CorePlacement::kBesideExe, true, true, L"\\sing-box.exe"},
      {"data folder when alone", CorePlacement::kDataSubfolder, false, false,
       L"\\data\\sing-box.exe"},
      {"data folder wins over PATH", CorePlacement::kDataSubfolder, false, true,
       L"\\data\\sing-box.exe"},
      {"PATH last", CorePlacement::kNone, false, true, L""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ResetTestRecords();
    HelperOptions options;
    options.core = c.placement;
    if (c.alsoOnPath) options.extraPath = DoublesDirectory();
    ASSERT_TRUE(helper.Start(options)) << helper.error;
    if (c.alsoInDataFolder) {
      fs::create_directories(helper.directory + L"\\data");
      fs::copy_file(DoublesDirectory() + L"\\sing-box.exe",
                    helper.directory + L"\\data\\sing-box.exe");
    }
    EXPECT_EQ(StartTun(), connected);
    const std::wstring expected = c.expectedRelative.empty()
                                      ? DoublesDirectory() + L"\\sing-box.exe"
                                      : helper.directory + c.expectedRelative;
    EXPECT_EQ(LaunchedExe(), ToUtf8(expected));
    helper.Stop();
  }
}

TEST_F(CoreDiscovery, NoCoreAnywhereIsReportedAndLogged) {
  ASSERT_TRUE(helper.Start(CorePlacement::kNone)) << helper.error;
  const std::string message =
      "sing-box.exe not found; place it next to the app exe or in the data directory";
  EXPECT_EQ(StartTun(), FailureBody(message));
  EXPECT_EQ(Request("POST", "/start", kTunConfig).body, FailureBody(message));
  EXPECT_NE(Request("GET", "/logs").body.find("] " + message + "\r\n"), std::string::npos);
  // The configuration is written before the search.
  EXPECT_EQ(ReadFileBytes(HelperDataDirectory() + L"\\sing-box.json"), kTunConfig);
  // A proxy-mode refusal leaves the user's settings alone.
  EXPECT_EQ(ReadWininetCalls(), "");
}

TEST_F(CoreDiscovery, AFolderNamedLikeTheCoreIsFoundButCannotStart) {
  ASSERT_TRUE(helper.Start(CorePlacement::kNone)) << helper.error;
  fs::create_directories(helper.directory + L"\\sing-box.exe");
  EXPECT_EQ(StartTun(), FailureBody("Failed to start sing-box.exe: 5"));
  EXPECT_EQ(CountProcessesNamed(L"sing-box.exe"), 0);
}

}  // namespace
}  // namespace orvel::test
