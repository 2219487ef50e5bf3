#pragma once

// The Linux part of the harness (included by harness.h): a real
// orvel-vpn-helper started with fork and exec in a folder of its own, with an
// environment the test controls (data, runtime and record directories inside
// the build tree, never the user's own), and the core doubles of this build
// tree found in /proc.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <tuple>

namespace orvel::test {

inline std::string PathText(const fs::path& path) { return path.string(); }

// build/linux/bin: the tests, orvel-vpn-helper and orvelctl.
inline fs::path BinDirectory() { return fs::read_symlink("/proc/self/exe").parent_path(); }
// build/linux/bin/doubles: the core double.
inline fs::path DoublesDirectory() { return BinDirectory() / "doubles"; }
// Everything a test run writes, and the environment every helper, orvelctl and
// core double of the run inherits (set once, before main). XDG_RUNTIME_DIR
// and XDG_CONFIG_HOME are kept when given: the session bus and dconf must see
// the same ones as the helper (tests/CMakeLists.txt sets both in the build
// tree before it starts the session bus).
inline fs::path WorkDirectory() { return BinDirectory() / "e2e-work"; }
inline const bool kTestEnvironmentSet = [] {
  setenv("XDG_DATA_HOME", (WorkDirectory() / "data").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (WorkDirectory() / "runtime").c_str(), 0);
  setenv("ORVEL_TEST_RECORDS", (WorkDirectory() / "records").c_str(), 1);
  std::error_code ignored;
  fs::create_directories(WorkDirectory() / "runtime", ignored);
  return true;
}();

inline fs::path HelperDataDirectory() { return WorkDirectory() / "data" / "OrvelVPN"; }
inline fs::path RecordPath(std::string_view name) { return WorkDirectory() / "records" / name; }

// Each running (not zombie) core double of this build tree: other build trees
// on the machine may be running tests of their own.
template <typename Visit>
void ForEachCore(Visit visit) {
  const std::string tree = BinDirectory().string() + "/";
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code gone;
    const fs::path exe = fs::read_symlink(entry.path() / "exe", gone);
    if (gone || exe.filename() != "sing-box" || !exe.string().starts_with(tree)) continue;
    visit(static_cast<pid_t>(std::stoi(name)));
  }
}

inline int CountCores() {
  int count = 0;
  ForEachCore([&](pid_t) { ++count; });
  return count;
}

// SIGKILL to every core double, as the out-of-memory killer would; the helper
// reports such an end as kKilledCoreEnd.
inline void KillCores() {
  ForEachCore([](pid_t pid) { kill(pid, SIGKILL); });
}
inline constexpr std::string_view kKilledCoreEnd = "(signal 9)";

// Starts `exe` with `arguments` in `directory`, output to `out` and `err`
// (or /dev/null), no other descriptor of ours; its pid, or -1.
// With `dieWithTest`, the program is killed when the test process ends, however
// it ends: a failed run must never leave a helper holding port 17891, which
// fails every later run. Call it so only from the main thread (the death
// signal follows the thread that forked).
inline pid_t StartProgram(const fs::path& exe, const std::vector<std::string>& arguments,
                          const fs::path& directory, const fs::path& out = "/dev/null",
                          const fs::path& err = "/dev/null", bool dieWithTest = false) {
  std::vector<std::string> strings{exe.string()};
  strings.insert(strings.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (dieWithTest && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)) _exit(125);
  const int input = open("/dev/null", O_RDONLY);
  const int output = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int errors = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (input < 0 || output < 0 || errors < 0 || dup2(input, 0) < 0 || dup2(output, 1) < 0 ||
      dup2(errors, 2) < 0 || chdir(directory.c_str()) != 0) {
    _exit(126);
  }
  syscall(SYS_close_range, 3U, ~0U, 0U);
  execv(exe.c_str(), argv.data());
  _exit(127);
}

// The exit code of a child that has ended (128 + the signal that ended it),
// or -1 when it has not ended within `timeoutMs`.
inline int WaitForExit(pid_t pid, unsigned timeoutMs) {
  const std::uint64_t deadline = NowMs() + timeoutMs;
  for (;;) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    if (NowMs() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

struct ScopedHelper {
  pid_t pid = -1;
  fs::path directory;  // the folder of this helper's executable
  std::string error;   // why Start failed

  ScopedHelper() = default;
  ScopedHelper(const ScopedHelper&) = delete;
  ScopedHelper& operator=(const ScopedHelper&) = delete;
  ~ScopedHelper() { Stop(); }

  fs::path ExePath() const { return directory / "orvel-vpn-helper"; }
  std::uint32_t Pid() const { return static_cast<std::uint32_t>(pid); }

  // Copies the helper (and the core double as asked) into a fresh folder,
  // starts it and waits until "/ping" answers.
  bool Start(const HelperOptions& options = {}) {
    KillCores();
    if (client::ClientSocket taken; ConnectToHelper(taken)) {
      error = "port 17891 is already in use by another process; end it before running this test";
      return false;
    }
    directory = WorkDirectory() / fs::read_symlink("/proc/self/exe").filename();
    std::error_code ec;
    fs::remove_all(directory, ec);
    fs::create_directories(directory);
    fs::copy_file(BinDirectory() / "orvel-vpn-helper", ExePath());
    if (options.core == CorePlacement::kBesideExe) {
      fs::copy_file(DoublesDirectory() / "sing-box", directory / "sing-box");
    }
    if (!options.keepDataDirectory) fs::remove_all(HelperDataDirectory(), ec);
    fs::create_directories(RecordPath(""), ec);
    // The helper inherits our environment; PATH decides the last search step.
    const std::string oldPath = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
    if (!options.extraPath.empty()) {
      setenv("PATH", (options.extraPath.string() + ":" + oldPath).c_str(), 1);
    }
    pid = StartProgram(ExePath(), options.arguments, directory, "/dev/null", "/dev/null", true);
    setenv("PATH", oldPath.c_str(), 1);
    return WaitForFirstPong([this] { return Running(); }, error);
  }
  // Ends the helper and every core double; safe to call twice.
  void Stop() {
    Kill();
    KillCores();
  }
  // SIGKILL to the helper alone, as a crash would; its children are left to
  // what the helper arranged for them.
  void Kill() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    WaitForExit(pid, 10000);
    pid = -1;
  }
  // `signal` to the helper; its exit code, or -1 when it did not end in 10 s.
  int EndWith(int signal) {
    kill(pid, signal);
    const int code = WaitForExit(pid, 10000);
    if (code >= 0) pid = -1;
    return code;
  }
  bool Running() const {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, WNOHANG) == 0;
  }
};

// Runs `exePath` with `arguments` and waits up to 30 s: its exit code (255
// when it did not start), stdout and stderr. With `interruptAfterFetches`,
// sends SIGINT once that many test processes have started, as a person's
// Ctrl-C would.
inline std::tuple<std::uint32_t, std::string, std::string> RunProgram(
    const fs::path& exePath, const std::vector<std::string>& arguments,
    std::size_t interruptAfterFetches = 0) {
  const fs::path out = WorkDirectory() / "run-out.txt";
  const fs::path err = WorkDirectory() / "run-err.txt";
  const pid_t pid = StartProgram(exePath, arguments, fs::current_path(), out, err);
  if (interruptAfterFetches > 0 && WaitForFetchRecords(interruptAfterFetches, 15000).size() > 0) {
    kill(pid, SIGINT);
  }
  int code = WaitForExit(pid, 30000);
  if (code < 0) {
    kill(pid, SIGKILL);
    code = WaitForExit(pid, 10000);
  }
  return std::tuple{static_cast<std::uint32_t>(code), ReadFileBytes(out), ReadFileBytes(err)};
}

// An IPv4 address (host byte order) and port, ready for bind or connect.
struct Ipv4 {
  sockaddr_in address{};
  Ipv4(std::uint32_t host, std::uint16_t port) {
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(port);
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  static constexpr socklen_t size = sizeof(sockaddr_in);
};

// Connects from 127.0.0.2, so that the helper's end of the connection is an
// established endpoint that a snapshot lists (127.0.0.1 is left out).
inline bool ConnectToHelperFrom127002(client::ClientSocket& s) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  s.handle = static_cast<client::SocketHandle>(fd);
  return bind(fd, Ipv4(0x7F000002, 0).get(), Ipv4::size) == 0 &&
         connect(fd, Ipv4(INADDR_LOOPBACK, kHelperPort).get(), Ipv4::size) == 0;
}

// How many threads `pid` has now.
inline int CountThreads(std::uint32_t pid) {
  std::error_code ec;
  int count = 0;
  for ([[maybe_unused]] const auto& task :
       fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    ++count;
  }
  return count;
}

// What the core double records as its command line: the program and each
// argument apart (the helper quotes nothing: each value is an argument).
inline std::string CoreRunCommandLine(const fs::path& exe, const fs::path& config) {
  return exe.string() + "\x1frun\x1f-c\x1f" + config.string();
}
inline std::string FetchCommandLine(const fs::path& exe, const std::string& config,
                                    const std::string& tag, std::string_view url) {
  return exe.string() + "\x1f--disable-color\x1f-c\x1f" + config + "\x1ftools\x1f-o\x1f" + tag +
         "\x1f" + "fetch\x1f" + std::string(url);
}

constexpr const char* kCoreFileName = "sing-box";
constexpr const char* kOrvelctlFileName = "orvelctl";
// errno for a core that is a directory (EACCES), and for a file that cannot
// be created because a directory has its name (EISDIR).
constexpr const char* kCoreIsDirectoryError = "13";
constexpr const char* kFileIsDirectoryError = "21";
// The call that fails then, as the log names it.
constexpr const char* kWriteFileCall = "open";

}  // namespace orvel::test
