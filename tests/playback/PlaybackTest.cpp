// Playback devices: FileOutputDevice, and AlsaOutputDevice on ALSA's file,
// tee and null plugins and the constrained PCMs of the test configuration,
// with injected failures where real ALSA cannot fail on demand.

#include "AlsaDevices.h"
#include "AlsaOutputDevice.h"
#include "FileOutputDevice.h"

#include "AlsaTest.h"
#include "TestEnvironment.h"

#include <QThread>

#include <random>

using namespace quiltest;
using Out = AudioOutputDevice;

namespace {

using WriteI = snd_pcm_sframes_t(snd_pcm_t*, const void*, snd_pcm_uframes_t);
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
    EXPECT_TRUE(!device.isOpened() && fileContent(path) == first + second);
    ASSERT_TRUE(device.open());
    device.close(Out::Immediate);
    EXPECT_EQ(fileContent(path), QByteArray());
}

TEST_F(PlaybackTest, PeriodBufferAndThresholdFollowTheLastSetterOfEachPair)
{
    // null grants every request exactly; 0 stands for "ALSA's own choice".
    struct Case { std::function<void(AlsaOutputDevice&)> configure; unsigned period, buffer, threshold; };
    const QList<Case> cases{
        {[](AlsaOutputDevice&) {}, 960, 4800, 1},
        {[](AlsaOutputDevice& d) { d.setStartThresholdMs(0); }, 960, 4800, 0},   // 0 ms is a request too
        {[](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setBufferSize(8192); d.setStartThreshold(2048); }, 1024, 8192, 2048},
        {[](AlsaOutputDevice& d) { d.setPeriodSize(1024); d.setPeriodTimeMs(10); d.setBufferSize(8192);
             d.setBufferTimeMs(200); d.setStartThreshold(99); d.setStartThresholdMs(50); }, 480, 9600, 2400},
        {[](AlsaOutputDevice& d) { d.setStartThresholdMs(1000); }, 960, 4800, 4800},   // clamped
        {[](AlsaOutputDevice& d) { d.setPeriodSize(0); d.setBufferSize(-5); d.setStartThreshold(0); }, 0, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.period);
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
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

// Channels allowed to differ are in the write churn (stereo given for mono).
TEST_F(PlaybackTest, ApproximatedRateOrChannelsFailUnlessAllowed)
{
    AlsaOutputDevice rate(QStringLiteral("only44k_plug"), 48000, 2, S16, 20, 100);
    AlsaOutputDevice mono(QStringLiteral("mono_only"), 48000, 2, S16, 20, 100);
    EXPECT_FALSE(rate.open() || mono.open());
    rate.enableSamplerateNear();
    rate.setStartThresholdMs(50);
    ASSERT_TRUE(rate.open());
    EXPECT_EQ(rate.sampleRate(), 44100);
    EXPECT_EQ(rate.startThreshold(), 2205u);   // converted at the rate in force
}

// Thousands of writes with xruns, short writes and errors injected at random
// calls: every write ends in one of the three results that its faults call
// for, hands ALSA exactly the frames it reports, and leaves a usable device.
// Whole frames only, counted in the negotiated layout: asked for mono and
// given stereo, counting with the requested count would read past the block.
TEST_F(PlaybackTest, WritesTakeTheBlockFrontToBackAndRecoverOrClose)
{
    std::mt19937 random(7);
    struct Call { const char* buffer; snd_pcm_uframes_t frames; snd_pcm_sframes_t result; };
    QList<Call> calls;   // of the current write
    bool recoverFails = false;
    faults::setHook<WriteI>("snd_pcm_writei", [&](snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames) {
        const unsigned dice = random() % 100;
        snd_pcm_sframes_t result = dice < 8 ? -EPIPE : dice < 9 ? -EIO : 0;
        if (result == 0)   // short writes too, of no frames at times
            result = faults::real<WriteI>("snd_pcm_writei")(pcm, buffer, dice < 40 ? random() % frames : frames);
        calls.append({static_cast<const char*>(buffer), frames, result});
        return result;
    });
    AlsaOutputDevice device(QStringLiteral("stereo_only"), 48000, 1, S16, 20, 100);
    device.enableChannelsNear();
    ASSERT_TRUE(device.open());
    ASSERT_EQ(device.channelCount(), 2);
    for (int i = 0; i < 5000; ++i) {
        const QByteArray block = patternBytes(1 + random() % 8000, i);
        const snd_pcm_uframes_t frames = block.size() / 4;
        calls.clear();
        recoverFails = random() % 20 == 0;
        faults::arm("snd_pcm_recover", -ENODEV, recoverFails ? -1 : 0);
        const Out::WriteResult result = device.write(block);
        snd_pcm_uframes_t taken = 0;   // the calls take the block front to back
        for (const Call& call : qAsConst(calls)) {
            ASSERT_EQ(call.buffer, block.constData() + taken * 4) << i;
            ASSERT_EQ(call.frames, frames - taken) << i;
            taken += qMax<snd_pcm_sframes_t>(call.result, 0);
        }
        const snd_pcm_sframes_t last = calls.isEmpty() ? 0 : calls.last().result;
        ASSERT_EQ(result, last == -EPIPE && !recoverFails ? Out::XrunRecovered : last < 0 ? Out::DeviceClosed : Out::Written) << i;
        ASSERT_EQ(taken == frames, result == Out::Written) << i;
        ASSERT_EQ(device.isOpened(), result != Out::DeviceClosed) << i;
        if (!device.isOpened()) {
            ASSERT_EQ(faults::openHandles(), 0);
            ASSERT_LT(device.errorCode(), 0);
            ASSERT_TRUE(device.open()) << i;
        }
    }
    device.close(Out::Immediate);
}

TEST_F(PlaybackTest, FramesReadyDelayAndClose)
{
    AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
    EXPECT_EQ(device.framesReady() + device.delay(nullptr), -2);
    device.enableTstamp();
    ASSERT_TRUE(device.open());
    EXPECT_EQ(device.framesReady(), 4800);   // null never fills
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
    EXPECT_TRUE(device.open() && device.errorCode() == 0);   // open() on an open device starts afresh
    for (auto mode : {Out::Drain, Out::Immediate}) {
        ASSERT_TRUE(device.open());
        device.close(mode);
        EXPECT_FALSE(device.isOpened());
        EXPECT_EQ(faults::calls("snd_pcm_drain"), 1);   // only the drained close drains
    }
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
        AlsaOutputDevice device(QStringLiteral("null"), 48000, 2, S16, 20, 100);
        device.enableTstamp();
        if (step.threshold)
            device.setStartThreshold(960);
        expectOpenFailsCleanlyAt(device, step.function, step.after);
    }
    struct Bad { unsigned rate, channels; snd_pcm_format_t format; };
    for (const Bad& b : {Bad{48000, 2, SND_PCM_FORMAT_S24_LE}, Bad{48000, 0, S16}, Bad{0, 2, S16},
                         Bad{static_cast<unsigned>(-48000), 2, S16}}) {
        AlsaOutputDevice device(QStringLiteral("null"), b.rate, b.channels, b.format, 20, 100);
        EXPECT_FALSE(device.open());
        EXPECT_EQ(device.write(patternBytes(400)), Out::DeviceClosed);
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
    EXPECT_TRUE(find("mono_only").description == "One channel only" && find("mono_only").capture);
    EXPECT_TRUE(find("only44k_plug").playback && !find("only44k_plug").capture);
    // No sound hardware here: cards 0 and 3 are faked, the second without a name.
    faults::setHook<int(int*)>("snd_card_next", [](int* i) { *i = *i < 0 ? 0 : *i == 0 ? 3 : -1; return 0; });
    faults::setHook<int(int, char**)>("snd_card_get_name", [](int i, char** t) { *t = i ? nullptr : strdup("Fake"); return i ? -ENOENT : 0; });
    faults::setHook<int(int, char**)>("snd_card_get_longname", [](int, char** t) { *t = strdup("Fake card"); return 0; });
    const QList<AlsaDevices::Card> cards = AlsaDevices::cards();
    ASSERT_EQ(cards.size(), 2);
    EXPECT_TRUE(cards[0].device == "hw:0" && cards[0].name == "Fake" && cards[0].longName == "Fake card");
    EXPECT_TRUE(cards[1].index == 3 && cards[1].name.isEmpty() && cards[1].longName == "Fake card");
    EXPECT_EQ(AlsaDevices::formats("only44k", SND_PCM_STREAM_PLAYBACK), QVector<snd_pcm_format_t>{SND_PCM_FORMAT_S32_LE});
    EXPECT_TRUE(AlsaDevices::formats("nosuch", SND_PCM_STREAM_PLAYBACK, &code).isEmpty());
    EXPECT_LT(code, 0);
}
