#pragma once

#include "AudioInputDevice.h"

#include <alsa/asoundlib.h>

/// \file
/// AlsaInputDevice, a capture device on an ALSA PCM.

/// Captures from an ALSA PCM in blocking mode with exactly the requested
/// format, channel count and rate; only period and buffer sizes are negotiated.
///
/// Read errors are answered by re-preparing and restarting the stream; when
/// that fails the device closes itself and read() returns false, after which
/// open() may be called again. Not thread-safe: one thread opens, reads and
/// closes; the accessors may be called from any thread. The reason of a
/// failed open() or read() is in errorString() and errorCode() (ALSA's code).
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AlsaInputDevice : public AudioInputDevice {
public:
    /// Touches no hardware. sampleRate × periodTimeMs and sampleRate × bufferTimeMs
    /// must stay below 2^31.
    AlsaInputDevice(const QString& deviceName, int sampleRate, unsigned int channelCount, _snd_pcm_format format,
                    int periodTimeMs, int bufferTimeMs);
    /// Closes the device.
    ~AlsaInputDevice() override;

    /// Opens the PCM (4 attempts, 250 ms apart) and sets its hardware parameters.
    /// True at once when already open. A format whose samples are not whole
    /// bytes in memory (padded like S24_LE, narrower, or without a width) is
    /// refused at the format step. On false nothing is left open.
    bool open() override;
    /// Closes the PCM; harmless when closed.
    void close() override;
    /// True while the PCM is open; false again after a read error closed it.
    bool isOpened() override;
    /// Reads up to frameCount frames (2048 when frameCount <= 0); a short read is
    /// returned as it is. False when the device is closed or could not recover,
    /// and, leaving the device open, when the block would exceed 2^31 bytes.
    bool read(QByteArray* buffer, int frameCount) override;
    int sampleRate() const override;
    int bytesPerSample() const override;
    /// The channel count given at construction.
    int channelCount() const override;
    /// The PCM name.
    QString name() const override;

    /// Closes *pcm if set and nulls it; the device's own close() path, public
    /// for the library's cleanup actions. Same thread as open().
    void cleanupPcm(snd_pcm_t** pcm);

private:
    bool setHwParams(snd_pcm_hw_params_t* params);
    bool recoverAfterReadError(snd_pcm_sframes_t error);
    void sleepAfterEmptyRead(int frameCount) const;

    QString m_deviceName;
    int m_sampleRate;
    unsigned int m_channelCount;
    _snd_pcm_format m_format;
    int m_periodTimeMs;
    int m_bufferTimeMs;
    snd_pcm_t* m_pcm = nullptr;
};
