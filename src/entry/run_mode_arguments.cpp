#include "entry/run_mode_arguments.h"

#include <cstring>

namespace orvel {

HelperMode ChooseHelperMode(std::span<const char* const> arguments) {
  for (const char* argument : arguments) {
    if (std::strstr(argument, "--install-service") != nullptr) return HelperMode::kInstall;
  }
  HelperMode chosen = HelperMode::kStandAlone;
  for (const std::string_view argument : arguments) {
    HelperMode mode = HelperMode::kWrongArguments;
    if (argument == "--service") mode = HelperMode::kService;
    if (argument == "--uninstall-service") mode = HelperMode::kUninstall;
    if (argument == "--restore-proxy") mode = HelperMode::kRestoreProxy;
    if (argument == "--version") mode = HelperMode::kVersion;
    if (argument == "--help") mode = HelperMode::kHelp;
    // A mistyped switch must never start a helper nobody asked for.
    if (mode == HelperMode::kWrongArguments) return mode;
    if (chosen == HelperMode::kStandAlone || chosen == HelperMode::kService) chosen = mode;
  }
  return chosen;
}

}  // namespace orvel
