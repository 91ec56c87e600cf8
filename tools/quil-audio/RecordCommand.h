#pragma once

#include "AudioFile.h"
#include "CommandLine.h"
#include "ProgressLine.h"

#include "CMDataTransfer.h"

#include <QEventLoop>
#include <QMutex>
#include <QVector>

#include <atomic>
#include <memory>

class AudioInputDataProvider;
class AudioInputDevice;

namespace quilaudio {

/// `quil-audio record`: captures through an AudioInputDataProvider from an
/// ALSA PCM or a raw file and writes an audio file or stdout.
///
/// Threads: run() and the progress display run on the calling thread, whose
/// event loop waits for the end; the provider's worker thread "AudioInputT"
/// delivers every block through the transfers' handlers, which measure,
/// trigger and write right there, so no block is copied between threads.
/// The two sides share only atomics and the meter's mutex; the worker's end
/// of recording reaches the event loop as a queued quit.
class RecordCommand
{
public:
    RecordCommand();
    ~RecordCommand();

    /// `arguments` starts with "quil-audio record"; returns the exit status.
    int run(const QStringList& arguments);

private:
    bool readOptions(const QCommandLineParser& parser, QString* error);
    int openSource();
    int openSink();
    int captureUntilDone();
    int checkCaptureRuns(qint64 elapsedMs);
    void stopProvider();

    // On the worker thread (and, without a trigger, once on the calling
    // thread before the worker runs).
    void onLiveBlock(const QByteArray& block);
    void startRecording(int framesFromTrigger);
    void onRecordedBlock(const QByteArray& block);
    void endRecording(const QString& writeError);

    void showProgress();
    QString summary() const;

    StreamOptions m_stream;
    QString m_inputFile;
    QString m_output;
    int m_periodMs = -1;
    int m_bufferMs = -1;
    int m_ringMs = -1;
    int m_preRollMs = 0;
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

    std::atomic<bool> m_armed{false};
    std::atomic<bool> m_stopping{false};
    int m_restarts = 0;   // the provider's restart count, kept for the summary
    std::atomic<bool> m_done{false};
    std::atomic<qint64> m_blocksSeen{0};
    std::atomic<qint64> m_framesWritten{0};
    QString m_writeError;           // set by the worker before m_done
    QVector<double> m_recordedPeaks; // worker only until the provider is gone
    mutable QMutex m_meterMutex;
    QVector<double> m_meterPeaks;    // since the last display, under m_meterMutex
};

} // namespace quilaudio
