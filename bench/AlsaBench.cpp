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
#include <memory>
#include <vector>

using namespace quilbench;

namespace {

using Clock = std::chrono::steady_clock;

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
        const QString file = scratchDir().filePath("capture.raw");
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

struct PcmCloser
{
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
    const bool configured = snd_pcm_hw_params_any(raw, hw) >= 0
        && snd_pcm_hw_params_set_access(raw, hw, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0
        && snd_pcm_hw_params_set_format(raw, hw, SND_PCM_FORMAT_S16_LE) >= 0
        && snd_pcm_hw_params_set_channels(raw, hw, Channels) >= 0
        && snd_pcm_hw_params_set_rate(raw, hw, SampleRate, 0) >= 0
        && snd_pcm_hw_params_set_period_size_near(raw, hw, &periodFrames, nullptr) >= 0
        && snd_pcm_hw_params_set_buffer_size_near(raw, hw, &bufferFrames) >= 0
        && snd_pcm_hw_params(raw, hw) >= 0
        && snd_pcm_sw_params_current(raw, sw) >= 0
        && (startThreshold == 0 || snd_pcm_sw_params_set_start_threshold(raw, sw, startThreshold) >= 0)
        && snd_pcm_sw_params(raw, sw) >= 0;
    return configured ? std::move(pcm) : nullptr;
}

double secondsOf(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

// Both sides run in every iteration, in alternating order, so that the load
// of a shared machine falls on both alike; the iteration time reported is the
// library's, the counters give both per block and their ratio.
void reportAgainstBare(benchmark::State& state, Clock::duration library, Clock::duration bare)
{
    const double blocks = static_cast<double>(state.iterations()) * PassBlocks;
    state.counters["library_ns"] = secondsOf(library) * 1e9 / blocks;
    state.counters["bare_ns"] = secondsOf(bare) * 1e9 / blocks;
    state.counters["ratio"] = secondsOf(library) / secondsOf(bare);
    state.SetItemsProcessed(static_cast<int64_t>(blocks));
}

// One pass reads the whole file through each side; the PCMs are opened anew
// for every pass (the file plugin cannot rewind), outside the measured time.
// read() gets a new buffer for every block, as the capture worker gives it.
void BM_CaptureReadAgainstBare(benchmark::State& state)
{
    const QString pcmName = "cap_file:INFILE=" + captureFile();
    AlsaInputDevice device(pcmName, SampleRate, Channels, SND_PCM_FORMAT_S16_LE, 10, 100);
    std::vector<char> bareBuffer(BlockBytes);
    Clock::duration library{}, bare{};
    bool libraryFirst = true;
    for (auto _ : state) {
        BarePcm pcm = openBarePcm(pcmName, SND_PCM_STREAM_CAPTURE, BlockFrames, 10 * BlockFrames, 0);
        if (!pcm || !device.open()) {
            state.SkipWithError("cannot open the capture PCM");
            break;
        }
        auto readLibrary = [&] {
            const auto start = Clock::now();
            for (int i = 0; i < PassBlocks; ++i) {
                QByteArray block;
                device.read(&block, BlockFrames);
                benchmark::DoNotOptimize(block.constData());
            }
            library += Clock::now() - start;
        };
        auto readBare = [&] {
            const auto start = Clock::now();
            for (int i = 0; i < PassBlocks; ++i)
                benchmark::DoNotOptimize(snd_pcm_readi(pcm.get(), bareBuffer.data(), BlockFrames));
            bare += Clock::now() - start;
        };
        const auto before = library;
        if (libraryFirst) {
            readLibrary();
            readBare();
        } else {
            readBare();
            readLibrary();
        }
        libraryFirst = !libraryFirst;
        state.SetIterationTime(secondsOf(library - before));
        device.close();
    }
    reportAgainstBare(state, library, bare);
}
BENCHMARK(BM_CaptureReadAgainstBare)->UseManualTime();

void BM_PlaybackWriteAgainstBare(benchmark::State& state)
{
    AlsaOutputDevice device("null", SampleRate, Channels, SND_PCM_FORMAT_S16_LE, 10, 100);
    if (!device.open()) {
        state.SkipWithError("cannot open the null PCM");
        return;
    }
    BarePcm pcm = openBarePcm("null", SND_PCM_STREAM_PLAYBACK, device.periodSize(), device.bufferSize(),
                              device.startThreshold());
    if (!pcm) {
        state.SkipWithError("cannot open the null PCM");
        return;
    }
    const QByteArray block(BlockBytes, '\x5a');
    Clock::duration library{}, bare{};
    bool libraryFirst = true;
    for (auto _ : state) {
        auto writeLibrary = [&] {
            const auto start = Clock::now();
            for (int i = 0; i < PassBlocks; ++i)
                benchmark::DoNotOptimize(device.write(block));
            library += Clock::now() - start;
        };
        auto writeBare = [&] {
            const auto start = Clock::now();
            for (int i = 0; i < PassBlocks; ++i)
                benchmark::DoNotOptimize(snd_pcm_writei(pcm.get(), block.constData(), BlockFrames));
            bare += Clock::now() - start;
        };
        const auto before = library;
        if (libraryFirst) {
            writeLibrary();
            writeBare();
        } else {
            writeBare();
            writeLibrary();
        }
        libraryFirst = !libraryFirst;
        state.SetIterationTime(secondsOf(library - before));
    }
    reportAgainstBare(state, library, bare);
}
BENCHMARK(BM_PlaybackWriteAgainstBare)->UseManualTime();

// The test mixer with 200 volume controls besides its usual ones, on a FIFO
// of this process's own.
QString bigMixerName()
{
    return "testmix:FIFO=" + scratchDir().filePath("mixer.fifo") + ",EXTRA=200";
}

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
