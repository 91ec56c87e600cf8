// AlsaOutputDevice on the sound server's PCM, played in real time by the
// private server's null sink: a drained close waits for what is queued, an
// immediate one does not. Timing bounds are loose: the cores are shared.

#include "AlsaOutputDevice.h"

#include "AlsaFaults.h"
#include "SoundServer.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

using Out = AudioOutputDevice;

namespace {

// Writes ms of silence in 20 ms blocks; every block must be taken whole.
void play(AlsaOutputDevice& device, int ms)
{
    const QByteArray block(48000 / 50 * 4, 0);
    for (int played = 0; played < ms; played += 20)
        ASSERT_EQ(device.write(block), Out::Written);
}

} // namespace

TEST(AlsaOutputDeviceRealtimeTest, DrainWaitsForTheQueueAndImmediateDoesNot)
{
    ASSERT_TRUE(quiltest::hasSoundServer());
    for (auto mode : {Out::Drain, Out::Immediate}) {
        AlsaOutputDevice device(quiltest::soundDevice(), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 500);
        ASSERT_TRUE(device.open());
        play(device, 300);   // fits the buffer: queued, not waited for
        const qint64 queuedMs = device.delay(nullptr) / 48;
        EXPECT_GT(queuedMs, 150);
        QElapsedTimer timer;
        timer.start();
        device.close(mode);
        EXPECT_GE(timer.elapsed(), mode == Out::Drain ? queuedMs - 60 : 0);
        EXPECT_LT(timer.elapsed(), mode == Out::Drain ? queuedMs + quiltest::scaledMs(300) : quiltest::scaledMs(100));
    }
    EXPECT_EQ(quiltest::faults::openHandles(), 0);
}
