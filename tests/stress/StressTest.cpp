// Churn under load, bounded in count and time: time-shifted feeds requested
// and finished from several threads while capture runs flat out. It takes a
// few seconds, under the sanitizers too. Providers made and destroyed in every
// state, over working and failing devices, are fuzz_provider's.

#include "AudioInputDataProvider.h"

#include "AlsaTest.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <gtest/gtest.h>

#include <future>
#include <malloc.h>
#include <random>

using namespace quiltest;

namespace {

using StressTest = AlsaTest;   // each run ends within ctest's time limit

} // namespace

// Every feed, from its prefill (the newest bytes of the ring) to its finish,
// must be one gapless stretch of the counter stream, whichever thread asked
// and however soon it finished; blocks from 7 frames to longer than the ring,
// which the ring then grows to hold (100 ms to 125 ms).
TEST_F(StressTest, FeedChurnKeepsEveryTimeShiftedFeedGapless)
{
    ScriptedInputDevice device;   // 48 kHz, 4-byte counter frames
    device.framesPerRead = {48, 7, 6000, 300, 48, 48};
    AudioInputDataProvider provider(&device, 100, 48);   // a 100 ms ring
    std::atomic<int> liveBlocks{0}, liveDefects{0};
    QByteArray lastLive;   // the live feed checks each block against the last
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable([&](const QByteArray& block) {
        liveDefects += counterStreamDefect(lastLive.right(4) + block).isEmpty() ? 0 : 1;
        lastLive = block;
        ++liveBlocks;
    });
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads > 3; }));
    const size_t heapBytes = mallinfo2().uordblks;
    auto churn = [&](int seed) {
        std::mt19937 random(seed);
        QStringList defects;
        for (int i = seed; i < 10000 && defects.size() < 10; i += 4) {
            const int offsetMs = std::uniform_int_distribution<int>(0, 150)(random);
            const int prefillBytes = qMin(offsetMs, 125) * 192;
            FeedRecorder feed(provider.liveFeedWithOffset(offsetMs));
            if (!waitUntil([&] { return feed.blockCount() >= (prefillBytes > 0) + (i % 3 == 2 ? 4 : i % 3); })) {
                defects << QStringLiteral("feed %1 starved").arg(i);
                continue;
            }
            feed.transfer().finish(CMError());
            if (prefillBytes > 0 && feed.blocks().value(0).size() != prefillBytes)
                defects << QStringLiteral("feed %1 began with %2 bytes").arg(i).arg(feed.blocks().value(0).size());
            const QString defect = counterStreamDefect(feed.bytes());
            if (!defect.isEmpty())
                defects << QStringLiteral("feed %1 (offset %2 ms): %3").arg(i).arg(offsetMs).arg(defect);
        }
        return defects;
    };
    std::vector<std::future<QStringList>> clients;
    for (int seed = 0; seed < 4; ++seed)
        clients.push_back(std::async(std::launch::async, churn, seed));
    QStringList defects;
    for (auto& client : clients)
        defects += client.get();
    provider.stop();
    ASSERT_TRUE(waitUntil([&] { return live.isFinished(); }));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(mallinfo2().uordblks, heapBytes + 4 * 1024 * 1024) << "finished feeds were kept";
#endif
    EXPECT_TRUE(defects.isEmpty()) << defects.join('\n').toStdString();
    EXPECT_EQ(liveDefects, 0);
    EXPECT_GT(liveBlocks, 10000);
}
