#pragma once

#include <alsa/asoundlib.h>

#include <cstdint>

namespace quil {

// Bytes per sample as the significant bit width / 8. ALSA reports a negative
// width for formats without one (e.g. SND_PCM_FORMAT_UNKNOWN); those count as
// 0 bytes so that no caller multiplies with an error code.
inline int bytesPerSampleOf(snd_pcm_format_t format)
{
    const int width = snd_pcm_format_width(format);
    return width > 0 ? width / 8 : 0;
}

// Frames in ms milliseconds at sampleRate: rate × ms / 1000, truncated toward
// zero. Callers keep the product below 2^31; computing it in 64 bits gives the
// same frames there and keeps a caller who does not from signed overflow.
inline snd_pcm_uframes_t framesForMs(int64_t sampleRate, int ms)
{
    return static_cast<snd_pcm_uframes_t>(sampleRate * ms / 1000);
}

} // namespace quil
