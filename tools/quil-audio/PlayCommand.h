#pragma once

#include "AudioFile.h"
#include "CommandLine.h"
#include "ProgressLine.h"

#include <QByteArray>

#include <cstdint>
#include <memory>

class AlsaOutputDevice;
class AudioOutputDevice;

namespace quilaudio {

class ToneGenerator;

/// `quil-audio play`: an audio file, raw PCM on stdin or a generated tone into
/// an AlsaOutputDevice or a FileOutputDevice (raw), on the calling thread.
class PlayCommand
{
public:
    PlayCommand();
    ~PlayCommand();

    /// `arguments` starts with "quil-audio play"; returns the exit status.
    int run(const QStringList& arguments);

private:
    // What the command line asks of an ALSA device; -1: left to ALSA.
    struct AlsaSettings
    {
        int periodMs = -1;
        int periodFrames = -1;
        int bufferMs = -1;
        int bufferFrames = -1;
        int startThresholdMs = -1;
        int startThresholdFrames = -1;
        bool nearRate = false;
        bool nearChannels = false;
        bool timestamps = false;
    };

    bool readOptions(const QCommandLineParser& parser, QString* error);
    std::unique_ptr<AudioOutputDevice> createDevice();
    int openSource();
    bool takeHeader(QString* error);
    bool chooseReadFormat(QString* error);
    int openDevice();
    int playUntilDone();
    bool nextBlock(int frames, QByteArray* block, QString* error);
    QByteArray matchDeviceChannels(const QByteArray& frames) const;
    void updateDelay();
    void showProgress();
    void closeDevice(bool interrupted);
    QString summary() const;

    StreamOptions m_stream;
    AlsaSettings m_alsaSettings;
    QString m_input;
    QString m_outputFile;
    double m_toneHz = 0;
    bool m_drain = true;
    std::unique_ptr<AudioOutputDevice> m_device;
    AlsaOutputDevice* m_alsa = nullptr;
    std::unique_ptr<ToneGenerator> m_tone;
    AudioFile m_inputFile;
    int m_blockFrames = 1024;
    qint64 m_framesPlayed = 0;
    int m_xruns = 0;
    int m_delayFrames = -1;
    int64_t m_delayAgeUs = 0;
    ProgressLine m_progress;
};

} // namespace quilaudio
