#pragma once

namespace orvel {

// Windows stand-alone helper only. A logoff or shutdown ends a program
// without a console or a visible window with no notice at all, so the helper
// owns one hidden top-level window (a message-only window gets no session
// messages) on a thread of its own: it allows every session end, and when the
// end is decided puts the user's proxy settings back and stops the core
// before answering, because Windows ends the process right after that answer.
// Nothing shows: the window is never shown and has no taskbar entry. When the
// window cannot be made the helper runs without it.
void StartSessionEndWatcher();

}  // namespace orvel
