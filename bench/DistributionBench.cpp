// The capture path's own cost per block (ring update, registry copy, delivery
// to every feed) and the cost of requesting a time-shifted feed.

#include "AudioInputDataProviderThread.h"
#include "BenchSupport.h"

#include <QCoreApplication>
#include <QList>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

using namespace quilbench;

namespace {

// One iteration is one block. The worker runs its capture in this thread, in
// the event loop, and the device ends it when the benchmark has enough
// blocks; setting up the feeds and finishing them are not measured.
void BM_Distribution(benchmark::State& state)
{
    const auto ringMs = static_cast<unsigned int>(state.range(0));
    const auto consumers = static_cast<int>(state.range(1));
    AudioInputDataProviderThread* running = nullptr;
    UnpacedInputDevice device(UnpacedInputDevice::SharedBlocks, [&] {
        if (!state.KeepRunning())
            running->stop();
    });
    AudioInputDataProviderThread worker(&device, ringMs, BlockFrames);
    running = &worker;
    QList<CMBufferedDataTransfer> feeds;
    for (int i = 0; i < consumers; ++i) {
        feeds.append(worker.liveFeedWithOffset(0));
        feeds.last().onDataAvailable([](const QByteArray&) {});
    }
    worker.start();
    QCoreApplication::processEvents(); // the whole capture run

    state.SetBytesProcessed(state.iterations() * BlockBytes);
    state.counters["per_consumer"] =
        benchmark::Counter(consumers, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Distribution)
    ->ArgNames({"ring_ms", "consumers"})
    ->ArgsProduct({{0, 1000, 10000}, {1, 8, 64, 256}})
    // More ring lengths at one consumer, for the cost-against-length plot.
    ->Args({250, 1})
    ->Args({500, 1})
    ->Args({2000, 1})
    ->Args({5000, 1});

// The only copy the path needs: one block into the ring.
void BM_BlockMemcpy(benchmark::State& state)
{
    std::vector<char> from(BlockBytes, '\x5a'), to(BlockBytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), BlockBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * BlockBytes);
}
BENCHMARK(BM_BlockMemcpy);

// Request, prefill and finish of one feed on a 10 s ring, capture idle.
void BM_LiveFeedWithOffset(benchmark::State& state)
{
    UnpacedInputDevice device(UnpacedInputDevice::SharedBlocks);
    AudioInputDataProviderThread worker(&device, 10000, BlockFrames);
    for (auto _ : state) {
        CMBufferedDataTransfer feed = worker.liveFeedWithOffset(static_cast<int>(state.range(0)));
        feed.finish(CMError());
    }
}
BENCHMARK(BM_LiveFeedWithOffset)->ArgName("offset_ms")->Arg(10)->Arg(1000)->Arg(10000);

} // namespace
