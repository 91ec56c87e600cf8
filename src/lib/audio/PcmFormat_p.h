#pragma once

#include <alsa/asoundlib.h>

namespace quil {

// Bytes per sample as the significant bit width / 8. ALSA reports a negative
// width for formats without one (e.g. SND_PCM_FORMAT_UNKNOWN); those count as
// 0 bytes so that no caller multiplies with an error code.
inline int bytesPerSampleOf(snd_pcm_format_t format)
{
    const int width = snd_pcm_format_width(format);
    return width > 0 ? width / 8 : 0;
}

} // namespace quil
