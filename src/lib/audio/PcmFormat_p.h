#pragma once

#include <QtGlobal>

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

namespace quil {

// Bytes per sample as the significant bit width / 8. ALSA reports a negative
// width for formats without one (e.g. SND_PCM_FORMAT_UNKNOWN); those count as
// 0 bytes so that no caller multiplies with an error code.
inline int bytesPerSampleOf(snd_pcm_format_t format)
{
    // The usual formats without a call into libasound: read() and write()
    // size every block with this.
    switch (format) {
    case SND_PCM_FORMAT_S16_LE:
        return 2;
    case SND_PCM_FORMAT_S32_LE:
    case SND_PCM_FORMAT_FLOAT_LE:
        return 4;
    default:
        break;
    }
    const int width = snd_pcm_format_width(format);
    return width > 0 ? width / 8 : 0;
}

// Fills `bytes` bytes of samples of `format` with its silence: zero bytes for
// the usual formats without a call into libasound, ALSA's own pattern for the
// others (0x80 for U8, and so on).
inline void fillWithSilence(snd_pcm_format_t format, char* data, int bytes)
{
    switch (format) {
    case SND_PCM_FORMAT_S16_LE:
    case SND_PCM_FORMAT_S32_LE:
    case SND_PCM_FORMAT_FLOAT_LE:
        std::memset(data, 0, static_cast<size_t>(bytes));
        return;
    default:
        break;
    }
    const int width = bytesPerSampleOf(format);
    if (width > 0)
        snd_pcm_format_set_silence(format, data, static_cast<unsigned int>(bytes / width));
}

// True when a sample of `format` takes exactly bytesPerSampleOf(format) bytes in
// memory. Blocks are sized in those units: with padded samples (S24_LE) or ones
// narrower than a byte, ALSA would read or write past the end of a block.
inline bool hasWholeByteSamples(snd_pcm_format_t format)
{
    const int width = snd_pcm_format_width(format);
    return width > 0 && width % 8 == 0 && snd_pcm_format_physical_width(format) == width;
}

// snd_pcm_hw_params_set_format for the formats above; any other is refused
// with -EINVAL before ALSA sees it (libasound asserts on values it does not
// know, such as SND_PCM_FORMAT_UNKNOWN, instead of failing).
inline int setWholeByteFormat(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, snd_pcm_format_t format)
{
    if (!hasWholeByteSamples(format))
        return -EINVAL;
    return snd_pcm_hw_params_set_format(pcm, params, format);
}

// Frames in ms milliseconds at sampleRate: rate × ms / 1000, truncated toward
// zero, computed in 64 bits and saturating at the largest frame count, so that
// a 32-bit count never wraps to a short time (docs/internals.md).
inline snd_pcm_uframes_t framesForMs(int64_t sampleRate, int ms)
{
    constexpr snd_pcm_uframes_t maxFrames = std::numeric_limits<snd_pcm_uframes_t>::max();
    int64_t product = 0;
    if (__builtin_mul_overflow(sampleRate, static_cast<int64_t>(ms), &product))
        return (sampleRate < 0) == (ms < 0) ? maxFrames : static_cast<snd_pcm_uframes_t>(-1);
    const int64_t frames = product / 1000;
    if (frames >= 0 && static_cast<uint64_t>(frames) > maxFrames)
        return maxFrames;
    return static_cast<snd_pcm_uframes_t>(frames);
}

// a × b, saturated to the 64-bit range instead of overflowing.
inline qint64 saturatedProduct(qint64 a, qint64 b)
{
    qint64 product = 0;
    if (!__builtin_mul_overflow(a, b, &product))
        return product;
    return (a < 0) == (b < 0) ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
}

// The byte arithmetic is defined in the int range; a value beyond it stands
// for "more than any block or ring can hold" and is clamped to its end rather
// than wrapped around to something small or of the other sign.
inline int clampedToInt(qint64 value)
{
    return static_cast<int>(
        std::clamp<qint64>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// The largest block a device hands out: one QByteArray holds up to 2^31 - 1
// bytes including Qt's small header.
constexpr qint64 MaxBlockBytes = std::numeric_limits<int>::max() - 1024;

// Bytes of a block of `frames` frames (none for a count of 0 or below) of
// `frameBytes` bytes each, or -1 when that is more than MaxBlockBytes.
inline qint64 blockByteCount(int frames, qint64 frameBytes)
{
    const qint64 bytes = saturatedProduct(qMax(frames, 0), qMax<qint64>(frameBytes, 0));
    return bytes <= MaxBlockBytes ? bytes : -1;
}

} // namespace quil
