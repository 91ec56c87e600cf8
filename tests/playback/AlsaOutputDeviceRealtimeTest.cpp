// AlsaOutputDevice on ALSA's pulse PCM, played in real time by a private sound
// server's null sink: pacing, draining, the delay query and xrun recovery.
// Timing bounds are loose: the machine's cores are shared.

#include "AlsaOutputDevice.h"

#include "AlsaFaults.h"
#include "LogCapture.h"
#include "SoundServer.h"

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

using namespace quiltest;
namespace faults = quiltest::faults;
using log4cplus::ERROR_LOG_LEVEL;

namespace {

constexpr int Rate = 48000;
constexpr int FrameBytes = 4;   // S16_LE stereo
constexpr int BlockMs = 20;

class AlsaOutputDeviceRealtimeTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_started = hasSoundServer(); }

    void SetUp() override
    {
        ASSERT_TRUE(s_started) << "no sound server";
        faults::reset();
    }
    void TearDown() override { EXPECT_EQ(faults::openPcmHandles(), 0) << "a PCM handle leaked"; }

    // Writes ms of silence in 20 ms blocks; every block must be taken whole.
    static void play(AlsaOutputDevice& device, int ms)
    {
        const QByteArray block(Rate * BlockMs / 1000 * FrameBytes, 0);
        for (int played = 0; played < ms; played += BlockMs)
            ASSERT_EQ(device.write(block), AudioOutputDevice::Written);
    }

    static qint64 framesToMs(int frames) { return qint64(frames) * 1000 / Rate; }

    static bool s_started;
    LogCapture m_log;
};

bool AlsaOutputDeviceRealtimeTest::s_started = false;

} // namespace

TEST_F(AlsaOutputDeviceRealtimeTest, WritePacesToRealTimeAndDelayCarriesTheStatusAge)
{
    AlsaOutputDevice device(soundDevice(), Rate, 2, SND_PCM_FORMAT_S16_LE, BlockMs, 100);
    device.enableTstamp();
    ASSERT_TRUE(device.open());
    QElapsedTimer timer;
    timer.start();
    play(device, 600);
    // All but the last buffer's worth has played by the time write() returns.
    EXPECT_GE(timer.elapsed(), 600 - 100 - 50);
    EXPECT_LT(timer.elapsed(), 600 + 400);

    int64_t ageUs = -1;
    const int delayFrames = device.delay(&ageUs);
    EXPECT_GT(delayFrames, 0);
    EXPECT_LT(framesToMs(delayFrames), 300);
    EXPECT_GE(ageUs, 0);
    EXPECT_LT(ageUs, 100000);
    device.close(AudioOutputDevice::Immediate);
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(AlsaOutputDeviceRealtimeTest, DrainWaitsForTheQueueAndImmediateDoesNot)
{
    for (auto mode : {AudioOutputDevice::Drain, AudioOutputDevice::Immediate}) {
        SCOPED_TRACE(mode);
        AlsaOutputDevice device(soundDevice(), Rate, 2, SND_PCM_FORMAT_S16_LE, BlockMs, 500);
        ASSERT_TRUE(device.open());
        QElapsedTimer timer;
        timer.start();
        play(device, 300);   // fits the buffer: queued, not waited for
        EXPECT_LT(timer.elapsed(), 150);

        int64_t ageUs = -1;
        const qint64 queuedMs = framesToMs(device.delay(&ageUs));
        EXPECT_EQ(ageUs, 0);   // no timestamps enabled
        EXPECT_GT(queuedMs, 150);
        timer.restart();
        device.close(mode);
        EXPECT_FALSE(device.isOpened());
        if (mode == AudioOutputDevice::Drain) {
            EXPECT_GE(timer.elapsed(), queuedMs - 60);
            EXPECT_LT(timer.elapsed(), queuedMs + 300);
        } else {
            EXPECT_LT(timer.elapsed(), 100);
        }
    }
}

TEST_F(AlsaOutputDeviceRealtimeTest, XrunIsRecoveredAndTheNextWritePlaysWithoutReopening)
{
    AlsaOutputDevice device(soundDevice(), Rate, 2, SND_PCM_FORMAT_S16_LE, BlockMs, 100);
    ASSERT_TRUE(device.open());
    play(device, 200);
    QThread::msleep(300);   // the buffer runs dry
    const QByteArray block(Rate * BlockMs / 1000 * FrameBytes, 0);
    // PipeWire's pulse server resumes a stream that ran dry: the pulse plugin sees no xrun there.
    const bool xrunSeen = !onPipeWire() || soundDevice() != QLatin1String("pulse");
    EXPECT_EQ(device.write(block), xrunSeen ? AudioOutputDevice::XrunRecovered : AudioOutputDevice::Written);
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              xrunSeen ? QStringList{"AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: "
                                     + QString::fromUtf8(snd_strerror(-EPIPE)) + ") (-32)"}
                       : QStringList{});
    ASSERT_TRUE(device.isOpened());

    QElapsedTimer timer;
    timer.start();
    play(device, 400);
    EXPECT_GE(timer.elapsed(), 400 - 100 - 50);   // paced again: the stream runs
    EXPECT_GT(device.delay(nullptr), 0);
    EXPECT_EQ(faults::calls("snd_pcm_open"), 1);
    device.close(AudioOutputDevice::Immediate);
}
