#include "AlsaOutputDevice.h"

#include "AlsaPcmOpen_p.h"
#include "AudioLog_p.h"
#include "PcmFormat_p.h"

#include <cerrno>
#include <ctime>
#include <limits>
#include <optional>

QUIL_AUDIO_DEFINE_LOGGER();

namespace {

constexpr int NotRequested = -1;

// A frame count handed to a setter is a request (above 0) or none: 0 frames
// means nothing ALSA could honour and a negative one would become a rate × -1 ms
// target, so both are stored as "not requested", leaving the quantity to ALSA.
int requestedFrameCount(int frames) { return frames > 0 ? frames : NotRequested; }

// Each size is asked for in ms or in frames: the later request drops the other.
void request(int* asked, int value, int* dropped)
{
    *asked = value;
    *dropped = NotRequested;
}

// The frames asked for by a frames/ms pair: the frames when given, else the ms
// at the negotiated rate; nothing when neither was asked for. A time below 0
// asks for nothing too: converted, it would wrap to an absurd frame count.
std::optional<snd_pcm_uframes_t> requestedFrames(int frames, int ms, unsigned int sampleRate)
{
    if (frames > 0)
        return static_cast<snd_pcm_uframes_t>(frames);
    if (ms < 0)
        return std::nullopt;
    return quil::framesForMs(sampleRate, ms);
}

// Frames in whole ms, in unsigned 32-bit arithmetic. Before an open() has
// negotiated a rate there is nothing to convert with, and the answer is 0.
unsigned int msForFrames(snd_pcm_uframes_t frames, unsigned int sampleRate)
{
    if (sampleRate == 0)
        return 0;
    return static_cast<unsigned int>(frames) * 1000u / sampleRate;
}

// ALSA's nearest value to the one asked for stands if it is that value or if
// near values were enabled; otherwise the open fails on it.
bool nearestAccepted(const void* owner, unsigned int nearest, unsigned int asked, bool nearEnabled,
                     const char* quantity)
{
    if (nearest == asked || nearEnabled)
        return true;
    QUIL_ERROR(owner, 0, "Could not set " << quantity << " to: " << asked);
    return false;
}

int64_t nanoseconds(const timespec& time) { return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec; }

// Asks the stream itself: enableTstamp() after its open() leaves it on the wall clock.
bool stampsOnMonotonicRaw(snd_pcm_t* pcm)
{
    snd_pcm_sw_params_t* params = nullptr;
    snd_pcm_sw_params_alloca(&params);
    snd_pcm_tstamp_type_t type = SND_PCM_TSTAMP_TYPE_GETTIMEOFDAY;
    return snd_pcm_sw_params_current(pcm, params) == 0 && snd_pcm_sw_params_get_tstamp_type(params, &type) == 0
           && type == SND_PCM_TSTAMP_TYPE_MONOTONIC_RAW;
}

} // namespace

AlsaOutputDevice::AlsaOutputDevice(const QString& deviceName, unsigned int sampleRate, unsigned int channels,
                                   _snd_pcm_format format, int periodTimeMs, int bufferTimeMs)
    : m_deviceName(deviceName)
    , m_requestedSampleRate(sampleRate)
    , m_requestedChannels(channels)
    , m_format(format)
    , m_requestedPeriodTimeMs(periodTimeMs)
    , m_requestedBufferTimeMs(bufferTimeMs)
{
}

AlsaOutputDevice::~AlsaOutputDevice() { AlsaOutputDevice::close(Immediate); }

void AlsaOutputDevice::setPeriodTimeMs(int ms) { request(&m_requestedPeriodTimeMs, ms, &m_requestedPeriodSize); }

void AlsaOutputDevice::setPeriodSize(int frames)
{
    request(&m_requestedPeriodSize, requestedFrameCount(frames), &m_requestedPeriodTimeMs);
}

void AlsaOutputDevice::setBufferTimeMs(int ms) { request(&m_requestedBufferTimeMs, ms, &m_requestedBufferSize); }

void AlsaOutputDevice::setBufferSize(int frames)
{
    request(&m_requestedBufferSize, requestedFrameCount(frames), &m_requestedBufferTimeMs);
}

void AlsaOutputDevice::setStartThresholdMs(int ms)
{
    request(&m_requestedStartThresholdMs, ms, &m_requestedStartThreshold);
}

void AlsaOutputDevice::setStartThreshold(int frames)
{
    request(&m_requestedStartThreshold, requestedFrameCount(frames), &m_requestedStartThresholdMs);
}

void AlsaOutputDevice::enableSamplerateNear() { m_samplerateNear = true; }

void AlsaOutputDevice::enableChannelsNear() { m_channelsNear = true; }

void AlsaOutputDevice::enableTstamp() { m_tstampEnabled = true; }

bool AlsaOutputDevice::open()
{
    QUIL_TRACE_ENTRY();
    const auto configure = [this] {
        if (!setHwParams())
            return false;
        LOG4CPLUS_TRACE(logger, "hw params set");
        if (!setSwParams())
            return false;
        LOG4CPLUS_TRACE(logger, "sw params set");
        return true;
    };
    if (!quil::openConfigured(&m_pcm, m_deviceName, SND_PCM_STREAM_PLAYBACK, this, configure,
                              [this] { cleanupPcm(&m_pcm); }))
        return false;
    setErrorString(QString());
    return true;
}

bool AlsaOutputDevice::setHwParams()
{
    const quil::HwParams params = quil::startHwParams(m_pcm, m_format, this, "hwParams");
    if (!params)
        return false;
    if (!negotiateChannels(params.get()) || !negotiateRate(params.get()) || !requestPeriodAndBuffer(params.get()))
        return false;
    if (QUIL_ALSA_FAILED(this, snd_pcm_hw_params(m_pcm, params.get()), "Cannot set device parameters: "))
        return false;
    return readBackPeriodAndBuffer(params.get());
}

bool AlsaOutputDevice::negotiateChannels(snd_pcm_hw_params_t* params)
{
    m_channels = m_requestedChannels;
    if (QUIL_ALSA_FAILED(this, snd_pcm_hw_params_set_channels_near(m_pcm, params, &m_channels),
                         "Cannot set channel count: ")
        || !nearestAccepted(this, m_channels, m_requestedChannels, m_channelsNear, "channel count"))
        return false;
    LOG4CPLUS_TRACE(logger, "hwParams channels was set to: " << m_channels);
    return true;
}

bool AlsaOutputDevice::negotiateRate(snd_pcm_hw_params_t* params)
{
    m_sampleRate = m_requestedSampleRate;
    // sampleRate() reports the rate as an int: a larger one (a negative rate
    // converted by the caller) is refused, although plugins such as null take it.
    const int result = m_sampleRate <= static_cast<unsigned int>(std::numeric_limits<int>::max())
                           ? snd_pcm_hw_params_set_rate_near(m_pcm, params, &m_sampleRate, nullptr)
                           : -EINVAL;
    if (QUIL_ALSA_FAILED(this, result, "Cannot set sample rate: ")
        || !nearestAccepted(this, m_sampleRate, m_requestedSampleRate, m_samplerateNear, "sample rate"))
        return false;
    LOG4CPLUS_TRACE(logger, "hwParams rate set: " << m_sampleRate);
    return true;
}

// Sizes given in ms are converted at the rate just negotiated; a quantity
// asked for in neither form is left to ALSA.
bool AlsaOutputDevice::requestPeriodAndBuffer(snd_pcm_hw_params_t* params)
{
    if (const auto period = requestedFrames(m_requestedPeriodSize, m_requestedPeriodTimeMs, m_sampleRate)) {
        m_periodSize = *period;
        if (!quil::setPeriodSizeNear(m_pcm, params, &m_periodSize, this))
            return false;
    }
    if (const auto buffer = requestedFrames(m_requestedBufferSize, m_requestedBufferTimeMs, m_sampleRate)) {
        m_bufferSize = *buffer;
        if (!quil::setBufferSizeNear(m_pcm, params, &m_bufferSize, this))
            return false;
    }
    return true;
}

bool AlsaOutputDevice::readBackPeriodAndBuffer(snd_pcm_hw_params_t* params)
{
    if (QUIL_ALSA_FAILED(this, snd_pcm_hw_params_get_period_size(params, &m_periodSize, nullptr),
                         "Unable to get period size for playback: (", quil::AlsaTextEnd::Paren))
        return false;
    return !QUIL_ALSA_FAILED(this, snd_pcm_hw_params_get_buffer_size(params, &m_bufferSize),
                             "Unable to get buffer size for playback: (", quil::AlsaTextEnd::Paren);
}

bool AlsaOutputDevice::setSwParams()
{
    snd_pcm_sw_params_t* params = nullptr;
    snd_pcm_sw_params_alloca(&params);

    if (QUIL_ALSA_FAILED(this, snd_pcm_sw_params_current(m_pcm, params),
                         "Unable to determine current swparams for playback: "))
        return false;
    if (!applyStartThreshold(params))
        return false;
    if (m_tstampEnabled && !applyTimestamps(params))
        return false;
    return !QUIL_ALSA_FAILED(this, snd_pcm_sw_params(m_pcm, params), "Unable to set sw params for playback: ");
}

// Without a request the device's own threshold stays and is only reported;
// a request beyond the buffer could never start playback, so it is clamped.
bool AlsaOutputDevice::applyStartThreshold(snd_pcm_sw_params_t* params)
{
    const auto threshold = requestedFrames(m_requestedStartThreshold, m_requestedStartThresholdMs, m_sampleRate);
    if (!threshold) {
        return !QUIL_ALSA_FAILED(this, snd_pcm_sw_params_get_start_threshold(params, &m_startThreshold),
                                 "Unable to get start threshold mode for playback: ");
    }
    m_startThreshold = *threshold;
    if (m_bufferSize < m_startThreshold) {
        LOG4CPLUS_WARN(logger, "Start threshold is bigger then buffer size, setting to: " << m_bufferSize);
        m_startThreshold = m_bufferSize;
    }
    return !QUIL_ALSA_FAILED(this, snd_pcm_sw_params_set_start_threshold(m_pcm, params, m_startThreshold),
                             "Unable to set start threshold mode for playback: ");
}

// delay() compares the status timestamp with CLOCK_MONOTONIC_RAW, so ALSA
// must take it on that clock.
bool AlsaOutputDevice::applyTimestamps(snd_pcm_sw_params_t* params)
{
    if (QUIL_ALSA_FAILED(this, snd_pcm_sw_params_set_tstamp_mode(m_pcm, params, SND_PCM_TSTAMP_ENABLE),
                         "Unable to set tstamp mode for playback: "))
        return false;
    return !QUIL_ALSA_FAILED(this, snd_pcm_sw_params_set_tstamp_type(m_pcm, params, SND_PCM_TSTAMP_TYPE_MONOTONIC_RAW),
                             "Unable to set tstamp type for playback: ");
}

AudioOutputDevice::WriteResult AlsaOutputDevice::write(const QByteArray& data)
{
    // Never opened, closed, or closed by a failed write: ALSA must not see a
    // null handle, and the caller learns that it has to open() again.
    if (!m_pcm)
        return DeviceClosed;
    // Frames are counted with the channel count negotiated for this stream
    // (enableChannelsNear() may have let ALSA pick another): ALSA reads frames
    // of that size, so the requested count could send it past the block's end.
    const snd_pcm_uframes_t frameBytes =
        static_cast<snd_pcm_uframes_t>(m_channels) * static_cast<unsigned int>(quil::bytesPerSampleOf(m_format));
    // No channels, or a format narrower than a byte: the block holds no whole frame.
    if (frameBytes == 0)
        return Written;
    const snd_pcm_uframes_t frames = static_cast<snd_pcm_uframes_t>(data.size()) / frameBytes;

    snd_pcm_uframes_t written = 0;
    while (written < frames) {
        const snd_pcm_sframes_t result =
            snd_pcm_writei(m_pcm, data.constData() + written * frameBytes, frames - written);
        if (result == -EPIPE)
            return recoverFromWriteXrun(static_cast<int>(result));
        if (result < 0)
            return closeAfterWriteError(static_cast<int>(result));
        written += static_cast<snd_pcm_uframes_t>(result);
    }
    return Written;
}

// The stream is prepared again and restarts at the start threshold; the
// frames of the block not yet taken are dropped rather than played late.
AudioOutputDevice::WriteResult AlsaOutputDevice::recoverFromWriteXrun(int code)
{
    QUIL_ALSA_FAILED(this, code, "AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: ",
                     quil::AlsaTextEnd::ParenAndCode);
    const int recovered = snd_pcm_recover(m_pcm, code, 0);
    if (recovered >= 0)
        return XrunRecovered;
    QUIL_ERROR(this, recovered, "AlsaOutputDevice: error while recover, closing");
    cleanupPcm(&m_pcm);
    return DeviceClosed;
}

AudioOutputDevice::WriteResult AlsaOutputDevice::closeAfterWriteError(int code)
{
    QUIL_ALSA_FAILED(this, code, "AlsaOutputDevice: error while writing: (", quil::AlsaTextEnd::ParenAndCode);
    cleanupPcm(&m_pcm);
    return DeviceClosed;
}

int AlsaOutputDevice::framesReady() const
{
    if (!m_pcm)
        return -1;
    const snd_pcm_sframes_t frames = snd_pcm_avail_update(m_pcm);
    if (frames >= 0)
        return static_cast<int>(frames);
    const int code = static_cast<int>(frames);
    if (code == -EPIPE) {
        QUIL_ALSA_FAILED(this, code,
                         "AlsaOutputDevice: error while getting available frames: an xrun occurred (EPIPE: ",
                         quil::AlsaTextEnd::ParenAndCode);
        snd_pcm_recover(m_pcm, code, 0);
        return 0;
    }
    QUIL_ALSA_FAILED(this, code, "AlsaOutputDevice: error while getting available frames: (",
                     quil::AlsaTextEnd::ParenAndCode);
    return -1;
}

int AlsaOutputDevice::delay(int64_t* sinceStatusUs) const
{
    if (!m_pcm) // no status to read, as when ALSA cannot give one, but nothing to log
        return -1;
    snd_pcm_status_t* status = nullptr;
    snd_pcm_status_alloca(&status);
    const int statusResult = snd_pcm_status(m_pcm, status);
    if (statusResult != 0) {
        QUIL_ERROR(this, statusResult, "AlsaOutputDevice: failed to get pcm status, clear last rendering delay");
        return -1;
    }
    snd_htimestamp_t statusTime{};
    snd_pcm_status_get_htstamp(status, &statusTime);
    const int64_t statusNs = nanoseconds(statusTime);
    const snd_pcm_sframes_t frames = snd_pcm_status_get_delay(status);

    if (sinceStatusUs)
        *sinceStatusUs = statusAgeUs(statusNs);
    return static_cast<int>(frames);
}

// Plugins (null and pulse among them) stamp the status on the wall clock even
// without enableTstamp(); only a stream set up after it stamps on
// CLOCK_MONOTONIC_RAW, so any other timestamp, a zero one too, gives no age.
int64_t AlsaOutputDevice::statusAgeUs(int64_t statusNs) const
{
    if (!m_tstampEnabled || statusNs == 0 || !stampsOnMonotonicRaw(m_pcm))
        return 0;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return (nanoseconds(now) - statusNs) / 1000;
}

void AlsaOutputDevice::close(AudioOutputDevice::CloseMode mode)
{
    QUIL_TRACE_ENTRY();
    if (mode == Drain && m_pcm)
        snd_pcm_drain(m_pcm);
    cleanupPcm(&m_pcm);
}

bool AlsaOutputDevice::isOpened() { return m_pcm != nullptr; }

int AlsaOutputDevice::sampleRate() const { return static_cast<int>(m_sampleRate); }

int AlsaOutputDevice::bytesPerSample() const { return quil::bytesPerSampleOf(m_format); }

int AlsaOutputDevice::channelCount() const { return static_cast<int>(m_channels); }

QString AlsaOutputDevice::name() const { return m_deviceName; }

snd_pcm_uframes_t AlsaOutputDevice::periodSize() const { return m_periodSize; }

snd_pcm_uframes_t AlsaOutputDevice::bufferSize() const { return m_bufferSize; }

snd_pcm_uframes_t AlsaOutputDevice::startThreshold() const { return m_startThreshold; }

unsigned int AlsaOutputDevice::periodTimeMs() const { return msForFrames(m_periodSize, m_sampleRate); }

unsigned int AlsaOutputDevice::bufferTimeMs() const { return msForFrames(m_bufferSize, m_sampleRate); }

unsigned int AlsaOutputDevice::startThresholdMs() const { return msForFrames(m_startThreshold, m_sampleRate); }

void AlsaOutputDevice::cleanupPcm(snd_pcm_t** pcm)
{
    QUIL_TRACE_ENTRY();
    quil::closePcm(pcm);
}
