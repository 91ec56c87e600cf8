// AlsaOutputDevice against real libasound without a sound server: the file
// and null plugins, the constrained PCMs of the test configuration, and
// injected failures for what real ALSA does not produce on demand.

#include "AlsaOutputDevice.h"

#include "AlsaFaults.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <optional>

using namespace quiltest;
namespace faults = quiltest::faults;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;
using log4cplus::WARN_LOG_LEVEL;

namespace {

using PeriodNear = int(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_uframes_t*, int*);
using BufferNear = int(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_uframes_t*);
using SetThreshold = int(snd_pcm_t*, snd_pcm_sw_params_t*, snd_pcm_uframes_t);
using ChannelsNear = int(snd_pcm_t*, snd_pcm_hw_params_t*, unsigned int*);
using WriteI = snd_pcm_sframes_t(snd_pcm_t*, const void*, snd_pcm_uframes_t);
using HtStamp = void(const snd_pcm_status_t*, snd_htimestamp_t*);
using USleep = int(useconds_t);

constexpr snd_pcm_format_t S16 = SND_PCM_FORMAT_S16_LE;

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
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

    // The frame counts the device asks ALSA for; empty when it asked nothing.
    // Plugins pass requests on to their slaves through the same symbols, so
    // only calls on the PCM of that name count.
    struct Requests
    {
        std::optional<snd_pcm_uframes_t> period, buffer, threshold;
    };
    void recordRequests(const char* pcmName)
    {
        m_requests = {};
        m_pcmName = pcmName;
        faults::setHook<PeriodNear>("snd_pcm_hw_params_set_period_size_near",
                                    [this](snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v, int* dir) {
                                        if (isRecorded(pcm) && !m_requests.period)
                                            m_requests.period = *v;
                                        return faults::real<PeriodNear>("snd_pcm_hw_params_set_period_size_near")(pcm, p, v, dir);
                                    });
        faults::setHook<BufferNear>("snd_pcm_hw_params_set_buffer_size_near",
                                    [this](snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v) {
                                        if (isRecorded(pcm) && !m_requests.buffer)
                                            m_requests.buffer = *v;
                                        return faults::real<BufferNear>("snd_pcm_hw_params_set_buffer_size_near")(pcm, p, v);
                                    });
        faults::setHook<SetThreshold>("snd_pcm_sw_params_set_start_threshold",
                                      [this](snd_pcm_t* pcm, snd_pcm_sw_params_t* p, snd_pcm_uframes_t v) {
                                          if (isRecorded(pcm) && !m_requests.threshold)
                                              m_requests.threshold = v;
                                          return faults::real<SetThreshold>("snd_pcm_sw_params_set_start_threshold")(pcm, p, v);
                                      });
    }

    // The library's own writei calls (plugins write to their slaves through
    // the same symbol) as (byte offset into the block, frames).
    void recordWrites(const QByteArray& block, snd_pcm_uframes_t maxFrames = 0)
    {
        m_writes.clear();
        faults::setHook<WriteI>("snd_pcm_writei", [this, &block, maxFrames](snd_pcm_t* pcm, const void* buffer,
                                                                           snd_pcm_uframes_t frames) {
            if (m_writeDepth == 0)
                m_writes.append({static_cast<const char*>(buffer) - block.constData(), frames});
            const snd_pcm_uframes_t passed = m_writeDepth == 0 && maxFrames ? std::min(frames, maxFrames) : frames;
            ++m_writeDepth;
            const snd_pcm_sframes_t result = faults::real<WriteI>("snd_pcm_writei")(pcm, buffer, passed);
            --m_writeDepth;
            return result;
        });
    }

    void recordSleeps()
    {
        faults::setHook<USleep>("usleep", [this](useconds_t us) {
            m_sleeps.append(us);
            return 0;
        });
    }

    // A PCM that plays into `slave` and copies every frame into a file.
    static QString teePcm(const QString& path, const QString& slave = QStringLiteral("null"))
    {
        QFile::remove(path);
        return QStringLiteral("tee:SLAVE=%1,FILE=%2,FORMAT=raw").arg(slave, path);
    }

    static QString runtimeError(const char* prefix, int code)
    {
        return prefix + alsaText(code) + ") (" + QString::number(code) + ")";
    }

    bool isRecorded(snd_pcm_t* pcm) const { return m_pcmName == snd_pcm_name(pcm); }

    Requests m_requests;
    QByteArray m_pcmName;
    QList<QPair<qptrdiff, snd_pcm_uframes_t>> m_writes;
    int m_writeDepth = 0;
    QList<useconds_t> m_sleeps;
    LogCapture m_log;
};

} // namespace

TEST_F(AlsaOutputDeviceTest, FilePluginReceivesExactlyTheWholeFramesWritten)
{
    struct Case { snd_pcm_format_t format; unsigned rate; unsigned channels; int bytesPerSample; };
    for (const Case& c : {Case{S16, 48000, 2, 2}, Case{SND_PCM_FORMAT_S24_3LE, 44100, 1, 3}}) {
        SCOPED_TRACE(c.format);
        const int frameBytes = c.bytesPerSample * static_cast<int>(c.channels);
        const QString path = dataDirectory() + QStringLiteral("/playback-tee.raw");
        AlsaOutputDevice device(QStringLiteral("file:FILE=%1,FORMAT=raw").arg(path), c.rate, c.channels, c.format, 20, 100);
        EXPECT_EQ(device.bytesPerSample(), c.bytesPerSample);
        ASSERT_TRUE(device.open());
        const QByteArray data = patternBytes(c.rate / 4 * frameBytes, static_cast<int>(c.rate));   // 250 ms
        QByteArray expected;
        for (int offset = 0, size = 1; offset < data.size(); offset += size, size = size * 3 + 7) {
            const QByteArray block = data.mid(offset, size);   // mostly with a trailing partial frame
            ASSERT_EQ(device.write(block), AudioOutputDevice::Written);
            expected += block.left(block.size() / frameBytes * frameBytes);
        }
        device.close(AudioOutputDevice::Drain);
        EXPECT_TRUE(contentOf(path) == expected);
    }
}

TEST_F(AlsaOutputDeviceTest, PeriodBufferAndThresholdAreRequestedAsConfigured)
{
    using Configure = std::function<void(AlsaOutputDevice&)>;
    using Frames = std::optional<snd_pcm_uframes_t>;
    struct Case { const char* name; int periodMs, bufferMs; Configure configure; Frames period, buffer, threshold; };
    const QList<Case> cases{
        {"times from the constructor", 20, 100, [](AlsaOutputDevice&) {}, 960, 4800, {}},
        {"sizes override the times", 20, 100,
         [](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setBufferSize(8192); d.setStartThreshold(2048); }, 1024, 8192, 2048},
        {"a later time overrides a size", 20, 100,
         [](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setPeriodTimeMs(10); d.setStartThreshold(99); d.setStartThresholdMs(50); },
         480, 4800, 2400},
        {"neither: ALSA chooses", -1, -1, [](AlsaOutputDevice&) {}, {}, {}, {}},
        {"counts of 0 and below ask for nothing", 20, 100,
         [](AlsaOutputDevice& d) { d.setPeriodSize(0); d.setBufferSize(-5); d.setStartThresholdMs(10); d.setStartThreshold(0); },
         {}, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        recordRequests("null");
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, c.periodMs, c.bufferMs);
        c.configure(device);
        ASSERT_TRUE(device.open());
        EXPECT_EQ(m_requests.period, c.period);
        EXPECT_EQ(m_requests.buffer, c.buffer);
        EXPECT_EQ(m_requests.threshold, c.threshold);
        // null grants every request; without one the queries report ALSA's choice.
        EXPECT_EQ(device.periodSize(), c.period.value_or(device.periodSize()));
        EXPECT_EQ(device.bufferSize(), c.buffer.value_or(device.bufferSize()));
        EXPECT_EQ(device.startThreshold(), c.threshold.value_or(1));   // null's default is 1
        EXPECT_GT(device.periodSize(), 0u);
        EXPECT_GE(device.bufferSize(), device.periodSize());
        EXPECT_TRUE(m_log.messages(WARN_LOG_LEVEL).isEmpty());
    }
}

TEST_F(AlsaOutputDeviceTest, ThresholdBeyondTheBufferIsClampedWithOneWarning)
{
    recordRequests("null");
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    device.setStartThresholdMs(1000);
    ASSERT_TRUE(device.open());
    EXPECT_EQ(device.startThreshold(), 4800u);
    EXPECT_EQ(device.startThresholdMs(), 100u);
    EXPECT_EQ(m_requests.threshold, 4800u);
    EXPECT_EQ(m_log.messages(WARN_LOG_LEVEL), QStringList{"Start threshold is bigger then buffer size, setting to: 4800"});
}

TEST_F(AlsaOutputDeviceTest, ApproximatedRateOrChannelsFailUnlessAllowed)
{
    AlsaOutputDevice rate(QStringLiteral("only44k_plug"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(rate.open());
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Could not set sample rate to: 48000"});
    EXPECT_EQ(faults::openPcmHandles(), 0);
    AlsaOutputDevice mono(QStringLiteral("mono_only"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(mono.open());
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL).last(), "Could not set channel count to: 2");
    EXPECT_FALSE(mono.isOpened());
    EXPECT_EQ(faults::openPcmHandles(), 0);

    m_log.clear();
    recordRequests("only44k_plug");
    rate.enableSamplerateNear();
    rate.setStartThresholdMs(50);
    ASSERT_TRUE(rate.open());
    EXPECT_EQ(rate.sampleRate(), 44100);
    EXPECT_EQ(m_requests.period, 882u);    // times are converted at the rate in force
    EXPECT_EQ(m_requests.threshold, 2205u);
    EXPECT_EQ(rate.periodTimeMs(), rate.periodSize() * 1000 / 44100);
    EXPECT_EQ(rate.bufferTimeMs(), rate.bufferSize() * 1000 / 44100);
    EXPECT_EQ(rate.startThresholdMs(), 50u);
    mono.enableChannelsNear();
    ASSERT_TRUE(mono.open());
    EXPECT_EQ(mono.channelCount(), 1);
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(AlsaOutputDeviceTest, BlocksAreCountedInTheNegotiatedChannelLayout)
{
    // Asked for mono, given stereo: counting with the requested count would
    // hand ALSA twice the frames the block holds.
    const QString path = dataDirectory() + QStringLiteral("/playback-stereo.raw");
    AlsaOutputDevice device(teePcm(path, QStringLiteral("stereo_only")), 48000, 1, S16, 20, 100);
    device.enableChannelsNear();
    ASSERT_TRUE(device.open());
    ASSERT_EQ(device.channelCount(), 2);
    const QByteArray block = patternBytes(2 * 1001);
    recordWrites(block);
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
    EXPECT_EQ(m_writes, (QList<QPair<qptrdiff, snd_pcm_uframes_t>>{{0, 500}}));
    device.close(AudioOutputDevice::Drain);
    EXPECT_TRUE(contentOf(path) == block.left(2000));

    // A frame size of 0 (here a channel count of 0 let through) writes nothing.
    faults::setHook<ChannelsNear>("snd_pcm_hw_params_set_channels_near",
                                  [](snd_pcm_t*, snd_pcm_hw_params_t*, unsigned int* v) { *v = 0; return 0; });
    ASSERT_TRUE(device.open());
    ASSERT_EQ(device.channelCount(), 0);
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
    EXPECT_EQ(m_writes.size(), 1);
}

TEST_F(AlsaOutputDeviceTest, ShortWritesLoopAndXrunsDropTheRestOfTheBlock)
{
    const QString path = dataDirectory() + QStringLiteral("/playback-short.raw");
    AlsaOutputDevice device(teePcm(path), 48000, 2, S16, 20, 100);
    ASSERT_TRUE(device.open());
    const QByteArray block = patternBytes(4 * 250 + 3);
    recordWrites(block, 100);
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
    EXPECT_EQ(m_writes, (QList<QPair<qptrdiff, snd_pcm_uframes_t>>{{0, 250}, {400, 150}, {800, 50}}));
    EXPECT_EQ(device.write(block.left(3)), AudioOutputDevice::Written);   // no whole frame: no call
    EXPECT_EQ(m_writes.size(), 3);

    faults::arm("snd_pcm_writei", -EPIPE, 1, 1);
    recordWrites(block, 100);
    EXPECT_EQ(device.write(block), AudioOutputDevice::XrunRecovered);
    EXPECT_EQ(m_writes.size(), 1);   // the rest of the block is dropped
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              QStringList{runtimeError("AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: ", -EPIPE)});
    EXPECT_TRUE(device.isOpened());
    EXPECT_EQ(device.write(block), AudioOutputDevice::Written);
}

TEST_F(AlsaOutputDeviceTest, UnrecoverableWriteErrorsCloseTheDevice)
{
    struct Case { int code; bool recoverFails; QStringList errors; };
    const char* xrun = "AlsaOutputDevice: error while writing: an xrun occurred (EPIPE: ";
    const char* other = "AlsaOutputDevice: error while writing: (";
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
        EXPECT_EQ(device.write(patternBytes(400)), AudioOutputDevice::DeviceClosed);
        ASSERT_TRUE(device.open());   // usable again after a new open()
        EXPECT_EQ(device.write(patternBytes(400)), AudioOutputDevice::Written);
        faults::reset();
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
    faults::arm("snd_pcm_recover", -EIO);   // ignored
    EXPECT_EQ(device.framesReady(), 0);
    faults::arm("snd_pcm_avail_update", -EBADFD);
    EXPECT_EQ(device.framesReady(), -1);
    const char* xrun = "AlsaOutputDevice: error while getting available frames: an xrun occurred (EPIPE: ";
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              (QStringList{runtimeError(xrun, -EPIPE), runtimeError(xrun, -EPIPE),
                           runtimeError("AlsaOutputDevice: error while getting available frames: (", -EBADFD)}));
    EXPECT_TRUE(device.isOpened());
}

TEST_F(AlsaOutputDeviceTest, DelayReportsFramesAndTheAgeOfTheStatus)
{
    // null stamps its status on the wall clock unless timestamps are enabled:
    // that must not come out as an age.
    AlsaOutputDevice plain(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    ASSERT_TRUE(plain.open());
    int64_t age = -7;
    EXPECT_EQ(plain.delay(&age), 0);
    EXPECT_EQ(age, 0);
    EXPECT_EQ(plain.delay(nullptr), 0);

    AlsaOutputDevice stamped(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    stamped.enableTstamp();
    ASSERT_TRUE(stamped.open());
    EXPECT_EQ(stamped.delay(&age), 0);
    EXPECT_GE(age, 0);
    EXPECT_LT(age, 50000);
    // A status taken 5 ms ago.
    faults::setHook<HtStamp>("snd_pcm_status_get_htstamp", [](const snd_pcm_status_t*, snd_htimestamp_t* t) {
        clock_gettime(CLOCK_MONOTONIC_RAW, t);
        t->tv_sec -= 1;
        t->tv_nsec += 1000000000 - 5000000;
    });
    faults::setHook<snd_pcm_sframes_t(const snd_pcm_status_t*)>("snd_pcm_status_get_delay",
                                                                [](const snd_pcm_status_t*) { return 1234; });
    EXPECT_EQ(stamped.delay(&age), 1234);
    EXPECT_GE(age, 5000);
    EXPECT_LT(age, 55000);

    faults::arm("snd_pcm_status", -EIO);
    age = -7;
    EXPECT_EQ(stamped.delay(&age), -1);
    EXPECT_EQ(age, -7);
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              QStringList{"AlsaOutputDevice: failed to get pcm status, clear last rendering delay"});
    EXPECT_TRUE(stamped.isOpened());
}

TEST_F(AlsaOutputDeviceTest, ClosedDeviceNeverHandsAlsaANullHandle)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    auto expectClosedBehaviour = [&] {
        int64_t age = -7;
        EXPECT_EQ(device.write(patternBytes(400)), AudioOutputDevice::DeviceClosed);
        EXPECT_EQ(device.delay(&age), -1);
        EXPECT_EQ(age, -7);
        EXPECT_EQ(device.framesReady(), -1);
        EXPECT_TRUE(m_log.records().isEmpty());
        EXPECT_EQ(faults::calls("snd_pcm_writei") + faults::calls("snd_pcm_status")
                      + faults::calls("snd_pcm_avail_update"), 0);
    };
    // Never opened: no rate to convert with, and nothing to divide by.
    EXPECT_EQ(device.sampleRate(), 0);
    EXPECT_EQ(device.periodTimeMs() + device.bufferTimeMs() + device.startThresholdMs(), 0u);
    expectClosedBehaviour();

    ASSERT_TRUE(device.open());
    device.close(AudioOutputDevice::Immediate);
    m_log.clear();
    faults::reset();
    expectClosedBehaviour();
    EXPECT_EQ(device.periodTimeMs(), 20u);   // the negotiated values survive close()
}

TEST_F(AlsaOutputDeviceTest, CloseDrainsOnlyWhenAskedAndAlwaysCloses)
{
    // Plugins drain their slaves through the same symbol: count the outermost calls.
    int drains = 0, depth = 0;
    faults::setHook<int(snd_pcm_t*)>("snd_pcm_drain", [&](snd_pcm_t* pcm) {
        drains += depth == 0;
        ++depth;
        const int result = faults::real<int(snd_pcm_t*)>("snd_pcm_drain")(pcm);
        --depth;
        return result;
    });
    {
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        for (auto mode : {AudioOutputDevice::Drain, AudioOutputDevice::Immediate}) {
            ASSERT_TRUE(device.open());
            device.close(mode);
            EXPECT_FALSE(device.isOpened());
        }
        EXPECT_EQ(drains, 1);
        ASSERT_TRUE(device.open());
        faults::arm("snd_pcm_drain", -EIO);
        device.close(AudioOutputDevice::Drain);
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::openPcmHandles(), 0);

        m_log.clear();
        device.close(AudioOutputDevice::Drain);
        EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
                  (QStringList{"Enter virtual void AlsaOutputDevice::close(AudioOutputDevice::CloseMode): ",
                               "Enter void AlsaOutputDevice::cleanupPcm(snd_pcm_t**): "}));
        EXPECT_EQ(m_log.records().size(), 2);
        ASSERT_TRUE(device.open());
        drains = 0;
    }
    EXPECT_EQ(drains, 0);   // destruction closes without draining
    EXPECT_EQ(faults::openPcmHandles(), 0);
}

TEST_F(AlsaOutputDeviceTest, OpenTracesItsStepsAndKeepsAnOpenStreamAsItIs)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
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
    recordSleeps();
    AlsaOutputDevice missing(QStringLiteral("no_such_pcm"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(missing.open());
    EXPECT_FALSE(missing.isOpened());
    EXPECT_EQ(m_sleeps, (QList<useconds_t>{250000, 250000, 250000, 250000}));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              QStringList{"Cannot open playback device 'no_such_pcm': " + alsaText(-ENOENT)});

    m_log.clear();
    m_sleeps.clear();
    faults::arm("snd_pcm_open", -EBUSY, 3);
    AlsaOutputDevice late(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    EXPECT_TRUE(late.open());
    EXPECT_EQ(m_sleeps, (QList<useconds_t>{250000, 250000, 250000}));
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(AlsaOutputDeviceTest, EveryFailingNegotiationStepLogsItsMessageAndReleasesAll)
{
    // hw_params installs default sw params itself, through the same symbol.
    struct Step { const char* function; int code; const char* message; bool paren; bool thresholdRequested; int after = 0; };
    const QList<Step> steps{
        {"snd_pcm_hw_params_any", -EINVAL, "Cannot initialize hardware parameter structure: ", false, true},
        {"snd_pcm_hw_params_set_access", -EINVAL, "Cannot set access type: ", false, true},
        {"snd_pcm_hw_params_set_format", -EINVAL, "Cannot set sample format: ", false, true},
        {"snd_pcm_hw_params_set_channels_near", -EINVAL, "Cannot set channel count: ", false, true},
        {"snd_pcm_hw_params_set_rate_near", -EINVAL, "Cannot set sample rate: ", false, true},
        {"snd_pcm_hw_params_set_period_size_near", -EINVAL, "Unable to set period size for playback: (", true, true},
        {"snd_pcm_hw_params_set_buffer_size_near", -EINVAL, "Unable to set buffer size for playback: (", true, true},
        {"snd_pcm_hw_params", -EIO, "Cannot set device parameters: ", false, true},
        {"snd_pcm_hw_params_get_period_size", -EINVAL, "Unable to get period size for playback: (", true, true},
        {"snd_pcm_hw_params_get_buffer_size", -EINVAL, "Unable to get buffer size for playback: (", true, true},
        {"snd_pcm_sw_params_current", -EBADFD, "Unable to determine current swparams for playback: ", false, true},
        {"snd_pcm_sw_params_get_start_threshold", -EINVAL, "Unable to get start threshold mode for playback: ", false, false},
        {"snd_pcm_sw_params_set_start_threshold", -EINVAL, "Unable to set start threshold mode for playback: ", false, true},
        {"snd_pcm_sw_params_set_tstamp_mode", -EINVAL, "Unable to set tstamp mode for playback: ", false, true},
        {"snd_pcm_sw_params_set_tstamp_type", -EINVAL, "Unable to set tstamp type for playback: ", false, true},
        {"snd_pcm_sw_params", -EIO, "Unable to set sw params for playback: ", false, true, 1},
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
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
                  QStringList{step.message + alsaText(step.code) + (step.paren ? ")" : "")});
    }
}
