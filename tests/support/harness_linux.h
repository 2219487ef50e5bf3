#pragma once

// The Linux part of the harness (included by harness.h): an environment the
// test controls (data, runtime and record directories inside the build tree,
// never the user's own), the core doubles of this build tree found in /proc,
// and children that run as another account.

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <tuple>

namespace orvel::test {

inline std::string PathText(const fs::path& path) { return path.string(); }

// This test program, in build/linux/bin with orvel-vpn-helper and orvelctl.
inline fs::path SelfPath() { return fs::read_symlink("/proc/self/exe"); }
inline fs::path BinDirectory() { return SelfPath().parent_path(); }
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

inline std::string PathVariable() { return std::getenv("PATH"); }
inline void SetPathVariable(const std::string& value) { setenv("PATH", value.c_str(), 1); }
constexpr char kPathListSeparator = ':';
inline void PrepareHelperStart() {}

inline fs::path HelperDataDirectory() { return WorkDirectory() / "data" / "OrvelVPN"; }
inline fs::path RecordPath(std::string_view name) { return WorkDirectory() / "records" / name; }

// Sends `signal` (0: none) to each running (not zombie) core double of this
// build tree, never another tree's, which may be running tests of its own;
// how many there are.
inline int SignalCores(int signal) {
  const std::string tree = BinDirectory().string() + "/";
  int count = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    std::error_code gone;  // a zombie's link, or a process that ended
    const fs::path exe = fs::read_symlink(entry.path() / "exe", gone);
    if (gone || exe.filename() != "sing-box" || !exe.string().starts_with(tree)) continue;
    kill(std::stoi(entry.path().filename().string()), signal);
    ++count;
  }
  return count;
}
inline int CountCores() { return SignalCores(0); }
// SIGKILL to every core double, as the out-of-memory killer would; the helper
// reports such an end as kKilledCoreEnd.
inline void KillCores() { SignalCores(SIGKILL); }
inline constexpr std::string_view kKilledCoreEnd = "(signal 9)";

// Drops every group but `gid` and becomes `uid`, or ends with exit code 1:
// for a child only.
inline void BecomeAccount(uid_t uid, gid_t gid) {
  if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(1);
}

// Starts `exe` with `arguments` in `directory`, output to `out` and `err`,
// no other descriptor of ours, after `inChild` (run in the child first, to
// become another account or change the environment); its pid, or -1.
// With `dieWithTest`, the program is killed when the test process ends, however
// it ends: a failed run must never leave a helper holding port 17891, which
// fails every later run. Call it so only from the main thread (the death
// signal follows the thread that forked).
inline pid_t StartProgram(const fs::path& exe, std::vector<std::string> arguments,
                          const fs::path& directory, const fs::path& out = "/dev/null",
                          const fs::path& err = "/dev/null", bool dieWithTest = false,
                          const std::function<void()>& inChild = {}) {
  arguments.insert(arguments.begin(), exe.string());
  std::vector<char*> argv;
  for (std::string& s : arguments) argv.push_back(s.data());
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (inChild) inChild();  // before the death signal, which a change of account clears
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
    if (waitpid(pid, &status, WNOHANG) == pid)
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (NowMs() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// The pid behind a pidfd (its fdinfo names it).
inline std::uint32_t ChildPid(ChildHandle process) {
  const std::string info = ReadFileBytes("/proc/self/fdinfo/" + std::to_string(process));
  const std::size_t at = info.find("\nPid:\t");
  return at == std::string::npos ? 0 : std::stoul(info.substr(at + 6));
}

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
  if (interruptAfterFetches > 0 && WaitForFetchRecords(interruptAfterFetches, 15000).size() > 0)
    kill(pid, SIGINT);
  int code = WaitForExit(pid, 30000);
  if (code < 0 && kill(pid, SIGKILL) == 0) code = WaitForExit(pid, 10000);
  return std::tuple{static_cast<std::uint32_t>(code), ReadFileBytes(out), ReadFileBytes(err)};
}

// Runs `work` in a child that has become `uid` (primary group `gid`, no
// others) and returns the text it returned; the child ends after `holdMs`,
// keeping whatever it opened until then. A child that sends nothing for a
// minute (a helper that never answers) is killed rather than holding the
// suite to its CTest limit.
template <typename Work>
std::string RunAs(uid_t uid, gid_t gid, Work work, unsigned holdMs = 0) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return "socketpair failed";
  const pid_t pid = fork();
  if (pid == 0) {
    // A copy of the test runner: it must never go on with the tests.
    BecomeAccount(uid, gid);
    std::string result;
    try {
      result = work();
    } catch (...) {
    }
    [[maybe_unused]] const ssize_t written = write(ends[1], result.data(), result.size());
    close(ends[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
    _exit(0);
  }
  close(ends[1]);
  client::ClientSocket from;
  from.handle = ends[0];
  std::string result = ReadToEnd(from, nullptr, 60000);
  if (WaitForExit(pid, holdMs + 10000) < 0 && kill(pid, SIGKILL) == 0)
    result += " (killed: no end in time, exit " + std::to_string(WaitForExit(pid, 10000)) + ")";
  return result;
}

// A child process that opens sockets with `open` and holds them until the
// guard goes; the guard waits for it to be ready first.
struct SocketHolder {
  pid_t pid = -1;
  template <typename Open>
  explicit SocketHolder(Open open) {
    int ready[2];
    if (pipe(ready) != 0) return;
    if ((pid = fork()) == 0) {
      open();
      [[maybe_unused]] const ssize_t written = write(ready[1], "r", 1);
      pause();  // until the guard's SIGKILL
    }
    close(ready[1]);
    char byte;  // or end-of-file, from a child that died first
    [[maybe_unused]] const ssize_t got = read(ready[0], &byte, 1);
    close(ready[0]);
  }
  ~SocketHolder() {
    kill(pid, SIGKILL);
    WaitForExit(pid, 10000);
  }
  SocketHolder(const SocketHolder&) = delete;
  SocketHolder& operator=(const SocketHolder&) = delete;
};

// An IPv4 address (host byte order) and port, ready for bind or connect.
struct Ipv4 {
  sockaddr_in address;
  Ipv4(std::uint32_t host, std::uint16_t port) : address{AF_INET, htons(port), {htonl(host)}, {}} {}
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  static constexpr socklen_t size = sizeof(sockaddr_in);
};

// Connects to the helper over a new socket `prepare`d first.
inline bool ConnectToHelperVia(client::ClientSocket& s, bool (*prepare)(int fd)) {
  s.handle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int fd = static_cast<int>(s.handle);
  return prepare(fd) && connect(fd, Ipv4(INADDR_LOOPBACK, kHelperPort).get(), Ipv4::size) == 0;
}
// A request over a socket bound to the loopback device, which the kernel
// finds only when asked for that device; the answer to its end.
inline std::string ExchangeBoundToLoopback(std::string_view request) {
  client::ClientSocket s;
  return ConnectToHelperVia(
             s, [](int fd) { return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3) == 0; }) &&
                 client::SendAllBytes(s, request)
             ? ReadToEnd(s)
             : "";
}

// How many threads `pid` has now.
inline int CountThreads(std::uint32_t pid) {
  std::error_code ec;
  const fs::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", ec);
  return static_cast<int>(std::distance(tasks, fs::directory_iterator()));
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

constexpr const char* kHelperFileName = "orvel-vpn-helper";
constexpr const char* kCoreFileName = "sing-box";
constexpr const char* kOrvelctlFileName = "orvelctl";
// errno for a core that is a directory (EACCES), and for a file that cannot
// be created because a directory has its name (EISDIR).
constexpr const char* kCoreIsDirectoryError = "13";
constexpr const char* kFileIsDirectoryError = "21";
// The call that fails then, as the log names it.
constexpr const char* kWriteFileCall = "open";

}  // namespace orvel::test
