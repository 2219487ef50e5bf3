#include <windows.h>

#include "doubles/fake_sing_box.h"

int RunCoreMode(const std::vector<std::wstring>&) {
  // Stays up like a healthy core until it is terminated.
  for (;;) Sleep(INFINITE);
}
