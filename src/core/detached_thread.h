#pragma once

namespace orvel {

// Runs `run(argument)` on a thread nobody joins (a connection, the core's
// watcher, the traffic reader), with a 256 KiB stack: every open connection
// holds such a thread, an idle client included, and the deepest path (a URL
// test stream or a snapshot) needs a few KiB of it. False when no thread could
// be started; `argument` is then still the caller's.
//
// On Windows a plain CreateThread, not a detached std::thread: the MinGW
// threads library races when it recycles a detached thread's record, and now
// and then a new thread starts with a null argument (about once per thousand
// short connections under Wine).
bool StartDetachedThread(void (*run)(void*), void* argument);

}  // namespace orvel
