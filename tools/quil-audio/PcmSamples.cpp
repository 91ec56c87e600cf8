#include "PcmSamples.h"

#include <QString>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace quilaudio {

namespace {

int containerBytes(snd_pcm_format_t format)
{
    return snd_pcm_format_physical_width(format) / 8;
}

// Samples in 8-bit formats have no byte order; ALSA reports an error for them.
bool isBigEndian(snd_pcm_format_t format)
{
    return snd_pcm_format_big_endian(format) == 1;
}

uint64_t widthMask(int width)
{
    return width >= 64 ? ~uint64_t(0) : (uint64_t(1) << width) - 1;
}

} // namespace

bool hasSampleValues(snd_pcm_format_t format)
{
    return (snd_pcm_format_linear(format) == 1 || snd_pcm_format_float(format) == 1)
        && containerBytes(format) > 0 && containerBytes(format) <= 8;
}

double decodeSample(const char* data, snd_pcm_format_t format)
{
    const int bytes = containerBytes(format);
    uint64_t raw = 0;
    for (int i = 0; i < bytes; ++i)
        raw |= uint64_t(uint8_t(data[isBigEndian(format) ? bytes - 1 - i : i])) << (8 * i);
    if (snd_pcm_format_float(format) == 1) {
        if (bytes == 4) {
            const uint32_t bits = static_cast<uint32_t>(raw);
            float value;
            std::memcpy(&value, &bits, sizeof value);
            return value;
        }
        double value;
        std::memcpy(&value, &raw, sizeof value);
        return value;
    }
    // Narrow samples in wide containers (S24_LE) sit in the low bits.
    const int width = snd_pcm_format_width(format);
    raw &= widthMask(width);
    const uint64_t half = uint64_t(1) << (width - 1);
    const int64_t value = snd_pcm_format_signed(format) == 1
        ? ((raw & half) ? int64_t(raw) - int64_t(half << 1) : int64_t(raw))
        : int64_t(raw) - int64_t(half);
    return double(value) / double(half);
}

void encodeSample(double value, snd_pcm_format_t format, char* data)
{
    value = std::clamp(value, -1.0, 1.0);
    const int bytes = containerBytes(format);
    uint64_t raw = 0;
    if (snd_pcm_format_float(format) == 1) {
        if (bytes == 4) {
            const float narrow = static_cast<float>(value);
            uint32_t bits;
            std::memcpy(&bits, &narrow, sizeof bits);
            raw = bits;
        } else {
            std::memcpy(&raw, &value, sizeof raw);
        }
    } else {
        const int width = snd_pcm_format_width(format);
        const int64_t half = int64_t(1) << (width - 1);
        int64_t sample = std::llround(value * double(half - 1));
        if (snd_pcm_format_signed(format) != 1)
            sample += half;
        raw = uint64_t(sample) & widthMask(width);
    }
    for (int i = 0; i < bytes; ++i)
        data[isBigEndian(format) ? bytes - 1 - i : i] = static_cast<char>(raw >> (8 * i));
}

void accumulatePeaks(const QByteArray& block, snd_pcm_format_t format, int channels, QVector<double>* peaks)
{
    if (peaks->size() != channels)
        peaks->fill(0.0, channels);
    if (!hasSampleValues(format) || channels <= 0)
        return;
    const int sampleBytes = containerBytes(format);
    const int samples = block.size() / sampleBytes / channels * channels;
    const char* data = block.constData();
    for (int i = 0; i < samples; ++i) {
        double& peak = (*peaks)[i % channels];
        peak = std::max(peak, std::fabs(decodeSample(data + i * sampleBytes, format)));
    }
}

QString dbfsText(double peak)
{
    if (!(peak > 0))
        return QStringLiteral("-inf");
    const double tenths = std::round(20.0 * std::log10(peak) * 10.0);
    // Full scale reads "0.0", not "-0.0".
    return QString::number(tenths == 0 ? 0.0 : tenths / 10.0, 'f', 1);
}

ToneGenerator::ToneGenerator(double frequencyHz, unsigned int rate, int channels, snd_pcm_format_t format)
    : m_step(2.0 * M_PI * frequencyHz / rate)
    , m_channels(channels)
    , m_format(format)
    , m_sampleBytes(containerBytes(format))
{
}

QByteArray ToneGenerator::next(int frames)
{
    QByteArray block(frames * m_channels * m_sampleBytes, '\0');
    char* out = block.data();
    for (int frame = 0; frame < frames; ++frame) {
        const double value = 0.5 * std::sin(m_phase);
        m_phase = std::fmod(m_phase + m_step, 2.0 * M_PI);
        for (int channel = 0; channel < m_channels; ++channel, out += m_sampleBytes)
            encodeSample(value, m_format, out);
    }
    return block;
}

} // namespace quilaudio
