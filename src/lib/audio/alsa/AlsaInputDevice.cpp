#include "AlsaInputDevice.h"

#include "AlsaPcmOpen_p.h"
#include "AudioLog_p.h"
#include "PcmFormat_p.h"

#include <cerrno>
#include <unistd.h>

QUIL_AUDIO_DEFINE_LOGGER();

namespace {

constexpr int DefaultReadFrames = 2048;

const char* readErrorPrefix(snd_pcm_sframes_t error)
{
    switch (error) {
    case -EBADFD:
        return "AlsaInputDevice: error while reading: PCM is not in the right state (EBADFD: ";
    case -EPIPE:
        return "AlsaInputDevice: error while reading: an overrun occurred (EPIPE: ";
    case -ESTRPIPE:
        return "AlsaInputDevice: error while reading: a suspend event occurred (ESTRPIPE: ";
    default:
        return "AlsaInputDevice: error while reading (";
    }
}

} // namespace

AlsaInputDevice::AlsaInputDevice(const QString& deviceName, int sampleRate, unsigned int channelCount,
                                 _snd_pcm_format format, int periodTimeMs, int bufferTimeMs)
    : m_deviceName(deviceName)
    , m_sampleRate(sampleRate)
    , m_channelCount(channelCount)
    , m_format(format)
    , m_periodTimeMs(periodTimeMs)
    , m_bufferTimeMs(bufferTimeMs)
{
}

AlsaInputDevice::~AlsaInputDevice() { AlsaInputDevice::close(); }

bool AlsaInputDevice::open()
{
    QUIL_TRACE_ENTRY();
    const auto configure = [this] {
        // Freed before a failed open closes the PCM again, on leaving this scope.
        const quil::HwParams params = quil::startHwParams(m_pcm, m_format, this, "hw_params");
        return params && setHwParams(params.get());
    };
    if (!quil::openConfigured(&m_pcm, m_deviceName, SND_PCM_STREAM_CAPTURE, this, configure,
                              [this] { cleanupPcm(&m_pcm); }))
        return false;
    setErrorString(QString());
    return true;
}

bool AlsaInputDevice::setHwParams(snd_pcm_hw_params_t* params)
{
    // Exact channel count and rate: the accessors must describe the delivered data.
    if (QUIL_ALSA_FAILED(this, snd_pcm_hw_params_set_channels(m_pcm, params, m_channelCount),
                         "Cannot set channel count: "))
        return false;
    unsigned int channels = 0;
    if (QUIL_ALSA_FAILED(this, snd_pcm_hw_params_get_channels(params, &channels), "Cannot get channel count: "))
        return false;
    if (channels != m_channelCount) {
        QUIL_ERROR(this, 0, "Could not set channel count to: " << m_channelCount);
        return false;
    }
    LOG4CPLUS_TRACE(logger, "hw_params channels was set to: " << channels);

    // ALSA's rate is unsigned: a negative one would reach it as a rate of some
    // four billion Hz, which plugins such as null accept.
    const int rateResult = m_sampleRate > 0 ? snd_pcm_hw_params_set_rate(m_pcm, params, m_sampleRate, 0) : -EINVAL;
    if (QUIL_ALSA_FAILED(this, rateResult, "Cannot set sample rate: "))
        return false;
    LOG4CPLUS_TRACE(logger, "hw_params rate set: " << m_sampleRate);

    snd_pcm_uframes_t periodFrames = quil::framesForMs(m_sampleRate, m_periodTimeMs);
    if (!quil::setPeriodSizeNear(m_pcm, params, &periodFrames, this))
        return false;
    snd_pcm_uframes_t bufferFrames = quil::framesForMs(m_sampleRate, m_bufferTimeMs);
    if (!quil::setBufferSizeNear(m_pcm, params, &bufferFrames, this))
        return false;

    if (QUIL_ALSA_FAILED(this, snd_pcm_hw_params(m_pcm, params), "Cannot set device parameters: "))
        return false;
    LOG4CPLUS_TRACE(logger, "hw_params set");
    return true;
}

void AlsaInputDevice::close()
{
    QUIL_TRACE_ENTRY();
    cleanupPcm(&m_pcm);
}

bool AlsaInputDevice::isOpened() { return m_pcm != nullptr; }

bool AlsaInputDevice::read(QByteArray* buffer, int frameCount)
{
    if (!m_pcm)
        return false;
    if (frameCount <= 0)
        frameCount = DefaultReadFrames;

    // Plugins accept up to 2^30 channels, so the block size is computed in 64
    // bits; one too large for a QByteArray is not read at all.
    const qint64 frameBytes = static_cast<qint64>(quil::bytesPerSampleOf(m_format)) * m_channelCount;
    const qint64 blockBytes = quil::blockByteCount(frameCount, frameBytes);
    if (blockBytes < 0) {
        QUIL_ERROR(this, 0, "AlsaInputDevice: Cannot read " << frameCount << " frames into one block");
        return false;
    }
    buffer->resize(static_cast<int>(blockBytes));
    // Some PCMs return frames they never wrote (null, or file past its input's
    // end): whatever they leave is silence, not the allocator's old contents.
    quil::fillWithSilence(m_format, buffer->data(), buffer->size());
    snd_pcm_sframes_t frames = 0;
    while (m_pcm) {
        frames = snd_pcm_readi(m_pcm, buffer->data(), static_cast<snd_pcm_uframes_t>(frameCount));
        if (frames > 0) {
            buffer->resize(static_cast<int>(frames * frameBytes));
            return true;
        }
        if (frames == 0)
            sleepAfterEmptyRead(frameCount);
        else if (!recoverAfterReadError(frames))
            return false;
    }
    QUIL_ERROR(this, frames, "AlsaInputDevice: Cannot read data: " << snd_strerror(static_cast<int>(frames)));
    cleanupPcm(&m_pcm);
    return false;
}

// Every read error gets the same answer, prepare then start; only a failing
// prepare gives up, closing the device so that the next open() starts afresh.
bool AlsaInputDevice::recoverAfterReadError(snd_pcm_sframes_t error)
{
    const int code = static_cast<int>(error);
    QUIL_ALSA_FAILED(this, code, readErrorPrefix(error), quil::AlsaTextEnd::ParenAndCode);
    const int prepared = snd_pcm_prepare(m_pcm);
    if (prepared < 0) {
        QUIL_ERROR(this, prepared,
                   "AlsaInputDevice: Cannot prepare audio interface for use: " << snd_strerror(prepared));
        cleanupPcm(&m_pcm);
        return false;
    }
    snd_pcm_start(m_pcm);
    return true;
}

// A read that returned no frames backs off for a quarter of the block's
// duration (the channel count is part of the product, which makes the pause
// longer for wide streams), at least 1 ms, so that an idle stream never spins.
void AlsaInputDevice::sleepAfterEmptyRead(int frameCount) const
{
    const unsigned int rate = static_cast<unsigned int>(m_sampleRate);
    unsigned int sleepMs = 0;
    if (rate != 0)
        sleepMs = (m_channelCount * static_cast<unsigned int>(frameCount) * 1000u / rate) / 4u;
    usleep((sleepMs == 0 ? 1u : sleepMs) * 1000u);
}

int AlsaInputDevice::sampleRate() const { return m_sampleRate; }

int AlsaInputDevice::bytesPerSample() const { return quil::bytesPerSampleOf(m_format); }

int AlsaInputDevice::channelCount() const { return static_cast<int>(m_channelCount); }

QString AlsaInputDevice::name() const { return m_deviceName; }

void AlsaInputDevice::cleanupPcm(snd_pcm_t** pcm)
{
    QUIL_TRACE_ENTRY();
    quil::closePcm(pcm);
}
