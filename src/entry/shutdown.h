#pragma once

namespace orvel {

// Puts the user's proxy settings back, then stops the core. Shared by every
// orderly end of the helper: the service's stop, a stand-alone listener that
// could not be set up, and on Linux the termination signals.
void RestoreProxyThenStopCore();

}  // namespace orvel
