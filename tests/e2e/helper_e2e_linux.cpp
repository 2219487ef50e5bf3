// What only the Linux build has, against the real kernel: the signals that
// stop the helper, children that never outlive it nor hold a client's
// connection, the data directory of each run mode, and who may use the helper
// (real accounts, made here and removed in every outcome) and how many
// connections it holds.
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <sstream>

#include "e2e/helper_e2e.h"
#include "entry/run_mode_arguments.h"
#include "version.h"

namespace orvel::test {

// The desktop's proxy settings as the session's gsettings program sees them.
std::string Gsettings(std::vector<std::string> arguments) {
  return std::get<1>(RunProgram("/usr/bin/gsettings", arguments));
}
std::string ProxySettings() { return Gsettings({"list-recursively", "org.gnome.system.proxy"}); }
void ResetUserProxy() {
  for (const char* schema : {"org.gnome.system.proxy", "org.gnome.system.proxy.http",
                             "org.gnome.system.proxy.https", "org.gnome.system.proxy.socks"}) {
    Gsettings({"reset-recursively", schema});
  }
}
// A company proxy with its own bypass list.
void SetUserProxy() {
  Gsettings({"set", "org.gnome.system.proxy", "mode", "manual"});
  Gsettings({"set", "org.gnome.system.proxy", "ignore-hosts", "['*.corp.example', 'localhost']"});
  Gsettings({"set", "org.gnome.system.proxy.http", "host", "corp-proxy.example"});
  Gsettings({"set", "org.gnome.system.proxy.http", "port", "8080"});
}
void ExpectUserProxyUntouched() {
  const std::string settings = ProxySettings();
  EXPECT_NE(settings.find("org.gnome.system.proxy mode 'manual'\n"), std::string::npos);
  EXPECT_NE(settings.find("org.gnome.system.proxy.http host 'corp-proxy.example'\n"),
            std::string::npos);
  EXPECT_NE(settings.find("org.gnome.system.proxy.http port 8080\n"), std::string::npos);
}
const bool kListsSocketOwners = true;

std::thread ServeOneAnswer(unsigned short port, std::string answer) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bind(listener, Ipv4(INADDR_LOOPBACK, port).get(), Ipv4::size);
  listen(listener, 1);
  return std::thread([listener, answer] {
    pollfd waiting{listener, POLLIN, 0};
    const int peer = poll(&waiting, 1, 30000) == 1 ? accept(listener, nullptr, nullptr) : -1;
    const timeval bound{30, 0};
    setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
    char request[4096];
    recv(peer, request, sizeof(request), 0);
    send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
    close(peer);
    close(listener);
  });
}

// SIGINT goes to the program's own pid; the test runner never sees it.
void PrepareToInterruptChildren() {}

namespace {

// Runs `work` in a child that has become `uid` (primary group `gid`, no
// others) and returns what it wrote to its pipe; the child ends after
// `holdMs`, keeping whatever it opened until then.
template <typename Work>
std::string RunAs(uid_t uid, gid_t gid, Work work, unsigned holdMs = 0) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(ends[0]);
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(1);
    // A copy of the test runner: it must never go on with the tests.
    std::string result;
    try {
      result = work();
    } catch (...) {
      _exit(1);
    }
    [[maybe_unused]] const ssize_t written = write(ends[1], result.data(), result.size());
    close(ends[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
    _exit(0);
  }
  close(ends[1]);
  // A child stuck in `work` (a helper that never answers) is killed after a
  // minute rather than holding the suite to its CTest limit.
  const std::uint64_t deadline = NowMs() + holdMs + 60000;
  std::string result;
  char chunk[4096];
  for (pollfd readable{ends[0], POLLIN, 0}; NowMs() < deadline;) {
    if (poll(&readable, 1, 100) <= 0) continue;
    const ssize_t got = read(ends[0], chunk, sizeof(chunk));
    if (got <= 0) break;
    result.append(chunk, got);
  }
  close(ends[0]);
  if (WaitForExit(pid, static_cast<unsigned>(deadline > NowMs() ? deadline - NowMs() : 0)) < 0) {
    kill(pid, SIGKILL);
    WaitForExit(pid, 10000);
    result += " (killed: no end within " + std::to_string(holdMs + 60000) + " ms)";
  }
  return result;
}

// A throwaway system account, removed with its group (when it made one) in
// every outcome.
struct Account {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  explicit Account(std::string accountName) : name(std::move(accountName)) {
    std::system(("userdel " + name + " >/dev/null 2>&1; useradd --system --no-create-home " +
                 "--user-group " + name + " >/dev/null 2>&1")
                    .c_str());
    if (const passwd* entry = getpwnam(name.c_str())) {
      uid = entry->pw_uid;
      gid = entry->pw_gid;
    }
  }
  ~Account() { std::system(("userdel " + name + " >/dev/null 2>&1").c_str()); }
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;
};

// Silent connections held open by this process.
std::vector<client::ClientSocket> OpenSilent(int count) {
  std::vector<client::ClientSocket> sockets(count);
  for (client::ClientSocket& s : sockets) ConnectToHelper(s);
  return sockets;
}

// Whether the helper closed `s` within `ms` without a byte.
bool ClosedWithoutAnswer(const client::ClientSocket& s, int ms) {
  char byte;
  return client::ReceiveSome(s, &byte, 1, ms) == client::kReceiveClosed;
}

// A child process that opens sockets with `open` and holds them until the
// returned guard goes; the guard waits for it to be ready first.
struct SocketHolder {
  pid_t pid = -1;
  int release = -1;
  template <typename Open>
  explicit SocketHolder(Open open) {
    int ready[2], hold[2];
    if (pipe(ready) != 0 || pipe(hold) != 0) return;
    pid = fork();
    if (pid == 0) {
      close(ready[0]);
      close(hold[1]);
      open();
      [[maybe_unused]] const ssize_t written = write(ready[1], "r", 1);
      char byte;
      [[maybe_unused]] const ssize_t got = read(hold[0], &byte, 1);  // until the parent lets go
      _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    pollfd readable{ready[0], POLLIN, 0};
    poll(&readable, 1, 60000);  // a child that never gets ready is ended with its guard
    close(ready[0]);
    release = hold[1];
  }
  ~SocketHolder() {
    close(release);
    if (WaitForExit(pid, 10000) >= 0) return;
    kill(pid, SIGKILL);
    WaitForExit(pid, 10000);
  }
  SocketHolder(const SocketHolder&) = delete;
  SocketHolder& operator=(const SocketHolder&) = delete;
};

// A socket of `type` on `bind` (127.0.0.2), connected to 127.0.0.2:`peer`
// when that is not 0; left open for the process's life.
void OpenSocket(int type, std::uint16_t bindPort, std::uint16_t peer) {
  const int s = socket(AF_INET, type, 0);
  if (peer == 0) bind(s, Ipv4(0x7F000002, bindPort).get(), Ipv4::size);
  if (peer != 0) connect(s, Ipv4(0x7F000002, peer).get(), Ipv4::size);
}

// Whether every account may enter "/": not so in a root that mktemp made
// (0700), where no other account can run anything at all.
bool OthersMayEnterTheRoot() {
  struct stat root {};
  return stat("/", &root) == 0 && (root.st_mode & S_IXOTH) != 0;
}

// A copy of the helper in a fresh folder under /tmp that every account may
// enter: the build tree may lie in root's own home, closed to the others.
fs::path CopyForAnyAccount() {
  char folder[] = "/tmp/orvel-e2e-user-XXXXXX";
  if (mkdtemp(folder) == nullptr) return {};
  fs::permissions(folder, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
  const fs::path exe = fs::path(folder) / "orvel-vpn-helper";
  fs::copy_file(BinDirectory() / "orvel-vpn-helper", exe);
  return exe;
}

// A process's resident memory in KiB; 0 under AddressSanitizer, which keeps
// freed memory in quarantine, so that a bound on it says nothing there.
std::uint64_t ResidentKib(pid_t pid) {
  if (std::getenv("ASAN_OPTIONS") != nullptr) return 0;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

// Sends `request` to HOST:PORT and reads the answer to its end.
std::string ExchangeAt(const char* where, const std::string& request) {
  client::ClientAddress address;
  std::string unused;
  client::ClientSocket s;
  if (!client::ParseAddress(where, address, unused) || !client::ConnectTo(address, s) ||
      !client::SendAllBytes(s, request)) {
    return "not sent";
  }
  return ReadToEnd(s);
}

// A request over a client socket bound to the loopback device, which the
// kernel finds only when asked for that device; the answer to its end.
std::string ExchangeBoundToLoopback(const std::string& request) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  client::ClientSocket s;
  s.handle = fd;
  setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3);
  return connect(fd, Ipv4(INADDR_LOOPBACK, kHelperPort).get(), Ipv4::size) == 0 &&
                 client::SendAllBytes(s, request)
             ? ReadToEnd(s)
             : "";
}

// A listening socket on `address`:`port`, left open for the process's life.
void ListenOn(std::uint32_t address, int port) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  if (bind(s, Ipv4(address, static_cast<std::uint16_t>(port)).get(), Ipv4::size) == 0) {
    listen(s, 1);
  }
}

// "bound" when this process could listen on [::1]:17891, "taken" when not.
std::string BindIpv6Loopback() {
  const int s = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  setsockopt(s, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(17891);
  address.sin6_addr = in6addr_loopback;
  const bool bound = bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(s);
  return bound ? "bound" : "taken";
}

std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
    ++count;
  }
  return count;
}

TEST_F(Helper, SnapshotNamesTheProcessesBehindTheSockets) {
  ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const std::uint16_t peer = 17980;
  ASSERT_EQ(bind(listener, Ipv4(0x7F000002, peer).get(), Ipv4::size), 0);
  listen(listener, 16);
  const std::string entry =
      "{\"processName\":\"helper_e2e\",\"policy\":\"Proxy\",\"totalBytes\":0,"
      "\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,"
      "\"durationSeconds\":0,\"status\":\"Active\",\"method\":\"";
  {
    // Two processes on one peer: two entries; one process with two sockets
    // to that peer: one. A UDP socket on port 443 is "HTTPS".
    SocketHolder one([&] { OpenSocket(SOCK_STREAM, 0, peer); });
    SocketHolder two([&] {
      OpenSocket(SOCK_STREAM, 0, peer);
      OpenSocket(SOCK_STREAM, 0, peer);
    });
    SocketHolder udp([] { OpenSocket(SOCK_DGRAM, 443, 0); });
    const std::string snapshot = TakeSnapshot();
    EXPECT_EQ(
        CountOf(snapshot, entry + "TCP\",\"host\":\"127.0.0.2:" + std::to_string(peer) + "\"}"), 2u)
        << snapshot;
    EXPECT_EQ(CountOf(snapshot, entry + "HTTPS\",\"host\":\"127.0.0.2:443\"}"), 1u) << snapshot;
    EXPECT_EQ(CountOf(snapshot, "{\"processName\":\"orvel-vpn-helper\","), 1u) << snapshot;
  }
  close(listener);
}

TEST_F(Helper, SignalsStopInOrderAndNoChildOutlivesTheHelper) {
  ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
  // The core keeps logging to its output all along; it must still run.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(Status(), kRunning);
  // SIGTERM, SIGINT and SIGHUP: the core stopped with SIGTERM, exit 0, the
  // port closed.
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(signal);
    ASSERT_TRUE(helper.Running() || Restart()) << helper.error;
    ResetTestRecords();
    ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
    CoreRun();
    EXPECT_EQ(helper.EndWith(signal), 0);
    EXPECT_EQ(ReadFileBytes(RecordPath("core-signal.txt")), "signal=SIGTERM\n");
    EXPECT_EQ(CountCores(), 0);
    EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), "");
  }

  // SIGKILL during a URL test and with a core running: within 3 s the core
  // has had its SIGTERM and every test process is gone.
  ASSERT_TRUE(Restart()) << helper.error;
  ResetTestRecords();
  ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
  CoreRun();
  std::vector<std::string> tags;
  for (int i = 1; i <= 12; ++i) tags.push_back(std::to_string(i) + "-hang");
  client::ClientSocket stream;
  ASSERT_TRUE(StartUrlTest(Body("killed", tags), stream));
  ASSERT_EQ(WaitForFetchRecords(12, 15000).size(), 12u);
  helper.Kill();
  EXPECT_EQ(WaitUntilNoCore(3000), 0);
  EXPECT_EQ(ReadFileBytes(RecordPath("core-signal.txt")), "signal=SIGTERM\n");
}

TEST_F(Helper, DataDirectoryFollowsTheRunModeAndTheUsersHome) {
  // The service: the first entry of $STATE_DIRECTORY.
  const fs::path state = WorkDirectory() / "state";
  fs::create_directories(state);
  setenv("STATE_DIRECTORY", (state.string() + ":" + (WorkDirectory() / "other").string()).c_str(),
         1);
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, false, {"--service"})) << helper.error;
  unsetenv("STATE_DIRECTORY");
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  EXPECT_EQ(ReadFileBytes(state / "sing-box.json"), kPlainConfig);
  EXPECT_EQ(CoreRun()["workingDirectory"], state.string());
  // The core ends a line comment only at LF: it gets the guard's reading, not
  // the tor outbound behind the CR. A refusal writes nothing.
  EXPECT_EQ(Post("/start-tun", "{ //\r/*\n\"outbounds\":[{\"type\":\"tor\"}] //*/\n}"),
            kTunConnected);
  const std::string refused = "configuration refused by the service: ";
  EXPECT_EQ(Post("/start-tun", R"({"inbounds":[{"type":"tun","netns":"/proc/1/ns/net"}]})"),
            Answer("disconnected", refused + "inbounds[0].netns joins another network namespace"));
  EXPECT_EQ(ReadFileBytes(state / "sing-box.json"), "{}");
  // A core swapped for another account's is run by nobody: answered as a
  // missing one, and logged.
  const fs::path core = helper.directory / "sing-box";
  ASSERT_EQ(chown(core.c_str(), 65534, 65534), 0);
  EXPECT_EQ(Post("/start-tun", Config()), Answer("disconnected", ThisPlatform().coreNotFound));
  EXPECT_TRUE(
      LogHasLine("sing-box is not root's alone: " + core.string() + " (uid 65534, mode 0755)"));
  // No XDG_DATA_HOME and no HOME: the home of the password database, here a
  // throwaway account's, whose helper takes its lock in its data directory
  // and finds the core on PATH.
  helper.Stop();
  if (!OthersMayEnterTheRoot()) GTEST_SKIP() << "\"/\" is closed to other accounts here";
  const Account user("orvel-e2e-home");
  const fs::path home = fs::path("/tmp") / ("orvel-e2e-home-" + std::to_string(getpid()));
  fs::remove_all(home);
  fs::create_directories(home);
  ASSERT_EQ(std::system(("usermod --home " + home.string() + " " + user.name).c_str()), 0);
  ASSERT_EQ(chown(home.c_str(), user.uid, user.gid), 0);
  // Paths taken before the switch.
  const fs::path exe = CopyForAnyAccount();
  fs::create_directories(exe.parent_path() / "bin");
  fs::copy_file(DoublesDirectory() / "sing-box", exe.parent_path() / "bin" / "sing-box");
  const std::string path = exe.parent_path().string() + "/bin:/usr/bin:/bin";
  const fs::path errors = home / "errors.txt";
  // The user's helper: its exit code, or -1 while it serves after 2 s.
  const auto runUsersHelper = [&] {
    const pid_t own = fork();
    if (own == 0) {
      unsetenv("HOME");
      unsetenv("XDG_DATA_HOME");
      unsetenv("XDG_RUNTIME_DIR");
      setenv("PATH", path.c_str(), 1);
      if (setgroups(0, nullptr) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0) _exit(1);
      _exit(WaitForExit(StartProgram(exe, {}, "/", "/dev/null", errors), 2000) & 0xFF);
    }
    const int code = WaitForExit(own, 10000);
    for (int i = 0; code == 0xFF && i < 500 && ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n") != kPong;
         ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return code == 0xFF ? -1 : code;
  };
  // SIGTERM; SIGKILL too for one that did not end in 5 s, which fails the case.
  const auto stopUsersHelper = [&] {
    for (const int signal : {SIGTERM, SIGKILL}) {
      std::error_code ec;
      for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        std::error_code gone;
        if (fs::read_symlink(entry.path() / "exe", gone) == exe) {
          kill(std::stoi(entry.path().filename().string()), signal);
        }
      }
      bool ended = false;
      for (int i = 0; i < 500 && !(ended = ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n").empty());
           ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      EXPECT_TRUE(ended) << "the user's helper did not end on signal " << signal;
      if (ended) return;
    }
  };
  // Its lock is in the data directory, never through a link: exit 1 with
  // the path. Another account's file at the lock's old place in /tmp
  // (private, or open to all and locked) holds it up no more.
  const fs::path lock = home / ".local/share/OrvelVPN/orvel-vpn-helper.lock";
  RunAs(user.uid, user.gid, [&] {
    fs::create_directories(lock.parent_path());
    fs::create_symlink(home / "elsewhere", lock);
    return std::string();
  });
  const fs::path oldLock = "/tmp/orvel-vpn-helper-" + std::to_string(user.uid) + ".lock";
  const int taken = open(oldLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(runUsersHelper(), 1);
  EXPECT_NE(ReadFileBytes(errors).find(lock.string() + ": "), std::string::npos);
  fs::remove(lock);
  EXPECT_EQ(runUsersHelper(), -1);
  // Root may use any user's helper.
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  EXPECT_EQ(ReadFileBytes(home / ".local/share/OrvelVPN/sing-box.json"), Config());
  // This user's helper names its own processes, never another user's: a
  // socket of root's is listed by its owner's pid form only.
  {
    SocketHolder rootSocket([] { OpenSocket(SOCK_DGRAM, 443, 0); });
    const std::string snapshot = TakeSnapshot();
    EXPECT_NE(snapshot.find("{\"processName\":\"pid-0\",\"policy\":\"Proxy\",\"totalBytes\":0,"
                            "\"uploadBytesPerSecond\":0,\"downloadBytesPerSecond\":0,"
                            "\"durationSeconds\":0,\"status\":\"Active\",\"method\":\"HTTPS\","
                            "\"host\":\"127.0.0.2:443\"}"),
              std::string::npos)
        << snapshot;
    EXPECT_EQ(snapshot.find("helper_e2e"), std::string::npos) << snapshot;
    EXPECT_NE(snapshot.find("{\"processName\":\"orvel-vpn-helper\","), std::string::npos);
  }
  stopUsersHelper();
  EXPECT_EQ(ReadFileBytes(errors), "");  // it logged, to its memory alone
  ASSERT_EQ(fchmod(taken, 0666), 0);
  ASSERT_EQ(flock(taken, LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(runUsersHelper(), -1);
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), kPong);
  stopUsersHelper();
  close(taken);
  std::error_code ec;
  fs::remove(oldLock, ec);
  fs::remove_all(exe.parent_path(), ec);
  fs::remove_all(home, ec);
}

TEST_F(Helper, OnlyItsOwnUsersAreServedAndNoClientHoldsItUp) {
  const std::string ping = BuildRequest("GET", "/ping");
  const auto ask = [](const std::string& request) {
    return [request] { return ExchangeRaw(request); };
  };
  // The stand-alone helper (run as root here): another user is refused
  // before any route runs, and logged with its uid.
  const Account member("orvel-e2e-in");
  const Account second("orvel-e2e-in2");
  const Account stranger("orvel-e2e-out");
  EXPECT_EQ(RunAs(stranger.uid, stranger.gid, ask(BuildRequest("POST", "/start-tun", Config()))),
            kForbidden);
  EXPECT_EQ(CountCores(), 0);
  EXPECT_EQ(RunAs(stranger.uid, stranger.gid, ask(BuildRequest("GET", "/logs"))), kForbidden);
  EXPECT_TRUE(LogHasLine("Refused a connection from uid " + std::to_string(stranger.uid) +
                         ": not allowed to use this helper"));
  EXPECT_EQ(ExchangeRaw(ping), kPong);  // root

  // The service: members of orvel-vpn, looked up at each request.
  const bool madeGroup = std::system("getent group orvel-vpn >/dev/null") != 0;
  if (madeGroup) std::system("groupadd --system orvel-vpn");
  ASSERT_EQ(std::system(("usermod -aG orvel-vpn " + member.name).c_str()), 0);
  ASSERT_EQ(std::system(("usermod -aG orvel-vpn " + second.name).c_str()), 0);
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, false, {"--service"})) << helper.error;
  EXPECT_EQ(RunAs(member.uid, member.gid, ask(ping)), kPong);
  EXPECT_EQ(RunAs(stranger.uid, stranger.gid, ask(ping)), kForbidden);
  {
    // A client that closes before the accept leaves a row that names root
    // (TIME_WAIT or orphaned): a burst of such stops from a stranger stops
    // nothing. Nor does the core's own inbound, which relays for anyone and
    // runs as root; nor a stranger's huge body, which is never read.
    ASSERT_EQ(Post("/start-tun", Config("relay-17990")), kTunConnected);
    RunAs(stranger.uid, stranger.gid, [] {
      const std::string stop = BuildRequest("POST", "/stop");
      for (int i = 0; i < 300; ++i) {
        client::ClientSocket s;
        if (ConnectToHelper(s)) client::SendAllBytes(s, stop);
      }
      return std::string();
    });
    // Refusals beyond a few at once are closed unanswered: the burst may
    // still be being answered.
    std::string relayed;
    for (int i = 0; i < 50 && relayed.empty(); ++i) {
      relayed = RunAs(stranger.uid, stranger.gid,
                      [] { return ExchangeAt("127.0.0.1:17990", BuildRequest("POST", "/stop")); });
    }
    EXPECT_EQ(relayed, kForbidden);
    const std::string huge = RunAs(stranger.uid, stranger.gid, [] {
      client::ClientSocket s;
      if (!ConnectToHelper(s)) return std::string("not connected");
      const std::string mebibyte(1 << 20, 'x');
      int sent = 0;
      if (client::SendAllBytes(s, "POST /start HTTP/1.1\r\nContent-Length: 1073741824\r\n\r\n")) {
        while (sent < 1024 && client::SendAllBytes(s, mebibyte)) ++sent;
      }
      return sent < 1024 ? std::string("cut off") : std::string("all sent");
    });
    EXPECT_EQ(huge, "cut off");
    EXPECT_LT(ResidentKib(helper.pid), 64u * 1024);
    EXPECT_EQ(CountCores(), 1);
    EXPECT_EQ(Status(), kRunning);
    const std::string logs = Logs();
    EXPECT_EQ(logs.find("VPN stopped"), std::string::npos);
    EXPECT_NE(logs.find("] Refused a connection from pid "), std::string::npos);
    EXPECT_NE(
        logs.find(" (sing-box), a process the helper started: not allowed to use this helper"),
        std::string::npos);
    // A member's body over 64 MiB is refused from its head alone.
    EXPECT_EQ(ExchangeRaw("POST /start HTTP/1.1\r\nContent-Length: 67108865\r\n\r\n"),
              "HTTP/1.1 413 Payload Too Large\r\nContent-Type: text/plain\r\n"
              "Content-Length: 17\r\nConnection: close\r\n\r\nrequest too large");
    // Refused at the accept, callers outside the group hold nothing: not 16
    // dribbling connections from each of a stranger and four uids without
    // an account (as one account's user namespace gives it), nor a flood of
    // device-bound clients beside 100,000 rows of sockets, which the
    // identity look-up never scans. A member is answered throughout, also
    // through a device-bound socket of its own.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    const int perHolder = static_cast<int>(std::min<rlim_t>(files.rlim_max - 64, 60000));
    std::vector<std::unique_ptr<SocketHolder>> rows;
    for (int i = 0; i * perHolder < 100000; ++i) {
      rows.push_back(std::make_unique<SocketHolder>([i, perHolder, files] {
        setrlimit(RLIMIT_NOFILE, &files);
        for (int port = 1024; port < 1024 + perHolder; ++port) ListenOn(0x7F000010 + i, port);
      }));
    }
    std::vector<std::future<std::string>> holders;
    for (const uid_t uid : {stranger.uid, 200001u, 200002u, 200003u, 200004u}) {
      holders.push_back(std::async(std::launch::async, [uid] {
        return RunAs(uid, uid, [] {
          std::vector<client::ClientSocket> held = OpenSilent(16);
          for (int round = 0; round < 3; ++round) {
            for (const client::ClientSocket& s : held) {
              client::SendAllBytes(
                  s, round == 0 ? "POST /stop HTTP/1.1\r\nContent-Length: 99\r\n\r\n" : "x");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
          }
          return std::string("held");
        });
      }));
    }
    holders.push_back(std::async(std::launch::async, [&] {
      return RunAs(stranger.uid, stranger.gid, [] {
        for (int i = 0; i < 2000; ++i) ExchangeBoundToLoopback(BuildRequest("POST", "/stop"));
        return std::string("held");
      });
    }));
    // Timed inside the member's process: what matters is the helper's
    // answer, not how long a copy of this test process takes to start.
    for (int round = 0; round < 4; ++round) {
      EXPECT_EQ(RunAs(member.uid, member.gid,
                      [round] {
                        const std::uint64_t start = NowMs();
                        const std::string ping = BuildRequest("GET", "/ping");
                        const std::string answer =
                            round % 2 == 0 ? ExchangeRaw(ping) : ExchangeBoundToLoopback(ping);
                        const std::uint64_t tookMs = NowMs() - start;
                        return tookMs < 2000 ? answer : "after " + std::to_string(tookMs) + " ms";
                      }),
                kPong);
      std::this_thread::sleep_for(std::chrono::milliseconds(800));
    }
    for (auto& holder : holders) EXPECT_EQ(holder.get(), "held");
    // Newest first: each holder keeps a copy of the older ones' release pipes.
    while (!rows.empty()) rows.pop_back();
    // Both loopbacks are the helper's: [::1] answers, and nobody else binds it.
    EXPECT_EQ(ExchangeAt("[::1]:17891", ping), kPong);
    EXPECT_EQ(RunAs(stranger.uid, stranger.gid, [] { return BindIpv6Loopback(); }), "taken");
    // Cancels for ids no test has are kept briefly and only when short: 100
    // of 4 MiB each leave the helper where it was.
    const std::uint64_t before = ResidentKib(helper.pid);
    const std::string longId(4 << 20, 'c');
    for (int i = 0; i < 100; ++i) Post("/cancel-urltest", longId + std::to_string(i));
    EXPECT_LT(ResidentKib(helper.pid), before + 8 * 1024);
  }
  ASSERT_EQ(std::system(("usermod -aG orvel-vpn " + stranger.name).c_str()), 0);
  EXPECT_EQ(RunAs(stranger.uid, stranger.gid, ask(ping)), kPong);

  // 16 connections of one user: the 17th is closed at once, while another
  // user (root) is still served.
  const auto holdSixteen = [](bool openSeventeenth) {
    return [openSeventeenth] {
      std::vector<client::ClientSocket> held = OpenSilent(16);
      if (!openSeventeenth) return std::string("held");
      client::ClientSocket extra;
      ConnectToHelper(extra);
      return ClosedWithoutAnswer(extra, 2000) ? std::string("closed") : std::string("open");
    };
  };
  EXPECT_EQ(RunAs(member.uid, member.gid, holdSixteen(true), 300), "closed");
  EXPECT_EQ(ExchangeRaw(ping), kPong);

  // 64 connections in all: 16 silent ones of each of three members, and root's
  // 16: a URL test that streams for 12 s, a head trickled past its 10 s, a
  // body that pauses 11 s, and 13 silent ones. The 65th is closed at once;
  // after 10 s the silent ones are closed and a request is answered again.
  std::vector<std::future<std::string>> holders;
  for (const auto& [uid, gid] : {std::pair{member.uid, member.gid},
                                 {stranger.uid, stranger.gid},
                                 {second.uid, second.gid}}) {
    holders.push_back(std::async(std::launch::async, [&, uid = uid, gid = gid] {
      return RunAs(uid, gid, holdSixteen(false), 12000);
    }));
  }
  std::vector<std::string> tags;
  for (int i = 1; i <= 48; ++i) tags.push_back(std::to_string(i) + "-hang");
  ResetTestRecords();
  auto longTest = std::async(std::launch::async, [&] { return RunUrlTest(Body("long", tags)); });
  ASSERT_EQ(WaitForFetchRecords(12, 15000).size(), 12u);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the holders' connections are in
  client::ClientSocket trickle, paused;
  ASSERT_TRUE(ConnectToHelper(trickle) && ConnectToHelper(paused));
  client::SendAllBytes(paused, "POST /stop HTTP/1.1\r\nContent-Length: 4\r\n\r\nab");
  std::vector<client::ClientSocket> silent = OpenSilent(13);
  client::ClientSocket over;
  ASSERT_TRUE(ConnectToHelper(over));
  EXPECT_TRUE(ClosedWithoutAnswer(over, 2000));
  auto trickled = std::async(std::launch::async, [&] {
    bool closed = false;
    for (int i = 0; i < 40 && !closed; ++i) {
      client::SendAllBytes(trickle, i == 0 ? "GET /ping HTTP/1.1\r\nX: " : "a");
      closed = ClosedWithoutAnswer(trickle, 500);
    }
    return closed;
  });
  EXPECT_TRUE(ClosedWithoutAnswer(silent.front(), 15000));
  EXPECT_TRUE(ClosedWithoutAnswer(paused, 5000));
  EXPECT_TRUE(trickled.get());
  EXPECT_EQ(ExchangeRaw(ping), kPong);
  const UrlTestStream stream = longTest.get();
  EXPECT_EQ(stream.lines.size(), 48u);
  EXPECT_GT(stream.closedTick - stream.sentTick, 10000u);
  for (auto& holder : holders) EXPECT_EQ(holder.get(), "held");
  EXPECT_TRUE(LogHasLine("Connection limit reached: 1 connections closed"));
  if (madeGroup) std::system("groupdel orvel-vpn");
}

// While no helper runs, another account may take its port: orvelctl hands
// that program nothing (it never even connects), on the helper's own address
// or on the IPv6 wildcard, which takes IPv4 connections too.
TEST_F(Helper, OrvelctlSendsNothingToAnotherAccountsListener) {
  helper.Stop();
  const Account stranger("orvel-e2e-port");
  const fs::path config = WorkDirectory() / "stranger.json";
  ASSERT_TRUE(WriteWholeFile(config, Config()));
  const std::string refusal = "orvelctl: 127.0.0.1:17891 is held by uid " +
                              std::to_string(stranger.uid) +
                              ", not by the helper or the service; nothing was sent\n";
  for (const auto& [family, where] : {std::pair{AF_INET, "127.0.0.1"}, {AF_INET6, "::"}}) {
    // A socket belongs to the account that makes it.
    client::ClientSocket held;
    ASSERT_EQ(seteuid(stranger.uid), 0);
    held.handle = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(seteuid(0), 0);
    const int listener = static_cast<int>(held.handle);
    const int on = 1;  // the helper's closed connections linger in TIME_WAIT
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const Ipv4 v4(INADDR_LOOPBACK, kHelperPort);
    sockaddr_in6 v6{};  // on ::
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(kHelperPort);
    const bool ipv4 = family == AF_INET;
    ASSERT_EQ(bind(listener, ipv4 ? v4.get() : reinterpret_cast<sockaddr*>(&v6),
                   ipv4 ? Ipv4::size : sizeof(v6)),
              0)
        << where;
    ASSERT_EQ(listen(listener, 8), 0);
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"start", config.string(), "--tun"}, {"status"}, {"stop"}}) {
      EXPECT_EQ(RunProgram(BinDirectory() / kOrvelctlFileName, arguments),
                std::tuple(8u, std::string(), refusal))
          << where << " " << arguments.at(0);
    }
    std::string received;  // "|" for each connection, then its bytes
    for (int peer; (peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      client::ClientSocket connection;
      connection.handle = peer;
      received += "|" + ReadToEnd(connection, nullptr, 100);
    }
    EXPECT_EQ(received, "") << where;
  }
}

// The systemd unit and the polkit rule land in a throwaway mount namespace,
// never on this machine; the group and the membership are real (and removed).
TEST_F(Helper, InstallerWritesTheUnitTheRuleAndTheGroupAndTheServiceTellsSystemd) {
  helper.Stop();
  std::error_code ec;
  // Only the switches it knows; a wrong one serves nothing.
  const std::string usage = kHelperUsage;
  const std::tuple<std::vector<std::string>, std::uint32_t, std::string, std::string> lines[] = {
      {{"--version"}, 0, std::string("orvel-vpn-helper ") + kProductVersion + "\n", ""},
      {{"--service", "--help"}, 0, usage, ""},
      {{"--instal-service"}, 2, "", usage},
      {{"--service", "-v"}, 2, "", usage},
  };
  for (const auto& [arguments, code, out, err] : lines) {
    EXPECT_EQ(RunProgram(BinDirectory() / "orvel-vpn-helper", arguments),
              std::tuple(code, out, err))
        << arguments.back();
  }
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), "");
  // The service tells systemd it is ready once it accepts connections, and
  // that it stops; SIGTERM stops its core with SIGTERM and it exits 0.
  const fs::path notifyPath = WorkDirectory() / "notify";
  fs::remove(notifyPath, ec);
  const int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", notifyPath.c_str());
  ASSERT_EQ(bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  const auto message = [notify] {
    char text[256] = {};
    pollfd readable{notify, POLLIN, 0};
    return poll(&readable, 1, 10000) == 1 ? std::string(text, recv(notify, text, sizeof(text), 0))
                                          : std::string("none");
  };
  // The service and the installer run from copies in a folder of root's
  // under /tmp (root's and sticky): the build tree may lie below another
  // account's folder, which neither accepts.
  char folder[] = "/tmp/orvel-e2e-install-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const fs::path root = folder;
  fs::permissions(root, fs::perms(0755));
  fs::copy_file(BinDirectory() / "orvel-vpn-helper", root / "orvel-vpn-helper");
  fs::copy_file(DoublesDirectory() / "sing-box", root / "sing-box");
  setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1);
  ResetTestRecords();
  const fs::path journal = WorkDirectory() / "service-stderr.txt";
  const pid_t service =
      StartProgram(root / "orvel-vpn-helper", {"--service"}, "/", "/dev/null", journal, true);
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(message(), "READY=1");
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), kPong);
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  CoreRun();
  Post("/cancel-urltest", "\x1b[2J");  // a caller's control bytes, escaped in both
  // Its standard error (the journal's) has every log line in order, without
  // the timestamp.
  std::string logged;
  std::istringstream log(Logs());
  for (std::string line; std::getline(log, line);) {
    logged += line.substr(line.find("] ") + 2, line.size() - line.find("] ") - 3) + "\n";
  }
  EXPECT_EQ(logged.find("OrvelVpnHelper started\n"), 0u) << logged;
  EXPECT_EQ(ReadFileBytes(journal), logged);
  kill(service, SIGTERM);
  EXPECT_EQ(message(), "STOPPING=1");
  EXPECT_EQ(WaitForExit(service, 10000), 0);
  EXPECT_EQ(ReadFileBytes(RecordPath("core-signal.txt")), "signal=SIGTERM\n");
  close(notify);

  const Account user("orvel-e2e-inst");
  const bool madeGroup = getgrnam("orvel-vpn") == nullptr;
  // Not root: refused before anything is written (where another account may
  // run anything at all).
  if (OthersMayEnterTheRoot()) {
    const fs::path installer = CopyForAnyAccount();
    EXPECT_EQ(
        RunAs(user.uid, user.gid,
              [&] {
                std::string codes;
                for (const char* mode : {"--install-service", "--uninstall-service"}) {
                  codes += std::to_string(WaitForExit(StartProgram(installer, {mode}, "/"), 10000));
                }
                return codes;
              }),
        "22");
    fs::remove_all(installer.parent_path(), ec);
  }
  if (std::get<0>(RunProgram("/usr/bin/unshare", {"--mount", "true"})) != 0) {
    if (madeGroup) std::system("groupdel orvel-vpn");
    fs::remove_all(root, ec);
    GTEST_SKIP() << "no private mount namespace here (\"/\" is no mount point?); the unit and "
                    "the rule were not written";
  }
  fs::create_directories("/etc/polkit-1", ec);
  fs::create_directories("/etc/systemd/system", ec);
  // Refused, and nothing written: a folder of a user's, a folder its group
  // may write to, a core of a user's beside a helper of root's.
  const std::string uid = std::to_string(user.uid);
  const std::pair<std::string, std::string> refusals[] = {
      {"user", "user is owned by uid " + uid},
      {"group", "group is writable by its group (mode 0775)"},
      {"core", "core/sing-box is owned by uid " + uid}};
  std::string refused, names;
  for (const auto& [name, reason] : refusals) {
    fs::create_directories(root / name);
    fs::copy_file(BinDirectory() / "orvel-vpn-helper", root / name / "orvel-vpn-helper");
    names += " " + name;
    refused += "refusing to install: " + PathText(root) + "/" + reason +
               "\ninstall orvel-vpn-helper (and sing-box beside it) in a folder only root can "
               "write to, such as /usr/local/lib/orvel-vpn-helper, or from the package\nrc=6\n";
  }
  ASSERT_EQ(chown((root / "user").c_str(), user.uid, user.gid), 0);
  fs::permissions(root / "group", fs::perms(0775));
  fs::copy_file(DoublesDirectory() / "sing-box", root / "core" / "sing-box");
  ASSERT_EQ(chown((root / "core" / "sing-box").c_str(), user.uid, user.gid), 0);
  const fs::path moved = root / "moved dir";
  fs::create_directories(moved);
  fs::copy_file(BinDirectory() / "orvel-vpn-helper", moved / "orvel-vpn-helper");
  const std::string script =
      "mount -t tmpfs none /etc/systemd/system && mount -t tmpfs none /etc/polkit-1 &&\n"
      "  mount -t tmpfs none /var/lib || exit 9\n"
      "for d in" +
      names +
      "; do \"$0/$d/orvel-vpn-helper\" --install-service 2>&1; echo \"rc=$?\"; done\n"
      "find /etc/systemd/system /etc/polkit-1 -mindepth 1\n"
      "SUDO_UID=" +
      uid +
      " \"$0/orvel-vpn-helper\" --install-service; echo \"rc=$?\"\n"
      "systemd-analyze verify /etc/systemd/system/orvel-vpn-helper.service 2>&1\n"
      "readlink /etc/systemd/system/multi-user.target.wants/orvel-vpn-helper.service\n"
      "cp /etc/polkit-1/rules.d/50-orvel-vpn-helper.rules \"$1/rule.js\"\n"
      "\"$0/moved dir/orvel-vpn-helper\" --install-service; echo \"rc=$?\"\n"
      "grep ExecStart /etc/systemd/system/orvel-vpn-helper.service\n"
      "mount -o remount,ro /etc/systemd/system\n"
      "\"$0/orvel-vpn-helper\" --install-service; echo \"rc=$?\"\n"
      // The uninstaller: the unit it cannot remove, then everything of the
      // helper's, the last configuration included, and then nothing to do.
      "mkdir -p /var/lib/orvel-vpn-helper/data && echo '{}' "
      ">/var/lib/orvel-vpn-helper/sing-box.json\n"
      "\"$0/orvel-vpn-helper\" --uninstall-service; echo \"rc=$?\"\n"
      "mount -o remount,rw /etc/systemd/system\n"
      "for i in 1 2; do \"$0/orvel-vpn-helper\" --uninstall-service; echo \"rc=$?\"; done\n"
      "find /etc/systemd/system /etc/polkit-1 /var/lib ! -type d\n"
      "find /var/lib -mindepth 1\n";
  const auto [code, out, err] =
      RunProgram("/usr/bin/unshare",
                 {"--mount", "sh", "-c", script, PathText(root), PathText(WorkDirectory())});
  fs::remove_all(root, ec);
  EXPECT_EQ(out, refused +
                     "rc=0\n/etc/systemd/system/orvel-vpn-helper.service\nrc=0\n"
                     "ExecStart=\"" +
                     PathText(moved / "orvel-vpn-helper") +
                     "\" --service\nrc=3\nrc=3\nrc=0\nrc=0\n")
      << err;
  const group* entry = getgrnam("orvel-vpn");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->gr_mem[0] != nullptr ? std::string(entry->gr_mem[0]) : "", user.name);
  if (madeGroup) std::system("groupdel orvel-vpn");
  // The rule, as polkit runs it: start, stop and restart of this unit for
  // members only.
  const std::string check =
      "let rule; const polkit = {Result: {YES: 'yes'}, addRule: f => { rule = f; }};\n"
      "eval(require('fs').readFileSync(process.argv[1], 'utf8'));\n"
      "const ask = (id, unit, verb, groups) => rule({id, lookup: k => ({unit, verb})[k]},\n"
      "    {isInGroup: g => groups.includes(g)}) || 'no';\n"
      "const manage = 'org.freedesktop.systemd1.manage-units', unit = 'orvel-vpn-helper.service';\n"
      "console.log([ask(manage, unit, 'start', ['orvel-vpn']), ask(manage, unit, 'stop', "
      "['orvel-vpn']),\n"
      "  ask(manage, unit, 'restart', ['orvel-vpn']), ask(manage, unit, 'start', ['users']),\n"
      "  ask(manage, unit, 'enable', ['orvel-vpn']), ask(manage, 'ssh.service', 'stop', "
      "['orvel-vpn']),\n"
      "  ask('org.freedesktop.login1.reboot', unit, 'start', ['orvel-vpn'])].join(' '));\n";
  EXPECT_EQ(std::get<1>(
                RunProgram("/usr/bin/node", {"-e", check, PathText(WorkDirectory() / "rule.js")})),
            "yes yes yes no no no no\n");
}

// The desktop's own settings under a real session bus and dconf: what a
// start sets, what a stop puts back, and what a crash, a signal, a missing bus
// or a file that cannot be written change about it.
TEST_F(Helper, DesktopProxyIsSetAndEveryUserSettingComesBack) {
  const std::string defaults = ProxySettings();
  const std::string set2080 =
      "org.gnome.system.proxy.http host '127.0.0.1'\norg.gnome.system.proxy.http port 2080\n";
  // The run-at-logon entry, there exactly while the helper's values are.
  const fs::path autostart =
      fs::path(std::getenv("XDG_CONFIG_HOME")) / "autostart/orvel-vpn-helper-restore-proxy.desktop";
  // The user's settings before, and the stops after each.
  const std::vector<std::vector<std::string>> users[] = {
      {},  // nothing of the user's: every key back at its default, no value left in dconf
      {{"org.gnome.system.proxy", "mode", "manual"},
       {"org.gnome.system.proxy", "ignore-hosts", "['*.corp.example']"},
       {"org.gnome.system.proxy.http", "host", "corp-proxy.example"},
       {"org.gnome.system.proxy.http", "port", "3128"},
       {"org.gnome.system.proxy", "use-same-proxy", "false"}},
      {{"org.gnome.system.proxy", "mode", "auto"},
       {"org.gnome.system.proxy", "autoconfig-url", "http://wpad.corp.example/proxy.pac"}},
  };
  for (const auto& user : users) {
    ResetUserProxy();
    for (const auto& setting : user) Gsettings({"set", setting[0], setting[1], setting[2]});
    const std::string before = ProxySettings();
    ASSERT_EQ(Post("/start", Config()), kConnected);
    EXPECT_TRUE(fs::exists(autostart));
    const std::string during = ProxySettings();
    for (const char* line :
         {"org.gnome.system.proxy mode 'manual'\n",
          "org.gnome.system.proxy ignore-hosts ['localhost', '127.0.0.1', '::1']\n",
          "org.gnome.system.proxy.https host '127.0.0.1'\n",
          "org.gnome.system.proxy.socks port 2080\n"}) {
      EXPECT_NE(during.find(line), std::string::npos) << line << during;
    }
    EXPECT_NE(during.find(set2080), std::string::npos);
    // A second start on another port keeps the user's values, not the helper's.
    EXPECT_EQ(Post("/start", Config({}, "3000")), kConnected);
    EXPECT_NE(ProxySettings().find("org.gnome.system.proxy.http port 3000\n"), std::string::npos);
    EXPECT_EQ(Post("/stop"), kDisconnected);
    EXPECT_EQ(ProxySettings(), before);
    EXPECT_FALSE(fs::exists(autostart));
    if (user.empty()) {
      EXPECT_EQ(ProxySettings(), defaults);
      EXPECT_EQ(std::get<1>(RunProgram("/usr/bin/dconf", {"dump", "/"})), "");
    }
  }

  // Killed while set: a next helper without a session bus can neither
  // restore nor start (nothing would last), and keeps the saved values; one with
  // the bus puts them back before it answers. SIGTERM: they are back when it
  // has ended.
  SetUserProxy();
  const std::string user = ProxySettings();
  ASSERT_EQ(Post("/start", Config()), kConnected);
  helper.Kill();
  const std::string bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
  setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
  EXPECT_TRUE(
      LogHasLine("Proxy settings saved before the helper last ended not restored yet: "
                 "Failed to restore desktop system proxy"));
  EXPECT_EQ(Post("/start", Config()),
            Answer("disconnected", "Failed to restore desktop system proxy"));
  EXPECT_EQ(CountCores(), 0);
  EXPECT_NE(ProxySettings().find(set2080), std::string::npos);
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
  EXPECT_EQ(ProxySettings(), user);
  EXPECT_TRUE(LogHasLine("Restored the proxy settings saved before the helper last ended"));
  ASSERT_EQ(Post("/start", Config()), kConnected);
  EXPECT_EQ(helper.EndWith(SIGTERM), 0);
  EXPECT_EQ(ProxySettings(), user);
  EXPECT_FALSE(fs::exists(autostart));

  // The entry's command changes nothing while a helper runs; after a crash
  // it puts the user's values back at the next logon, and removes itself.
  ASSERT_TRUE(Restart()) << helper.error;
  ASSERT_EQ(Post("/start", Config()), kConnected);
  const std::string entry = ReadFileBytes(autostart);
  const std::size_t exec = entry.find("\nExec=") + 6;
  const std::string command = entry.substr(exec, entry.find('\n', exec) - exec);
  EXPECT_EQ(command, helper.ExePath().string() + " --restore-proxy");
  EXPECT_EQ(std::get<0>(RunProgram("/bin/sh", {"-c", command})), 0u);
  EXPECT_NE(ProxySettings().find(set2080), std::string::npos);
  helper.Kill();
  EXPECT_EQ(std::get<0>(RunProgram("/bin/sh", {"-c", command})), 0u);
  EXPECT_EQ(ProxySettings(), user);
  EXPECT_FALSE(fs::exists(autostart));

  // A recovery file that cannot be written costs the recovery, not the start.
  ASSERT_TRUE(Restart()) << helper.error;
  fs::create_directories(DataFile("proxy-state.txt"));
  EXPECT_EQ(Post("/start", Config()), kConnected);
  EXPECT_NE(Logs().find("] Crash recovery is off for this start: the saved proxy settings could "
                        "not be written: "),
            std::string::npos);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(ProxySettings(), user);
  fs::remove_all(DataFile("proxy-state.txt"));

  // A saved file that names a key the helper never saves is not the
  // helper's: nothing of it is written.
  ASSERT_TRUE(
      WriteWholeFile(DataFile("proxy-state.txt"),
                     "orvel-desktop-proxy-state 1\nhelper=http://corp-proxy.example:8080\n"
                     "gsettings:org.gnome.system.proxy.http:authentication-user='x'\nend\n"));
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, true)) << helper.error;
  EXPECT_TRUE(
      LogHasLine("Removed an unreadable saved proxy settings file; system proxy left as it is"));
  EXPECT_EQ(ProxySettings(), user);

  // KDE Plasma: kioslaverc too, each key back (an absent one deleted).
  setenv("XDG_CURRENT_DESKTOP", "ubuntu:KDE", 1);
  ASSERT_TRUE(Restart()) << helper.error;
  const auto kde = [](const char* key) {
    return std::get<1>(
        RunProgram("/usr/bin/kreadconfig5", {"--file", "kioslaverc", "--group", "Proxy Settings",
                                             "--key", key, "--default", "absent"}));
  };
  const auto setKde = [](const char* key, const char* value) {
    RunProgram("/usr/bin/kwriteconfig5",
               {"--file", "kioslaverc", "--group", "Proxy Settings", "--key", key, "--", value});
  };
  setKde("ProxyType", "0");
  setKde("NoProxyFor", "-internal.example");  // a list the tool could take for options
  ASSERT_EQ(Post("/start", Config()), kConnected);
  EXPECT_EQ(kde("ProxyType") + kde("httpProxy") + kde("socksProxy") + kde("NoProxyFor"),
            "1\nhttp://127.0.0.1:2080\nsocks://127.0.0.1:2080\nlocalhost,127.0.0.1,::1\n");
  EXPECT_NE(ProxySettings().find(set2080), std::string::npos);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(kde("ProxyType") + kde("httpProxy") + kde("NoProxyFor"),
            "0\nabsent\n-internal.example\n");
  unsetenv("XDG_CURRENT_DESKTOP");
  helper.Stop();
}

}  // namespace
}  // namespace orvel::test
