#pragma once

// What the Service Control Manager does when the service process ends
// without reporting "stopped" (a crash, a kill): the content of the
// SERVICE_FAILURE_ACTIONS record the installer sets, as plain data, so that
// it can be checked where no Service Control Manager keeps it (Wine stores
// nothing and restarts nothing).

#include <array>
#include <cstdint>

namespace orvel {

// SC_ACTION_RESTART; the Windows file checks that the numbers agree.
constexpr std::uint32_t kServiceActionRestart = 1;

struct ServiceFailureAction {
  std::uint32_t type = 0;  // an SC_ACTION_TYPE
  std::uint32_t delayMs = 0;
};

struct ServiceFailureActions {
  // Seconds without a failure after which the failure count starts again.
  std::uint32_t resetPeriodSeconds = 0;
  // The first failure, the second, the third. Past the end the Service
  // Control Manager repeats the last entry, so a service that keeps crashing
  // is restarted every 30 s, never left down.
  std::array<ServiceFailureAction, 3> actions{};
};

inline ServiceFailureActions BuildServiceFailureActions() {
  return {24 * 60 * 60,
          {{{kServiceActionRestart, 5000},
            {kServiceActionRestart, 10000},
            {kServiceActionRestart, 30000}}}};
}

}  // namespace orvel
