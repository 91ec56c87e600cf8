#pragma once

#include <QString>

#include <alsa/asoundlib.h>

#include <functional>
#include <memory>

// The steps of opening a PCM that capture and playback take alike. A failing
// step is logged and recorded as the error value of `owner`.

namespace quil {

// Devices that are being brought up by another process (a sound server
// starting, a USB device enumerating) often appear within a second, so an
// open is tried this many times with this pause after every failed attempt.
constexpr int PcmOpenAttempts = 4;
constexpr unsigned int PcmOpenRetryDelayUs = 250000;

// Opens `name` in blocking mode into *pcm, retrying as above. After the last
// attempt failed, *pcm is null and its code is the one reported.
bool openPcm(snd_pcm_t** pcm, const QString& name, snd_pcm_stream_t stream, const void* owner);

// A device's open(): a *pcm already open is kept as it is; otherwise `name` is
// opened and set up by `configure`, and `close` undoes the open if that fails.
bool openConfigured(snd_pcm_t** pcm, const QString& name, snd_pcm_stream_t stream, const void* owner,
                    const std::function<bool()>& configure, const std::function<void()>& close);

struct HwParamsFree {
    void operator()(snd_pcm_hw_params_t* params) const { snd_pcm_hw_params_free(params); }
};
// On the heap: its allocation can fail and is then reported like any other
// step (capture always did), and the unique_ptr frees it on every path.
using HwParams = std::unique_ptr<snd_pcm_hw_params_t, HwParamsFree>;

// Allocates the hardware parameters and sets interleaved access and the format;
// null after a failure. `label` begins the TRACE lines of the steps.
HwParams startHwParams(snd_pcm_t* pcm, snd_pcm_format_t format, const void* owner, const char* label);

// The period and buffer size nearest to *frames, which receives ALSA's answer.
bool setPeriodSizeNear(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, snd_pcm_uframes_t* frames, const void* owner);
bool setBufferSizeNear(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, snd_pcm_uframes_t* frames, const void* owner);

// Closes *pcm if open and nulls it.
void closePcm(snd_pcm_t** pcm);

} // namespace quil
