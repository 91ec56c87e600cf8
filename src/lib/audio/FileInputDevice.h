#pragma once

#include "AudioInputDevice.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMutex>

#include <alsa/asoundlib.h>

/// \file
/// FileInputDevice, a capture device that reads a raw PCM file at the pace of a live source.

/// Delivers a raw PCM file (no header, interleaved frames in the given format)
/// paced like a live source: read() returns no earlier than the media time
/// delivered so far allows, and a reader that fell behind gets the following
/// blocks without waiting until it has caught up.
///
/// The file is chosen with playFile() at any time, from any thread. Without a
/// file, and after the end of one, every read() delivers a zero-filled block at
/// the same pace. open(), read() and close() belong to one thread.
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT FileInputDevice : public AudioInputDevice {
public:
    /// No file is chosen and the pacing timer is not started yet.
    FileInputDevice(int sampleRate, int channelCount, _snd_pcm_format format);
    ~FileInputDevice() override;

    /// Restarts the pacing timer; opens no file. Always true.
    bool open() override;
    /// Does nothing: the file stays open and the next open() resumes where
    /// reading stopped.
    void close() override;
    /// Always true, with or without a file.
    bool isOpened() override;
    /// Delivers exactly frameCount frames: the file's next bytes, zero-filled
    /// where the file has none. Sleeps until the block is due. False on a
    /// file read error (the file is then closed), at a sample rate of 0 or
    /// below (nothing to pace by), and for a block above 2^31 bytes; the
    /// reason is in errorString().
    bool read(QByteArray* buffer, int frameCount) override;
    int sampleRate() const override;
    int bytesPerSample() const override;
    /// The channel count given at construction.
    int channelCount() const override;
    /// "File Input Device".
    QString name() const override;

    /// Switches to the file at path, from its beginning, keeping the current
    /// pace. Waits at most for the block being read. False (and reads deliver
    /// zeros) when the file cannot be opened; errorString() then says so and
    /// errorCode() holds the system's reason (-ENOENT, -EACCES, ...) until
    /// the next success of playFile(), open() or read().
    bool playFile(const QString& path);

private:
    qint64 readFileInto(QByteArray* buffer);
    void pace(qint64 durationMs);

    QFile m_file;
    QMutex m_mutex;
    QElapsedTimer m_timer;
    qint64 m_lagMs = 0;
    int m_sampleRate;
    int m_channelCount;
    _snd_pcm_format m_format;
};
