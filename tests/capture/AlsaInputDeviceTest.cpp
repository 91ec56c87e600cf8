// AlsaInputDevice against real libasound: known data through the file plugin,
// constrained PCMs from the test configuration, and injected failures for the
// paths real ALSA does not produce on demand.

#include "AlsaInputDevice.h"

#include "AlsaFaults.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

using namespace quiltest;
namespace faults = quiltest::faults;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;

namespace {

using ReadI = snd_pcm_sframes_t(snd_pcm_t*, void*, snd_pcm_uframes_t);
using USleep = int(useconds_t);

class AlsaInputDeviceTest : public ::testing::Test
{
protected:
    void SetUp() override { faults::reset(); }
    void TearDown() override
    {
        faults::reset();
        EXPECT_EQ(faults::openPcmHandles(), 0) << "a PCM handle leaked";
        EXPECT_EQ(faults::calls("snd_pcm_hw_params_malloc"), faults::calls("snd_pcm_hw_params_free"));
    }

    // Records the library's sleeps instead of sleeping.
    QList<useconds_t> recordSleeps()
    {
        faults::setHook<USleep>("usleep", [this](useconds_t us) {
            m_sleeps.append(us);
            return 0;
        });
        return {};
    }

    static QString knownDataPcm(const QByteArray& bytes)
    {
        return QStringLiteral("cap_file:INFILE=") + writeDataFile(QStringLiteral("capture.raw"), bytes);
    }

    QList<useconds_t> m_sleeps;
    LogCapture m_log;
};

} // namespace

TEST_F(AlsaInputDeviceTest, DeliversKnownDataBitExact)
{
    struct Case { snd_pcm_format_t format; int rate; unsigned channels; int bytesPerSample; };
    for (const Case& c : {Case{SND_PCM_FORMAT_S16_LE, 48000, 2, 2}, Case{SND_PCM_FORMAT_S24_3LE, 44100, 1, 3}}) {
        const int frameBytes = c.bytesPerSample * static_cast<int>(c.channels);
        const QByteArray data = patternBytes(c.rate / 2 * frameBytes, c.rate);   // 500 ms
        AlsaInputDevice device(knownDataPcm(data), c.rate, c.channels, c.format, 20, 100);
        EXPECT_EQ(device.bytesPerSample(), c.bytesPerSample);
        ASSERT_TRUE(device.open());
        QByteArray captured, block;
        const int blockFrames = c.rate / 100;
        while (captured.size() < data.size()) {
            ASSERT_TRUE(device.read(&block, blockFrames));
            ASSERT_EQ(block.size(), blockFrames * frameBytes);
            captured += block;
        }
        EXPECT_TRUE(captured == data) << "format " << c.format;
    }
}

TEST_F(AlsaInputDeviceTest, OpenRequestsPeriodAndBufferFromMilliseconds)
{
    using Near = int(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_uframes_t*, int*);
    using BufferNear = int(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_uframes_t*);
    snd_pcm_uframes_t period = 0, buffer = 0;
    faults::setHook<Near>("snd_pcm_hw_params_set_period_size_near",
                          [&](snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v, int* dir) {
                              period = *v;
                              return faults::real<Near>("snd_pcm_hw_params_set_period_size_near")(pcm, p, v, dir);
                          });
    faults::setHook<BufferNear>("snd_pcm_hw_params_set_buffer_size_near",
                                [&](snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v) {
                                    buffer = *v;
                                    return faults::real<BufferNear>("snd_pcm_hw_params_set_buffer_size_near")(pcm, p, v);
                                });
    AlsaInputDevice device(knownDataPcm(patternBytes(4096)), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    EXPECT_EQ(period, 960u);
    EXPECT_EQ(buffer, 4800u);
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
              (QStringList{"Enter virtual bool AlsaInputDevice::open(): ", "Capture device opened.", "hw_params allocated",
                           "hw_params initialized", "hw_params access set", "hw_params format set: 2",
                           "hw_params channels was set to: 2", "hw_params rate set: 48000", "hw_params set"}));

    m_log.clear();
    const int opens = faults::calls("snd_pcm_open");
    EXPECT_TRUE(device.open());   // already open: nothing but the entry line
    EXPECT_EQ(faults::calls("snd_pcm_open"), opens);
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL), QStringList{"Enter virtual bool AlsaInputDevice::open(): "});
}

TEST_F(AlsaInputDeviceTest, UnopenablePcmTriesFourTimesOverOneSecond)
{
    AlsaInputDevice device("no_such_pcm", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(device.open());
    EXPECT_GE(timer.elapsed(), 1000);
    EXPECT_LT(timer.elapsed(), 1500);
    EXPECT_FALSE(device.isOpened());
    EXPECT_EQ(faults::calls("snd_pcm_open"), 4);
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              QStringList{"Cannot open capture device 'no_such_pcm': " + alsaText(-ENOENT)});
}

TEST_F(AlsaInputDeviceTest, OpenSucceedsWhenADeviceAppearsDuringRetries)
{
    recordSleeps();
    faults::arm("snd_pcm_open", -EBUSY, 3);
    AlsaInputDevice device(knownDataPcm(patternBytes(4096)), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    EXPECT_TRUE(device.open());
    EXPECT_EQ(m_sleeps, (QList<useconds_t>{250000, 250000, 250000}));
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(AlsaInputDeviceTest, ChannelCountTheHardwareLacksFailsAndClosesEverything)
{
    AlsaInputDevice device("mono_only", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    EXPECT_FALSE(device.open());
    EXPECT_FALSE(device.isOpened());
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Cannot set channel count: " + alsaText(-EINVAL)});

    AlsaInputDevice mono("mono_only", 48000, 1, SND_PCM_FORMAT_S16_LE, 20, 100);
    EXPECT_TRUE(mono.open());
}

TEST_F(AlsaInputDeviceTest, EveryFailingHardwareStepLogsItsMessageAndReleasesAll)
{
    struct Step { const char* function; int code; QString message; };
    const QString inval = alsaText(-EINVAL);
    const QList<Step> steps{
        {"snd_pcm_hw_params_malloc", -ENOMEM, "Cannot allocate hardware parameter structure: " + alsaText(-ENOMEM)},
        {"snd_pcm_hw_params_any", -EINVAL, "Cannot initialize hardware parameter structure: " + inval},
        {"snd_pcm_hw_params_set_access", -EINVAL, "Cannot set access type: " + inval},
        {"snd_pcm_hw_params_set_format", -EINVAL, "Cannot set sample format: " + inval},
        {"snd_pcm_hw_params_set_channels", -EINVAL, "Cannot set channel count: " + inval},
        {"snd_pcm_hw_params_get_channels", -EINVAL, "Cannot get channel count: " + inval},
        {"snd_pcm_hw_params_set_rate", -EINVAL, "Cannot set sample rate: " + inval},
        {"snd_pcm_hw_params_set_period_size_near", -EINVAL, "Unable to set period size for playback: (" + inval + ")"},
        {"snd_pcm_hw_params_set_buffer_size_near", -EINVAL, "Unable to set buffer size for playback: (" + inval + ")"},
        {"snd_pcm_hw_params", -EIO, "Cannot set device parameters: " + alsaText(-EIO)},
    };
    const QString pcm = knownDataPcm(patternBytes(4096));
    for (const Step& step : steps) {
        SCOPED_TRACE(step.function);
        m_log.clear();
        faults::arm(step.function, step.code);
        AlsaInputDevice device(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
        EXPECT_FALSE(device.open());
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::openPcmHandles(), 0);
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{step.message});
        faults::reset();
    }
}

TEST_F(AlsaInputDeviceTest, ChannelCountReadBackThatDiffersFails)
{
    using GetChannels = int(const snd_pcm_hw_params_t*, unsigned int*);
    for (unsigned requested : {1u, 2u}) {
        m_log.clear();
        faults::setHook<GetChannels>("snd_pcm_hw_params_get_channels", [](const snd_pcm_hw_params_t*, unsigned* v) {
            *v = 7;
            return 0;
        });
        AlsaInputDevice device(knownDataPcm(patternBytes(4096)), 48000, requested, SND_PCM_FORMAT_S16_LE, 20, 100);
        EXPECT_FALSE(device.open());
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
                  QStringList{"Could not set channel count to: " + QString::number(requested)});
        EXPECT_EQ(faults::openPcmHandles(), 0);
    }
}

TEST_F(AlsaInputDeviceTest, ReadErrorsAreLoggedAndRecoveredByPrepareAndStart)
{
    // A start that fails changes nothing: the next read starts the stream.
    struct Error { int code; QString prefix; bool startFails = false; };
    const QList<Error> errors{
        {-EPIPE, "AlsaInputDevice: error while reading: an overrun occurred (EPIPE: "},
        {-ESTRPIPE, "AlsaInputDevice: error while reading: a suspend event occurred (ESTRPIPE: "},
        {-EBADFD, "AlsaInputDevice: error while reading: PCM is not in the right state (EBADFD: "},
        {-EIO, "AlsaInputDevice: error while reading ("},
        {-EPIPE, "AlsaInputDevice: error while reading: an overrun occurred (EPIPE: ", true},
    };
    const QByteArray data = patternBytes(480 * 4 * 8);
    AlsaInputDevice device(knownDataPcm(data), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    // Plugins call prepare and start on their slaves through the same exported
    // symbols, so only the outermost calls (the library's) are recorded.
    QStringList sequence;
    int depth = 0;
    auto recorder = [&](const char* function, const char* label) {
        return std::function<int(snd_pcm_t*)>([&, function, label](snd_pcm_t* pcm) {
            if (depth++ == 0)
                sequence << label;
            const int result = faults::real<int(snd_pcm_t*)>(function)(pcm);
            --depth;
            return result;
        });
    };
    faults::setHook<int(snd_pcm_t*)>("snd_pcm_prepare", recorder("snd_pcm_prepare", "prepare"));
    faults::setHook<int(snd_pcm_t*)>("snd_pcm_start", recorder("snd_pcm_start", "start"));
    int offset = 0;
    for (const Error& error : errors) {
        m_log.clear();
        sequence.clear();
        faults::arm("snd_pcm_readi", error.code);
        if (error.startFails)
            faults::arm("snd_pcm_start", -EBADFD);   // (an armed failure bypasses the hook)
        QByteArray block;
        ASSERT_TRUE(device.read(&block, 480));
        EXPECT_TRUE(block == data.mid(offset, 480 * 4));   // the frames of the read after recovery
        offset += block.size();
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
                  QStringList{error.prefix + alsaText(error.code) + ") (" + QString::number(error.code) + ")"});
        EXPECT_EQ(sequence.mid(0, 2), (error.startFails ? QStringList{"prepare"} : QStringList{"prepare", "start"}));
        EXPECT_TRUE(device.isOpened());
    }
}

TEST_F(AlsaInputDeviceTest, FailingPrepareClosesTheDeviceAndOpenStartsAfresh)
{
    AlsaInputDevice device(knownDataPcm(patternBytes(4096)), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    faults::arm("snd_pcm_readi", -EPIPE);
    faults::arm("snd_pcm_prepare", -ENODEV);
    QByteArray block;
    EXPECT_FALSE(device.read(&block, 256));
    EXPECT_FALSE(device.isOpened());
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL).last(),
              "AlsaInputDevice: Cannot prepare audio interface for use: " + alsaText(-ENODEV));
    EXPECT_EQ(faults::openPcmHandles(), 0);
    const int opens = faults::calls("snd_pcm_open");
    EXPECT_TRUE(device.open());
    EXPECT_EQ(faults::calls("snd_pcm_open"), opens + 1);
}

TEST_F(AlsaInputDeviceTest, EmptyReadBacksOffAQuarterBlockTimesChannels)
{
    recordSleeps();
    AlsaInputDevice device(knownDataPcm(patternBytes(96000)), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    faults::arm("snd_pcm_readi", 0, 2);
    QByteArray block;
    ASSERT_TRUE(device.read(&block, 4800));   // (2 × 4800 × 1000 / 48000) / 4 = 50 ms
    EXPECT_EQ(m_sleeps, (QList<useconds_t>{50000, 50000}));
    m_sleeps.clear();
    faults::arm("snd_pcm_readi", 0, 1);
    ASSERT_TRUE(device.read(&block, 10));     // rounds to 0 ms: sleeps 1 ms
    EXPECT_EQ(m_sleeps, QList<useconds_t>{1000});
}

TEST_F(AlsaInputDeviceTest, ShortReadIsReturnedAsItIsAndZeroFramesMeans2048)
{
    const QByteArray data = patternBytes(2048 * 4 + 4096);
    AlsaInputDevice device(knownDataPcm(data), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    QByteArray block;
    ASSERT_TRUE(device.read(&block, 0));
    EXPECT_EQ(block.size(), 2048 * 4);
    faults::setHook<ReadI>("snd_pcm_readi", [](snd_pcm_t* pcm, void* buffer, snd_pcm_uframes_t) {
        return faults::real<ReadI>("snd_pcm_readi")(pcm, buffer, 100);
    });
    ASSERT_TRUE(device.read(&block, 1024));
    EXPECT_EQ(block.size(), 100 * 4);
    EXPECT_TRUE(block == data.mid(2048 * 4, 400));
}

TEST_F(AlsaInputDeviceTest, ClosedDeviceReadsNothingAndClosesQuietly)
{
    AlsaInputDevice device(knownDataPcm(patternBytes(4096)), 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    QByteArray block("untouched");
    EXPECT_FALSE(device.read(&block, 64));
    EXPECT_EQ(block, QByteArray("untouched"));
    EXPECT_TRUE(m_log.records().isEmpty());
    ASSERT_TRUE(device.open());
    faults::arm("snd_pcm_close", -EIO);   // ignored: the handle is gone all the same
    device.close();
    EXPECT_FALSE(device.isOpened());
    EXPECT_EQ(faults::openPcmHandles(), 0);
    m_log.clear();
    device.close();
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
              (QStringList{"Enter virtual void AlsaInputDevice::close(): ",
                           "Enter void AlsaInputDevice::cleanupPcm(snd_pcm_t**): "}));
    EXPECT_EQ(m_log.records().size(), 2);
    EXPECT_EQ(faults::calls("snd_pcm_readi"), 0);
}

// Parameters no PCM can honour fail open() at their step with its line;
// times out of range are ALSA's to round. A format whose samples are padded
// in memory (S24_LE keeps 3 bytes in 4) is refused like one without a width:
// blocks are sized in bytesPerSample() units, so ALSA would write past them.
TEST_F(AlsaInputDeviceTest, BadParametersFailOpenAtTheirStep)
{
    recordSleeps();
    struct Case { QString name; int rate; unsigned channels; snd_pcm_format_t format; int periodMs, bufferMs; QString error; };
    const QString pcm = knownDataPcm(patternBytes(8192));
    const QString inval = alsaText(-EINVAL);
    const QList<Case> cases{
        {"", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100, "Cannot open capture device '': " + alsaText(-ENOENT)},
        {pcm, 48000, 2, SND_PCM_FORMAT_UNKNOWN, 20, 100, "Cannot set sample format: " + inval},
        {pcm, 48000, 2, SND_PCM_FORMAT_S24_LE, 20, 100, "Cannot set sample format: " + inval},
        {pcm, 48000, 0, SND_PCM_FORMAT_S16_LE, 20, 100, "Cannot set channel count: " + inval},
        {pcm, 0, 2, SND_PCM_FORMAT_S16_LE, 20, 100, "Cannot set sample rate: " + inval},
        {pcm, -48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100, "Cannot set sample rate: " + inval},
        {pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, -20, INT_MAX, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error.toStdString());
        m_log.clear();
        AlsaInputDevice device(c.name, c.rate, c.channels, c.format, c.periodMs, c.bufferMs);
        EXPECT_EQ(device.open(), c.error.isEmpty());
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), c.error.isEmpty() ? QStringList() : QStringList{c.error});
        QByteArray block;
        EXPECT_EQ(device.read(&block, 64), c.error.isEmpty());
        EXPECT_EQ(block.size(), c.error.isEmpty() ? 256 : 0);
    }

    AlsaInputDevice device(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    m_log.clear();
    QByteArray block("untouched");
    EXPECT_FALSE(device.read(&block, INT_MAX));   // 8 GiB: more than a block can hold
    EXPECT_EQ(block, QByteArray("untouched"));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"AlsaInputDevice: Cannot read 2147483647 frames into one block"});
    EXPECT_TRUE(device.isOpened());
    EXPECT_EQ(faults::calls("snd_pcm_readi"), 1);
}
