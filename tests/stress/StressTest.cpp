// Churn under load, each run bounded in count and time: time-shifted feeds
// requested and finished from several threads while capture runs flat out,
// providers created and destroyed over every device kind and failure,
// mixer elements loaded and dropped while external changes arrive, and
// playback with xruns and errors injected at random writes. Each takes a
// few seconds, under the sanitizers too.

#include "AlsaCard.h"
#include "AlsaInputDevice.h"
#include "AlsaOutputDevice.h"
#include "AudioInputDataProvider.h"
#include "FileInputDevice.h"

#include "AlsaFaults.h"
#include "MixerTestSupport.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QPointer>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <future>
#include <malloc.h>
#include <random>
#include <set>
#include <thread>
#include <unistd.h>

using namespace quiltest;

namespace {

constexpr qint64 TimeLimitMs = 30000;

int entriesOf(const char* directory)
{
    return QDir(QString::fromLatin1(directory)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size();
}

// The count once it held still for 200 ms: a thread that was joined or
// detached may linger in /proc for a moment after it returned.
int settledEntriesOf(const char* directory)
{
    QElapsedTimer total, still;
    total.start();
    still.start();
    int count = entriesOf(directory);
    while (still.elapsed() < 200 && total.elapsed() < 3000) {
        QThread::msleep(10);
        const int now = entriesOf(directory);
        if (now != count) {
            count = now;
            still.restart();
        }
    }
    return count;
}

// A finished worker thread's object is deleted through this thread's event queue.
void deleteFinishedThreadObjects()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

class StressTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        faults::reset();
        m_timer.start();
    }
    void TearDown() override
    {
        faults::reset();
        EXPECT_LT(m_timer.elapsed(), TimeLimitMs);
        EXPECT_EQ(faults::openPcmHandles() + faults::openMixerHandles(), 0) << "an ALSA handle leaked";
    }

    QElapsedTimer m_timer;
};

} // namespace

// Every feed, from its prefill to its finish, must be one gapless stretch of
// the counter stream, whichever thread asked and however soon it finished.
TEST_F(StressTest, FeedChurnKeepsEveryTimeShiftedFeedGapless)
{
    constexpr int Threads = 4;
    constexpr int RingMs = 100;
    const int cycles = 10000;
    ScriptedInputDevice device;   // 48 kHz, 4-byte counter frames
    AudioInputDataProvider provider(&device, RingMs, 48);   // 1 ms blocks

    // The live feed checks each block against the last, keeping nothing.
    std::atomic<int> liveBlocks{0}, liveDefects{0};
    QByteArray lastLive;
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable([&](const QByteArray& block) {
        if (!counterStreamDefect(lastLive.right(4) + block).isEmpty())
            ++liveDefects;
        lastLive = block;
        ++liveBlocks;
    });
    provider.start();

    auto churn = [&](int seed) {
        std::mt19937 random(seed);
        QStringList defects;
        for (int i = seed; i < cycles && defects.size() < 10; i += Threads) {
            const int offsetMs = std::uniform_int_distribution<int>(0, RingMs + 20)(random);
            const int prefillBytes = qMin(offsetMs, RingMs) * 192;
            FeedRecorder feed(provider.liveFeedWithOffset(offsetMs));
            const int blocksAfterPrefill = i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : 4;
            if (!waitUntil([&] { return feed.blockCount() >= (prefillBytes > 0) + blocksAfterPrefill; })) {
                defects << QStringLiteral("feed %1 starved").arg(i);
                continue;
            }
            feed.transfer().finish(CMError());
            const QList<QByteArray> blocks = feed.blocks();
            if (prefillBytes > 0 && blocks.value(0).size() != prefillBytes)
                defects << QStringLiteral("feed %1 began with %2 bytes, not %3").arg(i).arg(blocks.value(0).size()).arg(prefillBytes);
            const QString defect = counterStreamDefect(feed.bytes());
            if (!defect.isEmpty())
                defects << QStringLiteral("feed %1 (offset %2 ms): %3").arg(i).arg(offsetMs).arg(defect);
        }
        return defects;
    };
    std::vector<std::future<QStringList>> clients;
    for (int seed = 0; seed < Threads; ++seed)
        clients.push_back(std::async(std::launch::async, churn, seed));
    QStringList defects;
    for (auto& client : clients)
        defects += client.get();
    provider.stop();
    ASSERT_TRUE(waitUntil([&] { return live.isFinished(); }));
    EXPECT_TRUE(defects.isEmpty()) << defects.join('\n').toStdString();
    EXPECT_EQ(liveDefects, 0);
    EXPECT_GT(liveBlocks, cycles);
}

namespace {

// Forwards to a device, counting what the provider asked of it.
class CountingDevice : public AudioInputDevice
{
public:
    explicit CountingDevice(std::unique_ptr<AudioInputDevice> device) : m_device(std::move(device)) {}
    bool open() override
    {
        const bool ok = m_device->open();
        openFailed = openFailed || !ok;
        return ok;
    }
    void close() override { m_device->close(); }
    bool isOpened() override { return m_device->isOpened(); }
    bool read(QByteArray* buffer, int frameCount) override
    {
        const bool ok = m_device->read(buffer, frameCount);
        ++reads;
        return ok;
    }
    int sampleRate() const override { return m_device->sampleRate(); }
    int bytesPerSample() const override { return m_device->bytesPerSample(); }
    int channelCount() const override { return m_device->channelCount(); }
    QString name() const override { return m_device->name(); }

    std::atomic<bool> openFailed{false};
    std::atomic<int> reads{0};   // failed ones included

private:
    std::unique_ptr<AudioInputDevice> m_device;
};

} // namespace

// Providers over every kind of device, working or failing at open or read,
// started, stopped or not, and destroyed: nothing may stay behind.
TEST_F(StressTest, ProviderChurnLeavesNoThreadDescriptorOrAllocation)
{
    const QString pcm = "cap_file:INFILE=" + writeDataFile("stress_capture.raw", patternBytes(48000 * 4));
    const QString file = writeDataFile("stress_file.raw", patternBytes(48000 * 4, 1));
    const QList<std::function<AudioInputDevice*()>> kinds{
        [] { return new ScriptedInputDevice; },
        [] { auto* d = new ScriptedInputDevice; d->failReads = true; return d; },
        [] { auto* d = new ScriptedInputDevice; d->failOpen = true; return d; },
        [&] { auto* d = new FileInputDevice(48000, 2, SND_PCM_FORMAT_S16_LE); d->playFile(file); return d; },
        [] {   // its first read fails
            auto* d = new FileInputDevice(48000, 2, SND_PCM_FORMAT_S16_LE);
            d->playFile("/proc/self/mem");
            return d;
        },
        [&] { return new AlsaInputDevice(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 10, 100); },
        [] { return new AlsaInputDevice("no_such_pcm", 48000, 2, SND_PCM_FORMAT_S16_LE, 10, 100); },
    };
    // The open retries' pauses are skipped; the file device's pacing is kept.
    faults::setHook<int(useconds_t)>("usleep", [](useconds_t us) {
        return us == 250000 ? 0 : faults::real<int(useconds_t)>("usleep")(us);
    });
    qint64 slowestTeardownMs = 0;
    auto cycle = [&](int i) {
        CountingDevice device{std::unique_ptr<AudioInputDevice>(kinds.at(i % kinds.size())())};
        auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
        FeedRecorder live(provider->liveFeed());
        FeedRecorder shifted(provider->liveFeedWithOffset(i % 50));
        if (i % 11 != 0) {   // now and then destroyed without ever starting
            provider->start();
            EXPECT_TRUE(waitUntil([&] { return device.reads > 0 || device.openFailed; })) << i;
            // Muted while capture runs on: the worker reads the state for the next block.
            provider->setMuteState(i % 2 == 0);
            const int blocks = live.blockCount();
            if (blocks > 0)
                EXPECT_TRUE(waitUntil([&] { return live.blockCount() > blocks; })) << i;
        }
        if (i % 2)
            provider->stop();
        QElapsedTimer teardown;
        teardown.start();
        provider.reset();
        slowestTeardownMs = qMax(slowestTeardownMs, teardown.elapsed());
        deleteFinishedThreadObjects();
        EXPECT_EQ(faults::openPcmHandles(), 0) << i;   // the device closed it, if the provider did not
    };
    for (int i = 0; i < kinds.size(); ++i)   // loads ALSA's configuration, Qt's statics
        cycle(i);
    const int threads = settledEntriesOf("/proc/self/task");
    const int descriptors = entriesOf("/proc/self/fd");
    const size_t heapBytes = mallinfo2().uordblks;

    const int cycles = 504;
    for (int i = 0; i < cycles; ++i)
        cycle(i);
    EXPECT_EQ(settledEntriesOf("/proc/self/task"), threads);
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers keep the heap themselves (and find leaks at exit).
    EXPECT_LT(mallinfo2().uordblks, heapBytes + 64 * 1024) << "the heap grew with every provider";
#endif
    EXPECT_LT(slowestTeardownMs, 1000);
}

namespace {

struct Control
{
    QString element;
    QByteArray name;
    int max;
    int value;
};

} // namespace

// External changes while clients load and drop elements: a held element gets
// one changed() per change of its control, and ALSA's callback only ever
// reaches elements that exist.
TEST_F(StressTest, MixerChurnSignalsHeldElementsAndNeverReachesDestroyedOnes)
{
    const QString fifo = dataDirectory() + "/stress_mixer.fifo";
    AlsaCard card("testmix:FIFO=" + fifo, true);
    ASSERT_TRUE(card.isOpen());
    QList<Control> controls{
        {"Master", "Master Playback Volume", 100, 80},     {"Headphone", "Headphone Playback Volume", 31, 20},
        {"Master Mono", "Master Mono Playback Volume", 100, 80}, {"Capture", "Capture Volume", 100, 60},
        {"Zoom", "Zoom Playback Volume", 10, 5},           {"Aux Zoom", "Aux Zoom Playback Volume", 10, 5},
    };
    auto command = [&](const QByteArray& line) {
        const int fd = ::open(fifo.toUtf8().constData(), O_WRONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(::write(fd, line.constData(), line.size()), line.size());
        ::close(fd);
    };

    // Every element object that exists, with the changes it has to see and has seen.
    struct Seen { int expected = 0; std::shared_ptr<int> got = std::make_shared<int>(0); };
    std::map<AlsaMixerElement*, Seen> alive;
    std::set<const void*> strayCallbacks;
    faults::setHook<void*(const snd_mixer_elem_t*)>("snd_mixer_elem_get_callback_private", [&](const snd_mixer_elem_t* e) {
        void* object = faults::real<void*(const snd_mixer_elem_t*)>("snd_mixer_elem_get_callback_private")(e);
        if (object && !alive.count(static_cast<AlsaMixerElement*>(object)))
            strayCallbacks.insert(object);
        return object;
    });
    auto load = [&](const QString& name) {
        AlsaMixerElementPtr element = card.loadMixerElement(name);
        if (element && !alive.count(element.data())) {
            Seen seen;
            QObject::connect(element.data(), &AlsaMixerElement::changed, [got = seen.got] { ++*got; });
            QObject::connect(element.data(), &QObject::destroyed, [&alive, e = element.data()] { alive.erase(e); });
            alive[element.data()] = seen;
        }
        return element;
    };

    AlsaMixerElementPtr barrier = load("Mic");
    int barrierValue = 16;
    std::mt19937 random(1);
    QMap<QString, QList<AlsaMixerElementPtr>> held;   // clients' references
    const int rounds = 3000;
    int changes = 0;
    for (int round = 0; round < rounds; ++round) {
        for (int op = 0; op < 4; ++op) {
            const Control& control = controls.at(random() % controls.size());
            QList<AlsaMixerElementPtr>& copies = held[control.element];
            if (copies.size() < 3 && random() % 2)
                copies.append(load(random() % 2 ? control.element.toLower() : control.element));
            else if (!copies.isEmpty())
                copies.removeAt(random() % copies.size());
        }
        QByteArray lines;
        for (int change = 0; change < 4; ++change) {
            Control& control = controls[random() % controls.size()];
            control.value = (control.value + 1 + random() % control.max) % (control.max + 1);
            lines += "set " + control.name + ' ' + QByteArray::number(control.value) + '\n';
            for (const AlsaMixerElementPtr& element : held.value(control.element).mid(0, 1)) {
                ++alive[element.data()].expected;
                ++changes;
            }
        }
        barrierValue = (barrierValue + 1) % 32;
        command(lines + "set Mic Capture Volume " + QByteArray::number(barrierValue) + '\n');
        const int barrierSeen = *alive[barrier.data()].got + 1;
        ASSERT_TRUE(runEventLoopUntil([&] { return *alive[barrier.data()].got == barrierSeen; })) << round;
        alive[barrier.data()].expected = barrierSeen;
        for (const auto& entry : alive)
            ASSERT_EQ(*entry.second.got, entry.second.expected) << entry.first->name().toStdString() << " in round " << round;
    }
    EXPECT_TRUE(strayCallbacks.empty()) << strayCallbacks.size() << " callbacks reached destroyed elements";
    EXPECT_GT(changes, rounds);   // held elements did see changes
    held.clear();
    barrier.reset();
    faults::reset();   // the hook refers to this test's locals
}

// Thousands of writes with xruns, short writes and errors injected at random
// calls: every write ends in one of the three results that its faults call
// for, hands ALSA exactly the frames it reports, and leaves a usable device.
TEST_F(StressTest, PlaybackChurnAnswersEveryWriteAndStaysUsable)
{
    using WriteI = snd_pcm_sframes_t(snd_pcm_t*, const void*, snd_pcm_uframes_t);
    std::mt19937 random(7);
    struct Call { const char* buffer; snd_pcm_uframes_t frames; snd_pcm_sframes_t result; };
    QList<Call> calls;   // of the current write
    bool recoverFails = false;
    faults::setHook<WriteI>("snd_pcm_writei", [&](snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames) {
        const unsigned dice = random() % 100;
        snd_pcm_sframes_t result = dice < 8 ? -EPIPE : dice < 9 ? -EIO : 0;
        if (result == 0) {
            const snd_pcm_uframes_t asked = dice < 40 ? 1 + random() % frames : frames;   // short writes
            result = faults::real<WriteI>("snd_pcm_writei")(pcm, buffer, asked);
        }
        calls.append({static_cast<const char*>(buffer), frames, result});
        return result;
    });
    faults::setHook<int(snd_pcm_t*, int, int)>("snd_pcm_recover", [&](snd_pcm_t* pcm, int error, int silent) {
        return recoverFails ? -ENODEV : faults::real<int(snd_pcm_t*, int, int)>("snd_pcm_recover")(pcm, error, silent);
    });

    AlsaOutputDevice device("null", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    ASSERT_TRUE(device.open());
    QMap<AudioOutputDevice::WriteResult, int> results;
    const int writes = 5000;
    for (int i = 0; i < writes; ++i) {
        const QByteArray block = patternBytes(1 + random() % 8000, i);
        const snd_pcm_uframes_t frames = block.size() / 4;
        calls.clear();
        recoverFails = random() % 20 == 0;
        const AudioOutputDevice::WriteResult result = device.write(block);
        ++results[result];

        // The calls take the block front to back, each where the last one ended.
        snd_pcm_uframes_t taken = 0;
        for (const Call& call : qAsConst(calls)) {
            ASSERT_EQ(call.buffer, block.constData() + taken * 4) << i;
            ASSERT_EQ(call.frames, frames - taken) << i;
            taken += qMax<snd_pcm_sframes_t>(call.result, 0);
        }
        const snd_pcm_sframes_t last = calls.isEmpty() ? 0 : calls.last().result;
        const auto expected = last == -EPIPE && !recoverFails ? AudioOutputDevice::XrunRecovered
            : last < 0                                        ? AudioOutputDevice::DeviceClosed
                                                              : AudioOutputDevice::Written;
        ASSERT_EQ(result, expected) << i;
        ASSERT_EQ(taken == frames, result == AudioOutputDevice::Written) << i;
        ASSERT_EQ(device.isOpened(), result != AudioOutputDevice::DeviceClosed) << i;
        if (!device.isOpened()) {
            ASSERT_EQ(faults::openPcmHandles(), 0);
            ASSERT_TRUE(device.open()) << i;
        }
    }
    EXPECT_GT(results[AudioOutputDevice::Written], writes / 2);
    EXPECT_GT(results[AudioOutputDevice::XrunRecovered], 0);
    EXPECT_GT(results[AudioOutputDevice::DeviceClosed], 0);
    device.close(AudioOutputDevice::Immediate);
}
