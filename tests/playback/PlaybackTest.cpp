// Playback devices: FileOutputDevice, and AlsaOutputDevice on ALSA's file,
// tee and null plugins and the constrained PCMs of the test configuration,
// with injected failures where real ALSA cannot fail on demand.

#include "AlsaDevices.h"
#include "AlsaOutputDevice.h"
#include "FileOutputDevice.h"

#include "AlsaTest.h"
#include "TestEnvironment.h"

#include <QThread>


using namespace quiltest;
using Out = AudioOutputDevice;

namespace {

constexpr snd_pcm_format_t S16 = SND_PCM_FORMAT_S16_LE;

using PlaybackTest = AlsaTest;

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
    EXPECT_EQ(device.errorString(), QString());
    device.close(Out::Drain);
    EXPECT_EQ(std::make_pair(device.isOpened(), fileContent(path)), std::make_pair(false, first + second));
    ASSERT_TRUE(device.open());
    device.close(Out::Immediate);
    EXPECT_EQ(fileContent(path), QByteArray());
}

// Channels other than requested (mono_only, stereo_only): fuzz_output_device.
TEST_F(PlaybackTest, ApproximatedRateFailsUnlessAllowed)
{
    AlsaOutputDevice rate(QStringLiteral("only44k_plug"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(rate.open());
    rate.enableSamplerateNear();
    rate.setStartThresholdMs(50);
    ASSERT_TRUE(rate.open());
    EXPECT_EQ(rate.sampleRate(), 44100);
    EXPECT_EQ(rate.startThreshold(), 2205u);   // converted at the rate in force
}

// Of each pair of setters the later one counts: a frame count (none when 0 or
// below) withdraws the milliseconds asked for before it, and milliseconds a
// frame count. The reference device asks for no period and no threshold.
TEST_F(PlaybackTest, TheLaterSetterOfEachPairCounts)
{
    AlsaOutputDevice reference(QStringLiteral("null"), 48000, 2, S16, -1, 60), device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    device.setPeriodSize(0), device.setBufferSize(960), device.setBufferTimeMs(60), device.setStartThresholdMs(5), device.setStartThreshold(-1);
    ASSERT_TRUE(reference.open());
    ASSERT_TRUE(device.open());
    EXPECT_EQ(std::make_tuple(device.periodSize(), device.bufferSize(), device.startThreshold()),
              std::make_tuple(reference.periodSize(), 2880ul, reference.startThreshold()));
}

TEST_F(PlaybackTest, FramesReadyDelayAndClose)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    device.enableTstamp();
    ASSERT_TRUE(device.open());
    faults::arm("snd_pcm_avail_update", 0);
    EXPECT_EQ(device.framesReady(), 0);
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
    EXPECT_EQ(device.errorCode(), -EIO);
    ASSERT_TRUE(device.open());   // on an open device: starts afresh
    EXPECT_EQ(device.errorCode(), 0);
    for (auto mode : {Out::Drain, Out::Immediate}) {
        ASSERT_TRUE(device.open());
        device.close(mode);
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::calls("snd_pcm_drain"), 1);   // only the drained close drains
    }
}

// Each step of the negotiation that fails fails open(), logs one error and
// leaves no handle.
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
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        device.enableTstamp();
        if (step.threshold)
            device.setStartThreshold(960);
        expectOpenFailsCleanlyAt(device, step.function, step.after);
    }
}

// The hinted PCMs of the test configuration, the cards, and what play probes before it chooses a format to read a file in.
TEST_F(PlaybackTest, DevicesListHintedPcmsCardsAndTheFormatsAPcmTakes)
{
    int code = 1;
    const QList<AlsaDevices::Pcm> pcms = AlsaDevices::pcms(&code);
    const auto find = [&](const QString& name) {
        const auto pcm = std::find_if(pcms.begin(), pcms.end(), [&](const AlsaDevices::Pcm& p) { return p.name == name; });
        return pcm == pcms.end() ? AlsaDevices::Pcm{} : *pcm;
    };
    EXPECT_EQ(code, 0);
    EXPECT_EQ(std::make_pair(find("mono_only").description, find("mono_only").capture), std::make_pair(QString("One channel only"), true));
    EXPECT_EQ(std::make_pair(find("only44k_plug").playback, find("only44k_plug").capture), std::make_pair(true, false));
    // No sound hardware here: cards 0 and 3 are faked, the second without a name.
    faults::setHook<int(int*)>("snd_card_next", [](int* i) { *i = *i < 0 ? 0 : *i == 0 ? 3 : -1; return 0; });
    faults::setHook<int(int, char**)>("snd_card_get_name", [](int i, char** t) { *t = i ? nullptr : strdup("Fake"); return i ? -ENOENT : 0; });
    faults::setHook<int(int, char**)>("snd_card_get_longname", [](int, char** t) { *t = strdup("Fake card"); return 0; });
    const QList<AlsaDevices::Card> cards = AlsaDevices::cards();
    ASSERT_EQ(cards.size(), 2);
    EXPECT_EQ(std::make_tuple(cards[0].device, cards[0].name, cards[0].longName), std::make_tuple(QString("hw:0"), QString("Fake"), QString("Fake card")));
    EXPECT_EQ(std::make_tuple(cards[1].index, cards[1].name, cards[1].longName), std::make_tuple(3, QString(), QString("Fake card")));
    EXPECT_EQ(AlsaDevices::formats("only44k", SND_PCM_STREAM_PLAYBACK), QVector<snd_pcm_format_t>{SND_PCM_FORMAT_S32_LE});
    EXPECT_TRUE(AlsaDevices::formats("nosuch", SND_PCM_STREAM_PLAYBACK, &code).isEmpty());
    EXPECT_LT(code, 0);
}
