#pragma once

// The process-wide record through which a cancel reaches a URL test that runs
// on other threads: the request ids that carry a cancel mark and the test
// processes running under each id. One lock guards both tables and is held
// for the table operations only (never while terminating, waiting or logging).
// Request ids are compared byte for byte; an empty id never matches anything.
// A test process is held as its runner's ChildProcess::process, never closed
// here: the runner that started the process owns it.
//
// A cancel for an id that no running test has is kept only a while: any
// local caller may send one, and each would otherwise stay for good.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/child_process.h"

namespace orvel {

constexpr std::string_view kCancelAnswerCanceled = "{\"status\":\"canceled\"}";
constexpr std::string_view kCancelAnswerIgnored = "{\"status\":\"ignored\"}";

// Marks of ids without a running test: at most this many (the oldest goes
// first), each for at most this long, and only for ids up to this length.
constexpr std::size_t kMaxWaitingCancels = 64;
constexpr std::uint64_t kWaitingCancelMs = 60000;
constexpr std::size_t kMaxWaitingCancelIdBytes = 128;

// Milliseconds of the steady clock, the registry's time unless a test gives one.
std::uint64_t SteadyNowMs();

bool IsUrlTestCanceled(std::string_view requestId, std::uint64_t nowMs = SteadyNowMs());
// A test with this id starts or ends: its cancel mark and process list are
// dropped (only a cancel that arrives from now on counts for it), and it is
// counted among the running tests until it ends.
void BeginUrlTest(std::string_view requestId);
void EndUrlTest(std::string_view requestId);
void RegisterTestProcess(std::string_view requestId, ChildHandle process);
// Removes every occurrence of `process`; the id's entry goes with its last process.
void UnregisterTestProcess(std::string_view requestId, ChildHandle process);

// Marks the id as cancelled and returns its running processes in start order,
// each passed through `keep` while the lock is still held. A runner may close
// its handle as soon as the lock is released, so `keep` is where the caller
// takes a copy that stays valid (a duplicate); it may return kNoChildHandle.
std::vector<ChildHandle> MarkUrlTestCanceled(std::string_view requestId,
                                             ChildHandle (*keep)(ChildHandle),
                                             std::uint64_t nowMs = SteadyNowMs());

// "/cancel-urltest": the whole body is the request id, nothing trimmed.
// Kills the id's processes (Windows: exit code 1) and logs the count.
std::string HandleCancelUrlTest(const std::string& body);

}  // namespace orvel
