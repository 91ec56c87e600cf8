// AlsaOutputDevice on ALSA's pulse PCM, played in real time by the private
// sound server's null sink: draining and xrun recovery. Timing bounds are
// loose: the machine's cores are shared.

#include "AlsaOutputDevice.h"

#include "AlsaFaults.h"
#include "SoundServer.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>
#include <QThread>

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

TEST(AlsaOutputDeviceRealtimeTest, DrainWaitsForTheQueueAndAnXrunIsRecoveredInPlace)
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
    AlsaOutputDevice device(quiltest::soundDevice(), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    play(device, 200);
    QThread::msleep(300);   // the buffer runs dry
    // PipeWire's pulse server resumes a stream that ran dry: the pulse plugin sees no xrun there.
    const bool xrunSeen = !quiltest::onPipeWire() || quiltest::soundDevice() != QLatin1String("pulse");
    EXPECT_EQ(device.write(QByteArray(3840, 0)), xrunSeen ? Out::XrunRecovered : Out::Written);
    ASSERT_TRUE(device.isOpened());
    QElapsedTimer timer;
    timer.start();
    play(device, 400);
    EXPECT_GE(timer.elapsed(), 400 - 100 - 50);   // paced again: the stream runs
    device.close(Out::Immediate);
    EXPECT_EQ(quiltest::faults::openHandles(), 0);
}
