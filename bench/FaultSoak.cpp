// quil-soak: a host program under sound-server faults, for scripts/fault-soak.sh.
// Through one ALSA device it captures (a live feed and time-shifted feeds that
// come and go), plays a tone and watches and changes a mixer element, and
// recovers each the way the README tells hosts to; meanwhile a thread of its
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
    const QString& pcm = args[1];
    const int seconds = args[4].toInt();
    const unsigned seed = args.size() > 5 ? args[5].toUInt() : static_cast<unsigned>(getpid());
    snd_lib_error_set_handler(silentAlsaErrors);
    auto* counter = new ErrorCounter;
    log4cplus::Logger logger = log4cplus::Logger::getInstance("AudioLib");
    logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    logger.addAppender(log4cplus::SharedAppenderPtr(counter));
    g_clock.start();
    Shared shared;
    std::mt19937 random(seed + 1);

    // Capture: a live feed, and time-shifted feeds that attach and detach.
    AlsaInputDevice device(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 200);
    AudioInputDataProvider provider(&device, 2000, 960);
    std::atomic<qint64> delivered{0};
    const auto watch = [&shared, &delivered](CMDataTransfer& feed, bool main) {
        feed.onDataAvailable([&shared, &delivered, main](const QByteArray& block) {
            delivered += block.size();
            if (main)
                noteBlock(&shared);
        });
    };
    CMDataTransfer mainFeed = provider.liveFeed();
    watch(mainFeed, true);
    QList<QPair<qint64, CMBufferedDataTransfer>> shiftedFeeds;
    int feedsTaken = 0, hostStarts = 0, newMainFeeds = 0;
    std::atomic<int> openFailures{0};
    QTimer feedChurn;
    QObject::connect(&feedChurn, &QTimer::timeout, [&] {
        for (int i = shiftedFeeds.size() - 1; i >= 0; --i) {
            if (shiftedFeeds[i].first < nowMs()) {
                shiftedFeeds[i].second.finish(CMError());
                shiftedFeeds.removeAt(i);
            }
        }
        if (shiftedFeeds.size() < 6) {
            CMBufferedDataTransfer feed =
                provider.liveFeedWithOffset(std::uniform_int_distribution<int>(0, 2000)(random));
            watch(feed, false);
            shiftedFeeds.append({nowMs() + std::uniform_int_distribution<int>(500, 5000)(random), feed});
            ++feedsTaken;
        }
    });
    feedChurn.start(700);

    // The README's recipe: while capture is stopped with an error (its device
    // did not open), start it again every 2 s from this thread (a repeated
    // failure changes no status, so the listener alone would not do); a live
    // feed that a stop finished is replaced by a time-shifted feed at offset 0.
    QTimer hostRetry;
    QObject::connect(&hostRetry, &QTimer::timeout, [&] {
        const quil::CaptureStatus status = provider.captureStatus();
        if (status.state != quil::CaptureState::Stopped || status.errorString.isEmpty())
            return;
        ++hostStarts;
        provider.start();
        if (mainFeed.isFinished()) {
            mainFeed = provider.liveFeedWithOffset(0);
            watch(mainFeed, true);
            ++newMainFeeds;
        }
    });
    hostRetry.start(2000);
    provider.setCaptureStatusListener([&openFailures](const quil::CaptureStatus& status) {
        if (status.state == quil::CaptureState::Stopped && !status.errorString.isEmpty())
            ++openFailures;
    });
    provider.start();

    // Mixer: "Master" watched, set every half second, the card opened again
    // after it closed itself.
    AlsaCard card(pcm, true);
    AlsaMixerElementPtr master;
    long mixerChanges = 0, mixerReopens = 0, mixerSets = 0;
    QTimer mixerTimer;
    QObject::connect(&mixerTimer, &QTimer::timeout, [&] {
        if (!card.isOpen()) {
            master.reset();
            if (!card.open())
                return;
            ++mixerReopens;
        }
        if (!master) {
            master = card.loadMixerElement(QStringLiteral("Master"));
            if (master)
                QObject::connect(master.data(), &AlsaMixerElement::changed, [&] { ++mixerChanges; });
            return;
        }
        long min = 0, max = 0;
        if (master->getVolumeRange(&min, &max, Playback) && max > min
            && master->setVolume(std::uniform_int_distribution<long>(min, max)(random), Playback))
            ++mixerSets;
    });
    mixerTimer.start(500);

    PlaybackFigures playback;
    std::thread player(play, pcm, &shared, &playback);
    std::thread faults(injectFaults, &shared, args[2], args[3], seconds, seed);

    // Resources once everything runs, and every 10 s. A capture that is
    // "running" but has delivered nothing for 30 s is stuck inside the device's
    // read(), which nothing can end; the run ends there, as it does when the
    // process has grown by 300 MB (a PCM that fails in a loop may leak).
    Resources first, last;
    QList<Resources> samples;
    qint64 stalledAtMs = -1, longestRunningGapMs = 0;
    QTimer sampler;
    const auto check = [&] {
        last = sampleResources();
        if (nowMs() / 1000 % 10 == 5 || samples.isEmpty())
            samples << last;
        first = samples.first();
        const bool running = provider.captureStatus().state == quil::CaptureState::Running;
        if (running)
            longestRunningGapMs = std::max(longestRunningGapMs, nowMs() - shared.lastBlockMs);
        const bool stuck = running && nowMs() - shared.lastBlockMs > 30000;
        if (stalledAtMs < 0 && (stuck || last.rssKb > first.rssKb + 300000))
            stalledAtMs = nowMs();
        if (stalledAtMs >= 0 || nowMs() >= seconds * 1000LL)
            app.quit();
    };
    // The first sample after 5 s, once start-up has settled, then one a second.
    QObject::connect(&sampler, &QTimer::timeout, [&] {
        sampler.setInterval(1000);
        check();
    });
    sampler.start(5000);
    app.exec();

    shared.done = true;
    feedChurn.stop();
    mixerTimer.stop();
    faults.join();
    std::printf("pcm %s\nseconds %d\nseed %u\n", qPrintable(pcm), seconds, seed);
    std::printf("kills %d\nserver_returns %d\nkills_resumed %d\n", shared.kills.load(), shared.returns.load(),
                shared.resumed.load());
    std::printf("status_restarts %d\nopen_failures %d\nhost_starts %d\nnew_main_feeds %d\n",
                provider.captureStatus().restartCount, openFailures.load(), hostStarts, newMainFeeds);
    {
        std::lock_guard<std::mutex> lock(shared.mutex);
        const qint64 worst = shared.resumeDelays.empty()
                                 ? -1
                                 : *std::max_element(shared.resumeDelays.begin(), shared.resumeDelays.end());
        std::printf("resume_ms_median %.0f\nresume_ms_max %lld\n", median(shared.resumeDelays),
                    static_cast<long long>(worst));
    }
    std::printf("capture_stalled_at_s %lld\nfeeds_taken %d\ndelivered_mb %.1f\n",
                static_cast<long long>(stalledAtMs < 0 ? -1 : stalledAtMs / 1000), feedsTaken, delivered / 1e6);
    std::printf("playback_writes %ld\nplayback_xruns %ld\nplayback_closes %ld\nplayback_reopens %ld\n"
                "playback_xrun_reopens %ld\n",
                playback.writes.load(), playback.xruns.load(), playback.closes.load(), playback.reopens.load(),
                playback.xrunReopens.load());
    std::printf("mixer_reopens %ld\nmixer_changes %ld\nmixer_sets %ld\nerror_lines %ld\n", mixerReopens, mixerChanges,
                mixerSets, counter->errors.load());
    std::printf("rss_kb %ld %ld\nfds %d %d\nthreads %d %d\n", first.rssKb, last.rssKb, first.fds, last.fds,
                first.threads, last.threads);
    QStringList rss;
    for (const Resources& r : qAsConst(samples))
        rss << QString::number(r.rssKb);
    std::printf("rss_samples %s\n", qPrintable(rss.join(' ')));
    std::printf("first_kill_at_s %.1f\nlongest_running_gap_s %lld\n", shared.firstKillMs / 1000.0,
                static_cast<long long>(longestRunningGapMs / 1000));

    // A capture or playback stuck inside ALSA can be neither stopped nor
    // destroyed: the figures are out, so leave without waiting for it.
    const bool captureStuck =
        provider.captureStatus().state == quil::CaptureState::Running && nowMs() - shared.lastBlockMs > 10000;
    const bool playbackStuck = nowMs() - shared.lastWriteMs > 10000;
    hostRetry.stop();
    provider.stop();
    if (stalledAtMs >= 0 || captureStuck || playbackStuck) {
        std::printf("exit without teardown (capture or playback stuck in ALSA)\n");
        std::fflush(stdout);
        _exit(3);
    }
    player.join();
    std::fflush(stdout);
    return 0;
}
