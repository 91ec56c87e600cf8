// AlsaOutputDevice against real libasound without a sound server: the file,
// tee and null plugins, the constrained PCMs of the test configuration, and
// injected failures for what real ALSA does not produce on demand.

#include "AlsaOutputDevice.h"

#include "AlsaFaults.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

using namespace quiltest;
namespace faults = quiltest::faults;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;
using log4cplus::WARN_LOG_LEVEL;

namespace {

using WriteI = snd_pcm_sframes_t(snd_pcm_t*, const void*, snd_pcm_uframes_t);
using Configure = std::function<void(AlsaOutputDevice&)>;
constexpr snd_pcm_format_t S16 = SND_PCM_FORMAT_S16_LE;

QString runtimeError(const char* prefix, int code)
{
    return prefix + alsaText(code) + ") (" + QString::number(code) + ")";
}

class AlsaOutputDeviceTest : public ::testing::Test
{
protected:
    void SetUp() override { faults::reset(); }
    void TearDown() override
    {
        faults::reset();
        EXPECT_EQ(faults::openPcmHandles(), 0) << "a PCM handle leaked";
    }

    // A PCM that plays into `slave` and copies what it is given into a file.
    static QString teePcm(const QString& path, const QString& slave = QStringLiteral("null"))
    {
        QFile::remove(path);
        return QStringLiteral("tee:SLAVE=%1,FILE=%2,FORMAT=raw").arg(slave, path);
    }

    LogCapture m_log;
};

} // namespace

TEST_F(AlsaOutputDeviceTest, FilePluginReceivesExactlyTheWholeFramesWritten)
{
    const QString path = dataDirectory() + QStringLiteral("/playback.raw");
    AlsaOutputDevice device(QStringLiteral("file:FILE=%1,FORMAT=raw").arg(path), 44100, 1, SND_PCM_FORMAT_S24_3LE, 20, 100);
    ASSERT_TRUE(device.open());
    const QByteArray data = patternBytes(44100 / 4 * 3);   // 250 ms
    QByteArray expected;
    for (int offset = 0, size = 1; offset < data.size(); offset += size, size = size * 3 + 7) {
        const QByteArray block = data.mid(offset, size);   // mostly with a trailing partial frame
        ASSERT_EQ(device.write(block), AudioOutputDevice::Written);
        expected += block.left(block.size() / 3 * 3);
    }
    device.close(AudioOutputDevice::Drain);
    EXPECT_TRUE(fileContent(path) == expected);
}

TEST_F(AlsaOutputDeviceTest, PeriodBufferAndThresholdFollowTheLastSetterOfEachPair)
{
    // null grants every request exactly; 0 stands for "ALSA's own choice".
    struct Case { const char* name; int periodMs, bufferMs; Configure configure; snd_pcm_uframes_t period, buffer, threshold; };
    const QList<Case> cases{
        {"times from the constructor", 20, 100, [](AlsaOutputDevice&) {}, 960, 4800, 0},
        {"sizes override times", 20, 100,
         [](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setBufferSize(8192); d.setStartThreshold(2048); }, 1024, 8192, 2048},
        {"a later time overrides a size", 20, 100,
         [](AlsaOutputDevice& d) {
             d.setPeriodSize(1024); d.setPeriodTimeMs(10); d.setBufferSize(8192); d.setBufferTimeMs(200);
             d.setStartThreshold(99); d.setStartThresholdMs(50);
         },
         480, 9600, 2400},
        {"threshold beyond the buffer", 20, 100, [](AlsaOutputDevice& d) { d.setStartThresholdMs(1000); }, 960, 4800, 4800},
        {"neither given", -1, -1, [](AlsaOutputDevice&) {}, 0, 0, 0},
        {"counts of 0 and below ask for nothing", 20, 100,
         [](AlsaOutputDevice& d) { d.setPeriodSize(0); d.setBufferSize(-5); d.setStartThresholdMs(10); d.setStartThreshold(0); }, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        faults::reset();
        m_log.clear();
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, c.periodMs, c.bufferMs);
        c.configure(device);
        ASSERT_TRUE(device.open());
        EXPECT_EQ(faults::calls("snd_pcm_hw_params_set_period_size_near"), c.period ? 1 : 0);
        EXPECT_EQ(faults::calls("snd_pcm_hw_params_set_buffer_size_near"), c.buffer ? 1 : 0);
        EXPECT_EQ(faults::calls("snd_pcm_sw_params_set_start_threshold"), c.threshold ? 1 : 0);
        EXPECT_EQ(device.periodSize(), c.period ? c.period : device.periodSize());
        EXPECT_EQ(device.bufferSize(), c.buffer ? c.buffer : device.bufferSize());
        EXPECT_EQ(device.startThreshold(), c.threshold ? c.threshold : 1);   // null's default is 1
        EXPECT_GT(device.periodSize(), 0u);
        EXPECT_GE(device.bufferSize(), device.periodSize());
        const bool clamped = c.threshold == 4800 && c.period == 960;
        EXPECT_EQ(m_log.messages(WARN_LOG_LEVEL),
                  clamped ? QStringList{"Start threshold is bigger then buffer size, setting to: 4800"} : QStringList{});
    }
}

TEST_F(AlsaOutputDeviceTest, ApproximatedRateOrChannelsFailUnlessAllowed)
{
    AlsaOutputDevice rate(QStringLiteral("only44k_plug"), 48000, 2, S16, 20, 100);
    AlsaOutputDevice mono(QStringLiteral("mono_only"), 48000, 2, S16, 20, 100);
    // Before any negotiation there is no rate to convert with.
    EXPECT_EQ(rate.periodTimeMs() + rate.bufferTimeMs() + rate.startThresholdMs(), 0u);
    EXPECT_FALSE(rate.open());
    EXPECT_FALSE(mono.open());
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              (QStringList{"Could not set sample rate to: 48000", "Could not set channel count to: 2"}));
    EXPECT_FALSE(rate.isOpened() || mono.isOpened());
    EXPECT_EQ(faults::openPcmHandles(), 0);

    m_log.clear();
    rate.enableSamplerateNear();
    rate.setStartThresholdMs(50);
    ASSERT_TRUE(rate.open());
    EXPECT_EQ(rate.sampleRate(), 44100);
    EXPECT_EQ(rate.startThreshold(), 2205u);   // converted at the rate in force
    EXPECT_EQ(rate.startThresholdMs(), 50u);
    EXPECT_EQ(rate.periodTimeMs(), rate.periodSize() * 1000 / 44100);
    EXPECT_EQ(rate.bufferTimeMs(), rate.bufferSize() * 1000 / 44100);
    mono.enableChannelsNear();
    ASSERT_TRUE(mono.open());
    EXPECT_EQ(mono.channelCount(), 1);
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(AlsaOutputDeviceTest, BlocksAreCountedInTheNegotiatedChannelLayout)
{
    // Asked for mono, given stereo: counting with the requested count would
    // make ALSA read twice the block.
    const QString path = dataDirectory() + QStringLiteral("/playback-stereo.raw");
    AlsaOutputDevice device(teePcm(path, QStringLiteral("stereo_only")), 48000, 1, S16, 20, 100);
    device.enableChannelsNear();
    ASSERT_TRUE(device.open());
    ASSERT_EQ(device.channelCount(), 2);
    const QByteArray block = patternBytes(2 * 1001);
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
    device.close(AudioOutputDevice::Drain);
    EXPECT_TRUE(fileContent(path) == block.left(2000));

    // A frame size of 0 (here a channel count of 0 let through) writes nothing.
    faults::setHook<int(snd_pcm_t*, snd_pcm_hw_params_t*, unsigned int*)>(
        "snd_pcm_hw_params_set_channels_near", [](snd_pcm_t*, snd_pcm_hw_params_t*, unsigned int* v) {
            *v = 0;
            return 0;
        });
    ASSERT_TRUE(device.open());
    ASSERT_EQ(device.channelCount(), 0);
    const int writes = faults::calls("snd_pcm_writei");
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
    EXPECT_EQ(faults::calls("snd_pcm_writei"), writes);
}

TEST_F(AlsaOutputDeviceTest, ShortWritesLoopAndAnXrunDropsTheRestOfTheBlock)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    ASSERT_TRUE(device.open());
    const QByteArray block = patternBytes(4 * 250 + 3);
    QList<QPair<qptrdiff, snd_pcm_uframes_t>> writes;   // (byte offset, frames) asked for
    faults::setHook<WriteI>("snd_pcm_writei", [&](snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames) {
        writes.append({static_cast<const char*>(buffer) - block.constData(), frames});
        return faults::real<WriteI>("snd_pcm_writei")(pcm, buffer, std::min<snd_pcm_uframes_t>(frames, 100));
    });
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
    EXPECT_EQ(writes, (QList<QPair<qptrdiff, snd_pcm_uframes_t>>{{0, 250}, {400, 150}, {800, 50}}));
    EXPECT_EQ(device.write(block.left(3)), AudioOutputDevice::Written);   // no whole frame: no call
    EXPECT_EQ(writes.size(), 3);

    writes.clear();
    faults::arm("snd_pcm_writei", -EPIPE, 1, 1);
    EXPECT_EQ(device.write(block), AudioOutputDevice::XrunRecovered);
    EXPECT_EQ(writes.size(), 1);   // (an armed failure bypasses the hook)
    EXPECT_EQ(faults::calls("snd_pcm_writei"), 3 + 2);
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              QStringList{runtimeError("AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: ", -EPIPE)});
    EXPECT_TRUE(device.isOpened());
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
}

TEST_F(AlsaOutputDeviceTest, UnrecoverableWriteErrorsCloseTheDevice)
{
    const char* xrun = "AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: ";
    const char* other = "AlsaOutputDevice: error while writing: (";
    struct Case { int code; bool recoverFails; QStringList errors; };
    const QList<Case> cases{
        {-EPIPE, true, {runtimeError(xrun, -EPIPE), "AlsaOutputDevice: error while recover, closing"}},
        {-ESTRPIPE, false, {runtimeError(other, -ESTRPIPE)}},
        {-EIO, false, {runtimeError(other, -EIO)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        m_log.clear();
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        ASSERT_TRUE(device.open());
        faults::arm("snd_pcm_writei", c.code);
        if (c.recoverFails)
            faults::arm("snd_pcm_recover", -ENODEV);
        EXPECT_EQ(device.write(patternBytes(400)), AudioOutputDevice::DeviceClosed);
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), c.errors);
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::openPcmHandles(), 0);
        ASSERT_TRUE(device.open());   // usable again after a new open()
        EXPECT_EQ(device.write(patternBytes(400)), AudioOutputDevice::Written);
    }
}

TEST_F(AlsaOutputDeviceTest, FramesReadyReportsRecoversOrFails)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    ASSERT_TRUE(device.open());
    EXPECT_EQ(device.framesReady(), 4800);   // null never fills
    faults::arm("snd_pcm_avail_update", -EPIPE);
    EXPECT_EQ(device.framesReady(), 0);
    EXPECT_EQ(faults::calls("snd_pcm_recover"), 1);
    faults::arm("snd_pcm_avail_update", -EPIPE);
    faults::arm("snd_pcm_recover", -ENODEV);   // not recovered: silently so
    EXPECT_EQ(device.framesReady(), 0);
    faults::arm("snd_pcm_avail_update", -EBADFD);
    EXPECT_EQ(device.framesReady(), -1);
    const QString xrun = runtimeError("AlsaOutputDevice: error while getting available frames: an xrun occurred (EPIPE: ", -EPIPE);
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              (QStringList{xrun, xrun, runtimeError("AlsaOutputDevice: error while getting available frames: (", -EBADFD)}));
    EXPECT_TRUE(device.isOpened());
}

TEST_F(AlsaOutputDeviceTest, DelayGivesAnAgeOnlyWithTimestampsAndMinusOneWithoutStatus)
{
    // null stamps its status on the wall clock unless timestamps are enabled:
    // that must not come out as an age.
    for (bool stamped : {false, true}) {
        SCOPED_TRACE(stamped);
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        if (stamped)
            device.enableTstamp();
        ASSERT_TRUE(device.open());
        int64_t ageUs = -7;
        EXPECT_EQ(device.delay(&ageUs), 0);
        EXPECT_GE(ageUs, 0);
        EXPECT_LT(ageUs, stamped ? 50000 : 1);
        EXPECT_EQ(device.delay(nullptr), 0);

        faults::arm("snd_pcm_status", -EIO);
        ageUs = -7;
        EXPECT_EQ(device.delay(&ageUs), -1);
        EXPECT_EQ(ageUs, -7);
        EXPECT_TRUE(device.isOpened());
    }
    EXPECT_EQ(m_log.count(ERROR_LOG_LEVEL, "AlsaOutputDevice: failed to get pcm status, clear last rendering delay"), 2);
}

TEST_F(AlsaOutputDeviceTest, ClosedDeviceNeverHandsAlsaANullHandle)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    for (int round = 0; round < 2; ++round) {   // never opened, then opened and closed
        int64_t ageUs = -7;
        EXPECT_EQ(device.write(patternBytes(400)), AudioOutputDevice::DeviceClosed);
        EXPECT_EQ(device.delay(&ageUs), -1);
        EXPECT_EQ(ageUs, -7);
        EXPECT_EQ(device.framesReady(), -1);
        EXPECT_TRUE(m_log.records().isEmpty());
        EXPECT_EQ(faults::calls("snd_pcm_writei") + faults::calls("snd_pcm_status") + faults::calls("snd_pcm_avail_update"), 0);
        ASSERT_TRUE(device.open());
        device.close(AudioOutputDevice::Immediate);
        m_log.clear();
    }
    EXPECT_EQ(device.periodTimeMs(), 20u);   // the negotiated values survive close()
}

TEST_F(AlsaOutputDeviceTest, CloseDrainsOnlyWhenAskedAndAlwaysCloses)
{
    {
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        for (auto mode : {AudioOutputDevice::Drain, AudioOutputDevice::Immediate}) {
            ASSERT_TRUE(device.open());
            device.close(mode);
            EXPECT_FALSE(device.isOpened());
        }
        EXPECT_EQ(faults::calls("snd_pcm_drain"), 1);
        ASSERT_TRUE(device.open());
        faults::arm("snd_pcm_drain", -EIO);
        faults::arm("snd_pcm_close", -EIO);
        device.close(AudioOutputDevice::Drain);
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::openPcmHandles(), 0);

        m_log.clear();
        device.close(AudioOutputDevice::Drain);   // closed: nothing but the entry traces
        EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
                  (QStringList{"Enter virtual void AlsaOutputDevice::close(AudioOutputDevice::CloseMode): ",
                               "Enter void AlsaOutputDevice::cleanupPcm(snd_pcm_t**): "}));
        ASSERT_TRUE(device.open());
    }
    EXPECT_EQ(faults::calls("snd_pcm_drain"), 2);   // destruction closes without draining
}

TEST_F(AlsaOutputDeviceTest, OpenTracesItsStepsAndKeepsAnOpenStreamAsItIs)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    EXPECT_EQ(device.name(), "null");
    ASSERT_TRUE(device.open());
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
              (QStringList{"Enter virtual bool AlsaOutputDevice::open(): ", "Playback device opened.",
                           "hwParams initialized", "hwParams access set", "hwParams format set: 2",
                           "hwParams channels was set to: 2", "hwParams rate set: 48000", "hw params set",
                           "sw params set"}));
    m_log.clear();
    device.setPeriodSize(512);
    EXPECT_TRUE(device.open());
    EXPECT_EQ(faults::calls("snd_pcm_open"), 1);
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL), QStringList{"Enter virtual bool AlsaOutputDevice::open(): "});
    EXPECT_EQ(device.periodSize(), 960u);
    device.close(AudioOutputDevice::Immediate);
    ASSERT_TRUE(device.open());
    EXPECT_EQ(device.periodSize(), 512u);
}

TEST_F(AlsaOutputDeviceTest, OpenRetriesFourTimesAQuarterSecondApart)
{
    QList<useconds_t> sleeps;
    faults::setHook<int(useconds_t)>("usleep", [&](useconds_t us) {
        sleeps.append(us);
        return 0;
    });
    AlsaOutputDevice missing(QStringLiteral("no_such_pcm"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(missing.open());
    EXPECT_FALSE(missing.isOpened());
    EXPECT_EQ(sleeps, (QList<useconds_t>{250000, 250000, 250000, 250000}));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Cannot open playback device 'no_such_pcm': " + alsaText(-ENOENT)});

    m_log.clear();
    sleeps.clear();
    faults::arm("snd_pcm_open", -EBUSY, 3);
    AlsaOutputDevice late(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    EXPECT_TRUE(late.open());
    EXPECT_EQ(sleeps.size(), 3);
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(AlsaOutputDeviceTest, EveryFailingNegotiationStepLogsItsMessageAndReleasesAll)
{
    // hw_params installs default sw params itself, through the same symbol.
    struct Step { const char* function; int code; const char* message; bool thresholdRequested = true; int after = 0; };
    const QList<Step> steps{
        {"snd_pcm_hw_params_any", -EINVAL, "Cannot initialize hardware parameter structure: "},
        {"snd_pcm_hw_params_set_access", -EINVAL, "Cannot set access type: "},
        {"snd_pcm_hw_params_set_format", -EINVAL, "Cannot set sample format: "},
        {"snd_pcm_hw_params_set_channels_near", -EINVAL, "Cannot set channel count: "},
        {"snd_pcm_hw_params_set_rate_near", -EINVAL, "Cannot set sample rate: "},
        {"snd_pcm_hw_params_set_period_size_near", -EINVAL, "Unable to set period size for playback: ("},
        {"snd_pcm_hw_params_set_buffer_size_near", -EINVAL, "Unable to set buffer size for playback: ("},
        {"snd_pcm_hw_params", -EIO, "Cannot set device parameters: "},
        {"snd_pcm_hw_params_get_period_size", -EINVAL, "Unable to get period size for playback: ("},
        {"snd_pcm_hw_params_get_buffer_size", -EINVAL, "Unable to get buffer size for playback: ("},
        {"snd_pcm_sw_params_current", -EBADFD, "Unable to determine current swparams for playback: "},
        {"snd_pcm_sw_params_get_start_threshold", -EINVAL, "Unable to get start threshold mode for playback: ", false},
        {"snd_pcm_sw_params_set_start_threshold", -EINVAL, "Unable to set start threshold mode for playback: "},
        {"snd_pcm_sw_params_set_tstamp_mode", -EINVAL, "Unable to set tstamp mode for playback: "},
        {"snd_pcm_sw_params_set_tstamp_type", -EINVAL, "Unable to set tstamp type for playback: "},
        {"snd_pcm_sw_params", -EIO, "Unable to set sw params for playback: ", true, 1},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.function);
        m_log.clear();
        faults::reset();
        faults::arm(step.function, step.code, 1, step.after);
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        device.enableTstamp();
        if (step.thresholdRequested)
            device.setStartThreshold(960);
        EXPECT_FALSE(device.open());
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::openPcmHandles(), 0);
        const QString closing = QString(step.message).endsWith('(') ? ")" : "";
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{step.message + alsaText(step.code) + closing});
    }
}

// Parameters no PCM can honour fail open() at their step with its line; a
// rate beyond the int range (a negative rate, converted) is refused although
// null would take it, and negative times ask for nothing, like -1.
TEST_F(AlsaOutputDeviceTest, BadParametersFailOpenAtTheirStep)
{
    struct Case { QString name; unsigned rate, channels; snd_pcm_format_t format; int periodMs, bufferMs; QString error; };
    const QString inval = alsaText(-EINVAL);
    const QList<Case> cases{
        {"", 48000, 2, S16, 20, 100, "Cannot open playback device '': " + alsaText(-ENOENT)},
        {"null", 48000, 2, SND_PCM_FORMAT_UNKNOWN, 20, 100, "Cannot set sample format: " + inval},
        {"null", 48000, 2, SND_PCM_FORMAT_S24_LE, 20, 100, "Cannot set sample format: " + inval},
        {"null", 48000, 0, S16, 20, 100, "Could not set channel count to: 0"},
        {"null", 0, 2, S16, 20, 100, "Could not set sample rate to: 0"},
        {"null", static_cast<unsigned>(-48000), 2, S16, 20, 100, "Cannot set sample rate: " + inval},
        {"null", 48000, 2, S16, -20, -100000, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error.toStdString());
        m_log.clear();
        faults::reset();
        faults::setHook<int(useconds_t)>("usleep", [](useconds_t) { return 0; });
        AlsaOutputDevice device(c.name, c.rate, c.channels, c.format, c.periodMs, c.bufferMs);
        device.setStartThresholdMs(-5);
        EXPECT_EQ(device.open(), c.error.isEmpty());
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), c.error.isEmpty() ? QStringList() : QStringList{c.error});
        EXPECT_EQ(faults::calls("snd_pcm_hw_params_set_period_size_near") + faults::calls("snd_pcm_hw_params_set_buffer_size_near")
                      + faults::calls("snd_pcm_sw_params_set_start_threshold"), 0);
        EXPECT_EQ(device.write(patternBytes(400)), c.error.isEmpty() ? AudioOutputDevice::Written : AudioOutputDevice::DeviceClosed);
        EXPECT_EQ(faults::openPcmHandles(), c.error.isEmpty() ? 1 : 0);
    }
}
