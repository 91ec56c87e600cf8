#include "PcmSamples.h"

#include <QString>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

namespace quilaudio {

namespace {

int sampleBytes(snd_pcm_format_t format) { return snd_pcm_format_physical_width(format) / 8; }

// A float's bits as an integer of its size, or back.
template <typename To, typename From> To bitCast(From from)
{
    static_assert(sizeof(To) == sizeof(From), "a bit cast keeps the size");
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

// Samples of the machine type T, centred on zero, full scale at fullScale.
// They are taken in groups of eight, whose extremes the compiler keeps in
// vector registers: with 1, 2, 4 or 8 channels, place j of every group is
// channel j % channels. Other channel counts, and the last few samples,
// take the plain loop after it. Out of line, as inlined into its caller
// g++ keeps the extremes on the stack, at ten times the cost.
template <typename T>
__attribute__((noinline)) void typedPeaks(const char* data, int samples, int channels, double zero, double fullScale,
                                          double* peaks)
{
    const auto fold = [&](int channel, T low, T high) {
        peaks[channel] =
            std::max({peaks[channel], (double(high) - zero) / fullScale, (zero - double(low)) / fullScale});
    };
    constexpr int Group = 8;
    const int grouped = Group % channels == 0 ? samples / Group * Group : 0;
    T low[Group];
    T high[Group];
    std::fill_n(low, Group, std::numeric_limits<T>::max());
    std::fill_n(high, Group, std::numeric_limits<T>::lowest());
    for (int i = 0; i < grouped; i += Group) {
        // Kept a loop, g++ makes it one vector step; unrolled, it spills to the stack.
#pragma GCC unroll 1
        for (int j = 0; j < Group; ++j) {
            T value;
            std::memcpy(&value, data + (i + j) * sizeof(T), sizeof(T));
            low[j] = std::min(low[j], value);
            high[j] = std::max(high[j], value);
        }
    }
    for (int j = 0; j < Group; ++j)
        fold(j % channels, low[j], high[j]);
    for (int i = grouped; i < samples; ++i) {
        T value;
        std::memcpy(&value, data + i * sizeof(T), sizeof(T));
        fold(i % channels, value, value);
    }
}

// The formats in the machine's own sample types.
using TypedPeaks = void (*)(const char*, int, int, double, double, double*);
const std::pair<snd_pcm_format_t, TypedPeaks> MachineFormats[] = {
    {SND_PCM_FORMAT_S8, typedPeaks<int8_t>},   {SND_PCM_FORMAT_U8, typedPeaks<uint8_t>},
    {SND_PCM_FORMAT_S16, typedPeaks<int16_t>}, {SND_PCM_FORMAT_U16, typedPeaks<uint16_t>},
    {SND_PCM_FORMAT_S32, typedPeaks<int32_t>}, {SND_PCM_FORMAT_U32, typedPeaks<uint32_t>},
    {SND_PCM_FORMAT_FLOAT, typedPeaks<float>}, {SND_PCM_FORMAT_FLOAT64, typedPeaks<double>},
};

// True when format was one of MachineFormats.
bool machinePeaks(const char* data, int samples, int channels, snd_pcm_format_t format, double* peaks)
{
    for (const auto& [machineFormat, typed] : MachineFormats) {
        if (machineFormat != format)
            continue;
        const double half = snd_pcm_format_float(format) == 1 ? 1.0 : std::ldexp(1.0, snd_pcm_format_width(format) - 1);
        typed(data, samples, channels, snd_pcm_format_unsigned(format) == 1 ? half : 0.0, half, peaks);
        return true;
    }
    return false;
}

} // namespace

bool hasSampleValues(snd_pcm_format_t format)
{
    return (snd_pcm_format_linear(format) == 1 || snd_pcm_format_float(format) == 1) && sampleBytes(format) > 0
           && sampleBytes(format) <= 8;
}

// Samples in 8-bit formats have no byte order; ALSA reports an error for them.
double decodeSample(const char* data, snd_pcm_format_t format)
{
    const int bytes = sampleBytes(format);
    const bool bigEndian = snd_pcm_format_big_endian(format) == 1;
    uint64_t raw = 0;
    for (int i = 0; i < bytes; ++i)
        raw |= uint64_t(uint8_t(data[bigEndian ? bytes - 1 - i : i])) << (8 * i);
    if (snd_pcm_format_float(format) == 1)
        return bytes == 4 ? bitCast<float>(static_cast<uint32_t>(raw)) : bitCast<double>(raw);
    // Narrow samples in wide containers (S24_LE) sit in the low bits; linear
    // samples have at most 32.
    const int width = snd_pcm_format_width(format);
    raw &= (uint64_t(1) << width) - 1;
    const uint64_t half = uint64_t(1) << (width - 1);
    const int64_t value = snd_pcm_format_signed(format) == 1
                              ? ((raw & half) ? int64_t(raw) - int64_t(half << 1) : int64_t(raw))
                              : int64_t(raw) - int64_t(half);
    return double(value) / double(half);
}

void encodeSample(double value, snd_pcm_format_t format, char* data)
{
    value = std::clamp(value, -1.0, 1.0);
    const int bytes = sampleBytes(format);
    const bool bigEndian = snd_pcm_format_big_endian(format) == 1;
    uint64_t raw = 0;
    if (snd_pcm_format_float(format) == 1) {
        raw = bytes == 4 ? bitCast<uint32_t>(static_cast<float>(value)) : bitCast<uint64_t>(value);
    } else {
        const int width = snd_pcm_format_width(format);
        const int64_t half = int64_t(1) << (width - 1);
        int64_t sample = std::llround(value * double(half - 1));
        if (snd_pcm_format_signed(format) != 1)
            sample += half;
        raw = uint64_t(sample) & ((uint64_t(1) << width) - 1);
    }
    for (int i = 0; i < bytes; ++i)
        data[bigEndian ? bytes - 1 - i : i] = static_cast<char>(raw >> (8 * i));
}

void accumulatePeaks(const QByteArray& block, snd_pcm_format_t format, int channels, QVector<double>* peaks)
{
    if (peaks->size() != channels)
        peaks->fill(0.0, channels);
    if (!hasSampleValues(format) || channels <= 0)
        return;
    const int bytes = sampleBytes(format);
    const int frames = block.size() / bytes / channels;
    if (frames == 0 || machinePeaks(block.constData(), frames * channels, channels, format, peaks->data()))
        return;
    // Byte-swapped and packed 24-bit samples, one by one.
    for (int i = 0; i < frames * channels; ++i) {
        double& peak = (*peaks)[i % channels];
        peak = std::max(peak, std::fabs(decodeSample(block.constData() + static_cast<qsizetype>(i) * bytes, format)));
    }
}

int firstFrameAtOrAbove(const QByteArray& block, snd_pcm_format_t format, int channels, double level)
{
    const int bytes = sampleBytes(format);
    const int samples = block.size() / bytes / channels * channels;
    for (int i = 0; i < samples; ++i) {
        if (std::fabs(decodeSample(block.constData() + static_cast<qsizetype>(i) * bytes, format)) >= level)
            return i / channels;
    }
    return -1;
}

QString dbfsText(double peak)
{
    if (!(peak > 0))
        return QStringLiteral("-inf");
    const double tenths = std::round(20.0 * std::log10(peak) * 10.0);
    // Full scale reads "0.0", not "-0.0".
    return QString::number(tenths == 0 ? 0.0 : tenths / 10.0, 'f', 1);
}

QByteArray toneBlock(double frequencyHz, int rate, int channels, snd_pcm_format_t format, qint64 first, int frames)
{
    const int bytes = sampleBytes(format);
    QByteArray block(frames * channels * bytes, '\0');
    char* out = block.data();
    for (qint64 frame = first; frame < first + frames; ++frame) {
        const double value = 0.5 * std::sin(2.0 * M_PI * frequencyHz * double(frame) / rate);
        for (int channel = 0; channel < channels; ++channel, out += bytes)
            encodeSample(value, format, out);
    }
    return block;
}

} // namespace quilaudio
