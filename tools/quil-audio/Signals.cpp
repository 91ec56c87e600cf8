#include "Signals.h"

#include "CommandLine.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace quilaudio {

namespace {

std::atomic<bool> stopFlag{false};
std::atomic<int> toggles{0};

void onSignal(int signal)
{
    if (signal == SIGUSR1) {
        ++toggles;
        return;
    }
    stopFlag = true;
    // libsndfile retries a read that a signal interrupts: an input that
    // stays open but silent (a terminal, a quiet pipe) ends here instead.
    const int savedErrno = errno;
    const int devNull = ::open("/dev/null", O_RDONLY);
    if (devNull >= 0) {
        ::dup2(devNull, STDIN_FILENO);
        ::close(devNull);
    }
    errno = savedErrno;
}

void onWatchdog(int)
{
    static const char text[] = "quil-audio: the device did not stop in time, giving up\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, sizeof text - 1); // nothing more to do
    ::_exit(ExitFailed);
}

void setHandler(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: blocking calls return on Ctrl-C.
    sigaction(signal, &action, nullptr);
}

} // namespace

void watchSignals()
{
    for (int signal : {SIGINT, SIGTERM, SIGUSR1})
        setHandler(signal, onSignal);
    std::signal(SIGPIPE, SIG_IGN);
}

bool stopRequested() { return stopFlag; }

bool takeToggleRequest() { return toggles.exchange(0) % 2 == 1; }

void armStopWatchdog(unsigned int seconds)
{
    setHandler(SIGALRM, onWatchdog);
    ::alarm(seconds);
}

} // namespace quilaudio
