#pragma once

#include "AudioOutputDevice.h"

#include <QFile>

#include <alsa/asoundlib.h>

/// \file
/// FileOutputDevice, a playback device that writes a raw PCM file.

/// Writes the blocks it is given, unchanged and without any header, to a raw
/// PCM file, so that a playback path can run without sound hardware and its
/// output be inspected.
///
/// Every open() of a closed device starts the file empty. Write failures of
/// the file system do not change write()'s result; errorString() names them
/// (this device logs nothing). Threads: as AudioOutputDevice, one at a time.
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT FileOutputDevice : public AudioOutputDevice {
public:
    /// Opens nothing; the format values are reported as given, never validated.
    FileOutputDevice(const QString& fileName, int sampleRate, int channelCount, _snd_pcm_format format);
    /// Closes the file if it is open.
    ~FileOutputDevice() override;

    /// Creates or truncates the file; true at once, keeping its content, when
    /// already open. False when the file cannot be created (reason: errorString()).
    bool open() override;
    /// Flushes and closes the file; the mode makes no difference.
    void close(AudioOutputDevice::CloseMode mode) override;
    /// True while the file is open.
    bool isOpened() override;
    /// Appends all of data to the file; always Written, also when the device
    /// is closed (nothing is written then) and when the file system fails
    /// (errorString() then names the failure).
    AudioOutputDevice::WriteResult write(const QByteArray& data) override;
    /// Always 4096: a file never makes the writer wait.
    int framesReady() const override;
    int sampleRate() const override;
    int bytesPerSample() const override;
    int channelCount() const override;
    /// "File Output Device", whatever the path.
    QString name() const override;

private:
    QFile m_file;
    int m_sampleRate;
    int m_channelCount;
    _snd_pcm_format m_format;
};
