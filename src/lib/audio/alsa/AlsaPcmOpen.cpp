#include "AlsaPcmOpen_p.h"

#include "AudioLog_p.h"
#include "CleanupAction_p.h"
#include "PcmFormat_p.h"

#include <unistd.h>

QUIL_AUDIO_DEFINE_LOGGER();

namespace quil {

bool openPcm(snd_pcm_t** pcm, const QString& name, snd_pcm_stream_t stream, const void* owner)
{
    const bool capture = stream == SND_PCM_STREAM_CAPTURE;
    const QByteArray utf8Name = name.toUtf8();
    int result = 0;
    for (int attempt = 0; attempt < PcmOpenAttempts; ++attempt) {
        result = snd_pcm_open(pcm, utf8Name.constData(), stream, 0);
        if (result >= 0) {
            LOG4CPLUS_TRACE(logger, (capture ? "Capture" : "Playback") << " device opened.");
            return true;
        }
        *pcm = nullptr;
        usleep(PcmOpenRetryDelayUs);
    }
    QUIL_ERROR(owner, result,
               "Cannot open " << (capture ? "capture" : "playback") << " device '" << name
                              << "': " << snd_strerror(result));
    return false;
}

bool openConfigured(snd_pcm_t** pcm, const QString& name, snd_pcm_stream_t stream, const void* owner,
                    const std::function<bool()>& configure, const std::function<void()>& close)
{
    if (*pcm)
        return true;
    if (!openPcm(pcm, name, stream, owner))
        return false;
    CleanupAction cleanup(close);
    if (!configure())
        return false;
    cleanup.dismiss();
    return true;
}

HwParams startHwParams(snd_pcm_t* pcm, snd_pcm_format_t format, const void* owner, const char* label)
{
    snd_pcm_hw_params_t* allocated = nullptr;
    if (QUIL_ALSA_FAILED(owner, snd_pcm_hw_params_malloc(&allocated), "Cannot allocate hardware parameter structure: "))
        return nullptr;
    HwParams params(allocated);
    LOG4CPLUS_TRACE(logger, label << " allocated");

    if (QUIL_ALSA_FAILED(owner, snd_pcm_hw_params_any(pcm, params.get()),
                         "Cannot initialize hardware parameter structure: "))
        return nullptr;
    LOG4CPLUS_TRACE(logger, label << " initialized");

    if (QUIL_ALSA_FAILED(owner, snd_pcm_hw_params_set_access(pcm, params.get(), SND_PCM_ACCESS_RW_INTERLEAVED),
                         "Cannot set access type: "))
        return nullptr;
    LOG4CPLUS_TRACE(logger, label << " access set");

    if (QUIL_ALSA_FAILED(owner, setWholeByteFormat(pcm, params.get(), format), "Cannot set sample format: "))
        return nullptr;
    LOG4CPLUS_TRACE(logger, label << " format set: " << static_cast<int>(format));
    return params;
}

bool setPeriodSizeNear(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, snd_pcm_uframes_t* frames, const void* owner)
{
    return !QUIL_ALSA_FAILED(owner, snd_pcm_hw_params_set_period_size_near(pcm, params, frames, nullptr),
                             "Unable to set period size for playback: (", AlsaTextEnd::Paren);
}

bool setBufferSizeNear(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, snd_pcm_uframes_t* frames, const void* owner)
{
    return !QUIL_ALSA_FAILED(owner, snd_pcm_hw_params_set_buffer_size_near(pcm, params, frames),
                             "Unable to set buffer size for playback: (", AlsaTextEnd::Paren);
}

void closePcm(snd_pcm_t** pcm)
{
    if (*pcm) {
        snd_pcm_close(*pcm);
        *pcm = nullptr;
    }
}

} // namespace quil
