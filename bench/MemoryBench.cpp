// Memory over a long capture: a provider with 64 time-shifted feeds, capture
// running flat out on its own thread. After the warm-up (the first second)
// neither the resident size nor the heap may grow.

#include "AllocationCounter.h"
#include "AudioInputDataProvider.h"
#include "BenchSupport.h"

#include <QList>
#include <QThread>

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

using namespace quilbench;

namespace {

constexpr int Feeds = 64;
constexpr unsigned int RingMs = 10000;
constexpr unsigned long SamplingMs = 100;

double residentKiB()
{
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(statm);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

double heapKiB()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / 1024;
}

// QUIL_BENCH_SMOKE cuts the 60 s to one.
std::chrono::milliseconds runLength()
{
    return std::chrono::milliseconds(qEnvironmentVariableIsSet("QUIL_BENCH_SMOKE") ? 1000 : 60000);
}

void BM_MemoryOverLongCapture(benchmark::State& state)
{
    const std::chrono::milliseconds total = runLength();
    const std::chrono::milliseconds warmUp = std::min(std::chrono::milliseconds(1000), total / 5);
    for (auto _ : state) {
        UnpacedInputDevice device(UnpacedInputDevice::FreshBlocks);
        AudioInputDataProvider provider(&device, RingMs, BlockFrames);
        QList<CMBufferedDataTransfer> feeds;
        for (int i = 0; i < Feeds; ++i) {
            feeds.append(provider.liveFeedWithOffset(static_cast<int>(RingMs) * i / Feeds));
            feeds.last().onDataAvailable([](const QByteArray&) {});
        }
        countAllocations(true);
        provider.start();
        // The sampling runs once within the warm-up too, so that its own first
        // use of memory is not taken for growth.
        QThread::msleep(static_cast<unsigned long>(warmUp.count()) - SamplingMs);
        residentKiB();
        QThread::msleep(SamplingMs);

        const double residentAtWarmUp = residentKiB();
        const double heapAtWarmUp = heapKiB();
        const AllocationCount countAtWarmUp = allocationCount();
        const qint64 readsAtWarmUp = device.reads;
        double residentPeak = residentAtWarmUp;
        const auto end = std::chrono::steady_clock::now() + (total - warmUp);
        while (std::chrono::steady_clock::now() < end) {
            QThread::msleep(SamplingMs);
            residentPeak = std::max(residentPeak, residentKiB());
        }
        const double heapAtEnd = heapKiB();
        const AllocationCount countAtEnd = allocationCount();
        const double blocks = static_cast<double>(device.reads - readsAtWarmUp);
        provider.stop();
        countAllocations(false);

        const double seconds = std::chrono::duration<double>(total - warmUp).count();
        state.SetIterationTime(seconds);
        state.counters["blocks_per_s"] = blocks / seconds;
        state.counters["rss_KiB"] = residentAtWarmUp;
        state.counters["rss_growth_KiB"] = residentPeak - residentAtWarmUp;
        state.counters["heap_growth_KiB"] = heapAtEnd - heapAtWarmUp;
        state.counters["live_alloc_growth"] = static_cast<double>(
            (countAtEnd.allocations - countAtEnd.releases) - (countAtWarmUp.allocations - countAtWarmUp.releases));
        state.counters["allocs_per_block"] =
            static_cast<double>(countAtEnd.allocations - countAtWarmUp.allocations) / blocks;
    }
}
BENCHMARK(BM_MemoryOverLongCapture)->Iterations(1)->Repetitions(1)->UseManualTime()->Unit(benchmark::kSecond);

} // namespace
