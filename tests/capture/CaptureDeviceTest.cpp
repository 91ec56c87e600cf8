// AlsaInputDevice reading known data through the file plugin, with injected
// failures where real ALSA cannot fail on demand. FileInputDevice, its
// pacing included, is fuzz_file_input's.

#include "AlsaInputDevice.h"

#include "AlsaTest.h"
#include "LogCapture.h"
#include "TestEnvironment.h"


#include <gtest/gtest.h>

#include <cerrno>

using namespace quiltest;
namespace faults = quiltest::faults;

namespace {

constexpr snd_pcm_format_t S16 = SND_PCM_FORMAT_S16_LE;

class CaptureDeviceTest : public AlsaTest
{
protected:
    void SetUp() override
    {
        AlsaTest::SetUp();
        faults::setHook<int(useconds_t)>("usleep", [this](useconds_t us) {
            m_sleeps.append(us);
            return 0;
        });
    }
    void TearDown() override
    {
        EXPECT_EQ(faults::calls("snd_pcm_hw_params_malloc"), faults::calls("snd_pcm_hw_params_free"));
        AlsaTest::TearDown();
    }
    static QString knownDataPcm(const QByteArray& bytes)
    {
        return "cap_file:INFILE=" + writeDataFile(QStringLiteral("capture.raw"), bytes);
    }
    QList<useconds_t> m_sleeps;
};

} // namespace

TEST_F(CaptureDeviceTest, AlsaDeliversKnownDataBitExactAndAsksForPeriodAndBufferInMs)
{
    using Near = int(snd_pcm_t*, snd_pcm_hw_params_t*, snd_pcm_uframes_t*);
    snd_pcm_uframes_t buffer = 0;
    faults::setHook<Near>("snd_pcm_hw_params_set_buffer_size_near", [&](snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v) {
        buffer = *v;
        return faults::real<Near>("snd_pcm_hw_params_set_buffer_size_near")(pcm, p, v);
    });
    struct Case { snd_pcm_format_t format; int rate; unsigned channels; int bytesPerSample; };
    for (const Case& c : {Case{S16, 48000, 2, 2}, Case{SND_PCM_FORMAT_S24_3LE, 44100, 1, 3}}) {
        const int frameBytes = c.bytesPerSample * static_cast<int>(c.channels);
        const QByteArray data = patternBytes(c.rate / 2 * frameBytes, c.rate);   // 500 ms
        AlsaInputDevice device(knownDataPcm(data), c.rate, c.channels, c.format, 20, 100);
        ASSERT_TRUE(device.open());
        EXPECT_EQ(buffer, static_cast<snd_pcm_uframes_t>(c.rate / 10));
        QByteArray captured, block;
        while (captured.size() < data.size()) {
            ASSERT_TRUE(device.read(&block, c.rate / 100));
            ASSERT_EQ(block.size(), c.rate / 100 * frameBytes);
            captured += block;
        }
        EXPECT_TRUE(captured == data);
    }
}

// null never writes the caller's buffer: the device must hand out silence,
// not what the buffer held before (0x80 is U8's silence).
TEST_F(CaptureDeviceTest, AlsaGivesTheFormatsSilenceWhereThePcmWritesNothing)
{
    struct Case { snd_pcm_format_t format; int bytesPerSample; char silence; };
    for (const Case& c : {Case{S16, 2, '\0'}, Case{SND_PCM_FORMAT_U8, 1, '\x80'}, Case{SND_PCM_FORMAT_S32_LE, 4, '\0'}}) {
        AlsaInputDevice device(QStringLiteral("null"), 48000, 2, c.format, 20, 100);
        ASSERT_TRUE(device.open());
        QByteArray block(480 * 2 * c.bytesPerSample, '\x5a');
        ASSERT_TRUE(device.read(&block, 480));
        EXPECT_EQ(block, QByteArray(480 * 2 * c.bytesPerSample, c.silence)) << c.format;
    }
}

// Every read error is answered by prepare and start and the read goes on;
// a failing prepare closes the device, and the next open() starts afresh.
TEST_F(CaptureDeviceTest, AlsaReadErrorsAreRecoveredInPlaceOrClose)
{
    const QByteArray data = patternBytes(480 * 4 * 8);
    AlsaInputDevice device(knownDataPcm(data), 48000, 2, S16, 20, 100);
    ASSERT_TRUE(device.open());
    // Plugins call prepare and start on their slaves through the same symbols:
    // only calls on the library's own handle count.
    void* const outer = *faults::state().handles.begin();
    QStringList calls;
    for (const char* function : {"snd_pcm_prepare", "snd_pcm_start"})
        faults::setHook<int(snd_pcm_t*)>(function, [&calls, outer, function](snd_pcm_t* pcm) {
            if (pcm == outer)
                calls << function;
            return faults::real<int(snd_pcm_t*)>(function)(pcm);
        });
    int offset = 0;
    for (int code : {-EPIPE, -ESTRPIPE, -EBADFD, -EIO}) {
        SCOPED_TRACE(code);
        calls.clear();
        faults::arm("snd_pcm_readi", code);
        QByteArray block;
        ASSERT_TRUE(device.read(&block, 480));
        EXPECT_TRUE(block == data.mid(offset, 480 * 4));
        offset += block.size();
        EXPECT_EQ(calls, (QStringList{"snd_pcm_prepare", "snd_pcm_start"}));
    }
    using ReadI = snd_pcm_sframes_t(snd_pcm_t*, void*, snd_pcm_uframes_t);
    faults::setHook<ReadI>("snd_pcm_readi", [](snd_pcm_t* pcm, void* buffer, snd_pcm_uframes_t frames) {
        return faults::real<ReadI>("snd_pcm_readi")(pcm, buffer, frames / 4);
    });
    QByteArray shortBlock;   // a short read hands back just the frames read
    ASSERT_TRUE(device.read(&shortBlock, 480));
    EXPECT_TRUE(shortBlock == data.mid(offset, 120 * 4));
    ASSERT_TRUE(device.read(&shortBlock, 0));   // asks for 2048 frames
    EXPECT_EQ(shortBlock.size(), 512 * 4);
    EXPECT_EQ(m_log.errors().value(0),
              "AlsaInputDevice: error while reading: an overrun occurred (EPIPE: " + alsaText(-EPIPE) + ") (-32)");
    faults::arm("snd_pcm_readi", 0, 2);   // empty reads back off a quarter block times channels
    QByteArray block;
    m_sleeps.clear();
    ASSERT_TRUE(device.read(&block, 960));
    EXPECT_EQ(m_sleeps, (QList<useconds_t>{10000, 10000}));
    faults::arm("snd_pcm_readi", -EPIPE);
    faults::arm("snd_pcm_prepare", -ENODEV);
    EXPECT_FALSE(device.read(&block, 256));
    EXPECT_FALSE(device.isOpened());
    EXPECT_EQ(faults::openHandles(), 0);
    EXPECT_EQ(device.errorCode(), -ENODEV);
    EXPECT_TRUE(device.open());
    EXPECT_EQ(device.errorCode(), 0);
    EXPECT_FALSE(device.read(&block, 1 << 30));   // 4 GiB: refused, with no ALSA error, and the device stays open
    EXPECT_EQ(std::make_pair(device.errorCode(), device.isOpened()), std::make_pair(0, true));
}

TEST_F(CaptureDeviceTest, AlsaOpenFailsAtEachFailingStepReleasingAll)
{
    const QString pcm = knownDataPcm(patternBytes(4096));
    for (const char* step : {"snd_pcm_hw_params_malloc", "snd_pcm_hw_params_any", "snd_pcm_hw_params_set_access",
                             "snd_pcm_hw_params_set_format", "snd_pcm_hw_params_set_channels",
                             "snd_pcm_hw_params_get_channels", "snd_pcm_hw_params_set_rate",
                             "snd_pcm_hw_params_set_period_size_near", "snd_pcm_hw_params_set_buffer_size_near",
                             "snd_pcm_hw_params"}) {
        AlsaInputDevice device(pcm, 48000, 2, S16, 20, 100);
        expectOpenFailsCleanlyAt(device, step);
    }
    // The failed allocation left nothing to free (the balance check at the end starts afresh).
    EXPECT_EQ(faults::calls("snd_pcm_hw_params_malloc") - 1, faults::calls("snd_pcm_hw_params_free"));
    faults::reset();
}

// Parameters the PCM cannot honour fail open, and a read then leaves the
// buffer alone; a negative rate must not reach ALSA as some four billion Hz,
// which plugins such as null accept.
TEST_F(CaptureDeviceTest, AlsaOpenRefusesParametersThePcmCannotHonour)
{
    struct Bad { QString name; int rate; unsigned channels; };
    for (const Bad& b : {Bad{"mono_only", 48000, 2}, Bad{"null", -48000, 2}, Bad{"null", 0, 2}, Bad{"null", 48000, 0}}) {
        AlsaInputDevice device(b.name, b.rate, b.channels, S16, 20, 100);
        EXPECT_FALSE(device.open()) << b.name.toStdString() << " " << b.rate << " Hz " << b.channels << " channels";
        QByteArray block("untouched");
        EXPECT_FALSE(device.read(&block, 64));
        EXPECT_EQ(block, QByteArray("untouched"));
    }
    EXPECT_TRUE(AlsaInputDevice("null", 1, 2, S16, 20, 100).open());   // the lowest rate there is
    // ALSA settling on another channel count than the one set.
    faults::setHook<int(const snd_pcm_hw_params_t*, unsigned int*)>(
        "snd_pcm_hw_params_get_channels", [](const snd_pcm_hw_params_t*, unsigned int* channels) { return *channels = 1, 0; });
    EXPECT_FALSE(AlsaInputDevice("null", 48000, 2, S16, 20, 100).open());
    EXPECT_EQ(m_log.errors().last(), "Could not set channel count to: 2");
}

TEST_F(CaptureDeviceTest, AlsaOpenTriesFourTimesAQuarterSecondApartThenNamesTheDevice)
{
    AlsaInputDevice missing("no_such_pcm", 48000, 2, S16, 20, 100);
    EXPECT_FALSE(missing.open());
    EXPECT_EQ(m_sleeps, (QList<useconds_t>{250000, 250000, 250000, 250000}));
    EXPECT_EQ(m_log.errors().last(), "Cannot open capture device 'no_such_pcm': " + alsaText(-ENOENT));
    faults::arm("snd_pcm_open", -EBUSY, 3);   // the fourth try takes a busy device
    EXPECT_TRUE(AlsaInputDevice(knownDataPcm(patternBytes(4096)), 48000, 2, S16, 20, 100).open());
}
