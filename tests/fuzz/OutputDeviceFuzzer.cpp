// AlsaOutputDevice driven by arbitrary call sequences on the test
// configuration's PCMs: extreme setter values, any construction parameters,
// blocks of any size, both close modes; every answer is checked against what
// the header documents, and ALSA must never see a write the block cannot back.

#include "AlsaOutputDevice.h"
#include "FuzzSupport.h"

#include <algorithm>
#include <climits>
#include <dlfcn.h>
#include <memory>
#include <unistd.h>

namespace {

const char *g_blockBegin = nullptr, *g_blockEnd = nullptr;
size_t g_frameBytes = 0;

const int Extremes[] = {INT_MIN, -1000, -1, 0, 1, 2, 10, 20, 100, 960, 4800, 100000, INT_MAX};
// ALSA allocates the buffer it grants, null too: rate × channels × buffer
// stays within tens of MiB here. Rates above int's range never reach ALSA.
const unsigned Rates[] = {0, 1, 8000, 44100, 48000, 384000, 1u + INT_MAX, UINT_MAX};
const unsigned Channels[] = {0, 1, 2, 3, 8, 32};

int extreme(FuzzedDataProvider& in) { return in.ConsumeBool() ? in.PickValueInArray(Extremes) : in.ConsumeIntegral<int>(); }

// Without a request ALSA grants its largest buffer (8 GiB on null): one is
// always asked for, of 500 ms or frames at most.
int periodRequest(FuzzedDataProvider& in) { return std::min(extreme(in), 500); }
int bufferRequest(FuzzedDataProvider& in) { return std::clamp(extreme(in), 1, 500); }

} // namespace

// An empty write, or one reaching past the caller's block, is a library fault.
extern "C" snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames)
{
    const char* begin = static_cast<const char*>(buffer);
    FUZZ_CHECK(frames > 0 && begin >= g_blockBegin && begin + frames * g_frameBytes <= g_blockEnd);
    static const auto real = reinterpret_cast<decltype(&snd_pcm_writei)>(dlsym(RTLD_NEXT, "snd_pcm_writei"));
    return real(pcm, buffer, frames);
}

// The open retries' pauses: 750 ms for every name that does not exist.
extern "C" int usleep(useconds_t) { return 0; }

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) { return quilfuzz::initialize(argc, argv), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using Out = AudioOutputDevice;
    static const QString names[] = {"null", "file:FILE=" + quilfuzz::workFile("out.raw") + ",FORMAT=raw", "mono_only",
                                    "stereo_only", "nosuch"};
    FuzzedDataProvider in(data, size);
    std::unique_ptr<AlsaOutputDevice> device;
    bool tstamp = false, tstampOpened = false;
    for (int step = 0; step < 64 && in.remaining_bytes() > 0; ++step) {
        const int op = device ? in.ConsumeIntegralInRange(0, 7) : 7;
        const bool wasOpen = device && device->isOpened();
        if (op == 0) {
            using Setter = void (AlsaOutputDevice::*)(int);
            const Setter setters[] = {&AlsaOutputDevice::setBufferTimeMs, &AlsaOutputDevice::setBufferSize,
                                      &AlsaOutputDevice::setPeriodTimeMs, &AlsaOutputDevice::setPeriodSize,
                                      &AlsaOutputDevice::setStartThresholdMs, &AlsaOutputDevice::setStartThreshold};
            const int which = in.ConsumeIntegralInRange(0, 5);
            ((*device).*setters[which])(which < 2 ? bufferRequest(in) : which < 4 ? periodRequest(in) : extreme(in));
        } else if (op == 1) {
            const int which = in.ConsumeIntegralInRange(0, 2);
            which == 0 ? device->enableSamplerateNear() : which == 1 ? device->enableChannelsNear() : device->enableTstamp();
            tstamp = tstamp || which == 2;
        } else if (op == 2) {
            const bool opened = device->open();
            FUZZ_CHECK(opened == device->isOpened() && opened == device->errorString().isEmpty()
                       && (opened ? device->errorCode() == 0 : device->errorCode() <= 0));
            FUZZ_CHECK(!opened || (device->sampleRate() > 0 && device->channelCount() > 0 && device->bytesPerSample() > 0
                                   && device->startThreshold() <= device->bufferSize()));
            tstampOpened = wasOpen ? tstampOpened : tstamp;
        } else if (op == 3) {
            device->close(in.ConsumeBool() ? Out::Drain : Out::Immediate);
            FUZZ_CHECK(!device->isOpened());
        } else if (op == 4) {
            // null grants a period longer than its buffer; a write then waits
            // forever for room for a period.
            if (wasOpen && device->periodSize() > device->bufferSize())
                continue;
            const QByteArray block(in.ConsumeIntegralInRange(0, 1 << 16), '\x55');
            g_blockBegin = block.constData(), g_blockEnd = g_blockBegin + block.size();
            g_frameBytes = size_t(device->channelCount()) * size_t(device->bytesPerSample());
            const Out::WriteResult result = device->write(block);
            FUZZ_CHECK(unsigned(result) <= Out::DeviceClosed && device->isOpened() == (result != Out::DeviceClosed));
            FUZZ_CHECK(wasOpen ? result != Out::DeviceClosed || device->errorCode() < 0 : result == Out::DeviceClosed);
        } else if (op == 5) {
            const int frames = device->framesReady();
            FUZZ_CHECK(wasOpen ? frames > 0 ? unsigned(frames) <= device->bufferSize() : frames == 0 || (frames == -1 && !device->errorString().isEmpty())
                               : frames == -1);
        } else if (op == 6) {
            int64_t age = -7;
            const int frames = device->delay(&age);
            FUZZ_CHECK((wasOpen ? frames >= -1 : frames == -1)
                       && (frames == -1 ? age == -7 : tstampOpened ? age >= 0 && age < 1000000 : age == 0));
        } else {
            // Braces: the arguments are decoded in order.
            device.reset(new AlsaOutputDevice{in.PickValueInArray(names), in.PickValueInArray(Rates),
                                              in.PickValueInArray(Channels), _snd_pcm_format(in.ConsumeIntegralInRange(-64, 63)),
                                              periodRequest(in), bufferRequest(in)});
            tstamp = false;
            FUZZ_CHECK(!device->isOpened() && device->errorString().isEmpty() && device->sampleRate() == 0);
        }
    }
    return 0;
}
