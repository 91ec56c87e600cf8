// Data transfers, and AudioInputDataProvider with its worker: delivery to the
// live and time-shifted feeds, failing devices and teardown. The ring behind
// the prefills is checked under load by stress_test.

#include "AudioInputDataProvider.h"

#include "LogCapture.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

using namespace quiltest;

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
    device.gated = true;
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
    FeedRecorder first(provider->liveFeedWithOffset(0));
    FeedRecorder second(provider->liveFeedWithOffset(0));
    FeedRecorder live(provider->liveFeed());
    provider->start();
    device.permit(3);
    ASSERT_TRUE(waitUntil([&] { return live.blockCount() == 3; }));
    EXPECT_TRUE(first.bytes() == device.frames(1, 3 * 480));
    EXPECT_TRUE(second.bytes() == first.bytes() && live.bytes() == first.bytes());
    for (int i = 0; i < 3; ++i)   // the time-shifted feeds first, then the live one
        EXPECT_LT(qMax(first.order().value(i), second.order().value(i)), live.order().value(i)) << i;
    EXPECT_TRUE(device.openedOnCaptureThread);
    first.transfer().finish(CMError());   // its consumer is done: nothing more for it
    provider->stop();
    device.permit(1);
    ASSERT_TRUE(waitUntil([&] { return live.isFinished() && second.isFinished(); }));
    EXPECT_EQ(provider->captureStatus(), quil::CaptureStatus());   // stopped, no failure
    EXPECT_EQ(first.blockCount(), 3);
    EXPECT_EQ(second.blockCount(), 4);
    EXPECT_EQ(device.closes, 1);
    device.openGate();
    provider.reset();
    deleteFinishedThreadObjects();
}

// Read errors restart the run every 2000 ms with the device left open; an
// open error ends the retries until the next start(). The capture status
// follows, with the device's own reason for each failure.
TEST(Provider, FailingDeviceRetriesReadsEvery2000MsAndOpensOncePerStart)
{
    LogCapture log;
    ScriptedInputDevice device;
    device.failReads = true;
    AudioInputDataProvider provider(&device, 100, 480);
    FeedRecorder live(provider.liveFeed());
    std::mutex mutex;
    QList<quil::CaptureStatus> statuses;   // each change, told by the worker thread
    provider.setCaptureStatusListener([&](const quil::CaptureStatus& status) {
        std::lock_guard<std::mutex> lock(mutex);
        statuses << status;
    });
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 1; }));
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 2; }, 4000));
    EXPECT_GE(timer.elapsed(), 1880);   // a coarse timer may fire up to 5 % early
    EXPECT_LE(timer.elapsed(), 2000 + quiltest::scaledMs(300));
    device.failOpen = true;
    ASSERT_TRUE(waitUntil([&] { return provider.captureStatus().state == quil::CaptureState::Stopped; }, 4000));
    // No retry follows a failed open: nothing in the time a restart takes.
    EXPECT_FALSE(waitUntil([&] { return device.opens > 3; }, 2300));
    EXPECT_EQ(log.errors(),
              (QStringList{"Error while reading the input device, restarting provider in 2000 ms",
                           "Error while reading the input device, restarting provider in 2000 ms",
                           "Unable to open audio input device: Scripted Device"}));
    {
        using State = quil::CaptureState;
        std::lock_guard<std::mutex> lock(mutex);
        QList<State> states;
        for (const quil::CaptureStatus& status : statuses)
            states << status.state;
        EXPECT_EQ(states, (QList<State>{State::Running, State::Restarting, State::Running, State::Restarting, State::Stopped}));
        const quil::CaptureStatus readFailed{State::Restarting, "Scripted read failure", -EIO, 1};
        const quil::CaptureStatus openFailed{State::Stopped, "Scripted open failure", -ENODEV, 2};
        EXPECT_TRUE(statuses.value(1) == readFailed && statuses.value(4) == openFailed && provider.captureStatus() == openFailed);
    }
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.opens == 4; }));
    EXPECT_FALSE(live.isFinished());
}

// A stop() while a restart waits ends it at once: Stopped, feeds finished, the
// device closed. Stop and destruction in the other states are fuzz_provider's.
TEST(Provider, StopWhileRestartingEndsCaptureAtOnce)
{
    ScriptedInputDevice device;
    device.failReads = true;
    AudioInputDataProvider provider(&device, 100, 480);
    FeedRecorder live(provider.liveFeed()), shifted(provider.liveFeedWithOffset(0));
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return provider.captureStatus().state == quil::CaptureState::Restarting; }));
    QElapsedTimer timer;
    timer.start();
    provider.stop();
    ASSERT_TRUE(waitUntil([&] { return provider.captureStatus().state == quil::CaptureState::Stopped; }));
    EXPECT_LE(timer.elapsed(), quiltest::scaledMs(100));
    EXPECT_TRUE(live.isFinished() && shifted.isFinished() && device.closes == 1);
}
