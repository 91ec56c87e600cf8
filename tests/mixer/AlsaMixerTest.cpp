// The mixer classes against real libasound on the scripted test mixer
// (mixer/plugin): its FIFO makes external changes and backend faults, and
// injected failures cover the steps real ALSA does not fail on demand.

#include "AlsaCard.h"

#include "AlsaTest.h"
#include "TestEnvironment.h"

#include <QSignalSpy>
#include <QTimer>

#include <ctime>
#include <fcntl.h>
#include <unistd.h>

using namespace quiltest;

namespace {

using Elem = snd_mixer_elem_t;

class MixerTest : public AlsaTest
{
protected:
    // One line to the test mixer: an external change or a fault.
    static void command(const QByteArray& line)
    {
        const int fd = ::open(QUIL_TEST_MIXER_FIFO, O_WRONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0) << "no mixer has the FIFO open";
        const QByteArray text = line + '\n';
        EXPECT_EQ(::write(fd, text.constData(), text.size()), text.size());
        ::close(fd);
    }
};

} // namespace

// (Element lookup, exact before partial, never an inactive element and one
// shared element per name, is checked by fuzz_mixer.)
TEST_F(MixerTest, EveryFailingOpenStepFailsCleanly)
{
    for (const char* step : {"snd_mixer_open", "snd_mixer_attach", "snd_mixer_selem_register", "snd_mixer_load",
                             "snd_mixer_poll_descriptors_count", "snd_mixer_poll_descriptors"}) {
        AlsaCard card("testmix", false);
        expectOpenFailsCleanlyAt(card, step, 0, step == std::string("snd_mixer_poll_descriptors") ? 0 : -EINVAL);
    }
}

// A failing control reports false, logs one line, leaves the caller's
// outputs alone and keeps its reason for the caller; the has/is queries
// answer false without a word.
TEST_F(MixerTest, EveryControlFailureFailsCleanly)
{
    AlsaCard card("testmix", true);
    auto master = card.loadMixerElement("Master");
    auto source = card.loadMixerElement("Input Source");
    double dB = 7;
    bool on = true;
    long value = 7;
    unsigned int item = 7;
    QString name = "kept";
    struct Case { const char* function; const AlsaMixerElementPtr& element; std::function<bool()> fails; bool logs = true; long result = -EIO; };
    const Case cases[] = {
        {"snd_mixer_selem_set_playback_dB_all", master, [&] { return !master->setDB(-3.5, Playback); }},
        {"snd_mixer_selem_get_capture_dB", master, [&] { return !master->getDB(&dB, Capture) && dB == 7; }},
        {"snd_mixer_selem_set_capture_volume_all", master, [&] { return !master->setVolume(5, Capture); }},
        {"snd_mixer_selem_get_playback_volume", master, [&] { return !master->getVolume(&value, Playback) && value == 7; }},
        {"snd_mixer_selem_get_playback_volume_range", master, [&] { return !master->getVolumeRange(&value, &value, Playback); }},
        {"snd_mixer_selem_set_playback_switch_all", master, [&] { return !master->setSwitch(false, Playback); }},
        {"snd_mixer_selem_get_playback_switch", master, [&] { return !master->getSwitch(&on, Playback) && on; }},
        {"snd_mixer_selem_set_enum_item", source, [&] { return !source->setEnum(1); }},
        {"snd_mixer_selem_get_enum_item", source, [&] { return !source->getEnum(&item) && item == 7; }},
        {"snd_mixer_selem_get_enum_items", source, [&] { return source->getEnumSize() == 0; }},
        {"snd_mixer_selem_get_enum_item_name", source, [&] { return !source->getEnumItemName(0, &name) && name == "kept"; }},
        {"snd_mixer_selem_get_playback_dB", master, [&] { return !master->hasDB(Playback); }, false, -EINVAL},
        {"snd_mixer_selem_has_playback_switch", master, [&] { return !master->hasSwitch(Playback); }, false, 0},
        {"snd_mixer_selem_is_enumerated", source, [&] { return !source->isEnumerated(); }, false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.function);
        faults::arm(c.function, c.result);
        m_log.clear();
        EXPECT_TRUE(c.fails());
        EXPECT_EQ(m_log.errors().size(), c.logs ? 1 : 0);
        if (c.logs) {
            EXPECT_EQ(std::make_pair(c.element->errorString(), c.element->errorCode()), std::make_pair(m_log.errors().value(0), -EIO));
            EXPECT_TRUE(c.element->errorString().contains(c.element->name()));   // says which element failed
        }
    }
}

// A poll error or a dead backend closes the mixer for good, without spinning,
// and the card opens a fresh one; an element ALSA removes goes alone. Either
// way the old element stays retired and a new one takes its place.
TEST_F(MixerTest, ElementsOfAClosedMixerOrRemovedByAlsaAreRetiredAndReplaced)
{
    for (const char* fault : {"pollerr", "dead", "remove"}) {
        SCOPED_TRACE(fault);
        const bool closes = fault != std::string("remove");
        AlsaCard card("testmix", true);
        Elem* alsaElement = nullptr;
        faults::setHook<void(Elem*, void*)>("snd_mixer_elem_set_callback_private", [&](Elem* e, void* object) {
            alsaElement = e;
            faults::real<void(Elem*, void*)>("snd_mixer_elem_set_callback_private")(e, object);
        });
        auto old = card.loadMixerElement("master");
        QSignalSpy spy(old.data(), &AlsaMixerElement::changed);
        m_log.clear();
        if (closes)
            command(fault);
        else
            AlsaMixerElement::mixerElemCallback(alsaElement, SND_CTL_EVENT_MASK_REMOVE);
        ASSERT_TRUE(spy.count() == 1 || spy.wait(3000));   // ALSA reports the element's removal when the mixer closes
        EXPECT_EQ(spy.count(), 1);
        EXPECT_EQ(card.isOpen(), !closes);
        EXPECT_EQ(m_log.errors().size(), closes ? 1 : 0);
        EXPECT_EQ(faults::openHandles(), closes ? 0 : 1);
        // The old element fails without calling ALSA's mixer and logs why
        // (every operation, with its outputs left alone: fuzz_mixer).
        faults::reset();
        m_log.clear();
        EXPECT_FALSE(old->setDB(-1, Playback));
        EXPECT_EQ(faults::calls("snd_mixer_"), 0);
        EXPECT_EQ(m_log.errors(), QStringList{"Mixer element Master is no longer available"});
        const std::clock_t cpu = std::clock();
        QEventLoop idle;
        QTimer::singleShot(300, &idle, &QEventLoop::quit);
        idle.exec();
        EXPECT_LT(std::clock() - cpu, CLOCKS_PER_SEC * 3 / 100) << "busy after the mixer closed";
        ASSERT_TRUE(card.open());
        auto fresh = card.loadMixerElement("master");
        ASSERT_TRUE(fresh);
        EXPECT_NE(fresh, old);
        old.reset();   // must not unregister the replacement's callback
        QSignalSpy freshSpy(fresh.data(), &AlsaMixerElement::changed);
        command("set Master Playback Volume 1");
        EXPECT_TRUE(freshSpy.wait(2000));
    }
}
