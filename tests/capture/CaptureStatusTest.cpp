// The provider's capture status follows a sound-server restart under a running
// capture: running, restarting after the read failure, running again with
// audio flowing, and stopped after stop().

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"
#include "ProviderTestSupport.h"
#include "SoundServer.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

using quil::CaptureState;
using quiltest::waitUntil;

TEST(CaptureStatusTest, FollowsASoundServerRestart)
{
    ASSERT_TRUE(quiltest::hasSoundServer());
    AlsaInputDevice device(quiltest::soundDevice(), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 200);
    std::atomic<int> blocks{0};
    QList<CaptureState> states;   // the listener's, read once the worker thread has ended
    {
        AudioInputDataProvider provider(&device, 0, 960);
        provider.setCaptureStatusListener([&states](const quil::CaptureStatus& status) {
            if (states.isEmpty() || states.last() != status.state)
                states << status.state;
        });
        CMUnbufferedDataTransfer live = provider.liveFeed();
        live.onDataAvailable([&blocks](const QByteArray&) { ++blocks; });
        const auto state = [&provider] { return provider.captureStatus().state; };

        provider.start();
        ASSERT_TRUE(waitUntil([&] { return blocks > 10; }, 5000));
        EXPECT_EQ(state(), CaptureState::Running);
        ASSERT_TRUE(quiltest::runSoundServer("stop"));
        const bool restarting = waitUntil([&] { return state() == CaptureState::Restarting; }, 10000);
        const quil::CaptureStatus failed = provider.captureStatus();
        ASSERT_TRUE(quiltest::runSoundServer("start"));
        ASSERT_TRUE(restarting);
        // The device's own reason, not the provider's log line.
        EXPECT_TRUE(failed.errorString.startsWith("AlsaInputDevice: ")) << failed.errorString.toStdString();
        EXPECT_LT(failed.errorCode, 0);
        EXPECT_EQ(failed.restartCount, 1);

        const int before = blocks;
        EXPECT_TRUE(waitUntil([&] { return state() == CaptureState::Running && blocks > before + 10; }, 15000))
            << provider.captureStatus().errorString.toStdString();
        provider.stop();
        EXPECT_TRUE(waitUntil([&] { return state() == CaptureState::Stopped; }, 5000));
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(states, (QList<CaptureState>{CaptureState::Running, CaptureState::Restarting, CaptureState::Running,
                                           CaptureState::Stopped}));
}
