// The library's ALSA paths against bare libasound on the same PCMs: capture
// read() and playback write() as ratios taken in one run, and the mixer's
// name resolution and element cache on a mixer of 200 extra elements.

#include "AlsaCard.h"
#include "AlsaInputDevice.h"
#include "AlsaMixerHandle.h"
#include "AlsaOutputDevice.h"
#include "BenchSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <vector>

using namespace quilbench;

namespace {

// Blocks per pass over the capture file, read by each side in every iteration.
constexpr int PassBlocks = 500;

const QTemporaryDir& scratchDir()
{
    static const QTemporaryDir dir;
    return dir;
}

// Known data for the file plugin: it reads no further than the file holds.
QString captureFile()
{
    static const QString path = [] {
        QString file = scratchDir().filePath("capture.raw");
        QByteArray data(PassBlocks * BlockBytes, '\0');
        for (int i = 0; i < data.size(); ++i)
            data[i] = static_cast<char>(i * 7 + i / 251);
        QFile out(file);
        out.open(QIODevice::WriteOnly);
        out.write(data);
        return file;
    }();
    return path;
}

struct PcmCloser {
    void operator()(snd_pcm_t* pcm) const { snd_pcm_close(pcm); }
};
using BarePcm = std::unique_ptr<snd_pcm_t, PcmCloser>;

// The hardware and software parameters the library's devices ask for, set
// directly. startThreshold 0 keeps ALSA's default.
BarePcm openBarePcm(const QString& name, snd_pcm_stream_t stream, snd_pcm_uframes_t periodFrames,
                    snd_pcm_uframes_t bufferFrames, snd_pcm_uframes_t startThreshold)
{
    snd_pcm_t* raw = nullptr;
    if (snd_pcm_open(&raw, name.toUtf8().constData(), stream, 0) < 0)
        return nullptr;
    BarePcm pcm(raw);
    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    snd_pcm_sw_params_t* sw = nullptr;
    snd_pcm_sw_params_alloca(&sw);
    const bool configured =
        snd_pcm_hw_params_any(raw, hw) >= 0 && snd_pcm_hw_params_set_access(raw, hw, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0
        && snd_pcm_hw_params_set_format(raw, hw, SND_PCM_FORMAT_S16_LE) >= 0
        && snd_pcm_hw_params_set_channels(raw, hw, Channels) >= 0
        && snd_pcm_hw_params_set_rate(raw, hw, SampleRate, 0) >= 0
        && snd_pcm_hw_params_set_period_size_near(raw, hw, &periodFrames, nullptr) >= 0
        && snd_pcm_hw_params_set_buffer_size_near(raw, hw, &bufferFrames) >= 0 && snd_pcm_hw_params(raw, hw) >= 0
        && snd_pcm_sw_params_current(raw, sw) >= 0
        && (startThreshold == 0 || snd_pcm_sw_params_set_start_threshold(raw, sw, startThreshold) >= 0)
        && snd_pcm_sw_params(raw, sw) >= 0;
    return configured ? std::move(pcm) : nullptr;
}

// The library and the bare loop side by side: both run one pass in every
// iteration, in alternating order, timed by this thread's CPU time, so that
// the load of a shared machine falls on both alike and time spent in other
// processes is not counted. The iteration time reported is the library's;
// the counters give both per block and their ratio.
class SideBySide {
public:
    explicit SideBySide(benchmark::State& state)
        : m_state(state)
    {
    }
    ~SideBySide()
    {
        const double blocks = static_cast<double>(m_state.iterations()) * PassBlocks;
        m_state.counters["library_ns"] = static_cast<double>(m_library.count()) / blocks;
        m_state.counters["bare_ns"] = static_cast<double>(m_bare.count()) / blocks;
        m_state.counters["ratio"] = static_cast<double>(m_library.count()) / static_cast<double>(m_bare.count());
        m_state.SetItemsProcessed(static_cast<int64_t>(blocks));
    }

    template <class LibraryPass, class BarePass> void run(const LibraryPass& libraryPass, const BarePass& barePass)
    {
        const std::chrono::nanoseconds before = m_library;
        if (m_libraryFirst) {
            timed(libraryPass, &m_library);
            timed(barePass, &m_bare);
        } else {
            timed(barePass, &m_bare);
            timed(libraryPass, &m_library);
        }
        m_libraryFirst = !m_libraryFirst;
        m_state.SetIterationTime(std::chrono::duration<double>(m_library - before).count());
    }

private:
    static std::chrono::nanoseconds threadCpuTime()
    {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    }

    template <class Pass> static void timed(const Pass& pass, std::chrono::nanoseconds* total)
    {
        const std::chrono::nanoseconds start = threadCpuTime();
        for (int i = 0; i < PassBlocks; ++i)
            pass();
        *total += threadCpuTime() - start;
    }

    benchmark::State& m_state;
    std::chrono::nanoseconds m_library{0};
    std::chrono::nanoseconds m_bare{0};
    bool m_libraryFirst = true;
};

// A pass reads the whole file through each side; the PCMs are opened anew
// for every pass (the file plugin cannot rewind), outside the measured time.
// read() fills one buffer over and over, like the bare loop; with
// fresh_buffer it gets a new one for every block, as the capture worker
// gives it (each block goes to the consumers as a QByteArray of its own), so
// the allocation is counted too.
void BM_CaptureReadAgainstBare(benchmark::State& state)
{
    const bool freshBuffer = state.range(0) != 0;
    const QString pcmName = "cap_file:INFILE=" + captureFile();
    AlsaInputDevice device(pcmName, SampleRate, Channels, SND_PCM_FORMAT_S16_LE, 10, 100);
    std::vector<char> bareBuffer(BlockBytes);
    QByteArray block;
    SideBySide sides(state);
    for (auto _ : state) {
        BarePcm pcm = openBarePcm(pcmName, SND_PCM_STREAM_CAPTURE, BlockFrames, 10 * snd_pcm_uframes_t{BlockFrames}, 0);
        if (!pcm || !device.open()) {
            state.SkipWithError("cannot open the capture PCM");
            break;
        }
        sides.run(
            [&] {
                if (freshBuffer)
                    block = QByteArray();
                device.read(&block, BlockFrames);
                benchmark::DoNotOptimize(block.constData());
            },
            [&] { benchmark::DoNotOptimize(snd_pcm_readi(pcm.get(), bareBuffer.data(), BlockFrames)); });
        device.close();
    }
}
BENCHMARK(BM_CaptureReadAgainstBare)->ArgName("fresh_buffer")->Arg(0)->Arg(1)->UseManualTime();

void BM_PlaybackWriteAgainstBare(benchmark::State& state)
{
    AlsaOutputDevice device("null", SampleRate, Channels, SND_PCM_FORMAT_S16_LE, 10, 100);
    const BarePcm pcm = device.open() ? openBarePcm("null", SND_PCM_STREAM_PLAYBACK, device.periodSize(),
                                                    device.bufferSize(), device.startThreshold())
                                      : nullptr;
    if (!pcm) {
        state.SkipWithError("cannot open the null PCM");
        return;
    }
    const QByteArray block(BlockBytes, '\x5a');
    SideBySide sides(state);
    for (auto _ : state) {
        sides.run([&] { benchmark::DoNotOptimize(device.write(block)); },
                  [&] { benchmark::DoNotOptimize(snd_pcm_writei(pcm.get(), block.constData(), BlockFrames)); });
    }
}
BENCHMARK(BM_PlaybackWriteAgainstBare)->UseManualTime();

// The test mixer with 200 volume controls besides its usual ones, on a FIFO
// of this process's own.
QString bigMixerName() { return "testmix:FIFO=" + scratchDir().filePath("mixer.fifo") + ",EXTRA=200"; }

const QString SoughtElement = QStringLiteral("Extra 199");

void BM_MixerGuessElementName(benchmark::State& state)
{
    const QSharedPointer<AlsaMixerHandle> handle = AlsaMixerHandle::openHandle(bigMixerName());
    if (!handle || handle->guessElementName(SoughtElement) != SoughtElement) {
        state.SkipWithError("cannot open the test mixer");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(handle->guessElementName(SoughtElement));
}
BENCHMARK(BM_MixerGuessElementName);

// A hit finds the element held by a client; a miss creates it anew, as every
// iteration drops the only reference.
void BM_MixerLoadElement(benchmark::State& state)
{
    const bool hit = state.range(0) != 0;
    AlsaCard card(bigMixerName(), true);
    const AlsaMixerElementPtr held = hit ? card.loadMixerElement(SoughtElement) : AlsaMixerElementPtr();
    if (!card.isOpen() || (hit && !held)) {
        state.SkipWithError("cannot open the test mixer");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(card.loadMixerElement(SoughtElement));
}
BENCHMARK(BM_MixerLoadElement)->ArgName("cache_hit")->Arg(1)->Arg(0);

} // namespace
