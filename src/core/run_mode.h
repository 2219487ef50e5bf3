#pragma once

namespace orvel {

// Whether this process is the Windows service (LocalSystem) rather than the
// user's own stand-alone helper. Set once by the service entry before the
// listener starts; read by every request that hands a configuration to the
// core. False until then.
void MarkRunningAsService();
bool IsRunningAsService();

}  // namespace orvel
