// Platform pieces of core management and the system proxy that need Windows
// but no running helper: the pipe drain, the data files, registry strings and
// the proxy save/enable/restore cycle against the Wine registry and the
// recording wininet double.
#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

#include "core/core_process_win.h"
#include "support/harness.h"
#include "core/data_files.h"
#include "sysproxy/system_proxy.h"
#include "sysproxy/system_proxy_win.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Absent;
using test::Dword;
using test::ProxyValues;
using test::Text;

struct Pipe {
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  explicit Pipe(DWORD bufferBytes) { CreatePipe(&read, &write, nullptr, bufferBytes); }
  ~Pipe() {
    if (read != nullptr) CloseHandle(read);
    CloseWrite();
  }
  void CloseWrite() {
    if (write != nullptr) CloseHandle(write);
    write = nullptr;
  }
  void Put(const std::string& bytes) {
    DWORD written = 0;
    WriteFile(write, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  }
};

TEST(DrainPipeOutput, TakesWhatIsThereWithoutBlocking) {
  {
    Pipe pipe(65536);
    EXPECT_EQ(DrainPipeOutput(pipe.read), "");  // writer alive, nothing written
    pipe.Put("FATAL one\n");
    EXPECT_EQ(DrainPipeOutput(pipe.read), "FATAL one\n");
  }
  {
    Pipe pipe(65536);
    pipe.CloseWrite();
    EXPECT_EQ(DrainPipeOutput(pipe.read), "");
  }
}

TEST(DrainPipeOutput, StopsAfterTheChunkThatPassesFourKiB) {
  Pipe pipe(65536);
  std::string text;
  for (int i = 0; i < 12000; ++i) text += static_cast<char>('a' + i % 26);
  pipe.Put(text);
  pipe.CloseWrite();
  EXPECT_EQ(DrainPipeOutput(pipe.read), text.substr(0, 8192));
}

class DataFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::temp_directory_path().wstring() + L"orvel-data-files";
    fs::remove_all(root, ec);
  }
  void TearDown() override { fs::remove_all(root, ec); }
  std::wstring root;
  std::error_code ec;
};

TEST_F(DataFiles, CreatesEveryMissingFolder) {
  std::string message = "untouched";
  const std::wstring deep = root + L"\\a\\b\\c";
  EXPECT_TRUE(CreateDirectoryTree(deep, message));
  EXPECT_TRUE(fs::is_directory(deep));
  EXPECT_TRUE(CreateDirectoryTree(deep, message));  // existing is fine
  EXPECT_TRUE(CreateDirectoryTree(root + L"/d/e", message));
  EXPECT_TRUE(fs::is_directory(root + L"\\d\\e"));
  EXPECT_EQ(message, "untouched");
}

TEST_F(DataFiles, WriteReplacesTheWholeFile) {
  fs::create_directories(root);
  const std::wstring path = root + L"\\sing-box.json";
  ASSERT_TRUE(WriteWholeFile(path, "a much longer earlier configuration"));
  const std::string bytes("{}\r\n\0\xFF", 6);
  ASSERT_TRUE(WriteWholeFile(path, bytes));
  EXPECT_EQ(test::ReadFileBytes(path), bytes);
  ASSERT_TRUE(WriteWholeFile(path, ""));
  EXPECT_EQ(fs::file_size(path), 0u);
  fs::create_directories(root + L"\\folder");
  EXPECT_FALSE(WriteWholeFile(root + L"\\folder", "x"));
}

TEST(ReadRegistryString, AcceptsOnlyStringTypes) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\OrvelTest", 0, nullptr, 0,
                            KEY_ALL_ACCESS, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  struct Case {
    const wchar_t* name;
    test::RegValue value;
    std::wstring expected;
  } cases[] = {
      {L"plain", Text(L"host:8080"), L"host:8080"},
      {L"expand", Text(L"%HOST%:1", REG_EXPAND_SZ), L"%HOST%:1"},  // not expanded
      {L"extra zeros", Text(std::wstring(L"ab\0\0\0", 5)), L"ab"},
      {L"unterminated", test::RegValue{REG_SZ, std::string("a\0b\0", 4)}, L"ab"},
      {L"empty", Text(L""), L""},
      {L"number", Dword(1), L""},
      {L"multi", test::RegValue{REG_MULTI_SZ, std::string("a\0\0\0\0\0", 6)}, L""},
      {L"binary", test::RegValue{REG_BINARY, std::string("a\0\0\0", 4)}, L""},
  };
  for (const Case& c : cases) {
    RegSetValueExW(key, c.name, 0, c.value.type,
                   reinterpret_cast<const BYTE*>(c.value.bytes.data()),
                   static_cast<DWORD>(c.value.bytes.size()));
    EXPECT_EQ(ReadRegistryString(key, c.name), c.expected) << test::ToUtf8(c.name);
  }
  EXPECT_EQ(ReadRegistryString(key, L"absent"), L"");
  RegCloseKey(key);
  RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\OrvelTest");
}

// The proxy cycle works on the real per-user key; each test starts and ends
// with nothing saved and nothing set.
class SystemProxy : public ::testing::Test {
 protected:
  void SetUp() override {
    test::ResetTestRecords();
    test::WriteProxyValues(kNothing);
  }
  void TearDown() override {
    test::SetWininetFailing(false);
    std::string ignored;
    RestoreSystemProxy(ignored);
    test::ResetTestRecords();
    test::WriteProxyValues(kNothing);
  }
  const ProxyValues kNothing{Absent(), Absent(), Absent()};
  const ProxyValues kUser{Dword(1), Text(L"user:3128"), Text(L"*.lan")};
};

TEST_F(SystemProxy, EnableTwiceThenRestoreOnceBringsBackTheFirstValues) {
  test::WriteProxyValues(kUser);
  std::string message = "untouched";
  ASSERT_TRUE(EnableSystemProxy(2080, message));
  EXPECT_EQ(test::ReadProxyValues(), test::HelperProxyValues(2080));
  ASSERT_TRUE(EnableSystemProxy(3000, message));
  EXPECT_EQ(test::ReadProxyValues(), test::HelperProxyValues(3000));
  ASSERT_TRUE(RestoreSystemProxy(message));
  EXPECT_EQ(test::ReadProxyValues(), kUser);
  EXPECT_EQ(test::ReadWininetCalls(), "39\n37\n39\n37\n39\n37\n");
  EXPECT_EQ(message, "untouched");
}

TEST_F(SystemProxy, RestoreWithNothingSavedTouchesNothing) {
  test::WriteProxyValues(kUser);
  std::string message = "untouched";
  EXPECT_TRUE(RestoreSystemProxy(message));
  EXPECT_EQ(test::ReadProxyValues(), kUser);
  EXPECT_EQ(test::ReadWininetCalls(), "");
  EXPECT_EQ(message, "untouched");
}

TEST_F(SystemProxy, FailedAnnouncementsKeepTheSnapshot) {
  test::WriteProxyValues(kUser);
  test::SetWininetFailing(true);
  std::string message;
  EXPECT_FALSE(EnableSystemProxy(2080, message));
  EXPECT_EQ(message, "Failed to enable Windows system proxy");
  // The writes made before the failure stay until a restore.
  EXPECT_EQ(test::ReadProxyValues(), test::HelperProxyValues(2080));
  EXPECT_FALSE(RestoreSystemProxy(message));
  EXPECT_EQ(message, "Failed to restore Windows system proxy");
  EXPECT_EQ(test::ReadProxyValues(), kUser);
  // Refresh is never tried after a failed "settings changed".
  EXPECT_EQ(test::ReadWininetCalls(), "39\n39\n");

  test::SetWininetFailing(false);
  test::WriteProxyValues(kNothing);  // a restore that works writes the snapshot again
  EXPECT_TRUE(RestoreSystemProxy(message));
  EXPECT_EQ(test::ReadProxyValues(), kUser);
  EXPECT_TRUE(NotifyProxySettingsChanged());
  EXPECT_EQ(test::ReadWininetCalls(), "39\n39\n39\n37\n39\n37\n");
}

}  // namespace
}  // namespace orvel
