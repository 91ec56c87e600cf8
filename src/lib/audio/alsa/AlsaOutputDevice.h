#pragma once

#include "AudioOutputDevice.h"

#include <alsa/asoundlib.h>

#include <cstdint>

/// \file
/// AlsaOutputDevice, a playback device on an ALSA PCM.

/// Plays interleaved PCM through an ALSA playback PCM opened in blocking mode.
///
/// The sample format is set exactly; one whose samples are not whole bytes in
/// memory (padded like S24_LE, narrower, or without a width) is refused. Rate
/// and channel count are exact unless enableSamplerateNear() / enableChannelsNear().
///
/// Period, buffer and start threshold may each be asked for in milliseconds or
/// in frames (the later setter of a pair wins) or be left to ALSA. Configuration
/// takes effect at the next open(); the queries report the last open()'s values.
///
/// write() blocks until ALSA has taken the block, which paces the caller in
/// real time. An xrun is recovered and reported; any other write error closes
/// the device. Not thread-safe: use a device from one thread at a time. The
/// reason of a failure (false, -1, a WriteResult but Written) is in
/// errorString() and errorCode() (ALSA's code), read right after the call.
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AlsaOutputDevice : public AudioOutputDevice {
public:
    /// Touches no hardware. A time of -1 (or any below 0) leaves that quantity
    /// to ALSA unless a setter asks for it later.
    AlsaOutputDevice(const QString& deviceName, unsigned int sampleRate, unsigned int channels, _snd_pcm_format format,
                     int periodTimeMs, int bufferTimeMs);
    /// Closes the device with Immediate: queued audio is discarded.
    ~AlsaOutputDevice() override;

    /// Opens the PCM (4 attempts, 250 ms apart) and negotiates hardware and
    /// software parameters. True at once when already open, renegotiating nothing.
    /// On false the device holds nothing open.
    bool open() override;
    /// With Drain, blocks until everything written has played; then closes the
    /// PCM, discarding whatever is still queued. Harmless when closed.
    void close(AudioOutputDevice::CloseMode mode) override;
    /// True while the PCM is open; false again after a write error closed it.
    bool isOpened() override;
    /// Writes the block's whole frames of channelCount() channels (the count
    /// negotiated, which ALSA reads), looping over short writes. A block without
    /// a whole frame is Written untouched; a closed device gives DeviceClosed.
    AudioOutputDevice::WriteResult write(const QByteArray& data) override;
    /// Frames ALSA can take now; 0 right after recovering an xrun it found;
    /// -1 when closed or on another error.
    int framesReady() const override;
    /// The negotiated rate (0 before the first open() reached it).
    int sampleRate() const override;
    int bytesPerSample() const override;
    /// The negotiated channel count (0 before the first open() reached it).
    int channelCount() const override;
    /// The PCM name.
    QString name() const override;

    /// Period length in ms; resets a period size set before; below 0 asks for nothing.
    void setPeriodTimeMs(int ms);
    /// Period length in frames; resets a period time set before. A count of 0
    /// or below asks for nothing: ALSA chooses, as with -1.
    void setPeriodSize(int frames);
    /// Buffer length in ms; resets a buffer size set before; below 0 asks for nothing.
    void setBufferTimeMs(int ms);
    /// Buffer length in frames; resets a buffer time set before. A count of 0
    /// or below asks for nothing: ALSA chooses, as with -1.
    void setBufferSize(int frames);
    /// Start threshold in ms; resets a threshold in frames set before; below 0 asks for nothing.
    void setStartThresholdMs(int ms);
    /// Start threshold in frames; resets a threshold in ms set before. A count
    /// of 0 or below asks for nothing: the device's default stays, as with -1.
    void setStartThreshold(int frames);
    /// Accepts the rate ALSA offers nearest to the requested one. Cannot be undone.
    void enableSamplerateNear();
    /// Accepts the channel count ALSA offers nearest to the requested one;
    /// write() then expects blocks of channelCount() channels. Cannot be undone.
    void enableChannelsNear();
    /// Has ALSA timestamp its status on CLOCK_MONOTONIC_RAW, which gives delay()
    /// the age of its figure. Takes effect at the next open(). Cannot be undone.
    void enableTstamp();

    /// The period size in frames negotiated by the last open(); 0 before.
    snd_pcm_uframes_t periodSize() const;
    /// The buffer size in frames negotiated by the last open(); 0 before.
    snd_pcm_uframes_t bufferSize() const;
    /// The start threshold in frames set by the last open(); 0 before.
    snd_pcm_uframes_t startThreshold() const;
    /// periodSize() in whole ms at the negotiated rate; 0 while no rate was negotiated.
    unsigned int periodTimeMs() const;
    /// bufferSize() in whole ms at the negotiated rate; 0 while no rate was negotiated.
    unsigned int bufferTimeMs() const;
    /// startThreshold() in whole ms at the negotiated rate; 0 while no rate was negotiated.
    unsigned int startThresholdMs() const;

    /// Frames between the last written frame and the one playing now, or -1
    /// when the device is closed or its status cannot be read. If sinceStatusUs
    /// is given and the status could be read, it receives the age of that figure
    /// in µs; 0 unless enableTstamp() was called before the open() of the stream.
    int delay(int64_t* sinceStatusUs) const;

    /// Closes *pcm if set and nulls it; the device's own close() path, public
    /// for the library's cleanup actions. Same thread as open().
    void cleanupPcm(snd_pcm_t** pcm);

private:
    bool setHwParams();
    bool setSwParams();
    bool negotiateChannels(snd_pcm_hw_params_t* params);
    bool negotiateRate(snd_pcm_hw_params_t* params);
    bool requestPeriodAndBuffer(snd_pcm_hw_params_t* params);
    bool readBackPeriodAndBuffer(snd_pcm_hw_params_t* params);
    bool applyStartThreshold(snd_pcm_sw_params_t* params);
    bool applyTimestamps(snd_pcm_sw_params_t* params);
    int64_t statusAgeUs(int64_t statusNs) const;
    AudioOutputDevice::WriteResult recoverFromWriteXrun(int code);
    AudioOutputDevice::WriteResult closeAfterWriteError(int code);

    QString m_deviceName;
    unsigned int m_requestedSampleRate;
    unsigned int m_requestedChannels;
    _snd_pcm_format m_format;
    snd_pcm_t* m_pcm = nullptr;
    int m_requestedPeriodTimeMs;
    int m_requestedPeriodSize = -1;
    int m_requestedBufferTimeMs;
    int m_requestedBufferSize = -1;
    int m_requestedStartThresholdMs = -1;
    int m_requestedStartThreshold = -1;
    bool m_tstampEnabled = false;
    bool m_samplerateNear = false;
    bool m_channelsNear = false;
    unsigned int m_sampleRate = 0;
    unsigned int m_channels = 0;
    snd_pcm_uframes_t m_periodSize = 0;
    snd_pcm_uframes_t m_bufferSize = 0;
    snd_pcm_uframes_t m_startThreshold = 0;
};
