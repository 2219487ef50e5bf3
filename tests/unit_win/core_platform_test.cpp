// Platform pieces of core management and the system proxy that need Windows
// but no running helper: the pipe drain, the data files, registry strings and
// the proxy save/enable/restore cycle against the Wine registry and the
// recording wininet double.
#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

#include "core/core_process_win.h"
#include "core/data_files.h"
#include "support/harness.h"
#include "sysproxy/system_proxy.h"
#include "sysproxy/system_proxy_win.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using test::Dword;
using test::RegValue;
using test::Text;

TEST(DrainPipeOutput, TakesWhatIsThereUpToTheChunkPastFourKiBWithoutWaiting) {
  std::string text;
  for (int i = 0; i < 12000; ++i) text += static_cast<char>('a' + i % 26);
  const struct {
    std::string written;
    bool writerOpen;
    std::string drained;
  } cases[] = {
      {"", true, ""},  // nothing there yet: no wait for the writer
      {"FATAL one\n", true, "FATAL one\n"},
      {text, false, text.substr(0, 8192)},
  };
  for (const auto& c : cases) {
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 65536));
    DWORD written = 0;
    if (!c.written.empty()) WriteFile(write, c.written.data(), c.written.size(), &written, nullptr);
    if (!c.writerOpen) CloseHandle(write);
    EXPECT_EQ(DrainPipeOutput(read), c.drained);
    if (c.writerOpen) CloseHandle(write);
    CloseHandle(read);
  }
}

TEST(DataFiles, CreatesEveryMissingFolderAndReplacesWholeFiles) {
  const std::wstring root = fs::temp_directory_path().wstring() + L"orvel-data-files";
  std::error_code ec;
  fs::remove_all(root, ec);
  std::string message = "untouched";
  for (const std::wstring& folder : {root + L"\\a\\b", root + L"\\a\\b", root + L"/c/d"}) {
    EXPECT_TRUE(CreateDirectoryTree(folder, message));  // existing is fine
    EXPECT_TRUE(fs::is_directory(folder));
  }
  EXPECT_EQ(message, "untouched");
  const std::wstring path = root + L"\\sing-box.json";
  for (const std::string& bytes : {std::string(40, 'a'), std::string("{}\r\n\0\xFF", 6)}) {
    ASSERT_TRUE(WriteWholeFile(path, bytes));
    EXPECT_EQ(test::ReadFileBytes(path), bytes);
  }
  ASSERT_TRUE(WriteWholeFile(path, ""));
  EXPECT_EQ(fs::file_size(path), 0u);
  EXPECT_FALSE(WriteWholeFile(root + L"\\a", "x"));  // a folder
  fs::remove_all(root, ec);
}

TEST(ReadRegistryString, AcceptsOnlyStringTypes) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\OrvelTest", 0, nullptr, 0,
                            KEY_ALL_ACCESS, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  const struct {
    const wchar_t* name;
    RegValue value;
    std::wstring expected;
  } cases[] = {
      {L"plain", Text(L"host:8080"), L"host:8080"},
      {L"expand", Text(L"%HOST%:1", REG_EXPAND_SZ), L"%HOST%:1"},  // not expanded
      {L"extra zeros", Text(std::wstring(L"ab\0\0\0", 5)), L"ab"},
      {L"unterminated", RegValue{REG_SZ, std::string("a\0b\0", 4)}, L"ab"},
      {L"empty", Text(L""), L""},
      {L"number", Dword(1), L""},
      {L"multi", RegValue{REG_MULTI_SZ, std::string("a\0\0\0\0\0", 6)}, L""},
      {L"binary", RegValue{REG_BINARY, std::string("a\0\0\0", 4)}, L""},
      {L"absent", test::Absent(), L""},
  };
  for (const auto& c : cases) {
    if (c.value.type != REG_NONE) {
      RegSetValueExW(key, c.name, 0, c.value.type,
                     reinterpret_cast<const BYTE*>(c.value.bytes.data()),
                     static_cast<DWORD>(c.value.bytes.size()));
    }
    EXPECT_EQ(ReadRegistryString(key, c.name), c.expected) << test::ToUtf8(c.name);
  }
  RegCloseKey(key);
  RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\OrvelTest");
}

// The cycle works on the real per-user key and ends with nothing saved and
// nothing set.
TEST(SystemProxy, SavesOnceRestoresTheFirstValuesAndKeepsThemAfterFailures) {
  const test::ProxyValues nothing{test::Absent(), test::Absent(), test::Absent()};
  const test::ProxyValues user{Dword(1), Text(L"user:3128"), Text(L"*.lan")};
  test::ResetTestRecords();
  test::WriteProxyValues(user);
  std::string message = "untouched";
  EXPECT_TRUE(RestoreSystemProxy(message));  // nothing saved: nothing touched
  ASSERT_TRUE(EnableSystemProxy(2080, message));
  EXPECT_EQ(test::ReadProxyValues(), test::HelperProxyValues(2080));
  ASSERT_TRUE(EnableSystemProxy(3000, message));
  EXPECT_EQ(test::ReadProxyValues(), test::HelperProxyValues(3000));
  ASSERT_TRUE(RestoreSystemProxy(message));
  EXPECT_EQ(test::ReadProxyValues(), user);
  EXPECT_EQ(test::ReadWininetCalls(), "39\n37\n39\n37\n39\n37\n");  // changed, then refresh
  EXPECT_EQ(message, "untouched");

  test::ResetTestRecords();
  test::SetWininetFailing(true);
  EXPECT_FALSE(EnableSystemProxy(2080, message));
  EXPECT_EQ(message, "Failed to enable Windows system proxy");
  // The writes made before the failure stay until a restore.
  EXPECT_EQ(test::ReadProxyValues(), test::HelperProxyValues(2080));
  EXPECT_FALSE(RestoreSystemProxy(message));
  EXPECT_EQ(message, "Failed to restore Windows system proxy");
  EXPECT_EQ(test::ReadProxyValues(), user);
  test::SetWininetFailing(false);
  test::WriteProxyValues(nothing);  // the snapshot is kept: a working restore writes it again
  EXPECT_TRUE(RestoreSystemProxy(message));
  EXPECT_EQ(test::ReadProxyValues(), user);
  // Never a refresh after a failed "settings changed".
  EXPECT_EQ(test::ReadWininetCalls(), "39\n39\n39\n37\n");
  test::ResetTestRecords();
  test::WriteProxyValues(nothing);
}

}  // namespace
}  // namespace orvel
