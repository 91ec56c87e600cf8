#pragma once

// How a command learns that it should stop, and the bound on waiting for a
// device that never returns. Commands poll: a loop between blocks, an event
// loop on a timer.

namespace quilaudio {

/// From now on SIGINT and SIGTERM ask the command to stop and SIGUSR1 to
/// toggle (mute); SIGPIPE is ignored, so that a reader that goes away shows
/// as a failed write rather than a silent death.
void watchSignals();
/// True once SIGINT or SIGTERM arrived; safe in any thread.
bool stopRequested();
/// True when an odd number of SIGUSR1 arrived since the last call.
bool takeToggleRequest();

/// Ends the process with a one-line report if it is still running `seconds`
/// from now (0 disarms): every wait on a device that might never return is bounded.
void armStopWatchdog(unsigned int seconds);

} // namespace quilaudio
