#include <cstdio>

#include "doubles/fake_sing_box.h"

int RunToolsMode(const std::vector<std::wstring>&) {
  std::fputs("FATAL[0000] fetch is not imitated yet\n", stderr);
  return 1;
}
