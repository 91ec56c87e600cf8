// Playback devices: FileOutputDevice, and AlsaOutputDevice on ALSA's file,
// tee and null plugins and the constrained PCMs of the test configuration,
// with injected failures where real ALSA cannot fail on demand.

#include "AlsaOutputDevice.h"
#include "FileOutputDevice.h"

#include "AlsaFaults.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <cerrno>

using namespace quiltest;
namespace faults = quiltest::faults;
using Out = AudioOutputDevice;

namespace {

using WriteI = snd_pcm_sframes_t(snd_pcm_t*, const void*, snd_pcm_uframes_t);
constexpr snd_pcm_format_t S16 = SND_PCM_FORMAT_S16_LE;

class PlaybackTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        faults::reset();
        faults::setHook<int(useconds_t)>("usleep", [](useconds_t) { return 0; });   // open retries
    }
    void TearDown() override
    {
        faults::reset();
        EXPECT_EQ(faults::openPcmHandles(), 0) << "a PCM handle leaked";
    }
    static QString teePcm(const QString& name, const QString& slave)
    {
        const QString path = dataDirectory() + '/' + name;
        QFile::remove(path);
        return QStringLiteral("tee:SLAVE=%1,FILE=%2,FORMAT=raw").arg(slave, path);
    }
    LogCapture m_log;
};

} // namespace

TEST_F(PlaybackTest, FileDeviceWritesRawBlocksAndStartsEmptyOnEveryOpen)
{
    const QString path = writeDataFile(QStringLiteral("out.raw"), "stale");
    FileOutputDevice device(path, 44100, 2, SND_PCM_FORMAT_S24_3LE);
    EXPECT_EQ(device.write("dropped while closed"), Out::Written);
    ASSERT_TRUE(device.open());
    const QByteArray first = patternBytes(605, 1), second = patternBytes(600, 2);
    EXPECT_EQ(device.write(first), Out::Written);
    EXPECT_TRUE(device.open());   // already open: keeps what was written
    EXPECT_EQ(device.write(second), Out::Written);
    device.close(Out::Drain);
    EXPECT_FALSE(device.isOpened());
    EXPECT_TRUE(fileContent(path) == first + second);
    ASSERT_TRUE(device.open());
    device.close(Out::Immediate);
    EXPECT_EQ(fileContent(path), QByteArray());
    EXPECT_FALSE(FileOutputDevice(dataDirectory() + "/no/dir/x.raw", 8000, 1, S16).open());
}

// Whole frames only, counted in the negotiated layout: asked for mono and
// given stereo, counting with the requested count would read past the block.
TEST_F(PlaybackTest, PluginReceivesExactlyTheWholeFramesWritten)
{
    for (unsigned channels : {1u, 2u}) {
        const QString pcm = teePcm("tee.raw", channels == 1 ? "stereo_only" : "null");
        AlsaOutputDevice device(pcm, 48000, channels == 1 ? 1 : 2, SND_PCM_FORMAT_S16_LE, 20, 100);
        device.enableChannelsNear();
        ASSERT_TRUE(device.open());
        ASSERT_EQ(device.channelCount(), 2);
        const QByteArray data = patternBytes(48000 / 4 * 4);
        QByteArray expected;
        for (int offset = 0, size = 1; offset < data.size(); offset += size, size = size * 3 + 7) {
            const QByteArray block = data.mid(offset, size);
            ASSERT_EQ(device.write(block), Out::Written);
            expected += block.left(block.size() / 4 * 4);
        }
        device.close(Out::Drain);
        EXPECT_TRUE(fileContent(dataDirectory() + "/tee.raw") == expected);
    }
}

TEST_F(PlaybackTest, PeriodBufferAndThresholdFollowTheLastSetterOfEachPair)
{
    // null grants every request exactly; 0 stands for "ALSA's own choice".
    struct Case { int periodMs, bufferMs; std::function<void(AlsaOutputDevice&)> configure; unsigned period, buffer, threshold; };
    const QList<Case> cases{
        {20, 100, [](AlsaOutputDevice&) {}, 960, 4800, 1},
        {20, 100, [](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setBufferSize(8192); d.setStartThreshold(2048); }, 1024, 8192, 2048},
        {20, 100, [](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setPeriodTimeMs(10); d.setBufferSize(8192);
                      d.setBufferTimeMs(200); d.setStartThreshold(99); d.setStartThresholdMs(50); }, 480, 9600, 2400},
        {20, 100, [](AlsaOutputDevice& d) { d.setStartThresholdMs(1000); }, 960, 4800, 4800},   // clamped
        {20, 100, [](AlsaOutputDevice& d) { d.setPeriodSize(0); d.setBufferSize(-5); d.setStartThreshold(0); }, 0, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.period);
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, c.periodMs, c.bufferMs);
        c.configure(device);
        ASSERT_TRUE(device.open());
        if (c.period) {
            EXPECT_EQ(device.periodSize(), c.period);
            EXPECT_EQ(device.bufferSize(), c.buffer);
            EXPECT_EQ(device.periodTimeMs(), c.period / 48);
            EXPECT_EQ(device.bufferTimeMs(), c.buffer / 48);
        }
        EXPECT_EQ(device.startThreshold(), c.threshold);
        EXPECT_TRUE(device.isOpened());
    }
}

TEST_F(PlaybackTest, ApproximatedRateOrChannelsFailUnlessAllowed)
{
    AlsaOutputDevice rate(QStringLiteral("only44k_plug"), 48000, 2, S16, 20, 100);
    AlsaOutputDevice mono(QStringLiteral("mono_only"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(rate.open());
    EXPECT_FALSE(mono.open());
    EXPECT_EQ(m_log.messages(log4cplus::ERROR_LOG_LEVEL),
              (QStringList{"Could not set sample rate to: 48000", "Could not set channel count to: 2"}));
    rate.enableSamplerateNear();
    rate.setStartThresholdMs(50);
    ASSERT_TRUE(rate.open());
    EXPECT_EQ(rate.sampleRate(), 44100);
    EXPECT_EQ(rate.startThreshold(), 2205u);   // converted at the rate in force
    mono.enableChannelsNear();
    ASSERT_TRUE(mono.open());
    EXPECT_EQ(mono.channelCount(), 1);
}

TEST_F(PlaybackTest, ShortWritesLoopAndErrorsRecoverOrClose)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    ASSERT_TRUE(device.open());
    const QByteArray block = patternBytes(4 * 250 + 3);
    QList<QPair<qptrdiff, snd_pcm_uframes_t>> writes;   // (byte offset, frames) asked for
    faults::setHook<WriteI>("snd_pcm_writei", [&](snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames) {
        writes.append({static_cast<const char*>(buffer) - block.constData(), frames});
        return faults::real<WriteI>("snd_pcm_writei")(pcm, buffer, std::min<snd_pcm_uframes_t>(frames, 100));
    });
    EXPECT_EQ(device.write(block), Out::Written);
    EXPECT_EQ(writes, (QList<QPair<qptrdiff, snd_pcm_uframes_t>>{{0, 250}, {400, 150}, {800, 50}}));

    // An xrun drops the rest of the block and keeps the stream; anything else closes it.
    struct Case { int code; int recover; Out::WriteResult result; };
    for (const Case& c : {Case{-EPIPE, 0, Out::XrunRecovered}, Case{-EPIPE, -ENODEV, Out::DeviceClosed},
                          Case{-EIO, 0, Out::DeviceClosed}, Case{-ESTRPIPE, 0, Out::DeviceClosed}}) {
        SCOPED_TRACE(c.code);
        ASSERT_TRUE(device.open());
        faults::arm("snd_pcm_writei", c.code);
        if (c.recover)
            faults::arm("snd_pcm_recover", c.recover);
        EXPECT_EQ(device.write(block), c.result);
        EXPECT_EQ(device.isOpened(), c.result == Out::XrunRecovered);
        EXPECT_EQ(faults::openPcmHandles(), c.result == Out::XrunRecovered ? 1 : 0);
        EXPECT_EQ(device.write(block), device.isOpened() ? Out::Written : Out::DeviceClosed);
    }
    EXPECT_TRUE(m_log.messages(log4cplus::ERROR_LOG_LEVEL).contains(
        "AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: " + alsaText(-EPIPE) + ") (-32)"));
}

TEST_F(PlaybackTest, FramesReadyDelayAndClose)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    EXPECT_EQ(device.write(patternBytes(400)), Out::DeviceClosed);   // never hands ALSA a null handle
    EXPECT_EQ(device.framesReady() + device.delay(nullptr), -2);
    device.enableTstamp();
    ASSERT_TRUE(device.open());
    EXPECT_EQ(device.framesReady(), 4800);   // null never fills
    faults::arm("snd_pcm_avail_update", -EPIPE);
    EXPECT_EQ(device.framesReady(), 0);
    EXPECT_EQ(faults::calls("snd_pcm_recover"), 1);
    faults::arm("snd_pcm_avail_update", -EBADFD);
    EXPECT_EQ(device.framesReady(), -1);
    // The status is 30 ms old when the age is taken, on CLOCK_MONOTONIC_RAW.
    faults::setHook<int(snd_pcm_t*, snd_pcm_status_t*)>("snd_pcm_status", [](snd_pcm_t* pcm, snd_pcm_status_t* s) {
        const int result = faults::real<int(snd_pcm_t*, snd_pcm_status_t*)>("snd_pcm_status")(pcm, s);
        QThread::msleep(30);
        return result;
    });
    int64_t ageUs = -7;
    EXPECT_EQ(device.delay(&ageUs), 0);
    EXPECT_GE(ageUs, 30000);
    EXPECT_LT(ageUs, 200000);
    faults::arm("snd_pcm_status", -EIO);
    EXPECT_EQ(device.delay(&ageUs), -1);
    EXPECT_TRUE(device.isOpened());
    for (auto mode : {Out::Drain, Out::Immediate}) {
        ASSERT_TRUE(device.open());
        device.close(mode);
        EXPECT_FALSE(device.isOpened());
    }
    EXPECT_EQ(faults::calls("snd_pcm_drain"), 1);
}

TEST_F(PlaybackTest, OpenRetriesFourTimesThenReportsTheDevice)
{
    AlsaOutputDevice missing(QStringLiteral("no_such_pcm"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(missing.open());
    EXPECT_EQ(faults::calls("usleep"), 4);   // a quarter second apart (hooked away)
    EXPECT_EQ(m_log.messages(log4cplus::ERROR_LOG_LEVEL),
              QStringList{"Cannot open playback device 'no_such_pcm': " + alsaText(-ENOENT)});
    faults::arm("snd_pcm_open", -EBUSY, 3);
    AlsaOutputDevice late(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    EXPECT_TRUE(late.open());
}

// Each step of the negotiation that fails fails open(), logs one error and
// leaves no handle; parameters no PCM honours fail the same way.
TEST_F(PlaybackTest, EveryFailingNegotiationStepFailsOpenAndReleasesAll)
{
    struct Step { const char* function; int after = 0; bool threshold = true; };
    const QList<Step> steps{
        {"snd_pcm_hw_params_any"}, {"snd_pcm_hw_params_set_access"}, {"snd_pcm_hw_params_set_format"},
        {"snd_pcm_hw_params_set_channels_near"}, {"snd_pcm_hw_params_set_rate_near"},
        {"snd_pcm_hw_params_set_period_size_near"}, {"snd_pcm_hw_params_set_buffer_size_near"},
        {"snd_pcm_hw_params"}, {"snd_pcm_hw_params_get_period_size"}, {"snd_pcm_hw_params_get_buffer_size"},
        {"snd_pcm_sw_params_current"}, {"snd_pcm_sw_params_get_start_threshold", 0, false},
        {"snd_pcm_sw_params_set_start_threshold"}, {"snd_pcm_sw_params_set_tstamp_mode"},
        {"snd_pcm_sw_params_set_tstamp_type"}, {"snd_pcm_sw_params", 1},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.function);
        m_log.clear();
        faults::reset();
        faults::arm(step.function, -EINVAL, 1, step.after);
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        device.enableTstamp();
        if (step.threshold)
            device.setStartThreshold(960);
        EXPECT_FALSE(device.open());
        EXPECT_EQ(faults::openPcmHandles(), 0);
        EXPECT_EQ(m_log.messages(log4cplus::ERROR_LOG_LEVEL).size(), 1);
    }
    struct Bad { unsigned rate, channels; snd_pcm_format_t format; };
    for (const Bad& b : {Bad{48000, 2, SND_PCM_FORMAT_S24_LE}, Bad{48000, 0, S16}, Bad{0, 2, S16},
                         Bad{static_cast<unsigned>(-48000), 2, S16}}) {
        AlsaOutputDevice device(QStringLiteral("null"), b.rate, b.channels, b.format, 20, 100);
        EXPECT_FALSE(device.open());
        EXPECT_EQ(device.write(patternBytes(400)), Out::DeviceClosed);
    }
}
