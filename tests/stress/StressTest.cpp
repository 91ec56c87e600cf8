// Churn under load, each run bounded in count and time: time-shifted feeds
// requested and finished from several threads while capture runs flat out,
// and providers created and destroyed over every device kind and failure.
// Each takes a few seconds, under the sanitizers too.

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"
#include "FileInputDevice.h"

#include "AlsaTest.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QDir>

#include <gtest/gtest.h>

#include <future>
#include <malloc.h>
#include <random>

using namespace quiltest;

namespace {

int entriesOf(const char* directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
}

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

// Providers over every kind of device, working or failing at open or read,
// started, stopped or not, and destroyed: nothing may stay behind.
TEST_F(StressTest, ProviderChurnLeavesNoThreadDescriptorOrAllocation)
{
    const QString pcm = "cap_file:INFILE=" + writeDataFile("stress_capture.raw", patternBytes(48000 * 4));
    const QString file = writeDataFile("stress_file.raw", patternBytes(48000 * 4, 1));
    // Each kind, and whether it delivers blocks.
    const QList<QPair<std::function<AudioInputDevice*()>, bool>> kinds{
        {[] { return new ScriptedInputDevice; }, true},
        {[] { auto* d = new ScriptedInputDevice; d->failReads = true; return d; }, false},
        {[] { auto* d = new ScriptedInputDevice; d->failOpen = true; return d; }, false},
        {[&] { auto* d = new FileInputDevice(48000, 2, SND_PCM_FORMAT_S16_LE); d->playFile(file); return d; }, true},
        {[&] { return new AlsaInputDevice(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 10, 100); }, true},
    };
    auto cycle = [&](int i) {
        std::unique_ptr<AudioInputDevice> device(kinds.at(i % kinds.size()).first());
        auto provider = std::make_unique<AudioInputDataProvider>(device.get(), 100, 480);
        FeedRecorder live(provider->liveFeed()), shifted(provider->liveFeedWithOffset(i % 50));
        if (i % 11 != 0) {   // now and then destroyed without ever starting
            provider->start();
            provider->setMuteState(i % 2 == 0);
            if (kinds.at(i % kinds.size()).second)
                EXPECT_TRUE(waitUntil([&] { return live.blockCount() > 1; })) << i;
        }
        if (i % 2)
            provider->stop();
        provider.reset();
        deleteFinishedThreadObjects();
        EXPECT_EQ(faults::openHandles(), 0) << i;   // the device closed it, if the provider did not
    };
    for (int i = 0; i < kinds.size(); ++i)   // loads ALSA's configuration, Qt's statics
        cycle(i);
    QThread::msleep(200);   // a joined thread may linger in /proc for a moment
    const int threads = entriesOf("/proc/self/task"), descriptors = entriesOf("/proc/self/fd");
    const size_t heapBytes = mallinfo2().uordblks;
    for (int i = 0; i < 504; ++i)
        cycle(i);
    EXPECT_TRUE(waitUntil([&] { return entriesOf("/proc/self/task") <= threads; }, 3000));
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers keep the heap themselves (and find leaks at exit).
    EXPECT_LT(mallinfo2().uordblks, heapBytes + 64 * 1024) << "the heap grew with every provider";
#endif
}
