// The capture status under a sound server that dies and comes back: a read
// failure, then a failed open while the server is still down; a host's
// start() resumes capture once it is back.

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"

#include "ProviderTestSupport.h"
#include "SoundServer.h"

#include <gtest/gtest.h>

using quil::CaptureState;
using namespace quiltest;

TEST(ServerRestart, CaptureStatusFollowsTheServerAndAStartResumesCapture)
{
    ASSERT_TRUE(hasSoundServer());
    AlsaInputDevice device(soundDevice(), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 200);
    AudioInputDataProvider provider(&device, 0, 960);
    std::atomic<int> blocks{0};
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable([&blocks](const QByteArray&) { ++blocks; });
    const auto state = [&provider] { return provider.captureStatus().state; };
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return blocks > 10; }, 10000));

    ASSERT_TRUE(runSoundServer("kill"));
    EXPECT_TRUE(waitUntil([&] { return state() == CaptureState::Restarting; }, 10000));
    const quil::CaptureStatus readFailed = provider.captureStatus();
    // The restart 2000 ms later finds the server still down.
    EXPECT_TRUE(waitUntil([&] { return state() == CaptureState::Stopped; }, 10000));
    const quil::CaptureStatus openFailed = provider.captureStatus();
    ASSERT_TRUE(runSoundServer("start"));
    EXPECT_TRUE(readFailed.errorString.startsWith("AlsaInputDevice: ")) << readFailed.errorString.toStdString();
    EXPECT_LT(readFailed.errorCode, 0);
    EXPECT_TRUE(openFailed.errorString.startsWith("Cannot open capture device")) << openFailed.errorString.toStdString();
    EXPECT_EQ(openFailed.restartCount, 1);

    const int before = blocks;
    provider.start();
    EXPECT_TRUE(waitUntil([&] { return state() == CaptureState::Running && blocks > before + 10; }, 15000))
        << provider.captureStatus().errorString.toStdString();
    EXPECT_FALSE(live.isFinished());
}
