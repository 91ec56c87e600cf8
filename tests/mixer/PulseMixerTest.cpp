// The mixer classes on a third-party mixer: ALSA's "pulse" ctl of a private
// PulseAudio server, changed from outside with pactl and finally killed.

#include "AlsaCard.h"

#include "MixerTestSupport.h"
#include "SoundServer.h"
#include "TestEnvironment.h"

#include <QSignalSpy>

#include <alsa/asoundlib.h>

#include <cerrno>

using namespace quiltest;
using log4cplus::ERROR_LOG_LEVEL;

namespace {

class PulseMixerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(hasSoundServer());
        // "default" reaches the server only if ALSA's configuration is read now.
        snd_config_update_free_global();
        faults::reset();
    }
    void TearDown() override
    {
        EXPECT_EQ(faults::openMixerHandles(), 0) << "a mixer leaked";
        if (!hasSoundServer())
            EXPECT_TRUE(runSoundServer("start"));   // the later suites need it back
    }

    LogCapture m_log;
};

} // namespace

TEST_F(PulseMixerTest, ControlsAndExternalChanges)
{
    EXPECT_TRUE(AlsaCard(AlsaCard::DefaultName, true).isOpen());
    AlsaCard card(soundDevice(), true);
    ASSERT_TRUE(card.isOpen());
    auto master = card.loadMixerElement("mast");
    ASSERT_TRUE(master);
    EXPECT_EQ(master->name(), "Master");

    long min = -1, max = -1, volume = 0;
    bool on = false;
    EXPECT_TRUE(master->getVolumeRange(&min, &max, Playback));
    EXPECT_TRUE(master->setVolume(max / 2, Playback) && master->getVolume(&volume, Playback));
    EXPECT_EQ(volume, max / 2);
    EXPECT_TRUE(master->setSwitch(false, Playback) && master->getSwitch(&on, Playback));
    EXPECT_FALSE(on);
    EXPECT_TRUE(master->setSwitch(true, Playback) && master->getSwitch(&on, Playback));
    EXPECT_TRUE(on);

    // This backend has no dB data.
    double dB = 5;
    EXPECT_FALSE(master->setDB(-6, Playback));
    EXPECT_FALSE(master->getDB(&dB, Playback));
    EXPECT_FALSE(master->hasDB(Playback));
    EXPECT_EQ(dB, 5);
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              (QStringList{"Set dB on: Master to: -6 failed: " + alsaText(-EINVAL),
                           "Get dB on: Master failed: " + alsaText(-EINVAL)}));

    QSignalSpy spy(master.data(), &AlsaMixerElement::changed);
    runEventLoop(100);   // let our own changes settle
    spy.clear();
    ASSERT_TRUE(pactl({"set-sink-volume", "@DEFAULT_SINK@", "30%"}));
    ASSERT_TRUE(spy.wait(2000));
    EXPECT_TRUE(master->getVolume(&volume, Playback));
    EXPECT_NEAR(volume, max * 3 / 10, 1);
}

TEST_F(PulseMixerTest, KilledServerClosesTheCardOnceAndLeavesItIdle)
{
    AlsaCard card(soundDevice(), true);
    auto master = card.loadMixerElement("Master");
    ASSERT_TRUE(master);
    m_log.clear();
    ASSERT_TRUE(runSoundServer("kill"));
    ASSERT_TRUE(runEventLoopUntil([&] { return !card.isOpen(); }));
    // PipeWire's own ctl reports the lost connection as a broken pipe.
    const int lost = soundDevice() == QLatin1String("pipewire") ? -EPIPE : -EIO;
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Mixer event handling error: " + alsaText(lost)});

    faults::reset();
    m_log.clear();
    expectRetired(*master, m_log);
    EXPECT_FALSE(card.loadMixerElement("Master"));
    EXPECT_LT(cpuSecondsOverEventLoop(1000), 0.05) << "busy after the server died";
    master.reset();
    EXPECT_EQ(faults::callsStartingWith("snd_mixer_"), 0);
}
