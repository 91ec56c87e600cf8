// quil-soak: a host program under sound-server faults, for scripts/fault-soak.sh.
// Through one ALSA device it captures (a live feed and time-shifted feeds that
// come and go), plays a tone and watches and changes a mixer element, and
// recovers each the way the host's guide tells hosts to; meanwhile a thread of its
// own kills the private sound server (SIGKILL) and starts it again at random.
// It prints what it counted and measured as "key value" lines.
// Usage: quil-soak PCM SERVER(pulseaudio|pipewire) SERVER_DIR SECONDS [SEED]
// with the server that scripts/lib/soundserver.sh started in SERVER_DIR, and
// that script's path in QUIL_SOUND_SERVER_SCRIPT.

#include "AlsaCard.h"
#include "AlsaInputDevice.h"
#include "AlsaOutputDevice.h"
#include "AudioInputDataProvider.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTimer>

#include <alsa/asoundlib.h>
#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

QElapsedTimer g_clock;
qint64 nowMs() { return g_clock.elapsed(); }

// Counts the library's ERROR lines without writing them: a PCM that fails in a
// loop would fill a disk.
class ErrorCounter : public log4cplus::Appender {
public:
    ~ErrorCounter() override { destructorImpl(); }
    void close() override {}
    std::atomic<long> errors{0};

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL)
            ++errors;
    }
};

struct Resources {
    long rssKb = 0;
    int fds = 0;
    int threads = 0;
};

Resources sampleResources()
{
    Resources r;
    QFile status(QStringLiteral("/proc/self/status"));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                r.rssKb = line.mid(6).trimmed().split(' ').value(0).toLong();
        }
    }
    r.fds = static_cast<int>(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
    r.threads =
        static_cast<int>(QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
    return r;
}

// What the fault thread and the host's threads share.
struct Shared {
    std::atomic<bool> done{false};
    std::atomic<qint64> lastBlockMs{0}, serverReturnMs{-1}, lastWriteMs{0}, firstKillMs{-1};
    std::atomic<int> kills{0}, returns{0}, resumed{0};
    std::mutex mutex;
    std::vector<qint64> resumeDelays; // server's return to the first block, ms
};

// Kills the server and starts it again: outages of 0.2 to 10 s every 10 to 40 s.
void injectFaults(Shared* s, const QString& server, const QString& dir, int seconds, unsigned seed)
{
    std::mt19937 random(seed);
    const QString script = qEnvironmentVariable("QUIL_SOUND_SERVER_SCRIPT");
    const auto run = [&](const QStringList& args) { return QProcess::execute(script, args + QStringList{dir}) == 0; };
    const auto pause = [&](qint64 ms) {
        for (const qint64 end = nowMs() + ms; nowMs() < end && !s->done;)
            usleep(50000);
    };
    for (;;) {
        pause(std::uniform_int_distribution<int>(10000, 40000)(random));
        if (s->done || nowMs() > seconds * 1000LL - 25000)
            return;
        run({QStringLiteral("kill")});
        if (s->kills++ == 0)
            s->firstKillMs = nowMs();
        pause(std::uniform_int_distribution<int>(200, 10000)(random));
        while (!run({QStringLiteral("--server"), server, QStringLiteral("start")}))
            pause(1000);
        s->serverReturnMs = nowMs();
        ++s->returns;
        // The sink's volume changed from outside, for the watched element.
        QProcess::execute(QStringLiteral("pactl"),
                          {QStringLiteral("set-sink-volume"), QStringLiteral("@DEFAULT_SINK@"),
                           QStringLiteral("%1%").arg(std::uniform_int_distribution<int>(20, 100)(random))});
    }
}

void noteBlock(Shared* s)
{
    const qint64 now = nowMs();
    s->lastBlockMs = now;
    const qint64 back = s->serverReturnMs.exchange(-1);
    if (back >= 0) {
        std::lock_guard<std::mutex> lock(s->mutex);
        s->resumeDelays.push_back(now - back);
        ++s->resumed;
    }
}

struct PlaybackFigures {
    std::atomic<long> writes{0}, xruns{0}, closes{0}, reopens{0}, xrunReopens{0};
};

// The host's playback thread: a tone in 20 ms blocks; a closed device is
// opened again half a second later, as long as it takes. A device that only
// reports xruns (a PCM whose server died may do so at once, every time) is
// closed and opened afresh too.
void play(const QString& pcm, Shared* s, PlaybackFigures* f)
{
    AlsaOutputDevice out(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    QByteArray tone(960 * 4, '\0');
    for (int i = 0; i < 960; ++i) {
        const auto v = static_cast<qint16>(8000 * std::sin(2 * M_PI * 440 * i / 48000.0));
        std::memcpy(tone.data() + static_cast<qsizetype>(i) * 4, &v, 2);
        std::memcpy(tone.data() + static_cast<qsizetype>(i) * 4 + 2, &v, 2);
    }
    bool closed = false;
    int xrunsInARow = 0;
    while (!s->done) {
        if (xrunsInARow == 50) {
            out.close(AudioOutputDevice::Immediate);
            xrunsInARow = 0;
            closed = true;
            ++f->xrunReopens;
        }
        if (!out.isOpened()) {
            if (!out.open()) {
                usleep(500000);
                continue;
            }
            f->reopens += closed ? 1 : 0;
        }
        const AudioOutputDevice::WriteResult result = out.write(tone);
        ++f->writes;
        f->xruns += result == AudioOutputDevice::XrunRecovered ? 1 : 0;
        xrunsInARow = result == AudioOutputDevice::XrunRecovered ? xrunsInARow + 1 : 0;
        closed = result == AudioOutputDevice::DeviceClosed;
        f->closes += closed ? 1 : 0;
        s->lastWriteMs = nowMs();
    }
}

double median(std::vector<qint64> v)
{
    if (v.empty())
        return -1;
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2.0;
}

void silentAlsaErrors(const char*, int, const char*, int, const char*, ...) {}

// ALSA's own messages silenced; the library's warnings and errors go to the
// counter, which the logger owns.
ErrorCounter* countLibraryErrors()
{
    snd_lib_error_set_handler(silentAlsaErrors);
    auto* counter = new ErrorCounter;
    log4cplus::Logger logger = log4cplus::Logger::getInstance("AudioLib");
    logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    logger.addAppender(log4cplus::SharedAppenderPtr(counter));
    return counter;
}

struct Settings {
    QString pcm, server, serverDir;
    int seconds = 0;
    unsigned seed = 0;
};

Settings readSettings(const QStringList& args)
{
    Settings settings;
    settings.pcm = args[1];
    settings.server = args[2];
    settings.serverDir = args[3];
    settings.seconds = args[4].toInt();
    settings.seed = args.size() > 5 ? args[5].toUInt() : static_cast<unsigned>(getpid());
    return settings;
}

struct CaptureFigures {
    std::atomic<qint64> delivered{0};
    std::atomic<int> openFailures{0};
    int feedsTaken = 0, hostStarts = 0, newMainFeeds = 0;
};

// Capture: a live feed, and time-shifted feeds that attach and detach.
class CaptureHost {
public:
    CaptureHost(const QString& pcm, Shared* shared, std::mt19937* random);
    quil::CaptureStatus status() const { return m_provider.captureStatus(); }
    const CaptureFigures& figures() const { return m_figures; }
    void stopFeedChurn() { m_feedChurn.stop(); }
    void stop();

private:
    void watch(CMDataTransfer& feed, bool main);
    void churnFeeds();
    void restartAfterError();

    Shared* m_shared;
    std::mt19937* m_random;
    CaptureFigures m_figures;
    AlsaInputDevice m_device;
    AudioInputDataProvider m_provider;
    CMDataTransfer m_mainFeed;
    QList<QPair<qint64, CMBufferedDataTransfer>> m_shiftedFeeds;
    QTimer m_feedChurn;
    QTimer m_hostRetry;
};

CaptureHost::CaptureHost(const QString& pcm, Shared* shared, std::mt19937* random)
    : m_shared(shared)
    , m_random(random)
    , m_device(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 200)
    , m_provider(&m_device, 2000, 960)
    , m_mainFeed(m_provider.liveFeed())
{
    watch(m_mainFeed, true);
    QObject::connect(&m_feedChurn, &QTimer::timeout, [this] { churnFeeds(); });
    m_feedChurn.start(700);
    QObject::connect(&m_hostRetry, &QTimer::timeout, [this] { restartAfterError(); });
    m_hostRetry.start(2000);
    m_provider.setCaptureStatusListener([this](const quil::CaptureStatus& status) {
        if (status.state == quil::CaptureState::Stopped && !status.errorString.isEmpty())
            ++m_figures.openFailures;
    });
    m_provider.start();
}

void CaptureHost::stop()
{
    m_hostRetry.stop();
    m_provider.stop();
}

void CaptureHost::watch(CMDataTransfer& feed, bool main)
{
    feed.onDataAvailable([this, main](const QByteArray& block) {
        m_figures.delivered += block.size();
        if (main)
            noteBlock(m_shared);
    });
}

void CaptureHost::churnFeeds()
{
    for (int i = m_shiftedFeeds.size() - 1; i >= 0; --i) {
        if (m_shiftedFeeds[i].first < nowMs()) {
            m_shiftedFeeds[i].second.finish(CMError());
            m_shiftedFeeds.removeAt(i);
        }
    }
    if (m_shiftedFeeds.size() < 6) {
        CMBufferedDataTransfer feed =
            m_provider.liveFeedWithOffset(std::uniform_int_distribution<int>(0, 2000)(*m_random));
        watch(feed, false);
        m_shiftedFeeds.append({nowMs() + std::uniform_int_distribution<int>(500, 5000)(*m_random), feed});
        ++m_figures.feedsTaken;
    }
}

// The host's guide's recipe: while capture is stopped with an error (its device
// did not open), start it again every 2 s from this thread (a repeated
// failure changes no status, so the listener alone would not do); a live
// feed that a stop finished is replaced by a time-shifted feed at offset 0.
void CaptureHost::restartAfterError()
{
    const quil::CaptureStatus status = m_provider.captureStatus();
    if (status.state != quil::CaptureState::Stopped || status.errorString.isEmpty())
        return;
    ++m_figures.hostStarts;
    m_provider.start();
    if (m_mainFeed.isFinished()) {
        m_mainFeed = m_provider.liveFeedWithOffset(0);
        watch(m_mainFeed, true);
        ++m_figures.newMainFeeds;
    }
}

struct MixerFigures {
    long changes = 0, reopens = 0, sets = 0;
};

// Mixer: "Master" watched, set every half second, the card opened again
// after it closed itself.
class MixerHost {
public:
    MixerHost(const QString& pcm, std::mt19937* random);
    const MixerFigures& figures() const { return m_figures; }
    void stop() { m_timer.stop(); }

private:
    void tick();

    std::mt19937* m_random;
    AlsaCard m_card;
    AlsaMixerElementPtr m_master;
    MixerFigures m_figures;
    QTimer m_timer;
};

MixerHost::MixerHost(const QString& pcm, std::mt19937* random)
    : m_random(random)
    , m_card(pcm, true)
{
    QObject::connect(&m_timer, &QTimer::timeout, [this] { tick(); });
    m_timer.start(500);
}

void MixerHost::tick()
{
    if (!m_card.isOpen()) {
        m_master.reset();
        if (!m_card.open())
            return;
        ++m_figures.reopens;
    }
    if (!m_master) {
        m_master = m_card.loadMixerElement(QStringLiteral("Master"));
        if (m_master)
            QObject::connect(m_master.data(), &AlsaMixerElement::changed, [this] { ++m_figures.changes; });
        return;
    }
    long min = 0, max = 0;
    if (m_master->getVolumeRange(&min, &max, Playback) && max > min
        && m_master->setVolume(std::uniform_int_distribution<long>(min, max)(*m_random), Playback))
        ++m_figures.sets;
}

// Resources once everything runs, and every 10 s. A capture that is
// "running" but has delivered nothing for 30 s is stuck inside the device's
// read(), which nothing can end; the run ends there, as it does when the
// process has grown by 300 MB (a PCM that fails in a loop may leak).
class Watchdog {
public:
    Watchdog(const CaptureHost* capture, const Shared* shared, int seconds);
    Resources first() const { return m_first; }
    Resources last() const { return m_last; }
    const QList<Resources>& samples() const { return m_samples; }
    qint64 stalledAtMs() const { return m_stalledAtMs; }
    qint64 longestRunningGapMs() const { return m_longestRunningGapMs; }

private:
    void check();

    const CaptureHost* m_capture;
    const Shared* m_shared;
    int m_seconds;
    Resources m_first, m_last;
    QList<Resources> m_samples;
    qint64 m_stalledAtMs = -1, m_longestRunningGapMs = 0;
    QTimer m_sampler;
};

Watchdog::Watchdog(const CaptureHost* capture, const Shared* shared, int seconds)
    : m_capture(capture)
    , m_shared(shared)
    , m_seconds(seconds)
{
    // The first sample after 5 s, once start-up has settled, then one a second.
    QObject::connect(&m_sampler, &QTimer::timeout, [this] {
        m_sampler.setInterval(1000);
        check();
    });
    m_sampler.start(5000);
}

void Watchdog::check()
{
    m_last = sampleResources();
    if (nowMs() / 1000 % 10 == 5 || m_samples.isEmpty())
        m_samples << m_last;
    m_first = m_samples.first();
    const bool running = m_capture->status().state == quil::CaptureState::Running;
    if (running)
        m_longestRunningGapMs = std::max(m_longestRunningGapMs, nowMs() - m_shared->lastBlockMs);
    const bool stuck = running && nowMs() - m_shared->lastBlockMs > 30000;
    if (m_stalledAtMs < 0 && (stuck || m_last.rssKb > m_first.rssKb + 300000))
        m_stalledAtMs = nowMs();
    if (m_stalledAtMs >= 0 || nowMs() >= m_seconds * 1000LL)
        QCoreApplication::quit();
}

// The "key value" lines: scripts/fault-soak.sh picks its table's rows by key.
void report(const Settings& settings, Shared* shared, const CaptureHost& capture, const PlaybackFigures& playback,
            const MixerHost& mixer, const ErrorCounter& errors, const Watchdog& watchdog)
{
    const CaptureFigures& c = capture.figures();
    std::printf("pcm %s\nseconds %d\nseed %u\n", qPrintable(settings.pcm), settings.seconds, settings.seed);
    std::printf("kills %d\nserver_returns %d\nkills_resumed %d\n", shared->kills.load(), shared->returns.load(),
                shared->resumed.load());
    std::printf("status_restarts %d\nopen_failures %d\nhost_starts %d\nnew_main_feeds %d\n",
                capture.status().restartCount, c.openFailures.load(), c.hostStarts, c.newMainFeeds);
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        const qint64 worst = shared->resumeDelays.empty()
                                 ? -1
                                 : *std::max_element(shared->resumeDelays.begin(), shared->resumeDelays.end());
        std::printf("resume_ms_median %.0f\nresume_ms_max %lld\n", median(shared->resumeDelays),
                    static_cast<long long>(worst));
    }
    const qint64 stalledAtMs = watchdog.stalledAtMs();
    std::printf("capture_stalled_at_s %lld\nfeeds_taken %d\ndelivered_mb %.1f\n",
                static_cast<long long>(stalledAtMs < 0 ? -1 : stalledAtMs / 1000), c.feedsTaken, c.delivered / 1e6);
    std::printf("playback_writes %ld\nplayback_xruns %ld\nplayback_closes %ld\nplayback_reopens %ld\n"
                "playback_xrun_reopens %ld\n",
                playback.writes.load(), playback.xruns.load(), playback.closes.load(), playback.reopens.load(),
                playback.xrunReopens.load());
    const MixerFigures& m = mixer.figures();
    std::printf("mixer_reopens %ld\nmixer_changes %ld\nmixer_sets %ld\nerror_lines %ld\n", m.reopens, m.changes, m.sets,
                errors.errors.load());
    const Resources first = watchdog.first(), last = watchdog.last();
    std::printf("rss_kb %ld %ld\nfds %d %d\nthreads %d %d\n", first.rssKb, last.rssKb, first.fds, last.fds,
                first.threads, last.threads);
    QStringList rss;
    for (const Resources& r : watchdog.samples())
        rss << QString::number(r.rssKb);
    std::printf("rss_samples %s\n", qPrintable(rss.join(' ')));
    std::printf("first_kill_at_s %.1f\nlongest_running_gap_s %lld\n", shared->firstKillMs / 1000.0,
                static_cast<long long>(watchdog.longestRunningGapMs() / 1000));
}

// A capture or playback stuck inside ALSA can be neither stopped nor
// destroyed: the figures are out, so leave without waiting for it.
bool stuckInAlsa(const CaptureHost& capture, const Shared& shared, const Watchdog& watchdog)
{
    const bool captureStuck =
        capture.status().state == quil::CaptureState::Running && nowMs() - shared.lastBlockMs > 10000;
    const bool playbackStuck = nowMs() - shared.lastWriteMs > 10000;
    return watchdog.stalledAtMs() >= 0 || captureStuck || playbackStuck;
}

} // namespace

int main(int argc, char** argv)
{
    log4cplus::Initializer logInitializer;
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.size() < 5) {
        std::fprintf(stderr, "usage: quil-soak PCM pulseaudio|pipewire SERVER_DIR SECONDS [SEED]\n");
        return 2;
    }
    const Settings settings = readSettings(args);
    const ErrorCounter* errors = countLibraryErrors();
    g_clock.start();
    Shared shared;
    std::mt19937 random(settings.seed + 1);

    CaptureHost capture(settings.pcm, &shared, &random);
    MixerHost mixer(settings.pcm, &random);
    PlaybackFigures playback;
    std::thread player(play, settings.pcm, &shared, &playback);
    std::thread faults(injectFaults, &shared, settings.server, settings.serverDir, settings.seconds, settings.seed);
    Watchdog watchdog(&capture, &shared, settings.seconds);
    app.exec();

    shared.done = true;
    capture.stopFeedChurn();
    mixer.stop();
    faults.join();
    report(settings, &shared, capture, playback, mixer, *errors, watchdog);

    const bool stuck = stuckInAlsa(capture, shared, watchdog);
    capture.stop();
    if (stuck) {
        std::printf("exit without teardown (capture or playback stuck in ALSA)\n");
        std::fflush(stdout);
        _exit(3);
    }
    player.join();
    std::fflush(stdout);
    return 0;
}
