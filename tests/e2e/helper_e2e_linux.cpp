// What only the Linux build has, against the real kernel: the signals that
// stop the helper, children that never outlive it nor hold a client's
// connection, the data directory of each run mode, and who may use the helper
// (real accounts, made here and removed in every outcome) and how many
// connections it holds. How it fares under floods of refused clients is
// bench/load_fault_bench_linux.cpp's business.
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cstdlib>
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
  for (const char* schema : {"", ".http", ".https", ".socks"}) {
    Gsettings({"reset-recursively", std::string("org.gnome.system.proxy") + schema});
  }
}
// Schema, key and value, each as gsettings lists it.
using GsettingsValues = std::vector<std::array<std::string, 3>>;
void SetGsettings(const GsettingsValues& values) {
  for (const auto& [schema, key, value] : values) Gsettings({"set", schema, key, value});
}
// A company proxy with its own bypass list.
const GsettingsValues kUserProxy = {
    {"org.gnome.system.proxy", "mode", "'manual'"},
    {"org.gnome.system.proxy", "ignore-hosts", "['*.corp.example', 'localhost']"},
    {"org.gnome.system.proxy.http", "host", "'corp-proxy.example'"},
    {"org.gnome.system.proxy.http", "port", "8080"}};
void SetUserProxy() { SetGsettings(kUserProxy); }
void ExpectUserProxyUntouched() {
  const std::string settings = ProxySettings();
  for (const auto& [schema, key, value] : kUserProxy)
    EXPECT_NE(settings.find(schema + " " + key + " " + value + "\n"), std::string::npos) << key;
}
const bool kListsSocketOwners = true;

std::thread ServeOneAnswer(unsigned short port, std::string answer) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bind(listener, Ipv4(INADDR_LOOPBACK, port).get(), Ipv4::size);
  listen(listener, 1);
  return std::thread([listener, answer] {
    pollfd waiting{listener, POLLIN, 0};
    client::ClientSocket peer;
    if (poll(&waiting, 1, 30000) == 1) peer.handle = accept(listener, nullptr, nullptr);
    char request[4096];
    client::ReceiveSome(peer, request, sizeof(request), 30000);
    client::SendAllBytes(peer, answer);
    close(listener);
  });
}

// SIGINT goes to the program's own pid; the test runner never sees it.
void PrepareToInterruptChildren() {}

namespace {

// A throwaway system account, removed with its group (when it made one) in
// every outcome. Its name ends with this process's pid: the accounts (and
// the group orvel-vpn) are the machine's, shared with any other run of the
// suite going on at the same time.
struct Account {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  explicit Account(const std::string& prefix) : name(prefix + "-" + std::to_string(getpid())) {
    std::system(("userdel " + name + " >/dev/null 2>&1; useradd --system --no-create-home " +
                 "--user-group " + name + " >/dev/null 2>&1")
                    .c_str());
    if (const passwd* entry = getpwnam(name.c_str()))
      std::tie(uid, gid) = std::pair(entry->pw_uid, entry->pw_gid);
  }
  ~Account() { std::system(("userdel " + name + " >/dev/null 2>&1").c_str()); }
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;
  template <typename Work>
  std::string Run(Work work, unsigned holdMs = 0) const {
    return RunAs(uid, gid, work, holdMs);
  }
  std::string Ask(const std::string& request) const {
    return Run([&] { return ExchangeRaw(request); });
  }
};

// `signal` to the helper alone (SIGKILL as a crash would: its children are
// left to what the helper arranged for them); its exit code (128 + the
// signal that ended it), or -1 when it did not end in 10 s.
int EndWith(ScopedHelper& helper, int signal) {
  syscall(SYS_pidfd_send_signal, static_cast<int>(helper.child.process), signal, nullptr, 0);
  if (!WaitForChild(helper.child, 10000) || !helper.child.exit) return -1;
  return static_cast<int>(helper.child.exit->code) + (helper.child.exit->bySignal ? 128 : 0);
}

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

// A socket of `type` on 127.0.0.2:`bindPort` (a stream one listening), or
// connected to 127.0.0.2:`peer` when that is not 0; left open for the
// process's life.
void OpenSocket(int type, std::uint16_t bindPort, std::uint16_t peer) {
  const int s = socket(AF_INET, type, 0);
  if (peer != 0) connect(s, Ipv4(0x7F000002, peer).get(), Ipv4::size);
  if (peer == 0 && bind(s, Ipv4(0x7F000002, bindPort).get(), Ipv4::size) == 0) listen(s, 16);
}

// A snapshot's entry of an endpoint that has moved nothing.
std::string Entry(std::string_view process, std::string_view method, std::string_view host) {
  return "{\"processName\":\"" + std::string(process) +
         "\",\"policy\":\"Proxy\",\"totalBytes\":0,\"uploadBytesPerSecond\":0,"
         "\"downloadBytesPerSecond\":0,\"durationSeconds\":0,\"status\":\"Active\",\"method\":\"" +
         std::string(method) + "\",\"host\":\"" + std::string(host) + "\"}";
}

std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
    ++count;
  return count;
}

// Whether every account may enter "/": not so in a root that mktemp made
// (0700), where no other account can run anything at all.
bool OthersMayEnterTheRoot() {
  struct stat root {};
  return stat("/", &root) == 0 && (root.st_mode & S_IXOTH) != 0;
}

// A fresh folder of root's under /tmp (root's and sticky) that every account
// may enter, with a copy of the helper: the build tree may lie in root's own
// home, closed to the others, or below another account's folder, which
// neither the service nor the installer accepts.
fs::path CopyHelperToTmp() {
  char folder[] = "/tmp/orvel-e2e-XXXXXX";
  if (mkdtemp(folder) == nullptr) return {};
  fs::permissions(folder, fs::perms(0755));
  fs::copy_file(BinDirectory() / "orvel-vpn-helper", fs::path(folder) / "orvel-vpn-helper");
  return folder;
}

// "bound" when this process could listen on [::1]:17891, "taken" when not.
std::string BindIpv6Loopback() {
  client::ClientSocket s;
  s.handle = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int fd = static_cast<int>(s.handle), on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
  const sockaddr_in6 address{AF_INET6, htons(kHelperPort), 0, in6addr_loopback, 0};
  return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? "bound"
                                                                                     : "taken";
}

TEST_F(Helper, SnapshotNamesTheProcessesBehindTheSockets) {
  ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
  // Two processes on one peer: two entries; one process with two sockets to
  // that peer: one. A UDP socket on port 443 is "HTTPS".
  SocketHolder listener([] { OpenSocket(SOCK_STREAM, 17980, 0); });
  SocketHolder one([] { OpenSocket(SOCK_STREAM, 0, 17980); });
  SocketHolder two([] {
    OpenSocket(SOCK_STREAM, 0, 17980);
    OpenSocket(SOCK_STREAM, 0, 17980);
  });
  SocketHolder udp([] { OpenSocket(SOCK_DGRAM, 443, 0); });
  const std::string snapshot = TakeSnapshot();
  EXPECT_EQ(CountOf(snapshot, Entry("helper_e2e", "TCP", "127.0.0.2:17980")), 2u) << snapshot;
  EXPECT_EQ(CountOf(snapshot, Entry("helper_e2e", "HTTPS", "127.0.0.2:443")), 1u) << snapshot;
  EXPECT_EQ(CountOf(snapshot, "{\"processName\":\"orvel-vpn-helper\","), 1u) << snapshot;
}

TEST_F(Helper, SignalsStopInOrderAndNoChildOutlivesTheHelper) {
  ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
  // The core keeps logging to its output all along; it must still run.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(Status(), kRunning);
  // A core deaf to SIGTERM is killed 3 s later and reaped: the helper is
  // left with no child, not even a zombie.
  ASSERT_EQ(Post("/start-tun", Config("ignore-term")), kTunConnected);
  CoreRun();
  EXPECT_EQ(Post("/stop"), kDisconnected);
  std::string children;
  std::error_code ec;
  for (const auto& task :
       fs::directory_iterator("/proc/" + std::to_string(helper.Pid()) + "/task", ec))
    children += ReadFileBytes(task.path() / "children");
  EXPECT_EQ(children, "");
  // SIGTERM, SIGINT and SIGHUP: the core stopped with SIGTERM, exit 0, the
  // port closed.
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(signal);
    ASSERT_TRUE(helper.Running() || Restart()) << helper.error;
    ResetTestRecords();
    ASSERT_EQ(Post("/start-tun", Config()), kTunConnected);
    CoreRun();
    EXPECT_EQ(EndWith(helper, signal), 0);
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
  EndWith(helper, SIGKILL);
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
  // A refusal writes nothing.
  EXPECT_EQ(Post("/start-tun", R"({"inbounds":[{"type":"tun","netns":"/proc/1/ns/net"}]})"),
            Answer("disconnected",
                   "configuration refused by the service: inbounds[0].netns "
                   "joins another network namespace"));
  EXPECT_EQ(ReadFileBytes(state / "sing-box.json"), kPlainConfig);
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
  // Paths taken before the switch.
  const fs::path folder = CopyHelperToTmp(), exe = folder / "orvel-vpn-helper",
                 home = folder / "home";
  const Account user("orvel-e2e-home");
  fs::create_directories(home);
  ASSERT_EQ(std::system(("usermod --home " + home.string() + " " + user.name).c_str()), 0);
  ASSERT_EQ(chown(home.c_str(), user.uid, user.gid), 0);
  fs::create_directories(folder / "bin");
  fs::copy_file(DoublesDirectory() / "sing-box", folder / "bin" / "sing-box");
  const std::string path = folder.string() + "/bin:/usr/bin:/bin";
  const fs::path errors = home / "errors.txt";
  // The user's helper: its exit code, or -1 once it serves.
  pid_t own = -1;
  const auto runUsersHelper = [&] {
    own = StartProgram(exe, {}, "/", "/dev/null", errors, true, [&] {
      for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) unsetenv(name);
      setenv("PATH", path.c_str(), 1);
      BecomeAccount(user.uid, user.gid);
    });
    int code = -1;
    std::string error;
    WaitForFirstPong([&] { return (code = WaitForExit(own, 0)) < 0; }, error);
    return code;
  };
  // Its lock is in the data directory, never through a link: exit 1 with
  // the path.
  const fs::path lock = home / ".local/share/OrvelVPN/orvel-vpn-helper.lock";
  user.Run([&] {
    fs::create_directories(lock.parent_path());
    fs::create_symlink(home / "elsewhere", lock);
    return std::string();
  });
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
    EXPECT_NE(snapshot.find(Entry("pid-0", "HTTPS", "127.0.0.2:443")), std::string::npos)
        << snapshot;
    EXPECT_EQ(snapshot.find("helper_e2e"), std::string::npos) << snapshot;
    EXPECT_NE(snapshot.find("{\"processName\":\"orvel-vpn-helper\","), std::string::npos);
  }
  kill(own, SIGTERM);
  EXPECT_EQ(WaitForExit(own, 10000), 0);
  EXPECT_EQ(ReadFileBytes(errors), "");  // it logged, to its memory alone
  std::error_code ec;
  fs::remove_all(folder, ec);
}

TEST_F(Helper, OnlyItsOwnUsersAreServedAndNoClientHoldsItUp) {
  const std::string ping = BuildRequest("GET", "/ping"), stop = BuildRequest("POST", "/stop");
  // The stand-alone helper (run as root here): another user is refused
  // before any route runs, and logged with its uid.
  const Account member("orvel-e2e-in"), second("orvel-e2e-in2"), stranger("orvel-e2e-out");
  EXPECT_EQ(stranger.Ask(BuildRequest("POST", "/start-tun", Config())), kForbidden);
  EXPECT_EQ(CountCores(), 0);
  EXPECT_EQ(stranger.Ask(BuildRequest("GET", "/logs")), kForbidden);
  EXPECT_TRUE(LogHasLine("Refused a connection from uid " + std::to_string(stranger.uid) +
                         ": not allowed to use this helper"));
  EXPECT_EQ(ExchangeRaw(ping), kPong);  // root

  // The service: members of orvel-vpn, looked up at each request.
  const bool madeGroup = std::system("getent group orvel-vpn >/dev/null") != 0;
  if (madeGroup) std::system("groupadd --system orvel-vpn");
  for (const Account* in : {&member, &second})
    ASSERT_EQ(std::system(("usermod -aG orvel-vpn " + in->name).c_str()), 0);
  ASSERT_TRUE(Restart(CorePlacement::kBesideExe, {}, false, {"--service"})) << helper.error;
  EXPECT_EQ(member.Ask(ping), kPong);
  EXPECT_EQ(stranger.Ask(ping), kForbidden);
  // Through a socket bound to the loopback device, which the identity
  // look-up must ask for: root is served, a stranger is not.
  ASSERT_EQ(Post("/start-tun", Config("relay-17990")), kTunConnected);
  EXPECT_EQ(ExchangeBoundToLoopback(ping), kPong);
  EXPECT_EQ(stranger.Run([&] { return ExchangeBoundToLoopback(stop); }), kForbidden);
  // A client that closes before the accept leaves a row that names root
  // (TIME_WAIT or orphaned): a burst of such stops from a stranger stops
  // nothing. Nor does the core's own inbound, which relays for anyone and
  // runs as root.
  stranger.Run([&] {
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
    relayed = stranger.Run([&] { return ExchangeRaw(stop, "127.0.0.1:17990"); });
  }
  EXPECT_EQ(relayed, kForbidden);
  EXPECT_EQ(CountCores(), 1);
  EXPECT_EQ(Status(), kRunning);
  const std::string logs = Logs();
  EXPECT_EQ(logs.find("VPN stopped"), std::string::npos);
  EXPECT_NE(logs.find("] Refused a connection from pid "), std::string::npos);
  EXPECT_NE(logs.find(" (sing-box), a process the helper started: not allowed to use this helper"),
            std::string::npos);
  // A member's body over 64 MiB is refused from its head alone.
  EXPECT_EQ(ExchangeRaw("POST /start HTTP/1.1\r\nContent-Length: 67108865\r\n\r\n"),
            "HTTP/1.1 413 Payload Too Large\r\nContent-Type: text/plain\r\n"
            "Content-Length: 17\r\nConnection: close\r\n\r\nrequest too large");
  // Both loopbacks are the helper's: [::1] answers, and nobody else binds it.
  EXPECT_EQ(ExchangeRaw(ping, "[::1]:17891"), kPong);
  EXPECT_EQ(stranger.Run([] { return BindIpv6Loopback(); }), "taken");
  ASSERT_EQ(std::system(("usermod -aG orvel-vpn " + stranger.name).c_str()), 0);
  EXPECT_EQ(stranger.Ask(ping), kPong);

  // 64 connections in all: 16 silent ones of each of three members (the
  // first one's 17th is closed at once, while others are served), and root's
  // 16: a URL test that streams for 12 s, a head trickled past its 10 s, a
  // body that pauses 11 s, and 13 silent ones. The 65th is closed at once;
  // after 10 s the silent ones are closed and a request is answered again.
  std::vector<std::future<std::string>> holders;
  for (const Account* in : {&member, &stranger, &second}) {
    holders.push_back(std::async(std::launch::async, [in, first = in == &member] {
      return in->Run(
          [first]() -> std::string {
            std::vector<client::ClientSocket> held = OpenSilent(16);
            client::ClientSocket extra;
            if (!first) return "held";
            return ConnectToHelper(extra) && ClosedWithoutAnswer(extra, 2000) ? "closed" : "open";
          },
          12000);
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
  std::string held;
  for (auto& holder : holders) held += holder.get() + " ";
  EXPECT_EQ(held, "closed held held ");
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
  const Ipv4 v4(INADDR_LOOPBACK, kHelperPort);
  const sockaddr_in6 v6{AF_INET6, htons(kHelperPort), 0, in6addr_any, 0};
  for (const bool ipv4 : {true, false}) {
    // A socket belongs to the account that makes it.
    client::ClientSocket held;
    ASSERT_EQ(seteuid(stranger.uid), 0);
    held.handle = socket(ipv4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(seteuid(0), 0);
    const int listener = static_cast<int>(held.handle), on = 1;
    // The helper's closed connections linger in TIME_WAIT.
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    ASSERT_EQ(bind(listener, ipv4 ? v4.get() : reinterpret_cast<const sockaddr*>(&v6),
                   ipv4 ? Ipv4::size : sizeof(v6)),
              0);
    ASSERT_EQ(listen(listener, 8), 0);
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"start", config.string(), "--tun"}, {"status"}, {"stop"}}) {
      EXPECT_EQ(RunProgram(BinDirectory() / kOrvelctlFileName, arguments),
                std::tuple(8u, std::string(), refusal))
          << ipv4 << " " << arguments.at(0);
    }
    EXPECT_LT(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), 0) << "orvelctl connected";
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
  for (const auto& [arguments, code, out, err] : lines)
    EXPECT_EQ(RunProgram(BinDirectory() / "orvel-vpn-helper", arguments),
              std::tuple(code, out, err))
        << arguments.back();
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), "");
  // The service tells systemd it is ready once it accepts connections, and
  // that it stops; SIGTERM stops its core with SIGTERM and it exits 0.
  const fs::path notifyPath = WorkDirectory() / "notify";
  fs::remove(notifyPath, ec);
  client::ClientSocket notify;
  notify.handle = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  notifyPath.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(
      bind(static_cast<int>(notify.handle), reinterpret_cast<sockaddr*>(&address), sizeof(address)),
      0);
  const auto message = [&notify] {
    char text[256];
    const int got = client::ReceiveSome(notify, text, sizeof(text), 10000);
    return got > 0 ? std::string(text, got) : "none";
  };
  const fs::path root = CopyHelperToTmp();
  ASSERT_FALSE(root.empty());
  fs::copy_file(DoublesDirectory() / "sing-box", root / "sing-box");
  ResetTestRecords();
  const fs::path journal = WorkDirectory() / "service-stderr.txt";
  const pid_t service =
      StartProgram(root / "orvel-vpn-helper", {"--service"}, "/", "/dev/null", journal, true,
                   [&] { setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1); });
  EXPECT_EQ(message(), "READY=1");
  EXPECT_EQ(ExchangeRaw("GET /ping HTTP/1.1\r\n\r\n"), kPong);
  EXPECT_EQ(Post("/start-tun", Config()), kTunConnected);
  CoreRun();
  Post("/cancel-urltest", "\x1b[2J");  // a caller's control bytes, escaped in both
  // Its standard error (the journal's) has every log line in order, without
  // the timestamp.
  std::string logged;
  std::istringstream log(Logs());
  for (std::string line; std::getline(log, line);)
    logged += line.substr(line.find("] ") + 2, line.size() - line.find("] ") - 3) + "\n";
  EXPECT_EQ(logged.find("OrvelVpnHelper started\n"), 0u) << logged;
  EXPECT_EQ(ReadFileBytes(journal), logged);
  kill(service, SIGTERM);
  EXPECT_EQ(message(), "STOPPING=1");
  EXPECT_EQ(WaitForExit(service, 10000), 0);
  EXPECT_EQ(ReadFileBytes(RecordPath("core-signal.txt")), "signal=SIGTERM\n");

  const Account user("orvel-e2e-inst");
  const bool madeGroup = getgrnam("orvel-vpn") == nullptr;
  // Not root: refused before anything is written (where another account may
  // run anything at all).
  for (const char* mode : {"--install-service", "--uninstall-service"}) {
    if (!OthersMayEnterTheRoot()) break;
    EXPECT_EQ(
        WaitForExit(StartProgram(root / "orvel-vpn-helper", {mode}, "/", "/dev/null", "/dev/null",
                                 false, [&] { BecomeAccount(user.uid, user.gid); }),
                    10000),
        2)
        << mode;
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
      {"core", "core/sing-box is owned by uid " + uid},
      {"moved dir", ""}};  // and a folder whose name has a space, which is fine
  std::string refused;
  for (const auto& [name, reason] : refusals) {
    fs::create_directories(root / name);
    fs::copy_file(BinDirectory() / "orvel-vpn-helper", root / name / "orvel-vpn-helper");
    if (reason.empty()) continue;
    refused += "refusing to install: " + PathText(root) + "/" + reason +
               "\ninstall orvel-vpn-helper (and sing-box beside it) in a folder only root can "
               "write to, such as /usr/local/lib/orvel-vpn-helper, or from the package\nrc=6\n";
  }
  ASSERT_EQ(chown((root / "user").c_str(), user.uid, user.gid), 0);
  fs::permissions(root / "group", fs::perms(0775));
  fs::copy_file(DoublesDirectory() / "sing-box", root / "core" / "sing-box");
  ASSERT_EQ(chown((root / "core" / "sing-box").c_str(), user.uid, user.gid), 0);
  // $0: the folder of the copies, $1: where the rule goes, $2: the user behind
  // sudo. At the end the uninstaller: the unit it cannot remove, then
  // everything of the helper's, the last configuration included, and then
  // nothing to do.
  const std::string script =
      "r() { \"$@\"; echo \"rc=$?\"; }; h=\"$0/orvel-vpn-helper\"; s=/etc/systemd/system\n"
      "u=$s/orvel-vpn-helper.service; v=/var/lib/orvel-vpn-helper\n"
      "mount -t tmpfs none $s && mount -t tmpfs none /etc/polkit-1 &&\n"
      "  mount -t tmpfs none /var/lib || exit 9\n"
      "for d in user group core; do r \"$0/$d/orvel-vpn-helper\" --install-service 2>&1; done\n"
      "find $s /etc/polkit-1 -mindepth 1; SUDO_UID=$2 \"$h\" --install-service; echo \"rc=$?\"\n"
      "systemd-analyze verify $u 2>&1; readlink $s/multi-user.target.wants/${u##*/}\n"
      "cp /etc/polkit-1/rules.d/50-orvel-vpn-helper.rules \"$1/rule.js\"\n"
      "r \"$0/moved dir/orvel-vpn-helper\" --install-service; grep ExecStart $u\n"
      "mount -o remount,ro $s; r \"$h\" --install-service; mkdir -p $v/data\n"
      "echo '{}' >$v/sing-box.json; r \"$h\" --uninstall-service; mount -o remount,rw $s\n"
      "r \"$h\" --uninstall-service; r \"$h\" --uninstall-service\n"
      "find $s /etc/polkit-1 /var/lib ! -type d; find /var/lib -mindepth 1\n";
  const auto [code, out, err] =
      RunProgram("/usr/bin/unshare",
                 {"--mount", "sh", "-c", script, PathText(root), PathText(WorkDirectory()), uid});
  fs::remove_all(root, ec);
  EXPECT_EQ(out, refused +
                     "rc=0\n/etc/systemd/system/orvel-vpn-helper.service\nrc=0\nExecStart=\"" +
                     PathText(root / "moved dir" / "orvel-vpn-helper") +
                     "\" --service\nrc=3\nrc=3\nrc=0\nrc=0\n")
      << err;
  // Other runs on this machine may have members of their own in the group.
  EXPECT_EQ(std::system(("id -nG " + user.name + " | grep -qw orvel-vpn").c_str()), 0);
  if (madeGroup) std::system("groupdel orvel-vpn");
  // The rule, as polkit runs it: start, stop and restart of this unit for
  // members only.
  const std::string check =
      "let rule; const polkit = {Result: {YES: 'yes'}, addRule: f => { rule = f; }};\n"
      "eval(require('fs').readFileSync(process.argv[1], 'utf8'));\n"
      "const m = 'org.freedesktop.systemd1.manage-units', u = 'orvel-vpn-helper.service';\n"
      "console.log([[m, u, 'start', 'orvel-vpn'], [m, u, 'stop', 'orvel-vpn'],\n"
      "  [m, u, 'restart', 'orvel-vpn'], [m, u, 'start', 'users'], [m, u, 'enable', 'orvel-vpn'],\n"
      "  [m, 'ssh.service', 'stop', 'orvel-vpn'], ['org.freedesktop.login1.reboot', u, 'start',\n"
      "  'orvel-vpn']].map(([id, unit, verb, group]) => rule({id, lookup: k => ({unit, "
      "verb})[k]},\n"
      "    {isInGroup: g => g == group}) || 'no').join(' '));\n";
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
  const GsettingsValues users[] = {
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
    SetGsettings(user);
    const std::string before = ProxySettings();
    ASSERT_EQ(Post("/start", Config()), kConnected);
    EXPECT_TRUE(fs::exists(autostart));
    const std::string during = ProxySettings();
    for (const std::string& line :
         {std::string("org.gnome.system.proxy mode 'manual'\n"),
          std::string("org.gnome.system.proxy ignore-hosts ['localhost', '127.0.0.1', '::1']\n"),
          std::string("org.gnome.system.proxy.https host '127.0.0.1'\n"),
          std::string("org.gnome.system.proxy.socks port 2080\n"), set2080}) {
      EXPECT_NE(during.find(line), std::string::npos) << line << during;
    }
    // A second start on another port keeps the user's values, not the helper's.
    EXPECT_EQ(Post("/start", Config({}, "3000")), kConnected);
    EXPECT_NE(ProxySettings().find("org.gnome.system.proxy.http port 3000\n"), std::string::npos);
    EXPECT_EQ(Post("/stop"), kDisconnected);
    EXPECT_EQ(ProxySettings(), user.empty() ? defaults : before);
    EXPECT_FALSE(fs::exists(autostart));
    EXPECT_EQ(user.empty() ? std::get<1>(RunProgram("/usr/bin/dconf", {"dump", "/"})) : "", "");
  }

  // Killed while set: a next helper without a session bus can neither
  // restore nor start (nothing would last), and keeps the saved values; one with
  // the bus puts them back before it answers. SIGTERM: they are back when it
  // has ended.
  SetUserProxy();
  const std::string user = ProxySettings();
  ASSERT_EQ(Post("/start", Config()), kConnected);
  EndWith(helper, SIGKILL);
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
  EXPECT_EQ(EndWith(helper, SIGTERM), 0);
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
  EndWith(helper, SIGKILL);
  EXPECT_EQ(std::get<0>(RunProgram("/bin/sh", {"-c", command})), 0u);
  EXPECT_EQ(ProxySettings(), user);
  EXPECT_FALSE(fs::exists(autostart));

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

  // KDE Plasma 5 (as its session names itself): kioslaverc too, through the
  // tools ending in 5, each key back (an absent one deleted).
  setenv("XDG_CURRENT_DESKTOP", "ubuntu:KDE", 1);
  setenv("KDE_SESSION_VERSION", "5", 1);
  ASSERT_TRUE(Restart()) << helper.error;
  const auto kde = [](std::vector<std::string> keys) {
    std::string values;
    for (const std::string& key : keys) {
      values += std::get<1>(
          RunProgram("/usr/bin/kreadconfig5", {"--file", "kioslaverc", "--group", "Proxy Settings",
                                               "--key", key, "--default", "absent"}));
    }
    return values;
  };
  for (const auto& [key, value] :
       {std::pair{"ProxyType", "0"}, {"NoProxyFor", "-internal.example"}}) {
    // The list is one the tool could take for options.
    RunProgram("/usr/bin/kwriteconfig5",
               {"--file", "kioslaverc", "--group", "Proxy Settings", "--key", key, "--", value});
  }
  ASSERT_EQ(Post("/start", Config()), kConnected);
  EXPECT_EQ(kde({"ProxyType", "httpProxy", "httpsProxy", "socksProxy", "NoProxyFor"}),
            "1\nhttp://127.0.0.1:2080\nhttp://127.0.0.1:2080\nsocks://127.0.0.1:2080\n"
            "localhost,127.0.0.1,::1\n");
  EXPECT_NE(ProxySettings().find(set2080), std::string::npos);
  EXPECT_EQ(Post("/stop"), kDisconnected);
  EXPECT_EQ(kde({"ProxyType", "httpProxy", "httpsProxy", "NoProxyFor"}),
            "0\nabsent\nabsent\n-internal.example\n");
  unsetenv("XDG_CURRENT_DESKTOP");
  unsetenv("KDE_SESSION_VERSION");
  helper.Stop();
}

}  // namespace
}  // namespace orvel::test
