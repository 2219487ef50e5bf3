// Prints the service's files for the Debian package, from the functions the
// installer writes them with, so that the two can never drift apart:
//   orvel-service-files unit     the unit for the packaged helper
//   orvel-service-files rule     the polkit rule
#include <cstdio>
#include <string_view>

#include "entry/service_unit.h"

int main(int argc, char** argv) {
  const std::string_view what = argc == 2 ? argv[1] : "";
  if (what == "unit") {
    std::fputs(orvel::BuildServiceUnit(orvel::kPackagedHelperPath).c_str(), stdout);
  } else if (what == "rule") {
    std::fputs(orvel::BuildPolkitRule().c_str(), stdout);
  } else {
    std::fputs("usage: orvel-service-files unit|rule\n", stderr);
    return 2;
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
