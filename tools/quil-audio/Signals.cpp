#include "Signals.h"

#include "CommandLine.h"

#include <QSocketNotifier>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace quilaudio {

namespace {

int selfPipe[2] = {-1, -1};
std::atomic<bool> stopFlag{false};

void onSignal(int signal)
{
    const int savedErrno = errno;
    if (signal != SIGUSR1) {
        stopFlag = true;
        // libsndfile retries a read that a signal interrupts: an input that
        // stays open but silent (a terminal, a quiet pipe) ends here instead.
        const int devNull = ::open("/dev/null", O_RDONLY);
        if (devNull >= 0) {
            ::dup2(devNull, STDIN_FILENO);
            ::close(devNull);
        }
    }
    const char byte = static_cast<char>(signal);
    if (::write(selfPipe[1], &byte, 1) < 0) {
        // A full pipe already holds a wake-up; the flag carries the stop.
    }
    errno = savedErrno;
}

void onWatchdog(int)
{
    static const char text[] = "quil-audio: the device did not stop in time, giving up\n";
    if (::write(STDERR_FILENO, text, sizeof text - 1) < 0) {
        // Nothing more can be done on the way out.
    }
    ::_exit(ExitFailed);
}

void setHandler(int signal, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: blocking calls return on Ctrl-C.
    sigaction(signal, &action, nullptr);
}

} // namespace

SignalWatcher::SignalWatcher()
{
    if (selfPipe[0] < 0 && ::pipe2(selfPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        selfPipe[0] = selfPipe[1] = -1;
    if (selfPipe[0] >= 0) {
        m_notifier = new QSocketNotifier(selfPipe[0], QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &SignalWatcher::onSelfPipeReadable);
    }
    for (int signal : {SIGINT, SIGTERM, SIGUSR1})
        setHandler(signal, onSignal);
    // A reader that goes away shows as a failed write, not as a silent death.
    std::signal(SIGPIPE, SIG_IGN);
}

SignalWatcher::~SignalWatcher()
{
    for (int signal : {SIGINT, SIGTERM, SIGUSR1})
        setHandler(signal, SIG_DFL);
}

bool SignalWatcher::stopRequested()
{
    return stopFlag;
}

void SignalWatcher::onSelfPipeReadable()
{
    char received[16];
    ssize_t n;
    while ((n = ::read(selfPipe[0], received, sizeof received)) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            if (received[i] == SIGUSR1)
                emit toggleSignalled();
            else
                emit stopSignalled();
        }
    }
}

void armStopWatchdog(unsigned int seconds)
{
    setHandler(SIGALRM, onWatchdog);
    ::alarm(seconds);
}

} // namespace quilaudio
