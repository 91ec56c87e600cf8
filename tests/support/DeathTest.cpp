#include "DeathTest.h"

#include <QtGlobal>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#if defined(QUIL_TEST_COVERAGE)
// Neither _exit() nor an abort writes the counts of a coverage build
// (scripts/coverage.sh), so the child writes them itself before it ends.
extern "C" void __gcov_dump();
#endif

namespace quiltest {

namespace {
int s_pipeFd = -1;

void writeCoverageCounts()
{
#if defined(QUIL_TEST_COVERAGE)
    __gcov_dump();
#endif
}

void reportFatal(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type != QtFatalMsg)
        return;
    const QByteArray bytes = message.toUtf8();
    (void)!write(s_pipeFd, bytes.constData(), static_cast<size_t>(bytes.size()));
    writeCoverageCounts();
}
} // namespace

DeathResult runInChild(const std::function<void()>& body)
{
    int fds[2];
    if (pipe(fds) != 0)
        return {};
    const pid_t pid = fork();
    if (pid == 0) {
        ::close(fds[0]);
        s_pipeFd = fds[1];
        qInstallMessageHandler(reportFatal);
        body();
        writeCoverageCounts();
        _exit(0);
    }
    ::close(fds[1]);
    DeathResult result;
    QByteArray text;
    char chunk[512];
    ssize_t n;
    while ((n = ::read(fds[0], chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<int>(n));
    ::close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    result.fatalMessage = QString::fromUtf8(text);
    return result;
}

} // namespace quiltest
