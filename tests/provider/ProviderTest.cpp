// AudioInputDataProvider and its worker: byte arithmetic and the ring, delivery
// to the live and time-shifted feeds (also while capture runs flat out), mute,
// the failure paths of a capture run, teardown, and real ALSA capture.

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"
#include "AudioInputDataProviderThread.h"
#include "quil.h"

#include "DeathTest.h"
#include "LogCapture.h"
#include "ProviderTestSupport.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPointer>

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <climits>
#include <future>
#include <random>

using namespace quiltest;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;
using log4cplus::WARN_LOG_LEVEL;

namespace {

// The silence block is process-wide and sized by the process's first
// successful read; this environment makes that read, with a known length.
constexpr int SilenceBytes = 250 * 4;

class SilencePrimer : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ScriptedInputDevice device;
        device.closeGate();
        AudioInputDataProvider provider(&device, 0, SilenceBytes / 4);
        FeedRecorder live(provider.liveFeed());
        provider.start();
        device.permit(1);
        waitUntil([&] { return live.blockCount() == 1; });
        provider.stop();
        device.openGate();
    }
};
const auto* const silencePrimer = ::testing::AddGlobalTestEnvironment(new SilencePrimer);

// Runs a function in the logging thread for every "AudioLib" record of one
// level: a stand-in for a slow or blocking log appender of the host.
class LogHook
{
public:
    LogHook(log4cplus::LogLevel level, std::function<void()> hook)
        : m_appender(new Appender(level, std::move(hook)))
    {
        log4cplus::Logger::getInstance("AudioLib").addAppender(m_appender);
    }
    ~LogHook() { log4cplus::Logger::getInstance("AudioLib").removeAppender(m_appender); }

private:
    struct Appender : log4cplus::Appender
    {
        Appender(log4cplus::LogLevel level, std::function<void()> hook) : level(level), hook(std::move(hook)) {}
        ~Appender() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override
        {
            if (event.getLogLevel() == level)
                hook();
        }
        const log4cplus::LogLevel level;
        const std::function<void()> hook;
    };
    log4cplus::SharedAppenderPtr m_appender;
};

const QString StartLine = QStringLiteral("Starting Audio Data Provider, read size: 480, buffer duration: 19200");
const QString ClosingLine = QStringLiteral("Data provider thread finished on demand, closing transfers");

bool isSilence(const QByteArray& bytes)
{
    return bytes.count('\0') == bytes.size();
}

class ProviderTest : public ::testing::Test
{
protected:
    void TearDown() override { deleteFinishedThreadObjects(); }

    // A finished worker thread's object asks this thread, by a queued call, to
    // delete it later; this thread runs no event loop, so do both steps here.
    static void deleteFinishedThreadObjects()
    {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    LogCapture m_log;
};

} // namespace

TEST_F(ProviderTest, ByteCountsAreWholeFramesTruncatedTowardZero)
{
    struct Case { int rate; int channels; int bytesPerSample; int ms; int bytes; };
    const QList<Case> cases{
        {48000, 2, 2, 100, 19200},
        {44100, 2, 2, 3, 528},    // 529.2 bytes, cut to whole frames
        {44100, 2, 2, -3, -528},
        {44100, 2, 3, 3, 792},    // 793.8
        // Beyond the int range the counts stay at its ends, in whole frames.
        {48000, 2, 2, INT_MAX, INT_MAX - 3},
        {48000, 2, 2, INT_MIN, INT_MIN},
        {192000, 1024, 4, 3000, INT_MAX - 4095},
        // A device without rate, channels or sample width has no bytes to count.
        {0, 2, 2, 100, 0},
        {48000, 0, 2, 100, 0},
        {48000, 2, 0, 100, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ms);
        ScriptedInputDevice device(c.rate, c.channels, c.bytesPerSample);
        AudioInputDataProviderThread worker(&device, 0, 1);
        EXPECT_EQ(worker.msToByteCount(c.ms), c.bytes);
        EXPECT_EQ(worker.frameCountToByteCount(1024), 1024 * c.channels * c.bytesPerSample);
        EXPECT_EQ(worker.frameCountToByteCount(INT_MIN), c.channels * c.bytesPerSample ? INT_MIN : 0);
    }
    // Products beyond even 64 bits stay at the ends of the int range.
    ScriptedInputDevice absurd(INT_MAX, INT_MAX, 8);
    AudioInputDataProviderThread worker(&absurd, 0, 1);
    EXPECT_EQ(worker.frameCountToByteCount(INT_MAX), INT_MAX);
    EXPECT_EQ(worker.msToByteCount(3), INT_MAX);
}

TEST_F(ProviderTest, PrefillIsTheNewestOffsetOfTheRingAndAtMostTheRing)
{
    struct Case { unsigned bufferMs; int offsetMs; int prefillBytes; QString warning; };
    const QList<Case> cases{
        {1000, 250, 48000, {}},
        {1000, 1500, 192000,
         "Requested offset '288000' calculated from offsetMs '1500' is bigger than the amount of data in the buffer: 192000"},
        {1000, 0, 0, {}},
        {1000, -20, 0, {}},
        {0, 10, 0, "Requested offset '1920' calculated from offsetMs '10' is bigger than the amount of data in the buffer: 0"},
        {1000, INT_MAX, 192000,
         "Requested offset '2147483644' calculated from offsetMs '2147483647' is bigger than the amount of data in the buffer: 192000"},
        {1000, INT_MIN, 0, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.offsetMs);
        m_log.clear();
        ScriptedInputDevice device;
        AudioInputDataProviderThread worker(&device, c.bufferMs, 1024);
        const QByteArray prefill = worker.liveFeedWithOffset(c.offsetMs).readAll();
        EXPECT_EQ(prefill.size(), c.prefillBytes);
        EXPECT_TRUE(isSilence(prefill));   // the ring starts out silent
        EXPECT_EQ(m_log.messages(WARN_LOG_LEVEL), c.warning.isEmpty() ? QStringList() : QStringList{c.warning});
    }
}

TEST_F(ProviderTest, ConstructorAssertsReadSizeAndRingCapacity)
{
    struct Case { unsigned bufferMs; unsigned readFrames; QString assertion; };
    const QList<Case> cases{
        {100, 0, "oneReadSizeFrames > 0"},
        {10, 481, "m_ringBuffer.size() >= frameCountToByteCount(m_readSizeFrames)"},   // 10 ms hold 480 frames
        {10, 480, {}},
        {0, 100000, {}},   // no ring, nothing to hold
        // A ring no QByteArray holds is not attempted: empty, it holds no read.
        {4000000000u, 480, "m_ringBuffer.size() >= frameCountToByteCount(m_readSizeFrames)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.readFrames);
        const DeathResult result = runInChild([&] {
            ScriptedInputDevice device;
            AudioInputDataProviderThread worker(&device, c.bufferMs, c.readFrames);
        });
        EXPECT_EQ(result.aborted, !c.assertion.isEmpty());
        if (!c.assertion.isEmpty())
            EXPECT_TRUE(result.fatalMessage.startsWith("ASSERT: \"" + c.assertion + "\" in file")) << result.fatalMessage.toStdString();
    }
}

TEST_F(ProviderTest, EveryBlockReachesEachTimeShiftedFeedThenTheLiveFeed)
{
    ScriptedInputDevice device;
    device.closeGate();
    AudioInputDataProvider provider(&device, 100, 480);
    EXPECT_EQ(&provider.audioDevice(), &device);
    EXPECT_TRUE(provider.liveFeed() == provider.liveFeed());
    FeedRecorder first(provider.liveFeedWithOffset(0));
    FeedRecorder second(provider.liveFeedWithOffset(0));
    EXPECT_FALSE(first.transfer() == second.transfer());
    // The live feed's consumer notes how far the other feeds were when each block reached it.
    std::vector<int> aheadOfLive;
    std::atomic<int> liveBlocks{0};
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable([&](const QByteArray&) {
        aheadOfLive.push_back(first.blockCount() + second.blockCount());
        ++liveBlocks;
    });

    provider.start();
    device.permit(3);
    ASSERT_TRUE(waitUntil([&] { return liveBlocks == 3; }));
    EXPECT_EQ(aheadOfLive, (std::vector<int>{2, 4, 6}));
    EXPECT_TRUE(first.bytes() == device.frames(1, 3 * 480));
    EXPECT_TRUE(second.bytes() == first.bytes());

    // A feed its consumer finished gets nothing more; stopping finishes the rest
    // once the current read is done.
    first.transfer().finish(CMError());
    provider.stop();
    EXPECT_FALSE(second.isFinished());
    device.permit(1);
    ASSERT_TRUE(waitUntil([&] { return live.isFinished() && second.isFinished(); }));
    EXPECT_EQ(first.blockCount(), 3);
    EXPECT_EQ(second.blockCount(), 4);
    EXPECT_EQ(device.closes, 1);
}

TEST_F(ProviderTest, MutedCaptureDeliversAndRingsOnlyTheSilenceBlock)
{
    ScriptedInputDevice device;
    device.framesPerRead = {480, 120, 960};   // none as long as the silence block
    device.closeGate();
    AudioInputDataProvider provider(&device, 100, 480);   // a ring of 19200 bytes
    FeedRecorder live(provider.liveFeed());
    FeedRecorder shifted(provider.liveFeedWithOffset(0));
    auto ring = [&] { return provider.liveFeedWithOffset(100).readAll(); };
    auto capture = [&](int blocks) {
        const int total = live.blockCount() + blocks;
        device.permit(blocks);
        return waitUntil([&] { return live.blockCount() == total; });
    };
    provider.start();
    ASSERT_TRUE(capture(12));   // 24960 bytes: the ring holds captured audio only
    const int capturedFrames = device.deliveredFrames;

    provider.setMuteState(true);
    EXPECT_TRUE(provider.isMuted());
    ASSERT_TRUE(capture(2));
    for (const FeedRecorder* feed : {&live, &shifted}) {
        for (const QByteArray& block : feed->blocks().mid(12))
            EXPECT_EQ(block, QByteArray(SilenceBytes, '\0'));
    }
    // The ring moved by two silence blocks, whatever the device delivered.
    QByteArray newest = ring();
    ASSERT_EQ(newest.size(), 19200);
    EXPECT_TRUE(newest.left(19200 - 2 * SilenceBytes) == device.frames(capturedFrames - 4299, 4300));
    EXPECT_TRUE(isSilence(newest.right(2 * SilenceBytes)));
    ASSERT_TRUE(capture(20));
    newest = ring();
    EXPECT_EQ(newest.size(), 19200);
    EXPECT_TRUE(isSilence(newest));

    provider.setMuteState(false);
    EXPECT_FALSE(provider.isMuted());
    const int nextFrame = device.deliveredFrames + 1;
    ASSERT_TRUE(capture(1));
    EXPECT_TRUE(live.blocks().last() == device.frames(nextFrame, 120));
    provider.stop();
    device.openGate();
}

// The ring as it was first written, a run of bytes that every block shifts,
// against the real worker: the same random blocks (shorter and longer than
// the ring), muted and not, and after each block prefills at random offsets
// (0, negative, beyond the ring) must give the same bytes.
TEST_F(ProviderTest, RingGivesTheSamePrefillsAsShiftingBytes)
{
    for (const unsigned int ringMs : {0u, 10u, 30u}) {
        SCOPED_TRACE(ringMs);
        std::mt19937 random(ringMs);
        auto uniform = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
        const int ringFrames = ringMs * 48;
        ScriptedInputDevice device;
        for (int i = 0; i < 40; ++i)
            device.framesPerRead << (i == 7 ? ringFrames : uniform(1, qMax(600, ringFrames * 3 / 2)));
        device.closeGate();
        AudioInputDataProvider provider(&device, ringMs, 1);
        FeedRecorder live(provider.liveFeed());
        QByteArray model(ringMs * 192, '\0');
        provider.start();
        for (int i = 0; i < device.framesPerRead.size(); ++i) {
            const bool muted = uniform(0, 3) == 0;
            provider.setMuteState(muted);
            const int first = device.deliveredFrames + 1;
            device.permit(1);
            ASSERT_TRUE(waitUntil([&] { return live.blockCount() == i + 1; }));
            const QByteArray block =
                muted ? QByteArray(SilenceBytes, '\0') : device.frames(first, device.framesPerRead.at(i));
            if (!model.isEmpty())
                model = model.remove(0, block.size()) + block;
            for (const int offsetMs : {uniform(-5, 60), uniform(0, ringMs + 1), 0}) {
                CMBufferedDataTransfer feed = provider.liveFeedWithOffset(offsetMs);
                const int offset = offsetMs * 192;
                ASSERT_TRUE(feed.readAll() == model.mid(offset > model.size() ? 0 : model.size() - offset))
                    << "block " << i << ", offset " << offsetMs << " ms";
                feed.finish(CMError());
            }
        }
        provider.stop();
        device.openGate();
    }
}

// Feeds requested from two threads against a device that delivers as fast as
// the loop reads: each must be one gapless stretch of the counter stream that
// begins with the ring's newest offset. A slow log appender stretches the
// time a request spends on its warning, so capture gets every chance to slip
// a block in between the registration and the prefill.
TEST_F(ProviderTest, TimeShiftedFeedsRequestedDuringFastCaptureAreGapless)
{
    constexpr int RingBytes = 50 * 192;
    LogHook slowWarnings(WARN_LOG_LEVEL, [] { QThread::usleep(1000); });
    ScriptedInputDevice device;
    AudioInputDataProvider provider(&device, 50, 64);
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.deliveredFrames > RingBytes / 4; }));   // no silence left in the ring

    auto requestFeeds = [&](int seed) {
        QStringList defects;
        for (int i = 0; i < 150; ++i) {
            const int offsetMs = (i * 7 + seed) % 60;   // some beyond the ring, some 0
            FeedRecorder feed(provider.liveFeedWithOffset(offsetMs));
            const int prefillBytes = qMin(offsetMs * 192, RingBytes);
            if (!waitUntil([&] { return feed.bytes().size() >= prefillBytes + 4096; })) {
                defects << QStringLiteral("feed %1 starved").arg(i);
                continue;
            }
            feed.transfer().finish(CMError());
            const QList<QByteArray> blocks = feed.blocks();
            if (prefillBytes > 0 && blocks.first().size() != prefillBytes)
                defects << QStringLiteral("feed %1 began with %2 bytes").arg(i).arg(blocks.first().size());
            const QString defect = counterStreamDefect(feed.bytes());
            if (!defect.isEmpty())
                defects << QStringLiteral("feed %1 (offset %2 ms): %3").arg(i).arg(offsetMs).arg(defect);
        }
        return defects;
    };
    auto other = std::async(std::launch::async, requestFeeds, 3);
    const QStringList defects = requestFeeds(0) + other.get();
    EXPECT_TRUE(defects.isEmpty()) << defects.join('\n').toStdString();
}

// A block captured while a feed's prefill is on its way is kept back for it;
// when capture stops right after, the closing step still hands it over before
// finishing the feed. The request is held in its warning (a blocking log
// appender) so that exactly one block falls into that window.
TEST_F(ProviderTest, BlockKeptBackDuringThePrefillStillArrivesWhenCaptureStops)
{
    ScriptedInputDevice device;
    device.closeGate();
    AudioInputDataProvider provider(&device, 100, 480);
    std::promise<void> requestWarned, warningDone, blockAtLive, liveDone;
    std::shared_future<void> warningMayEnd = warningDone.get_future().share();
    std::shared_future<void> liveMayEnd = liveDone.get_future().share();
    LogHook blockingWarnings(WARN_LOG_LEVEL, [&] {
        requestWarned.set_value();
        warningMayEnd.wait();
    });
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable([&](const QByteArray&) {
        blockAtLive.set_value();
        liveMayEnd.wait();
    });
    provider.start();
    // The run logs as it starts; it must be waiting in its first read before
    // the request blocks every other thread's logging in the hook.
    ASSERT_TRUE(waitUntil([&] { return device.reads == 1; }));

    auto request = std::async(std::launch::async, [&] { return provider.liveFeedWithOffset(150); });
    requestWarned.get_future().wait();   // registered, prefill not handed over yet
    device.permit(1);
    blockAtLive.get_future().wait();     // the block went past the held feed
    warningDone.set_value();             // (logging elsewhere waits for the hook)
    CMBufferedDataTransfer feed = request.get();   // prefill handed over, feed released
    provider.stop();
    liveDone.set_value();
    ASSERT_TRUE(waitUntil([&] { return feed.isFinished(); }));
    EXPECT_TRUE(feed.readAll() == QByteArray(19200, '\0') + device.frames(1, 480));
    device.openGate();
}

// The worker built the way the provider builds it, with its event loop held so
// that the run start() queues is reached only after stop().
TEST_F(ProviderTest, RunQueuedBehindAStopClosesWithoutOpening)
{
    ScriptedInputDevice device;
    AudioInputDevice* devicePointer = &device;
    unsigned int bufferMs = 100;
    unsigned int readFrames = 480;
    AudioInputDataProviderThread* worker =
        createInNewQThread<AudioInputDataProviderThread>("AudioInputT", devicePointer, bufferMs, readFrames);
    QThread* thread = worker->thread();
    EXPECT_NE(thread, QThread::currentThread());
    FeedRecorder live(worker->liveFeed());
    FeedRecorder shifted(worker->liveFeedWithOffset(20));

    std::promise<void> release;
    QMetaObject::invokeMethod(worker, [held = release.get_future().share()] { held.wait(); });
    m_log.clear();
    worker->start();
    worker->stop();
    release.set_value();
    ASSERT_TRUE(waitUntil([&] { return live.isFinished(); }));
    EXPECT_TRUE(shifted.isFinished());
    EXPECT_EQ(device.opens, 0);
    EXPECT_EQ(device.closes, 1);
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
              (QStringList{"Enter void AudioInputDataProviderThread::start(): ",
                           "Enter void AudioInputDataProviderThread::stop(): ", StartLine, ClosingLine}));

    worker->deleteLater();
    thread->quit();
    thread->wait();
}

TEST_F(ProviderTest, SecondStartWhileCapturingClosesOnceMoreAfterTheStop)
{
    ScriptedInputDevice device;
    device.closeGate();
    AudioInputDataProvider provider(&device, 100, 480);
    FeedRecorder live(provider.liveFeed());
    provider.start();
    provider.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 1; }));
    provider.stop();
    device.openGate();
    ASSERT_TRUE(waitUntil([&] { return device.closes == 2; }));
    EXPECT_EQ(device.opens, 1);
    EXPECT_EQ(device.reads, 1);
    EXPECT_TRUE(live.isFinished());
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, StartLine), 2);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, ClosingLine), 2);
}

// Read errors restart the run every 2000 ms with the device left open; an
// open error ends the retries until the next start(). Destroyed meanwhile,
// the provider finishes nothing, and finishing its feeds afterwards is safe.
TEST_F(ProviderTest, FailingDeviceRetriesReadsEvery2000MsAndOpensOncePerStart)
{
    const QString readError = QStringLiteral("Error while reading the input device, restarting provider in 2000 ms");
    const QString openError = QStringLiteral("Unable to open audio input device: Scripted Device");
    ScriptedInputDevice device;
    device.failReads = true;
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
    FeedRecorder live(provider->liveFeed());
    FeedRecorder shifted(provider->liveFeedWithOffset(20));

    QElapsedTimer timer;
    provider->start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 1; }));
    timer.start();
    ASSERT_TRUE(waitUntil([&] { return device.reads == 2; }, 4000));
    const qint64 firstRetryMs = timer.restart();
    device.failOpen = true;
    ASSERT_TRUE(waitUntil([&] { return device.opens == 3; }, 4000));
    for (qint64 retryMs : {firstRetryMs, timer.elapsed()}) {
        EXPECT_GE(retryMs, 1880);   // a coarse timer may fire up to 5 % early
        EXPECT_LE(retryMs, 2300);
    }
    ASSERT_TRUE(waitUntil([&] { return m_log.count(ERROR_LOG_LEVEL, openError) == 1; }));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), (QStringList{readError, readError, openError}));
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, StartLine), 3);

    QThread::msleep(2300);
    EXPECT_EQ(device.opens, 3);
    provider->start();
    ASSERT_TRUE(waitUntil([&] { return m_log.count(ERROR_LOG_LEVEL, openError) == 2; }));
    EXPECT_EQ(device.opens, 4);

    provider.reset();
    EXPECT_EQ(device.closes, 0);
    EXPECT_FALSE(live.isFinished());
    EXPECT_FALSE(shifted.isFinished());
    shifted.transfer().finish(CMError());   // its callback finds the worker gone
    live.transfer().finish(CMError());
    EXPECT_TRUE(shifted.isFinished());
}

TEST_F(ProviderTest, WorkerLivesInItsOwnThreadNamedAudioInputTUntilTheProviderGoes)
{
    ScriptedInputDevice idle;
    auto provider = std::make_unique<AudioInputDataProvider>(&idle, 100, 480);
    FeedRecorder idleLive(provider->liveFeed());
    FeedRecorder idleShifted(provider->liveFeedWithOffset(20));
    provider.reset();
    EXPECT_EQ(idle.opens + idle.reads + idle.closes, 0);
    EXPECT_FALSE(idleLive.isFinished());
    EXPECT_FALSE(idleShifted.isFinished());
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL).value(0),
              "Enter AudioInputDataProvider::AudioInputDataProvider(AudioInputDevice*, unsigned int, unsigned int): ");

    ScriptedInputDevice device;
    device.closeGate();
    provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
    FeedRecorder live(provider->liveFeed());
    FeedRecorder shifted(provider->liveFeedWithOffset(20));
    provider->start();
    device.permit(3);
    ASSERT_TRUE(waitUntil([&] { return live.blockCount() == 3; }));
    QPointer<QThread> thread = device.openThread.load();
    EXPECT_NE(thread.data(), QThread::currentThread());
    EXPECT_EQ(device.openThreadName(), "AudioInputT");

    device.openGate();
    provider.reset();
    EXPECT_TRUE(live.isFinished());
    EXPECT_TRUE(shifted.isFinished());
    EXPECT_EQ(device.closes, 1);
    ASSERT_FALSE(thread.isNull());
    EXPECT_TRUE(thread->isFinished());
    deleteFinishedThreadObjects();
    EXPECT_TRUE(thread.isNull());
}

// start() right before destruction: whether the worker thread's event loop
// reaches the queued run before it quits is a race, which the worker's
// destructor settles by carrying out a run still queued. Either way every feed
// is finished and the device closed when the destructor returns.
TEST_F(ProviderTest, StartRightBeforeDestructionStillFinishesEveryFeed)
{
    for (int i = 0; i < 40; ++i) {
        SCOPED_TRACE(i);
        ScriptedInputDevice device;
        auto provider = std::make_unique<AudioInputDataProvider>(&device, 100, 480);
        FeedRecorder live(provider->liveFeed());
        FeedRecorder shifted(provider->liveFeedWithOffset(20));
        provider->start();
        provider.reset();
        EXPECT_TRUE(live.isFinished());
        EXPECT_TRUE(shifted.isFinished());
        EXPECT_EQ(device.closes, 1);
    }
}

// Real ALSA capture through the file plugin: the live feed and two
// time-shifted feeds receive the file complete and in order, and a feed
// requested after N blocks starts with exactly the newest 250 ms.
TEST_F(ProviderTest, AlsaCaptureReachesEveryFeedComplete)
{
    constexpr int BlockBytes = 480 * 4;
    constexpr int ParkAfter = 60;
    const QByteArray data = patternBytes(100 * BlockBytes, 7);
    AlsaInputDevice device("cap_file:INFILE=" + writeDataFile("provider_capture.raw", data), 48000, 2,
                           SND_PCM_FORMAT_S16_LE, 10, 100);
    auto provider = std::make_unique<AudioInputDataProvider>(&device, 500, 480);
    FeedRecorder early(provider->liveFeedWithOffset(100));

    // The live feed's consumer parks capture after ParkAfter blocks, and stops
    // it at the file's end: past it the file plugin would deliver garbage.
    std::promise<void> parked, resume;
    std::shared_future<void> resumed = resume.get_future().share();
    QByteArray live;
    std::atomic<bool> liveFinished{false};
    CMUnbufferedDataTransfer liveFeed = provider->liveFeed();
    liveFeed.onDataAvailable([&, running = provider.get()](const QByteArray& block) {
        live += block;
        if (live.size() == ParkAfter * BlockBytes) {
            parked.set_value();
            resumed.wait();
        }
        if (live.size() == data.size())
            running->stop();
    });
    liveFeed.onFinished([&](const CMError&) { liveFinished = true; });

    provider->start();
    parked.get_future().wait();
    FeedRecorder late(provider->liveFeedWithOffset(250));
    resume.set_value();
    ASSERT_TRUE(waitUntil([&] { return liveFinished && early.isFinished() && late.isFinished(); }));
    EXPECT_TRUE(live == data);
    EXPECT_TRUE(early.bytes() == QByteArray(19200, '\0') + data);
    EXPECT_EQ(late.blocks().value(0).size(), 48000);
    EXPECT_TRUE(late.bytes() == data.mid(ParkAfter * BlockBytes - 48000));
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).isEmpty());
    provider.reset();
    EXPECT_FALSE(device.isOpened());
}
