// Data transfers, and AudioInputDataProvider with its worker: delivery to the
// live and time-shifted feeds, the ring behind the prefills, mute, failing
// devices, teardown, and real ALSA capture.

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"

#include "LogCapture.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <future>
#include <random>

using namespace quiltest;

namespace {

// The silence block is process-wide and sized by the process's first
// successful read; this environment makes that read, with a known length.
constexpr int SilenceBytes = 250 * 4;
class SilencePrimer : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ScriptedInputDevice device;
        device.closeGate();
        AudioInputDataProvider provider(&device, 0, SilenceBytes / 4);
        FeedRecorder live(provider.liveFeed());
        provider.start();
        device.permit(1);
        waitUntil([&] { return live.blockCount() == 1; });
        provider.stop();
        device.openGate();
    }
};
const auto* const silencePrimer = ::testing::AddGlobalTestEnvironment(new SilencePrimer);

// A finished worker thread's object asks this thread, by a queued call, to
// delete it later; this thread runs no event loop, so do both steps here.
void deleteFinishedThreadObjects()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

TEST(DataTransfer, BufferedKeepsBlocksUntilReadOrHandledAndFinishIsFinal)
{
    CMBufferedDataTransfer buffered;
    CMUnbufferedDataTransfer unbuffered;
    for (CMDataTransfer* t : {static_cast<CMDataTransfer*>(&buffered), static_cast<CMDataTransfer*>(&unbuffered)})
        t->dataAvailable("kept ");
    buffered.dataAvailable("both");
    EXPECT_EQ(buffered.readAll(), QByteArray("kept both"));
    EXPECT_EQ(buffered.readAll(), QByteArray());
    buffered.dataAvailable("early");
    QByteArray handled;
    buffered.onDataAvailable([&](const QByteArray& b) { handled += b; });
    unbuffered.onDataAvailable([&](const QByteArray& b) { handled += b; });
    unbuffered.dataAvailable("+live");
    int finishes = 0;
    buffered.onFinished([&](const CMError&) { ++finishes; });
    buffered.finish(CMError());
    buffered.finish(CMError());
    buffered.dataAvailable("after");
    buffered.onFinished([&](const CMError&) { finishes += 10; });   // late: runs at once
    EXPECT_EQ(handled, QByteArray("early+live"));
    EXPECT_EQ(finishes, 11);
    EXPECT_TRUE(buffered.isFinished() && !unbuffered.isFinished());
}

TEST(Provider, EveryBlockReachesEachFeedAndStopFinishesThemAndClosesTheDevice)
{
    ScriptedInputDevice device;
    device.closeGate();
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
    FeedRecorder first(provider->liveFeedWithOffset(0));
    FeedRecorder second(provider->liveFeedWithOffset(0));
    FeedRecorder live(provider->liveFeed());
    provider->start();
    device.permit(3);
    ASSERT_TRUE(waitUntil([&] { return live.blockCount() == 3; }));
    EXPECT_TRUE(first.bytes() == device.frames(1, 3 * 480));
    EXPECT_TRUE(second.bytes() == first.bytes() && live.bytes() == first.bytes());
    EXPECT_EQ(device.openThreadName(), "AudioInputT");
    first.transfer().finish(CMError());   // its consumer is done: nothing more for it
    provider->stop();
    device.permit(1);
    ASSERT_TRUE(waitUntil([&] { return live.isFinished() && second.isFinished(); }));
    EXPECT_EQ(first.blockCount(), 3);
    EXPECT_EQ(second.blockCount(), 4);
    EXPECT_EQ(device.closes, 1);
    device.openGate();
    provider.reset();
    // start() right before destruction: every feed is finished all the same.
    for (int i = 0; i < 20; ++i) {
        ScriptedInputDevice other;
        provider = std::make_unique<AudioInputDataProvider>(&other, 100, 480);
        FeedRecorder feed(provider->liveFeedWithOffset(20)), otherLive(provider->liveFeed());
        provider->start();
        provider.reset();
        EXPECT_TRUE(feed.isFinished() && otherLive.isFinished());
        EXPECT_EQ(other.closes, 1);
    }
    deleteFinishedThreadObjects();
}

// The ring against a model, a run of bytes that every block shifts: the same
// random blocks (shorter and longer than the ring), muted and not, and after
// each block prefills at random offsets (0, negative, beyond the ring).
TEST(Provider, PrefillsAreTheNewestBytesAndMutedBlocksAreSilence)
{
    for (const unsigned int ringMs : {0u, 10u, 30u}) {
        SCOPED_TRACE(ringMs);
        std::mt19937 random(ringMs);
        auto uniform = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
        const int ringFrames = ringMs * 48;
        ScriptedInputDevice device;
        for (int i = 0; i < 40; ++i)
            device.framesPerRead << (i == 7 ? ringFrames : uniform(1, qMax(600, ringFrames * 3 / 2)));
        device.closeGate();
        AudioInputDataProvider provider(&device, ringMs, 1);
        FeedRecorder live(provider.liveFeed());
        QByteArray model(ringMs * 192, '\0');
        provider.start();
        for (int i = 0; i < device.framesPerRead.size(); ++i) {
            const bool muted = uniform(0, 3) == 0;
            provider.setMuteState(muted);
            EXPECT_EQ(provider.isMuted(), muted);
            const int first = device.deliveredFrames + 1;
            device.permit(1);
            ASSERT_TRUE(waitUntil([&] { return live.blockCount() == i + 1; }));
            const QByteArray block =
                muted ? QByteArray(SilenceBytes, '\0') : device.frames(first, device.framesPerRead.at(i));
            ASSERT_TRUE(live.blocks().last() == block) << "block " << i;
            if (!model.isEmpty())
                model = model.remove(0, block.size()) + block;
            for (const int offsetMs : {uniform(-5, 60), uniform(0, ringMs + 1), 0}) {
                CMBufferedDataTransfer feed = provider.liveFeedWithOffset(offsetMs);
                const int offset = offsetMs * 192;
                ASSERT_TRUE(feed.readAll() == model.mid(offset > model.size() ? 0 : model.size() - offset))
                    << "block " << i << ", offset " << offsetMs << " ms";
                feed.finish(CMError());
            }
        }
        provider.stop();
        device.openGate();
    }
}

// Read errors restart the run every 2000 ms with the device left open; an
// open error ends the retries until the next start().
TEST(Provider, FailingDeviceRetriesReadsEvery2000MsAndOpensOncePerStart)
{
    LogCapture log;
    ScriptedInputDevice device;
    device.failReads = true;
    AudioInputDataProvider provider(&device, 100, 480);
    FeedRecorder live(provider.liveFeed());
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 1; }));
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 2; }, 4000));
    EXPECT_GE(timer.elapsed(), 1880);   // a coarse timer may fire up to 5 % early
    EXPECT_LE(timer.elapsed(), 2000 + quiltest::scaledMs(300));
    device.failOpen = true;
    ASSERT_TRUE(waitUntil([&] { return device.opens == 3; }, 4000));
    QThread::msleep(2300);
    EXPECT_EQ(device.opens, 3);
    EXPECT_EQ(log.messages(log4cplus::ERROR_LOG_LEVEL),
              (QStringList{"Error while reading the input device, restarting provider in 2000 ms",
                           "Error while reading the input device, restarting provider in 2000 ms",
                           "Unable to open audio input device: Scripted Device"}));
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.opens == 4; }));
    EXPECT_FALSE(live.isFinished());
}

// Real ALSA capture through the file plugin: the live feed and a time-shifted
// feed receive the file complete and in order.
TEST(Provider, AlsaCaptureReachesEveryFeedComplete)
{
    const QByteArray data = patternBytes(100 * 480 * 4, 7);
    AlsaInputDevice device("cap_file:INFILE=" + writeDataFile("provider_capture.raw", data), 48000, 2,
                           SND_PCM_FORMAT_S16_LE, 10, 100);
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 500, 480);
    FeedRecorder early(provider->liveFeedWithOffset(100));
    // Stopped at the file's end: past it the file plugin would deliver garbage.
    QByteArray live;
    std::atomic<bool> liveFinished{false};
    CMUnbufferedDataTransfer liveFeed = provider->liveFeed();
    liveFeed.onDataAvailable([&, running = provider.get()](const QByteArray& block) {
        live += block;
        if (live.size() == data.size())
            running->stop();
    });
    liveFeed.onFinished([&](const CMError&) { liveFinished = true; });
    provider->start();
    ASSERT_TRUE(waitUntil([&] { return liveFinished && early.isFinished(); }));
    EXPECT_TRUE(live == data);
    EXPECT_TRUE(early.bytes() == QByteArray(19200, '\0') + data);
    provider.reset();
    EXPECT_FALSE(device.isOpened());
    deleteFinishedThreadObjects();
}
