#include "PulseServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <csignal>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quiltest {

namespace {

constexpr int kStartBudgetMs = 15000;
constexpr int kPactlTimeoutMs = 10000;
constexpr qint64 kWarmLatencyUsec = 50000;

// A crashed or killed test executable must not leave a server behind.
class ChildProcess : public QProcess {
protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }
};

void terminate(QProcess* process)
{
    if (!process || process->state() == QProcess::NotRunning)
        return;
    process->terminate();
    if (!process->waitForFinished(3000)) {
        process->kill();
        process->waitForFinished(3000);
    }
}

bool isPrivateDirectory(const QByteArray& path)
{
    struct stat st {};
    return !path.isEmpty() && ::stat(path.constData(), &st) == 0 && S_ISDIR(st.st_mode)
        && st.st_uid == ::geteuid() && (st.st_mode & 077) == 0;
}

} // namespace

PulseServer::PulseServer() = default;

PulseServer::~PulseServer()
{
    if (m_owner != 0 && m_owner != ::getpid()) {
        // A forked child (death test) holds copies of the parent's handles:
        // destroying them would kill the parent's server and delete its directory.
        (void)m_server.release();
        (void)m_recorder.release();
        (void)m_dir.release();
        return;
    }
    stop();
}

PulseServer& PulseServer::shared()
{
    static PulseServer server;
    static const bool started = [] {
        QString error;
        if (!server.start(&error))
            qWarning("PulseServer: %s", qPrintable(error));
        return true;
    }();
    (void)started;
    return server;
}

QString PulseServer::directory() const { return m_dir ? m_dir->path() : QString(); }
QString PulseServer::socketPath() const { return directory() + QStringLiteral("/run/native"); }
QString PulseServer::serverString() const { return QStringLiteral("unix:") + socketPath(); }

QProcessEnvironment PulseServer::childEnvironment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), directory() + QStringLiteral("/home"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), directory() + QStringLiteral("/run"));
    env.insert(QStringLiteral("PULSE_SERVER"), serverString());
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C")); // we parse pactl's output
    return env;
}

bool PulseServer::prepareDirectory(QString* error)
{
    if (!m_dir) {
        // Unix socket paths are limited to 108 bytes, a deep TMPDIR can exceed that.
        QString base = QDir::tempPath();
        if (base.size() > 60)
            base = QStringLiteral("/tmp");
        m_dir.reset(new QTemporaryDir(base + QStringLiteral("/quiltest-pulse-XXXXXX")));
        if (!m_dir->isValid()) {
            m_dir.reset();
            return fail(error, QStringLiteral("cannot create a temporary directory in ") + base);
        }
        const QByteArray root = QFile::encodeName(m_dir->path());
        if (::mkdir(root + "/run", 0700) != 0 || ::mkdir(root + "/home", 0700) != 0)
            return fail(error, QStringLiteral("cannot create run/ and home/ in ") + m_dir->path());
    }

    QFile config(directory() + QStringLiteral("/pa.pa"));
    if (!config.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return fail(error, QStringLiteral("cannot write ") + config.fileName());
    config.write("load-module module-null-sink sink_name=testsink rate=48000 channels=2 format=s16le\n"
                 "load-module module-native-protocol-unix auth-anonymous=1 socket="
                 + QFile::encodeName(socketPath())
                 + "\nset-default-sink testsink\n"
                   "set-default-source testsink.monitor\n");
    config.close();

    // libpulse in this process would otherwise leave files in /tmp and create
    // ~/.config/pulse/cookie (auth-anonymous makes the cookie irrelevant).
    if (!isPrivateDirectory(qgetenv("XDG_RUNTIME_DIR")))
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(directory() + QStringLiteral("/run")));
    if (qEnvironmentVariableIsEmpty("PULSE_COOKIE"))
        qputenv("PULSE_COOKIE", QFile::encodeName(directory() + QStringLiteral("/home/cookie")));
    return true;
}

bool PulseServer::start(QString* error)
{
    if (isRunning())
        return true;
    stop();
    QElapsedTimer clock;
    clock.start();
    if (!prepareDirectory(error))
        return false;

    m_owner = ::getpid();
    m_server.reset(new ChildProcess);
    m_server->setProcessEnvironment(childEnvironment());
    m_server->setStandardOutputFile(QProcess::nullDevice());
    m_server->setStandardErrorFile(directory() + QStringLiteral("/pa.stderr"));
    m_server->start(QStringLiteral("pulseaudio"),
                    {QStringLiteral("-n"), QStringLiteral("-F"), directory() + QStringLiteral("/pa.pa"),
                     QStringLiteral("--daemonize=no"), QStringLiteral("--exit-idle-time=-1"),
                     QStringLiteral("--system=false"), QStringLiteral("--use-pid-file=no"),
                     QStringLiteral("--log-target=file:") + directory() + QStringLiteral("/pa.log")});
    if (!m_server->waitForStarted(5000))
        return fail(error, QStringLiteral("cannot run pulseaudio: ") + m_server->errorString());

    while (!runPactl({QStringLiteral("info")}, nullptr, 1000)) {
        if (!isRunning())
            return fail(error, QStringLiteral("pulseaudio exited during start-up"));
        if (clock.elapsed() > kStartBudgetMs)
            return fail(error, QStringLiteral("pulseaudio did not answer within 15 s"));
        QThread::msleep(20);
    }

    // An idle null sink renders in 2 s blocks, which stalls the first stream of
    // every test; a permanent low-latency recorder keeps it rendering in small ones.
    m_recorder.reset(new ChildProcess);
    m_recorder->setProcessEnvironment(childEnvironment());
    m_recorder->setStandardOutputFile(QProcess::nullDevice());
    m_recorder->setStandardErrorFile(directory() + QStringLiteral("/parec.stderr"));
    m_recorder->start(QStringLiteral("parec"),
                      {QStringLiteral("--raw"), QStringLiteral("--latency-msec=10"),
                       QStringLiteral("-d"), QStringLiteral("testsink.monitor")});
    if (!m_recorder->waitForStarted(5000))
        return fail(error, QStringLiteral("cannot run parec: ") + m_recorder->errorString());
    if (!waitForLowLatency(clock.elapsed() > kStartBudgetMs ? 0 : kStartBudgetMs - clock.elapsed(), error))
        return false;

    qputenv("PULSE_SERVER", serverString().toLocal8Bit());
    return true;
}

bool PulseServer::waitForLowLatency(qint64 budgetMs, QString* error)
{
    static const QRegularExpression latency(QStringLiteral("Latency: (\\d+) usec"));
    QElapsedTimer clock;
    clock.start();
    QString sinks;
    do {
        if (m_recorder->state() == QProcess::NotRunning)
            return fail(error, QStringLiteral("parec exited during start-up"));
        if (runPactl({QStringLiteral("list"), QStringLiteral("sinks")}, &sinks, 2000)) {
            const QRegularExpressionMatch match = latency.match(sinks);
            if (match.hasMatch() && match.captured(1).toLongLong() < kWarmLatencyUsec)
                return true;
        }
        QThread::msleep(50);
    } while (clock.elapsed() < budgetMs);
    return fail(error, QStringLiteral("the null sink latency stayed high; last pactl output:\n") + sinks);
}

bool PulseServer::fail(QString* error, const QString& why)
{
    if (error) {
        *error = why;
        QFile log(directory() + QStringLiteral("/pa.log"));
        if (log.open(QIODevice::ReadOnly))
            *error += QStringLiteral("\npulseaudio log:\n") + QString::fromLocal8Bit(log.readAll().right(2000));
    }
    stop();
    return false;
}

void PulseServer::stop()
{
    if (m_owner != ::getpid())
        return;
    terminate(m_recorder.get());
    terminate(m_server.get());
    m_recorder.reset();
    m_server.reset();
}

void PulseServer::killServer()
{
    if (isRunning()) {
        ::kill(static_cast<pid_t>(m_server->processId()), SIGKILL);
        m_server->waitForFinished(3000);
    }
    stop();
}

bool PulseServer::isRunning() const
{
    if (!m_server)
        return false;
    m_server->waitForFinished(0); // notices a death even without an event loop
    return m_server->state() == QProcess::Running;
}

bool PulseServer::pactl(const QStringList& args, QString* output)
{
    return runPactl(args, output, kPactlTimeoutMs);
}

bool PulseServer::runPactl(const QStringList& args, QString* output, int timeoutMs)
{
    if (!m_dir)
        return false;
    QProcess process;
    process.setProcessEnvironment(childEnvironment());
    process.start(QStringLiteral("pactl"), args);
    const bool finished = process.waitForStarted(timeoutMs) && process.waitForFinished(timeoutMs);
    if (!finished) {
        process.kill();
        process.waitForFinished(1000);
    }
    const bool ok = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (output) {
        *output = QString::fromLocal8Bit(process.readAllStandardOutput());
        if (!ok)
            *output += QString::fromLocal8Bit(process.readAllStandardError());
    }
    return ok;
}

} // namespace quiltest
