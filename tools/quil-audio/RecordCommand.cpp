#include "Commands.h"

#include "AudioFile.h"
#include "CommandLine.h"
#include "PcmSamples.h"
#include "ProgressLine.h"
#include "Signals.h"

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"
#include "CMDataTransfer.h"
#include "FileInputDevice.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMutex>
#include <QTimer>
#include <QVector>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <unistd.h>

namespace quilaudio {

namespace {

const QString Command = QStringLiteral("record");

const char* const Usage = "Captures from an ALSA PCM (-D) or from a raw PCM file paced like a live source\n"
                          "(--input-file) and writes FILE: WAV (RF64 past 4 GiB), RF64, W64, FLAC, Ogg Vorbis or AU\n"
                          "by its extension or -t; raw PCM (interleaved frames, no header) for .raw, a name\n"
                          "without extension, or stdout.\n"
                          "Recording is asked for as capture starts or, with --trigger-dbfs, at the first sample\n"
                          "at or above that level. --pre-roll-ms starts the output that much audio before that\n"
                          "moment (that sample, with a trigger), taken from the ring buffer (--ring-ms). Audio\n"
                          "from before the capture started is silence. -d counts the whole output, the pre-roll\n"
                          "included.\n"
                          "--mute records silence; SIGUSR1 toggles muting. Ctrl-C ends the recording. On a terminal\n"
                          "a progress line shows the elapsed time and a peak meter per channel; the last line on\n"
                          "stderr sums up frames, peaks and capture errors.";

// A source that delivers nothing for this long is reported rather than waited for.
constexpr qint64 NoAudioTimeoutMs = 5000;
constexpr unsigned int StopTimeoutS = 5;
// The library computes ring offsets as ms × bytes per second in 31 bits.
constexpr qint64 MaxRingProduct = (qint64(1) << 31) - 1;

QString meterBar(double peak)
{
    constexpr int Width = 10;
    constexpr double FloorDb = -60.0;
    const double dB = peak > 0 ? 20.0 * std::log10(peak) : FloorDb;
    const int filled = static_cast<int>(std::lround(std::clamp(1.0 - dB / FloorDb, 0.0, 1.0) * Width));
    return QString(filled, QLatin1Char('#')) + QString(Width - filled, QLatin1Char('-'));
}

/// `quil-audio record`: captures through an AudioInputDataProvider from an
/// ALSA PCM or a raw file and writes an audio file or stdout.
///
/// Threads: run() and the progress display run on the calling thread, whose
/// event loop waits for the end; the provider's worker thread "AudioInputT"
/// delivers every block through the transfers' handlers, which measure,
/// trigger and write right there, so no block is copied between threads.
/// The two sides share only atomics and the meter's mutex; the worker's end
/// of recording reaches the event loop as a queued quit.
class RecordCommand {
public:
    int run(const QStringList& arguments)
    {
        if (const std::optional<int> status = readCommandLine(arguments))
            return *status;
        const int status = openSource();
        return status == ExitOk ? capture() : status;
    }

    /// The status to end with before anything opens (--help, a usage error), or none.
    std::optional<int> readCommandLine(const QStringList& arguments)
    {
        QCommandLineParser parser;
        addStreamOptions(parser, Usage, "Output file; \"-\" is stdout (raw).");
        addOptions(
            parser,
            {
                {"input-file", "Capture this raw file instead of an ALSA device.", "file"},
                {"F,period-time", "Period in microseconds (125000); one read of the provider.", "us"},
                {"B,buffer-time", "ALSA buffer in microseconds (4 periods).", "us"},
                {"ring-ms",
                 "Ring buffer of recent audio (the pre-roll, at least a period; a period more with a trigger).", "ms"},
                {"pre-roll-ms", "Start the output this much before recording is asked for.", "ms"},
                {"trigger-dbfs", "Ask for recording at the first sample at this level or above.", "dBFS"},
                {"mute", "Start muted (silence is recorded); SIGUSR1 toggles."},
            });
        return parseCommandLine(parser, arguments, Command, [&](QString* error) { return readOptions(parser, error); });
    }

private:
    int capture()
    {
        m_frameBytes = m_device->bytesPerSample() * m_device->channelCount();
        const qint64 bytesPerSecond = qint64(m_stream.rate) * m_frameBytes;
        if (m_ringMs * bytesPerSecond > MaxRingProduct)
            return fail(Command,
                        QStringLiteral("--ring-ms %1 is too long for this stream (at most %2 ms)")
                            .arg(m_ringMs)
                            .arg(MaxRingProduct / bytesPerSecond),
                        ExitUsage);
        if (!m_outputFile.openForWriting(m_output, m_stream.fileType,
                                         {m_stream.rate, m_stream.channels, m_stream.format}))
            return fail(Command, m_outputFile.errorString(), ExitFailed);
        return captureUntilDone();
    }

    bool readOptions(const QCommandLineParser& parser, QString* error)
    {
        if (!readStreamOptions(parser, &m_stream, error)
            || !readMicrosecondsAsMs(parser, QStringLiteral("period-time"), &m_periodMs, error)
            || !readMicrosecondsAsMs(parser, QStringLiteral("buffer-time"), &m_bufferMs, error)
            || !readInt(parser, QStringLiteral("ring-ms"), 0, 3600000, &m_ringMs, error)
            || !readInt(parser, QStringLiteral("pre-roll-ms"), 0, 3600000, &m_preRollMs, error)
            || !readFileArgument(parser, QStringLiteral("output"), &m_output, error))
            return false;
        if (m_output == QLatin1String("-") && ::isatty(STDOUT_FILENO) == 1)
            return refuse(error,
                          QStringLiteral("will not write audio to a terminal; give an output file or redirect stdout"));
        m_inputFile = parser.value(QStringLiteral("input-file"));
        m_startMuted = parser.isSet(QStringLiteral("mute"));
        m_framesWanted = m_stream.durationFrames();
        m_hasTrigger = parser.isSet(QStringLiteral("trigger-dbfs"));
        if (m_periodMs < 0)
            m_periodMs = DefaultPeriodMs;
        if (m_bufferMs < 0)
            m_bufferMs = DefaultBufferMs / DefaultPeriodMs * m_periodMs;

        // The ring must hold one read at least; without a pre-roll none is needed.
        // A trigger counts back from a sample inside the newest read, so the ring
        // holds that read besides (and a millisecond for rounding).
        if (m_ringMs < 0 && m_hasTrigger)
            m_ringMs = m_preRollMs + m_periodMs + 1;
        else if (m_ringMs < 0)
            m_ringMs = m_preRollMs > 0 ? std::max(m_preRollMs, m_periodMs) : 0;
        if (m_ringMs > 0 && m_ringMs < m_periodMs)
            return refuse(
                error, QStringLiteral("--ring-ms %1 holds less than one period (%2 ms)").arg(m_ringMs).arg(m_periodMs));
        if (m_preRollMs > m_ringMs)
            return refuse(error, QStringLiteral("--pre-roll-ms %1 is longer than the ring (--ring-ms %2)")
                                     .arg(m_preRollMs)
                                     .arg(m_ringMs));

        double triggerDb = 0;
        if (!readDouble(parser, QStringLiteral("trigger-dbfs"), &triggerDb, error))
            return false;
        if (m_hasTrigger && (triggerDb > 0 || !hasSampleValues(m_stream.format)))
            return refuse(error, triggerDb > 0
                                     ? QStringLiteral("--trigger-dbfs must be 0 or below, not %1").arg(triggerDb)
                                     : QStringLiteral("--trigger-dbfs cannot measure this sample format"));
        m_triggerPeak = std::pow(10.0, triggerDb / 20.0);
        return true;
    }

    int openSource()
    {
        if (m_inputFile.isEmpty()) {
            m_device = std::make_unique<AlsaInputDevice>(m_stream.device, static_cast<int>(m_stream.rate),
                                                         m_stream.channels, m_stream.format, m_periodMs, m_bufferMs);
            return ExitOk;
        }
        // FileInputDevice delivers silence for a file it cannot open; say why instead.
        auto file = std::make_unique<FileInputDevice>(static_cast<int>(m_stream.rate),
                                                      static_cast<int>(m_stream.channels), m_stream.format);
        if (!file->playFile(m_inputFile)) {
            const QString why = file->errorCode() < 0 ? qt_error_string(-file->errorCode()) : file->errorString();
            return fail(Command, QStringLiteral("cannot open '%1': %2").arg(m_inputFile, why), ExitFailed);
        }
        m_device = std::move(file);
        return ExitOk;
    }

    int captureUntilDone()
    {
        // 64-bit: a high rate times a long period passes 2^32.
        const uint64_t periodFrames = uint64_t(m_stream.rate) * uint64_t(std::max(m_periodMs, 0)) / 1000u;
        m_provider = new AudioInputDataProvider(
            m_device.get(), static_cast<unsigned int>(m_ringMs),
            std::clamp<uint64_t>(periodFrames, 1u, std::numeric_limits<unsigned int>::max()));
        m_provider->setMuteState(m_startMuted);
        CMUnbufferedDataTransfer live = m_provider->liveFeed();
        live.onDataAvailable([this](const QByteArray& block) { onLiveBlock(block); });
        m_armed = m_hasTrigger;
        if (!m_hasTrigger)
            startRecording(0);

        watchSignals();
        QTimer ticker;
        QElapsedTimer clock;
        QObject::connect(&ticker, &QTimer::timeout, &m_loop, [this, &clock] {
            if (takeToggleRequest())
                m_provider->setMuteState(!m_provider->isMuted());
            const int status = checkCaptureRuns(clock.elapsed());
            if (status != ExitOk || stopRequested())
                m_loop.exit(status);
            else
                showProgress();
        });
        clock.start();
        m_provider->start();
        ticker.start(ProgressIntervalMs);
        int status = m_loop.exec();
        ticker.stop();
        m_progress.finish();
        stopProvider();
        if (!m_outputFile.close() && m_writeError.isEmpty())
            m_writeError = m_outputFile.errorString();
        if (status == ExitOk && !m_writeError.isEmpty())
            status = fail(Command, m_writeError, ExitFailed);
        if (status == ExitOk)
            printLine(summary());
        return status;
    }

    // Until the first block arrives, a failure the provider reports means the
    // capture never started: the device did not open, or failed at once.
    int checkCaptureRuns(qint64 elapsedMs)
    {
        if (m_blocksSeen > 0)
            return ExitOk;
        const QString source = QStringLiteral("'%1'").arg(m_inputFile.isEmpty() ? m_stream.device : m_inputFile);
        const quil::CaptureStatus capture = m_provider->captureStatus();
        if (!capture.errorString.isEmpty())
            return fail(Command, QStringLiteral("cannot capture from %1: %2").arg(source, capture.errorString),
                        ExitFailed);
        if (elapsedMs > NoAudioTimeoutMs)
            return fail(Command,
                        QStringLiteral("no audio from %1 within %2 s").arg(source).arg(NoAudioTimeoutMs / 1000),
                        ExitFailed);
        return ExitOk;
    }

    // The provider's destructor waits for the worker to finish its current read,
    // finish the transfers and close the device; a device that never returns
    // must not hang the tool.
    void stopProvider()
    {
        m_stopping = true;
        armStopWatchdog(StopTimeoutS);
        m_provider->stop();
        m_restarts = m_provider->captureStatus().restartCount;
        delete m_provider;
        m_provider = nullptr;
        armStopWatchdog(0);
        // The worker's thread object deletes itself through this thread's event queue.
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    // On the worker thread, from here to endRecording().
    void onLiveBlock(const QByteArray& block)
    {
        ++m_blocksSeen;
        const int channels = static_cast<int>(m_stream.channels);
        // The meter is measured only while it is drawn.
        if (m_progress.isShown()) {
            QMutexLocker locker(&m_meterMutex);
            accumulatePeaks(block, m_stream.format, channels, &m_meterPeaks);
        }
        if (!m_armed || m_stopping)
            return;
        const int triggerFrame = firstFrameAtOrAbove(block, m_stream.format, channels, m_triggerPeak);
        if (triggerFrame >= 0) {
            m_armed = false;
            startRecording(block.size() / m_frameBytes - triggerFrame);
        }
    }

    // Without a trigger, asked on the calling thread before capture starts.
    // With a trigger, asked on the worker thread inside the delivery of the
    // block that fired it: that block is already in the ring, the new feed's
    // first block is its prefill from the ring, and every later block follows.
    // The offset is asked for in whole milliseconds, rounded up; the frames
    // before the pre-roll are dropped in onRecordedBlock(), so that the output
    // is exact to the frame.
    void startRecording(int framesFromTrigger)
    {
        int offsetMs = m_preRollMs;
        if (framesFromTrigger > 0 && m_ringMs > 0) {
            m_keepFrames = qint64(m_preRollMs) * m_stream.rate / 1000 + framesFromTrigger;
            offsetMs =
                static_cast<int>(std::min<qint64>((m_keepFrames * 1000 + m_stream.rate - 1) / m_stream.rate, m_ringMs));
        }
        m_recording = m_provider->liveFeedWithOffset(offsetMs);
        m_recording.onDataAvailable([this](const QByteArray& block) { onRecordedBlock(block); });
    }

    void onRecordedBlock(const QByteArray& block)
    {
        if (m_done || m_frameBytes <= 0)
            return;
        qint64 first = 0;
        qint64 frames = block.size() / m_frameBytes;
        if (m_keepFrames >= 0) {
            first = std::max<qint64>(frames - m_keepFrames, 0);
            frames -= first;
            m_keepFrames = -1;
        }
        if (m_framesWanted >= 0)
            frames = std::min(frames, m_framesWanted - m_framesWritten);
        const QByteArray part =
            QByteArray::fromRawData(block.constData() + first * m_frameBytes, static_cast<int>(frames * m_frameBytes));
        accumulatePeaks(part, m_stream.format, static_cast<int>(m_stream.channels), &m_recordedPeaks);
        if (!m_outputFile.write(part)) {
            endRecording(m_outputFile.errorString());
            return;
        }
        m_framesWritten += frames;
        if (m_framesWanted >= 0 && m_framesWritten >= m_framesWanted)
            endRecording(QString());
    }

    void endRecording(const QString& writeError)
    {
        m_writeError = writeError;
        m_done = true;
        QMetaObject::invokeMethod(&m_loop, "quit", Qt::QueuedConnection);
    }

    void showProgress()
    {
        if (!m_progress.isShown())
            return;
        QVector<double> peaks;
        {
            QMutexLocker locker(&m_meterMutex);
            peaks.swap(m_meterPeaks);
        }
        QString text = m_armed ? QStringLiteral("armed    ")
                               : QStringLiteral("recording %1").arg(secondsText(m_framesWritten, m_stream.rate));
        for (double peak : qAsConst(peaks))
            text += QStringLiteral("  %1 dBFS %2").arg(dbfsText(peak), 5).arg(meterBar(peak));
        m_progress.show(text + (m_provider->isMuted() ? QStringLiteral("  MUTED") : QString()));
    }

    QString summary() const
    {
        QStringList peaks;
        for (double peak : m_recordedPeaks)
            peaks << dbfsText(peak);
        const QString source = m_inputFile.isEmpty() ? m_stream.device : m_inputFile;
        return QStringLiteral("recorded %1 frames (%2) from '%3' into '%4': peak %5 dBFS, capture restarts %6")
            .arg(m_framesWritten.load())
            .arg(secondsText(m_framesWritten, m_stream.rate))
            .arg(source, m_output)
            .arg(peaks.isEmpty() ? QStringLiteral("-inf") : peaks.join(QStringLiteral(" / ")))
            .arg(m_restarts);
    }

    StreamOptions m_stream;
    QString m_inputFile, m_output;
    int m_periodMs = -1, m_bufferMs = -1, m_ringMs = -1, m_preRollMs = 0; // -F, -B, --ring-ms, --pre-roll-ms
    bool m_hasTrigger = false;
    double m_triggerPeak = 0;
    bool m_startMuted = false;

    std::unique_ptr<AudioInputDevice> m_device;
    // Deleted by stopProvider() only: the worker may use it until then.
    AudioInputDataProvider* m_provider = nullptr;
    CMBufferedDataTransfer m_recording;
    AudioFile m_outputFile;
    int m_frameBytes = 0;
    qint64 m_framesWanted = -1;
    // Frames of the recording's first block (the ring's) that the output
    // keeps: the pre-roll and what follows the trigger; -1 keeps all.
    qint64 m_keepFrames = -1;
    QEventLoop m_loop;
    ProgressLine m_progress;

    std::atomic<bool> m_armed{false}, m_stopping{false}, m_done{false};
    int m_restarts = 0; // the provider's restart count, kept for the summary
    std::atomic<qint64> m_blocksSeen{0};
    std::atomic<qint64> m_framesWritten{0};
    QString m_writeError; // set by the worker before m_done
    QVector<double> m_recordedPeaks; // worker only until the provider is gone
    mutable QMutex m_meterMutex;
    QVector<double> m_meterPeaks; // since the last display, under m_meterMutex
};

} // namespace

int runRecordCommand(const QStringList& arguments) { return RecordCommand().run(arguments); }

int checkRecordCommandLine(const QStringList& arguments)
{
    return RecordCommand().readCommandLine(arguments).value_or(ExitOk);
}

} // namespace quilaudio
