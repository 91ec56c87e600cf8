#include "PcmSamples.h"

#include <QString>

#include <QtGlobal>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

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

// Peaks are found as the smallest and largest value of each lane in the
// samples' own type, a loop the compiler turns into vector min/max; the
// conversion to [-1, 1] then happens once per block, not once per sample.

template <int Bytes>
struct Bits;
template <> struct Bits<1> { using Type = uint8_t; static uint8_t swapped(uint8_t v) { return v; } };
template <> struct Bits<2> { using Type = uint16_t; static uint16_t swapped(uint16_t v) { return __builtin_bswap16(v); } };
template <> struct Bits<4> { using Type = uint32_t; static uint32_t swapped(uint32_t v) { return __builtin_bswap32(v); } };
template <> struct Bits<8> { using Type = uint64_t; static uint64_t swapped(uint64_t v) { return __builtin_bswap64(v); } };

// Samples that fill a machine type: 8 to 32-bit integers, float and double.
template <typename T, bool Swapped>
struct WholeSample
{
    using Value = T;
    static constexpr int Bytes = sizeof(T);
    static T load(const char* at)
    {
        typename Bits<Bytes>::Type bits;
        std::memcpy(&bits, at, Bytes);
        if (Swapped)
            bits = Bits<Bytes>::swapped(bits);
        T value;
        std::memcpy(&value, &bits, Bytes);
        return value;
    }
};

// Packed 24-bit samples, widened to 32 bits.
template <bool Signed, bool BigEndian>
struct ThreeByteSample
{
    using Value = int32_t;
    static constexpr int Bytes = 3;
    static int32_t load(const char* at)
    {
        const auto* b = reinterpret_cast<const uint8_t*>(at);
        const uint32_t raw = BigEndian ? uint32_t(b[0]) << 16 | uint32_t(b[1]) << 8 | b[2]
                                       : uint32_t(b[2]) << 16 | uint32_t(b[1]) << 8 | b[0];
        return Signed ? int32_t(raw << 8) >> 8 : int32_t(raw);
    }
};

constexpr int MaxLanes = 256;

template <typename Sample>
using Lanes = std::array<typename Sample::Value, MaxLanes>;

template <typename Sample>
void takeSample(const char* at, typename Sample::Value* low, typename Sample::Value* high)
{
    const typename Sample::Value value = Sample::load(at);
    *low = std::min(*low, value);
    *high = std::max(*high, value);
}

// With a lane count known at compile time the inner loop becomes vector code.
template <typename Sample, int LaneCount>
void scanFixedLanes(const char* data, qint64 samples, Lanes<Sample>* low, Lanes<Sample>* high)
{
    std::array<typename Sample::Value, LaneCount> lo;
    std::array<typename Sample::Value, LaneCount> hi;
    std::copy_n(low->cbegin(), LaneCount, lo.begin());
    std::copy_n(high->cbegin(), LaneCount, hi.begin());
    qint64 i = 0;
    for (; i + LaneCount <= samples; i += LaneCount) {
        const char* group = data + i * Sample::Bytes;
        for (int j = 0; j < LaneCount; ++j)
            takeSample<Sample>(group + j * Sample::Bytes, &lo[j], &hi[j]);
    }
    for (int j = 0; i < samples; ++i, ++j)
        takeSample<Sample>(data + i * Sample::Bytes, &lo[j], &hi[j]);
    std::copy(lo.cbegin(), lo.cend(), low->begin());
    std::copy(hi.cbegin(), hi.cend(), high->begin());
}

template <typename Sample>
void scanAnyLanes(const char* data, qint64 samples, int lanes, Lanes<Sample>* low, Lanes<Sample>* high)
{
    for (qint64 i = 0; i < samples; i += lanes) {
        for (int j = 0; j < lanes; ++j)
            takeSample<Sample>(data + (i + j) * Sample::Bytes, &(*low)[j], &(*high)[j]);
    }
}

// samples is a whole number of frames.
template <typename Sample>
void scanPeaks(const char* data, qint64 samples, int channels, snd_pcm_format_t format, QVector<double>* peaks)
{
    using Value = typename Sample::Value;
    // One 16-byte vector of lanes keeps the extremes in registers. Where the
    // channel count divides it, lane j always holds channel j % channels.
    constexpr int VectorLanes = 16 / sizeof(Value);
    const int lanes = VectorLanes % channels == 0 ? VectorLanes : channels;
    Lanes<Sample> low;
    Lanes<Sample> high;
    std::fill_n(low.begin(), lanes, std::numeric_limits<Value>::max());
    std::fill_n(high.begin(), lanes, std::numeric_limits<Value>::lowest());
    if (lanes == VectorLanes)
        scanFixedLanes<Sample, VectorLanes>(data, samples, &low, &high);
    else
        scanAnyLanes<Sample>(data, samples, lanes, &low, &high);

    // Unsigned samples centre on half their range; full scale is 2^(width-1).
    const bool isFloat = snd_pcm_format_float(format) == 1;
    const double half = isFloat ? 1.0 : std::ldexp(1.0, snd_pcm_format_width(format) - 1);
    const double zero = isFloat || snd_pcm_format_signed(format) == 1 ? 0.0 : half;
    for (int j = 0; j < lanes; ++j) {
        if (low[j] > high[j])   // a lane no sample reached
            continue;
        double& peak = (*peaks)[j % channels];
        peak = std::max({peak, (double(high[j]) - zero) / half, (zero - double(low[j])) / half});
    }
}

using PeakScan = void (*)(const char*, qint64, int, snd_pcm_format_t, QVector<double>*);

template <typename T>
PeakScan wholeSampleScan(bool swapped)
{
    return swapped ? scanPeaks<WholeSample<T, true>> : scanPeaks<WholeSample<T, false>>;
}

// The typed scan for format, or null for samples that do not fill their
// bytes (S24_LE), which are decoded one by one.
PeakScan peakScanFor(snd_pcm_format_t format, int channels)
{
    const int width = snd_pcm_format_width(format);
    if (channels > MaxLanes || width != snd_pcm_format_physical_width(format))
        return nullptr;
    const bool bigEndian = width > 8 && isBigEndian(format);
    const bool swapped = bigEndian != (Q_BYTE_ORDER == Q_BIG_ENDIAN);
    const bool isSigned = snd_pcm_format_signed(format) == 1;
    if (snd_pcm_format_float(format) == 1)
        return width == 32 ? wholeSampleScan<float>(swapped) : wholeSampleScan<double>(swapped);
    switch (width) {
    case 8:
        return isSigned ? wholeSampleScan<int8_t>(false) : wholeSampleScan<uint8_t>(false);
    case 16:
        return isSigned ? wholeSampleScan<int16_t>(swapped) : wholeSampleScan<uint16_t>(swapped);
    case 24:
        if (isSigned)
            return bigEndian ? scanPeaks<ThreeByteSample<true, true>> : scanPeaks<ThreeByteSample<true, false>>;
        return bigEndian ? scanPeaks<ThreeByteSample<false, true>> : scanPeaks<ThreeByteSample<false, false>>;
    case 32:
        return isSigned ? wholeSampleScan<int32_t>(swapped) : wholeSampleScan<uint32_t>(swapped);
    default:
        return nullptr;
    }
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

void accumulatePeaks(const char* data, qint64 bytes, snd_pcm_format_t format, int channels, QVector<double>* peaks)
{
    if (peaks->size() != channels)
        peaks->fill(0.0, channels);
    if (!hasSampleValues(format) || channels <= 0)
        return;
    const int sampleBytes = containerBytes(format);
    const qint64 samples = bytes / sampleBytes / channels * channels;
    if (const PeakScan scan = peakScanFor(format, channels)) {
        scan(data, samples, channels, format, peaks);
        return;
    }
    for (qint64 i = 0; i < samples; ++i) {
        double& peak = (*peaks)[static_cast<int>(i % channels)];
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
