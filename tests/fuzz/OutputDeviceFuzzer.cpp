// AlsaOutputDevice driven by arbitrary call sequences on the test
// configuration's PCMs: extreme setter values, any construction parameters,
// blocks of any size, both close modes, and writes that ALSA (interposed)
// makes short, underrun or fail; every answer is checked against the header.

#include "AlsaOutputDevice.h"
#include "FuzzSupport.h"

#include <algorithm>
#include <climits>
#include <dlfcn.h>
#include <memory>
#include <unistd.h>

namespace {

using Out = AudioOutputDevice;
FuzzedDataProvider* g_in = nullptr;
const char *g_next = nullptr, *g_end = nullptr; // what the current write has yet to hand ALSA
size_t g_frameBytes = 0;
snd_pcm_sframes_t g_last = 0, g_recovered = 0; // the last write's and recovery's results

// ALSA allocates the buffer it grants, null too: rate × channels × buffer
// stays within tens of MiB here. Rates above int's range never reach ALSA.
const unsigned Rates[] = {0, 1, 8000, 44100, 48000, 384000, 1u + INT_MAX, UINT_MAX};
const unsigned Channels[] = {0, 1, 2, 3, 8, 32};
using Setter = void (AlsaOutputDevice::*)(int);
const Setter Setters[] = {&AlsaOutputDevice::setBufferTimeMs,     &AlsaOutputDevice::setBufferSize,
                          &AlsaOutputDevice::setPeriodTimeMs,     &AlsaOutputDevice::setPeriodSize,
                          &AlsaOutputDevice::setStartThresholdMs, &AlsaOutputDevice::setStartThreshold};

} // namespace

// The rest of the block, front to back, never an empty write.
extern "C" snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames)
{
    FUZZ_CHECK(frames > 0 && buffer == g_next && g_next + frames * g_frameBytes == g_end);
    static const auto real = reinterpret_cast<decltype(&snd_pcm_writei)>(dlsym(RTLD_NEXT, "snd_pcm_writei"));
    const int fault = g_in->ConsumeIntegralInRange(0, 3);
    g_last = fault == 1 ? -EPIPE : fault == 2 ? -EIO : real(pcm, buffer, fault == 3 ? frames / 2 : frames);
    g_next += std::max<snd_pcm_sframes_t>(g_last, 0) * g_frameBytes;
    return g_last;
}

extern "C" int snd_pcm_recover(snd_pcm_t* pcm, int code, int silent)
{
    static const auto real = reinterpret_cast<decltype(&snd_pcm_recover)>(dlsym(RTLD_NEXT, "snd_pcm_recover"));
    g_recovered = g_in->ConsumeBool() ? -ENODEV : real(pcm, code, silent);
    return int(g_recovered);
}

// The open retries' pauses: 750 ms for every name that does not exist.
extern "C" int usleep(useconds_t) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const QString names[] = {"null", "file:FILE=" + quilfuzz::workFile("out.raw") + ",FORMAT=raw", "mono_only",
                                    "stereo_only", "nosuch"};
    FuzzedDataProvider in(data, size);
    g_in = &in;
    std::unique_ptr<AlsaOutputDevice> device;
    std::pair<int, int> threshold{-1, -1}; // frames or ms, as the last threshold setter asked
    for (int step = 0; step < 64 && in.remaining_bytes() > 0; ++step) {
        const int op = device ? in.ConsumeIntegralInRange(0, 6) : 6;
        const bool wasOpen = device && device->isOpened();
        if (op == 0) {
            const int which = in.ConsumeIntegralInRange(0, 5);
            // Without a request ALSA grants its largest buffer (8 GiB on null): one is
            // always asked for, of 500 ms or frames at most.
            const int value = in.ConsumeIntegralInRange(which < 2 ? 1 : INT_MIN, which < 4 ? 500 : INT_MAX);
            ((*device).*Setters[which])(value);
            if (which >= 4)
                threshold = {which == 5 ? value : -1, which == 4 ? value : -1};
        } else if (op == 1) {
            const int which = in.ConsumeIntegralInRange(0, 2);
            which == 0 ? device->enableSamplerateNear() : which == 1 ? device->enableChannelsNear() : device->enableTstamp();
        } else if (op == 2) {
            const bool opened = device->open(), fresh = opened && !wasOpen;
            const int64_t rate = std::max(device->sampleRate(), 1), ms = threshold.second;
            const int64_t asked = threshold.first > 0 ? threshold.first : ms < 0 ? -1 : rate * ms / 1000;
            FUZZ_CHECK(opened == device->isOpened() && opened == device->errorString().isEmpty()
                       && (opened ? device->errorCode() == 0 : device->errorCode() <= 0));
            // Times are the frames at the negotiated rate; the threshold is the one asked for, within the buffer.
            FUZZ_CHECK(!opened || (device->channelCount() > 0 && device->bytesPerSample() > 0
                                   && device->periodTimeMs() == device->periodSize() * 1000 / rate
                                   && device->bufferTimeMs() == device->bufferSize() * 1000 / rate
                                   && device->startThreshold() <= device->bufferSize()));
            FUZZ_CHECK(!fresh || asked < 0 || device->startThreshold() == std::min<uint64_t>(asked, device->bufferSize()));
        } else if (op == 3) {
            device->close(in.ConsumeBool() ? Out::Drain : Out::Immediate);
            FUZZ_CHECK(!device->isOpened());
        } else if (op == 4 && !(wasOpen && device->periodSize() > device->bufferSize())) {
            // (null grants a period longer than its buffer: a write would wait forever for room for one.)
            const QByteArray block(in.ConsumeIntegralInRange(0, 1 << 16), '\x55');
            g_frameBytes = size_t(device->channelCount()) * size_t(device->bytesPerSample());
            g_next = block.constData();
            g_end = g_next + (g_frameBytes ? block.size() / g_frameBytes * g_frameBytes : 0);
            g_last = g_recovered = 0;
            const Out::WriteResult result = device->write(block);
            // An xrun drops the rest of the block; any other error, or a failed recovery, closes with its code.
            const bool fails = !wasOpen || (g_last < 0 && (g_last != -EPIPE || g_recovered < 0));
            FUZZ_CHECK(result == (fails ? Out::DeviceClosed : g_last < 0 ? Out::XrunRecovered : Out::Written));
            FUZZ_CHECK(device->isOpened() == !fails && (result != Out::Written || g_next == g_end));
            FUZZ_CHECK(!wasOpen || !fails || device->errorCode() == (g_last == -EPIPE ? g_recovered : g_last));
        } else if (op == 5) {
            const int ready = device->framesReady();
            int64_t age = -7;
            const int frames = device->delay(&age);
            FUZZ_CHECK(ready == -1 ? !wasOpen || !device->errorString().isEmpty() : unsigned(ready) <= device->bufferSize());
            FUZZ_CHECK((wasOpen || frames == -1)
                       && (frames == -1 ? age == -7 : age >= 0 && age < 1000000));
        } else if (op == 6) {
            // Braces: the arguments are decoded in order.
            device.reset(new AlsaOutputDevice{in.PickValueInArray(names), in.PickValueInArray(Rates),
                                              in.PickValueInArray(Channels), _snd_pcm_format(in.ConsumeIntegralInRange(-64, 63)),
                                              in.ConsumeIntegralInRange(INT_MIN, 500), in.ConsumeIntegralInRange(1, 500)});
            threshold = {-1, -1};
            FUZZ_CHECK(!device->isOpened() && device->errorString().isEmpty() && device->sampleRate() == 0);
        }
    }
    return 0;
}
