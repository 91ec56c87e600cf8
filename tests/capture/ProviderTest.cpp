// AudioInputDataProvider with its worker: the order of delivery to the feeds,
// and failing devices over real time. The call sequences and the data
// transfers are fuzz_provider's; the ring under load is stress_test's.

#include "AudioInputDataProvider.h"
#include "FileInputDevice.h"

#include "LogCapture.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

using namespace quiltest;

// Each block reaches the time-shifted feeds before the live one, read on the
// worker thread "AudioInputT". Stop, destruction and finished feeds: fuzz_provider.
TEST(Provider, EachBlockReachesTheTimeShiftedFeedsBeforeTheLiveOne)
{
    ScriptedInputDevice device;
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
    FeedRecorder first(provider->liveFeedWithOffset(0)), second(provider->liveFeedWithOffset(0)), live(provider->liveFeed());
    provider->start();
    ASSERT_TRUE(waitUntil([&] { return live.blockCount() >= 3; }));
    for (int i = 0; i < 3; ++i)
        EXPECT_LT(qMax(first.order().value(i), second.order().value(i)), live.order().value(i)) << i;
    EXPECT_TRUE(device.openedOnCaptureThread);
    provider.reset();
    deleteFinishedThreadObjects();
}

// A device whose frames have no bytes (no channels) has no past to give.
TEST(Provider, ADeviceOfEmptyFramesGivesAnEmptyPrefill)
{
    FileInputDevice device(48000, 0, SND_PCM_FORMAT_S16_LE);
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
    EXPECT_EQ(provider->liveFeedWithOffset(50).readAll(), QByteArray());
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
    using State = quil::CaptureState;
    const quil::CaptureStatus readFailed{State::Restarting, "Scripted read failure", -EIO, 1};
    const quil::CaptureStatus openFailed{State::Stopped, "Scripted open failure", -ENODEV, 2};
    const QList<quil::CaptureStatus> expected{{State::Running, {}, 0, 0}, readFailed, {State::Running, {}, 0, 1},
                                              {State::Restarting, readFailed.errorString, -EIO, 2}, openFailed};
    EXPECT_EQ(([&] { std::lock_guard<std::mutex> lock(mutex); return statuses; }()), expected);
    EXPECT_EQ(provider.captureStatus(), openFailed);
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.opens == 4; }));
    EXPECT_FALSE(live.isFinished());
}
