// The mixer classes against real libasound on the scripted test mixer
// (mixer/plugin): its FIFO makes external changes and backend faults, and
// injected failures cover the steps real ALSA does not fail on demand.

#include "AlsaCard.h"

#include "MixerTestSupport.h"
#include "TestEnvironment.h"

#include <QPointer>

#include <alsa/asoundlib.h>
#include <QSignalSpy>

#include <cerrno>
#include <type_traits>
#include <utility>
#include <fcntl.h>
#include <unistd.h>

using namespace quiltest;
using log4cplus::DEBUG_LOG_LEVEL;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;

namespace {

using Elem = snd_mixer_elem_t;
const QString CallbackEntry =
    "Enter static int AlsaMixerElement::mixerElemCallback(_snd_mixer_elem*, unsigned int): ";

class MixerTest : public ::testing::Test
{
protected:
    void SetUp() override { faults::reset(); }
    void TearDown() override
    {
        faults::reset();
        EXPECT_EQ(faults::openMixerHandles(), 0) << "a mixer leaked";
    }

    // One line to the test mixer: an external change or a fault.
    static void command(const QByteArray& line)
    {
        const int fd = ::open(QUIL_TEST_MIXER_FIFO, O_WRONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0) << "no mixer has the FIFO open";
        const QByteArray text = line + '\n';
        EXPECT_EQ(::write(fd, text.constData(), text.size()), text.size());
        ::close(fd);
    }

    // Events are handled in the order written: once a change of `barrier`
    // arrived, everything written before it has been handled.
    void flushEvents(const AlsaMixerElementPtr& barrier)
    {
        QSignalSpy spy(barrier.data(), &AlsaMixerElement::changed);
        command("set " + barrier->name().toUtf8() + " Playback Volume " + QByteArray::number(++m_barrierValue % 10));
        ASSERT_TRUE(spy.wait(2000));
    }

    static AlsaMixerElementPtr elementOn(const QSharedPointer<AlsaMixerHandle>& handle, const QString& name)
    {
        return AlsaMixerElementPtr(new AlsaMixerElement(name, handle->findElement(name), handle));
    }

    int m_barrierValue = 0;
    LogCapture m_log;
};

// Callers always name the side: there is no default mode.
template <class E, class = void>
struct SetsDbWithoutMode : std::false_type {};
template <class E>
struct SetsDbWithoutMode<E, std::void_t<decltype(std::declval<E&>().setDB(0.0))>> : std::true_type {};
static_assert(!SetsDbWithoutMode<AlsaMixerElement>::value, "a mode parameter got a default");

} // namespace

TEST_F(MixerTest, HandleListsGuessesAndFindsElements)
{
    auto handle = AlsaMixerHandle::openHandle("testmix");
    ASSERT_TRUE(handle);
    const QList<QString> names = handle->buildElementList();
    EXPECT_EQ(names.count("PCM"), 2);   // indices 0 and 1
    EXPECT_FALSE(names.contains("Inactive"));
    ASSERT_LT(names.indexOf("Aux Zoom"), names.indexOf("Zoom"));

    const QPair<QString, QString> guesses[] = {
        {"master", "Master"}, {"MONO", "Master Mono"}, {"phone", "Headphone"}, {"Speaker", ""},
        {"zoom", "Zoom"},     {"mic", "Mic"},          {"", "Master"},         {"inactive", ""}};
    for (const auto& guess : guesses)
        EXPECT_EQ(handle->guessElementName(guess.first), guess.second) << guess.first.toStdString();
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Enter QString AlsaMixerHandle::guessElementName(const QString&): Selem: MONO"), 1);

    EXPECT_TRUE(handle->findElement("Inactive"));
    EXPECT_FALSE(handle->findElement("master"));
    Elem* pcm = handle->findElement("PCM");
    ASSERT_TRUE(pcm);
    EXPECT_EQ(snd_mixer_selem_get_index(pcm), 0u);
}

TEST_F(MixerTest, EveryOpenStepFailureIsLoggedAndReleasesTheMixer)
{
    struct Case { const char* function; long result; QString error; };
    const Case cases[] = {
        {"snd_mixer_open", -ENOMEM, "Mixer open error: " + alsaText(-ENOMEM)},
        {"snd_mixer_attach", -ENOENT, "Mixer attach testmix error: " + alsaText(-ENOENT)},
        {"snd_mixer_selem_register", -EINVAL, "Mixer register error: " + alsaText(-EINVAL)},
        {"snd_mixer_load", -EIO, "Mixer testmix load error: " + alsaText(-EIO)},
        {"snd_mixer_poll_descriptors_count", 0, "Failed to get poll descriptors count: 0"},
        {"snd_mixer_poll_descriptors_count", -EBADF, "Failed to get poll descriptors count: -9"},
        {"snd_mixer_poll_descriptors", 0, "Failed to get poll descriptors: 0"},
    };
    for (const Case& c : cases) {
        faults::reset();
        faults::arm(c.function, c.result);
        m_log.clear();
        EXPECT_FALSE(AlsaMixerHandle::openHandle("testmix")) << c.function;
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{c.error});
        EXPECT_EQ(faults::openMixerHandles(), 0) << c.function;
    }
}

TEST_F(MixerTest, ElementControlsWorkOnBothSides)
{
    AlsaCard card("testmix", true);
    auto master = card.loadMixerElement("master");
    auto capture = card.loadMixerElement("capture");
    auto source = card.loadMixerElement("input");
    ASSERT_TRUE(master && capture && source);

    using SetDb = int(Elem*, long, int);
    long sentValue = 0;
    int sentDirection = 0;
    faults::setHook<SetDb>("snd_mixer_selem_set_playback_dB_all", [&](Elem* e, long value, int direction) {
        sentValue = value;
        sentDirection = direction;
        return faults::real<SetDb>("snd_mixer_selem_set_playback_dB_all")(e, value, direction);
    });
    EXPECT_TRUE(master->setDB(-10.555, Playback));
    EXPECT_EQ(sentValue, -1055);
    EXPECT_EQ(sentDirection, -1);
    double dB = 0;
    long volume = 0, min = -1, max = -1;
    EXPECT_TRUE(master->getDB(&dB, Playback));
    EXPECT_DOUBLE_EQ(dB, -11.0);   // the scale's next step below, 0.5 dB per step from -50 dB
    EXPECT_TRUE(master->getVolume(&volume, Playback));
    EXPECT_EQ(volume, 78);
    faults::setHook<int(Elem*, snd_mixer_selem_channel_id_t, long*)>(
        "snd_mixer_selem_get_playback_dB", [](Elem*, snd_mixer_selem_channel_id_t, long* value) {
            *value = -1055;
            return 0;
        });
    EXPECT_TRUE(master->getDB(&dB, Playback));
    EXPECT_DOUBLE_EQ(dB, -10.55);
    faults::reset();

    EXPECT_TRUE(master->hasDB(Playback));
    EXPECT_FALSE(card.loadMixerElement("headphone")->hasDB(Playback));
    EXPECT_TRUE(master->getVolumeRange(&min, &max, Playback));
    EXPECT_EQ(min, 0);
    EXPECT_EQ(max, 100);
    // Any mode but 0 is the capture side.
    EXPECT_TRUE(capture->setVolume(33, static_cast<AlsaElementMode>(2)));
    EXPECT_TRUE(capture->getVolume(&volume, Capture));
    EXPECT_EQ(volume, 33);

    bool on = true;
    EXPECT_TRUE(master->hasSwitch(Playback));
    EXPECT_FALSE(master->hasSwitch(Capture));
    EXPECT_TRUE(master->setSwitch(false, Playback) && master->getSwitch(&on, Playback));
    EXPECT_FALSE(on);
    EXPECT_TRUE(capture->setSwitch(false, Capture) && capture->getSwitch(&on, Capture));
    EXPECT_FALSE(on);
    EXPECT_TRUE(capture->setSwitch(true, Capture) && capture->getSwitch(&on, Capture));
    EXPECT_TRUE(on);

    EXPECT_FALSE(master->isEnumerated());
    EXPECT_TRUE(source->isEnumerated());
    ASSERT_EQ(source->getEnumSize(), 4u);
    QStringList items;
    for (unsigned int i = 0; i < 4; ++i) {
        QString item;
        EXPECT_TRUE(source->getEnumItemName(i, &item));
        items << item;
    }
    EXPECT_EQ(items, (QStringList{"Mic", "Line", "CD", "Internal"}));
    unsigned int selected = 0;
    EXPECT_TRUE(source->setEnum(2) && source->getEnum(&selected));
    EXPECT_EQ(selected, 2u);

    EXPECT_EQ(m_log.startingWith(TRACE_LOG_LEVEL, "Enter bool AlsaMixerElement::set").mid(0, 3),
              (QStringList{"Enter bool AlsaMixerElement::setDB(double, AlsaElementMode): Master setDB -10.555",
                           "Enter bool AlsaMixerElement::setVolume(long int, AlsaElementMode): Capture setVolume 33",
                           "Enter bool AlsaMixerElement::setSwitch(bool, AlsaElementMode): Master setSwitch 0"}));
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

TEST_F(MixerTest, EveryControlFailureIsLoggedAndLeavesOutputsAlone)
{
    AlsaCard card("testmix", true);
    auto master = card.loadMixerElement("Master");
    auto capture = card.loadMixerElement("Capture");
    auto source = card.loadMixerElement("Input Source");
    ASSERT_TRUE(master && capture && source);
    const QString eio = alsaText(-EIO);
    double dB = 7;
    bool on = true;
    long value = 0;
    QString item = "kept";
    struct Case { const char* function; long result; std::function<bool()> failsCleanly; QString error; };
    const Case cases[] = {
        {"snd_mixer_selem_set_playback_dB_all", -EIO, [&] { return !master->setDB(-3.5, Playback); },
         "Set dB on: Master to: -3.5 failed: " + eio},
        {"snd_mixer_selem_set_capture_dB_all", -EIO, [&] { return !capture->setDB(-3.5, Capture); },
         "Set dB on: Capture to: -3.5 failed: " + eio},
        {"snd_mixer_selem_get_capture_dB", -EIO, [&] { return !master->getDB(&dB, Capture) && dB == 7; },
         "Get dB on: Master failed: " + eio},
        // Positive results are failures too.
        {"snd_mixer_selem_set_playback_volume_all", 1, [&] { return !master->setVolume(5, Playback); },
         "Set volume on: Master to: 5 failed: " + alsaText(1)},
        {"snd_mixer_selem_set_capture_volume_all", -EIO, [&] { return !capture->setVolume(5, Capture); },
         "Set volume on: Capture to: 5 failed: " + eio},
        {"snd_mixer_selem_get_playback_volume", -EIO, [&] { return !master->getVolume(&value, Playback); },
         "Get volume on: Master failed: " + eio},
        {"snd_mixer_selem_get_capture_volume", -EIO, [&] { return !capture->getVolume(&value, Capture); },
         "Get volume on: Capture failed: " + eio},
        {"snd_mixer_selem_get_playback_volume_range", -EIO,
         [&] { return !master->getVolumeRange(&value, &value, Playback); }, "Get volume range on: Master failed: " + eio},
        {"snd_mixer_selem_get_capture_volume_range", -EIO,
         [&] { return !capture->getVolumeRange(&value, &value, Capture); }, "Get volume range on: Capture failed: " + eio},
        {"snd_mixer_selem_set_playback_switch_all", -EIO, [&] { return !master->setSwitch(false, Playback); },
         "Set switch on: Master to: 0 failed: " + eio},
        {"snd_mixer_selem_set_capture_switch_all", -EIO, [&] { return !master->setSwitch(true, Capture); },
         "Set switch on: Master to: 1 failed: " + eio},
        {"snd_mixer_selem_get_playback_switch", -EIO, [&] { return !master->getSwitch(&on, Playback) && on; },
         "Get switch: Master failed: " + eio},
        {"snd_mixer_selem_get_capture_switch", -EIO, [&] { return !capture->getSwitch(&on, Capture) && on; },
         "Get switch: Capture failed: " + eio},
        {"snd_mixer_selem_set_enum_item", -EINVAL, [&] { return !source->setEnum(9); },
         "Set Enum: Input Source failed: " + alsaText(-EINVAL)},
        {"snd_mixer_selem_get_enum_item", -EIO, [&] { unsigned int i; return !source->getEnum(&i); },
         "Get Enum: Input Source failed: " + eio},
        {"snd_mixer_selem_get_enum_items", -EIO, [&] { return source->getEnumSize() == 0; },
         "Get Enum size: Input Source failed: " + eio},
        {"snd_mixer_selem_get_enum_item_name", 1, [&] { return !source->getEnumItemName(0, &item) && item == "kept"; },
         "Get Enum item name: Input Source failed: " + alsaText(1)},
        // The queries answer false and never log.
        {"snd_mixer_selem_get_playback_dB", -EINVAL, [&] { return !master->hasDB(Playback); }, ""},
        {"snd_mixer_selem_has_playback_switch", 0, [&] { return !master->hasSwitch(Playback); }, ""},
        {"snd_mixer_selem_has_capture_switch", 0, [&] { return !capture->hasSwitch(Capture); }, ""},
        {"snd_mixer_selem_is_enumerated", 0, [&] { return !source->isEnumerated(); }, ""},
    };
    for (const Case& c : cases) {
        faults::arm(c.function, c.result);
        m_log.clear();
        EXPECT_TRUE(c.failsCleanly()) << c.function;
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), c.error.isEmpty() ? QStringList() : QStringList{c.error});
        EXPECT_EQ(faults::calls(c.function), 1) << c.function;
        faults::reset();
    }
}

TEST_F(MixerTest, ExternalChangesArriveOncePerValueChange)
{
    AlsaCard card("testmix", true);
    auto master = card.loadMixerElement("Master");
    auto zoom = card.loadMixerElement("Zoom");
    QSignalSpy spy(master.data(), &AlsaMixerElement::changed);

    command("set Master Playback Volume 10");
    ASSERT_TRUE(spy.wait(2000));
    long volume = 0;
    EXPECT_TRUE(master->getVolume(&volume, Playback));
    EXPECT_EQ(volume, 10);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, CallbackEntry + "mask: 1 element Master"), 1);

    // Info only, the same value again, another element: nothing for Master.
    command("info Master Playback Volume");
    command("set Master Playback Volume 10");
    command("set Headphone Playback Volume 3");
    command("set Master Playback Switch 0");
    flushEvents(zoom);
    EXPECT_EQ(spy.count(), 2);

    // A destroyed element is no longer called back by ALSA.
    master.reset();
    m_log.clear();
    command("set Master Playback Volume 20");
    flushEvents(zoom);
    EXPECT_TRUE(m_log.startingWith(TRACE_LOG_LEVEL, CallbackEntry + "mask: 1 element Master").isEmpty());
}

TEST_F(MixerTest, CardOpensOnceAndSharesOneElementPerName)
{
    EXPECT_STREQ(AlsaCard::DefaultName, "default");
    AlsaCard card("testmix", false);
    EXPECT_FALSE(card.isOpen());
    EXPECT_EQ(card.name(), "testmix");
    EXPECT_FALSE(card.loadMixerElement("master"));
    EXPECT_FALSE(card.loadMixerElement(""));
    ASSERT_TRUE(card.open());
    EXPECT_TRUE(card.open());
    EXPECT_EQ(faults::calls("snd_mixer_open"), 1);
    EXPECT_FALSE(card.loadMixerElement(""));
    EXPECT_FALSE(card.loadMixerElement("Speaker"));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL),
              (QStringList{"Cannot load mixer element, not opened testmix", "Cannot load mixer element with empty name",
                           "Cannot load mixer element with empty name", "Element 'Speaker' ('') not found"}));
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL).first(), "Enter AlsaCard::AlsaCard(const QString&, bool): Name: testmix, open: 0");

    AlsaMixerElementPtr first = card.loadMixerElement("master");
    AlsaMixerElementPtr second = card.loadMixerElement("MASTER");
    ASSERT_TRUE(first);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->name(), "Master");
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Search element by name: MASTER -> Master"), 1);
    EXPECT_EQ(m_log.startingWith(TRACE_LOG_LEVEL, "Enter ").filter("loadMixerElement(const QString&): Name: MASTER, open 1").size(), 1);
    QPointer<AlsaMixerElement> gone = first.data();
    first.reset();
    second.reset();
    EXPECT_TRUE(gone.isNull()) << "the cache kept an element alive";
    EXPECT_TRUE(card.loadMixerElement("mast"));
    EXPECT_EQ(m_log.startingWith(TRACE_LOG_LEVEL, "Element 'Master' at 0x").size(), 2) << "no new object after the last holder";

    AlsaCard missing("no_such_mixer", true);
    EXPECT_FALSE(missing.isOpen());
    EXPECT_FALSE(missing.open());
    EXPECT_EQ(m_log.startingWith(ERROR_LOG_LEVEL, "Mixer attach no_such_mixer error: ").size(), 2);
    m_log.clear();
    AlsaCard unnamed("", true);
    EXPECT_FALSE(unnamed.isOpen());
    EXPECT_FALSE(unnamed.loadMixerElement("master"));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), (QStringList{"Mixer attach  error: " + alsaText(-ENOENT),
                                                           "Cannot load mixer element, not opened "}));
}

TEST_F(MixerTest, MixerClosesItselfForGoodOnPollErrorOrDeadBackend)
{
    const QPair<QByteArray, QString> cases[] = {{"pollerr", "POLLERR | POLLNVAL: 8"},
                                                {"dead", "Mixer event handling error: " + alsaText(-EIO)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first.constData());
        auto handle = AlsaMixerHandle::openHandle("testmix");
        auto master = elementOn(handle, "Master");
        QSignalSpy spy(master.data(), &AlsaMixerElement::changed);
        m_log.clear();
        command(c.first);
        ASSERT_TRUE(runEventLoopUntil([&] { return !handle->isOpen(); }));
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{c.second});
        EXPECT_EQ(faults::openMixerHandles(), 0);
        EXPECT_EQ(spy.count(), 1) << "ALSA reports the element's removal when the mixer closes";
        EXPECT_TRUE(handle->findChildren<QObject*>().isEmpty()) << "notifiers left";

        faults::reset();
        EXPECT_TRUE(handle->buildElementList().isEmpty());
        EXPECT_EQ(handle->guessElementName("master"), "");
        EXPECT_FALSE(handle->findElement("Master"));
        handle->close();
        // A wake-up still on its way when the handle closed changes nothing.
        QMetaObject::invokeMethod(handle.data(), "on_alsaMixerEvent_received", Q_ARG(int, -1));
        expectRetired(*master, m_log);
        EXPECT_LT(cpuSecondsOverEventLoop(300), 0.03) << "busy after the mixer closed";
        master.reset();
        EXPECT_EQ(faults::callsStartingWith("snd_mixer_"), 0);
    }
}

TEST_F(MixerTest, CardOpensAfreshAfterItsMixerClosedItself)
{
    AlsaCard card("testmix", true);
    auto old = card.loadMixerElement("master");
    command("dead");
    ASSERT_TRUE(runEventLoopUntil([&] { return !card.isOpen(); }));
    faults::reset();
    m_log.clear();
    EXPECT_FALSE(card.loadMixerElement("master"));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Cannot load mixer element, not opened testmix"});
    EXPECT_EQ(faults::callsStartingWith("snd_mixer_"), 0);

    ASSERT_TRUE(card.open());
    auto fresh = card.loadMixerElement("master");
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh, old);
    EXPECT_TRUE(fresh->setVolume(40, Playback));
    EXPECT_FALSE(old->setVolume(40, Playback));
}

TEST_F(MixerTest, ElementRemovedByAlsaIsRetiredAndReplaced)
{
    AlsaCard card("testmix", true);
    Elem* alsaElement = nullptr;
    faults::setHook<void(Elem*, void*)>("snd_mixer_elem_set_callback_private", [&](Elem* e, void* object) {
        alsaElement = e;
        faults::real<void(Elem*, void*)>("snd_mixer_elem_set_callback_private")(e, object);
    });
    auto removed = card.loadMixerElement("master");
    ASSERT_TRUE(alsaElement);
    QSignalSpy spy(removed.data(), &AlsaMixerElement::changed);
    AlsaMixerElement::mixerElemCallback(alsaElement, SND_CTL_EVENT_MASK_REMOVE);
    EXPECT_EQ(spy.count(), 1);
    faults::reset();
    expectRetired(*removed, m_log);

    auto replacement = card.loadMixerElement("master");
    ASSERT_TRUE(replacement);
    EXPECT_NE(replacement, removed);
    removed.reset();   // must not unregister the replacement's callback
    QSignalSpy replacementSpy(replacement.data(), &AlsaMixerElement::changed);
    command("set Master Playback Volume 1");
    EXPECT_TRUE(replacementSpy.wait(2000));
}

TEST_F(MixerTest, FailingReventsCountsAsNoEvents)
{
    auto handle = AlsaMixerHandle::openHandle("testmix");
    auto master = elementOn(handle, "Master");
    QSignalSpy spy(master.data(), &AlsaMixerElement::changed);
    faults::arm("snd_mixer_poll_descriptors_revents", -EINVAL, -1);
    command("set Master Playback Volume 2");
    EXPECT_TRUE(spy.wait(2000));
    EXPECT_TRUE(handle->isOpen());
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}

// A lookup that ALSA answers with nothing fails the load with its line and
// leaves the card usable; a callback whose object ALSA cannot hand back is
// dropped; a failing close still releases the mixer.
TEST_F(MixerTest, LookupAndTeardownFailuresLeaveNothingBehind)
{
    struct Case { const char* function; long result; int after; const char* name; QString error; };
    const Case cases[] = {
        {"snd_mixer_first_elem", 0, 0, "master", "Element 'master' ('') not found"},
        {"snd_mixer_elem_next", 0, 0, "zoom", "Element 'zoom' ('') not found"},   // the list ends after its first
        {"snd_mixer_selem_is_active", 0, 0, "master", "Element 'master' ('') not found"},
        {"snd_mixer_find_selem", 0, 0, "master", "Element 'master' ('Master') not found"},
    };
    AlsaCard card("testmix", true);
    for (const Case& c : cases) {
        faults::reset();
        faults::arm(c.function, c.result, -1, c.after);
        m_log.clear();
        EXPECT_FALSE(card.loadMixerElement(c.name)) << c.function;
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{c.error});
        faults::reset();
        EXPECT_TRUE(card.loadMixerElement(c.name)) << c.function;
    }

    auto master = card.loadMixerElement("master");
    auto zoom = card.loadMixerElement("zoom");
    QSignalSpy spy(master.data(), &AlsaMixerElement::changed);
    faults::arm("snd_mixer_elem_get_callback_private", 0);
    command("set Master Playback Volume 3");
    flushEvents(zoom);
    EXPECT_EQ(spy.count(), 0);
    command("set Master Playback Volume 4");
    flushEvents(zoom);
    EXPECT_EQ(spy.count(), 1);

    master.reset();
    zoom.reset();
    faults::arm("snd_mixer_close", -EIO);
    m_log.clear();
    {
        AlsaCard closing("testmix", true);
    }
    EXPECT_EQ(faults::openMixerHandles(), 1);   // only `card`'s
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
}
