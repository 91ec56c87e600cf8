// Churn under load, each run bounded in count and time: time-shifted feeds
// requested and finished from several threads while capture runs flat out,
// providers created and destroyed over every device kind and failure, and
// playback with xruns and errors injected at random writes. Each takes a
// few seconds, under the sanitizers too.

#include "AlsaInputDevice.h"
#include "AlsaOutputDevice.h"
#include "AudioInputDataProvider.h"
#include "FileInputDevice.h"

#include "AlsaFaults.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <malloc.h>
#include <random>

using namespace quiltest;
using Out = AudioOutputDevice;

namespace {

int entriesOf(const char* directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
}

class StressTest : public ::testing::Test
{
protected:
    void SetUp() override { faults::reset(), m_timer.start(); }
    void TearDown() override
    {
        faults::reset();
        EXPECT_LT(m_timer.elapsed(), quiltest::scaledMs(30000));
        EXPECT_EQ(faults::openPcmHandles(), 0) << "a PCM handle leaked";
    }
    QElapsedTimer m_timer;
};

} // namespace

// Every feed, from its prefill to its finish, must be one gapless stretch of
// the counter stream, whichever thread asked and however soon it finished.
TEST_F(StressTest, FeedChurnKeepsEveryTimeShiftedFeedGapless)
{
    ScriptedInputDevice device;   // 48 kHz, 4-byte counter frames
    AudioInputDataProvider provider(&device, 100, 48);   // a 100 ms ring, 1 ms blocks
    std::atomic<int> liveBlocks{0}, liveDefects{0};
    QByteArray lastLive;   // the live feed checks each block against the last
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable([&](const QByteArray& block) {
        liveDefects += counterStreamDefect(lastLive.right(4) + block).isEmpty() ? 0 : 1;
        lastLive = block;
        ++liveBlocks;
    });
    provider.start();
    const size_t heapBytes = mallinfo2().uordblks;
    auto churn = [&](int seed) {
        std::mt19937 random(seed);
        QStringList defects;
        for (int i = seed; i < 10000 && defects.size() < 10; i += 4) {
            const int offsetMs = std::uniform_int_distribution<int>(0, 120)(random);
            const int prefillBytes = qMin(offsetMs, 100) * 192;
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
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(mallinfo2().uordblks, heapBytes + 1024 * 1024) << "finished feeds were kept";
#endif
    provider.stop();
    ASSERT_TRUE(waitUntil([&] { return live.isFinished(); }));
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
        {[] { return new AlsaInputDevice("no_such_pcm", 48000, 2, SND_PCM_FORMAT_S16_LE, 10, 100); }, false},
    };
    // The open retries' pauses are skipped; the file device's pacing is kept.
    faults::setHook<int(useconds_t)>("usleep", [](useconds_t us) {
        return us == 250000 ? 0 : faults::real<int(useconds_t)>("usleep")(us);
    });
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
        QCoreApplication::sendPostedEvents();   // the finished worker thread's object
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_EQ(faults::openPcmHandles(), 0) << i;   // the device closed it, if the provider did not
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

// Thousands of writes with xruns, short writes and errors injected at random
// calls: every write ends in one of the three results that its faults call
// for, hands ALSA exactly the frames it reports, and leaves a usable device.
TEST_F(StressTest, PlaybackChurnAnswersEveryWriteAndStaysUsable)
{
    using WriteI = snd_pcm_sframes_t(snd_pcm_t*, const void*, snd_pcm_uframes_t);
    std::mt19937 random(7);
    struct Call { const char* buffer; snd_pcm_uframes_t frames; snd_pcm_sframes_t result; };
    QList<Call> calls;   // of the current write
    bool recoverFails = false;
    faults::setHook<WriteI>("snd_pcm_writei", [&](snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames) {
        const unsigned dice = random() % 100;
        snd_pcm_sframes_t result = dice < 8 ? -EPIPE : dice < 9 ? -EIO : 0;
        if (result == 0)   // short writes too
            result = faults::real<WriteI>("snd_pcm_writei")(pcm, buffer, dice < 40 ? 1 + random() % frames : frames);
        calls.append({static_cast<const char*>(buffer), frames, result});
        return result;
    });
    faults::setHook<int(snd_pcm_t*, int, int)>("snd_pcm_recover", [&](snd_pcm_t* pcm, int error, int silent) {
        return recoverFails ? -ENODEV : faults::real<int(snd_pcm_t*, int, int)>("snd_pcm_recover")(pcm, error, silent);
    });
    AlsaOutputDevice device("null", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    QMap<Out::WriteResult, int> results;
    for (int i = 0; i < 5000; ++i) {
        const QByteArray block = patternBytes(1 + random() % 8000, i);
        const snd_pcm_uframes_t frames = block.size() / 4;
        calls.clear();
        recoverFails = random() % 20 == 0;
        const Out::WriteResult result = device.write(block);
        ++results[result];
        snd_pcm_uframes_t taken = 0;   // the calls take the block front to back
        for (const Call& call : qAsConst(calls)) {
            ASSERT_EQ(call.buffer, block.constData() + taken * 4) << i;
            ASSERT_EQ(call.frames, frames - taken) << i;
            taken += qMax<snd_pcm_sframes_t>(call.result, 0);
        }
        const snd_pcm_sframes_t last = calls.isEmpty() ? 0 : calls.last().result;
        ASSERT_EQ(result, last == -EPIPE && !recoverFails ? Out::XrunRecovered : last < 0 ? Out::DeviceClosed : Out::Written) << i;
        ASSERT_EQ(taken == frames, result == Out::Written) << i;
        ASSERT_EQ(device.isOpened(), result != Out::DeviceClosed) << i;
        if (!device.isOpened()) {
            ASSERT_EQ(faults::openPcmHandles(), 0);
            ASSERT_TRUE(device.open()) << i;
        }
    }
    EXPECT_GT(results[Out::Written], 2500);
    EXPECT_GT(results[Out::XrunRecovered] * results[Out::DeviceClosed], 0);
    device.close(Out::Immediate);
}
