#include "bench_load.h"

// windows.h (through bench_load.h) first: psapi.h and tlhelp32.h depend on it.
#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "support/harness.h"

namespace orvel::bench {

namespace {

// A plain connect to 127.0.0.1 with a 10 s receive time-out, read with plain
// recv: the client library's resolver and its select() per read cost Wine
// tens of milliseconds per request, which would swamp the helper's own time.
bool ConnectRaw(unsigned short port, client::ClientSocket& socket) {
  const SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  socket.handle = static_cast<client::SocketHandle>(s);
  sockaddr_in address{AF_INET, htons(port), {}, {}};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const DWORD timeout = 10000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
  return s != INVALID_SOCKET &&
         connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

const std::string kPingRequest = "GET /ping HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
const std::string kPong =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\nConnection: "
    "close\r\n\r\npong";

// Wine answers GetProcessHandleCount with 0, so the handles are counted in
// the system-wide handle list as well (SystemExtendedHandleInformation).
struct HandleEntry {
  void* object;
  ULONG_PTR processId;
  ULONG_PTR handleValue;
  ULONG grantedAccess;
  USHORT creatorBackTraceIndex;
  USHORT objectTypeIndex;
  ULONG handleAttributes;
  ULONG reserved;
};
struct HandleList {
  ULONG_PTR count;
  ULONG_PTR reserved;
  HandleEntry entries[1];
};

DWORD CountHandlesOf(DWORD processId) {
  using QueryFn = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
  const auto query = reinterpret_cast<QueryFn>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
  if (query == nullptr) return 0;
  std::vector<unsigned char> buffer(1 << 20);
  ULONG needed = 0;
  LONG status = 0;
  while ((status = query(64, buffer.data(), static_cast<ULONG>(buffer.size()), &needed)) ==
         static_cast<LONG>(0xC0000004)) {  // STATUS_INFO_LENGTH_MISMATCH
    buffer.resize(buffer.size() * 2);
  }
  if (status != 0) return 0;
  const auto* list = reinterpret_cast<const HandleList*>(buffer.data());
  DWORD count = 0;
  for (ULONG_PTR i = 0; i < list->count; ++i) {
    if (list->entries[i].processId == processId) ++count;
  }
  return count;
}

DWORD CountThreadsOf(DWORD processId) {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  DWORD count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == processId) ++count;
  }
  CloseHandle(snapshot);
  return count;
}

long Delta(SIZE_T before, SIZE_T after) {
  return static_cast<long>(static_cast<long long>(after) - static_cast<long long>(before));
}

}  // namespace

bool StartBenchHelper(test::ScopedHelper& helper, test::CorePlacement core) {
  if (helper.Start({core})) return true;
  std::printf("helper did not start: %s\n", helper.error.c_str());
  return false;
}

LoadRun RunPingLoad(unsigned short port, int clients, int perClient) {
  std::vector<std::vector<double>> samples(static_cast<std::size_t>(clients));
  std::vector<int> errors(static_cast<std::size_t>(clients), 0);
  const double start = NowUs();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      for (int i = 0; i < perClient; ++i) {
        const double begin = NowUs();
        std::string answer;
        client::ClientSocket s;
        if (ConnectRaw(port, s) && client::SendAllBytes(s, kPingRequest)) {
          char chunk[4096];
          for (int got; (got = recv(static_cast<SOCKET>(s.handle), chunk, 4096, 0)) > 0;)
            answer.append(chunk, static_cast<std::size_t>(got));
        }
        const double elapsed = NowUs() - begin;
        if (answer == kPong) {
          samples[static_cast<std::size_t>(c)].push_back(elapsed);
        } else {
          ++errors[static_cast<std::size_t>(c)];
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  LoadRun run;
  run.wallMs = (NowUs() - start) / 1000.0;
  std::vector<double> all;
  for (std::size_t c = 0; c < samples.size(); ++c) {
    all.insert(all.end(), samples[c].begin(), samples[c].end());
    run.errors += errors[c];
  }
  run.summary = Summarize(all);
  return run;
}

std::string DescribeLoad(const LoadRun& run) {
  char text[96];
  std::snprintf(text, sizeof(text), ", errors %d, %.0f req/s", run.errors, run.RequestsPerSecond());
  return Describe(run.summary) + text;
}

ProcessUsage MeasureProcess(HANDLE process) {
  ProcessUsage usage;
  GetProcessHandleCount(process, &usage.handles);
  if (usage.handles == 0) usage.handles = CountHandlesOf(GetProcessId(process));
  usage.threads = CountThreadsOf(GetProcessId(process));
  PROCESS_MEMORY_COUNTERS_EX counters{};
  counters.cb = sizeof(counters);
  if (K32GetProcessMemoryInfo(process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                              sizeof(counters))) {
    usage.privateBytes = counters.PrivateUsage;
    usage.committedBytes = counters.PagefileUsage;
    usage.workingSetBytes = counters.WorkingSetSize;
  }
  return usage;
}

std::string DescribeUsage(const ProcessUsage& usage) {
  char text[160];
  std::snprintf(text, sizeof(text),
                "handles %lu, threads %lu, private %zu KiB, committed %zu KiB, working set %zu KiB",
                usage.handles, usage.threads, usage.privateBytes / 1024,
                usage.committedBytes / 1024, usage.workingSetBytes / 1024);
  return text;
}

std::string DescribeGrowth(const ProcessUsage& before, const ProcessUsage& after) {
  char text[160];
  std::snprintf(
      text, sizeof(text),
      "handles %+ld, threads %+ld, private %+ld KiB, committed %+ld KiB, working set %+ld KiB",
      Delta(before.handles, after.handles), Delta(before.threads, after.threads),
      Delta(before.privateBytes, after.privateBytes) / 1024,
      Delta(before.committedBytes, after.committedBytes) / 1024,
      Delta(before.workingSetBytes, after.workingSetBytes) / 1024);
  return text;
}

}  // namespace orvel::bench
