#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class QProcess;
class QProcessEnvironment;
class QTemporaryDir;

namespace quiltest {

// A private PulseAudio server on a null sink, so that ALSA's "pulse" PCM and
// ctl give real-time playback, capture and mixer events without hardware.
// Start it once per test executable: it takes about 2 s, mostly waiting for
// the null sink to leave its 2 s rendering blocks.
//
// A successful start() sets PULSE_SERVER in this process and keeps it set
// after stop() and killServer(), so clients then fail to connect instead of
// finding (or spawning) some other server.
class PulseServer {
public:
    PulseServer();
    ~PulseServer();
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    // Started on first use; stopped when the process exits normally.
    static PulseServer& shared();

    bool start(QString* error = nullptr);
    void stop();
    bool isRunning() const;
    // Simulates a backend crash: no clean shutdown, the socket is left behind.
    void killServer();

    QString socketPath() const;
    QString serverString() const;
    QString directory() const;

    // stdout goes to output; stderr is appended when pactl fails.
    bool pactl(const QStringList& args, QString* output = nullptr);

private:
    QProcessEnvironment childEnvironment() const;
    bool runPactl(const QStringList& args, QString* output, int timeoutMs);
    bool prepareDirectory(QString* error);
    bool waitForLowLatency(qint64 budgetMs, QString* error);
    bool fail(QString* error, const QString& why);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QProcess> m_server;
    std::unique_ptr<QProcess> m_recorder;
    qint64 m_owner = 0;
};

} // namespace quiltest
