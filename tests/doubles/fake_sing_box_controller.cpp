#include "doubles/fake_sing_box.h"

void StartControllerIfConfigured(const std::string&) {
  // The controller double arrives with the traffic snapshot.
}
