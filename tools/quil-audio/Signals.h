#pragma once

// How a command learns that it should stop, and the bound on waiting for a
// device that never returns.

#include <QObject>

class QSocketNotifier;

namespace quilaudio {

/// SIGINT and SIGTERM ask a command to stop, SIGUSR1 to toggle (mute); both
/// arrive as Qt signals on the thread that created the watcher (through a
/// self-pipe), and a stop request is also visible as a flag for loops that
/// run without an event loop. Handlers are installed for the watcher's life.
class SignalWatcher : public QObject
{
    Q_OBJECT

public:
    SignalWatcher();
    ~SignalWatcher() override;

    /// True once SIGINT or SIGTERM arrived; safe in any thread.
    static bool stopRequested();

signals:
    void stopSignalled();
    void toggleSignalled();

private:
    void onSelfPipeReadable();

    QSocketNotifier* m_notifier = nullptr;
};

/// Ends the process with a one-line report if it is still running `seconds`
/// from now (0 disarms): every wait on a device that might never return is bounded.
void armStopWatchdog(unsigned int seconds);

} // namespace quilaudio
