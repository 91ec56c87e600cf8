// Soak load for scripts/soak.sh: capture from ALSA's "pulse" PCM through a
// provider whose time-shifted feeds come and go, playback to the same server
// with occasional xruns and reopens, and a mixer card whose elements are
// reloaded while the script changes the volume from outside. Runs for the
// given number of seconds, then prints what it did and every ERROR line kind
// the library logged. The script samples this process from outside.

#include "AlsaCard.h"
#include "AlsaInputDevice.h"
#include "AlsaOutputDevice.h"
#include "AudioInputDataProvider.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMap>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>

namespace {

std::atomic<bool> s_running{true};

// Counts the library's WARN and ERROR records by message, numbers left out.
class CountingAppender : public log4cplus::Appender
{
public:
    ~CountingAppender() override { destructorImpl(); }
    void close() override {}
    QMap<QString, int> counts() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_counts;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (event.getLogLevel() < log4cplus::WARN_LOG_LEVEL)
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        static const QRegularExpression number(QStringLiteral("-?[0-9]+"));
        ++m_counts[QString::fromStdString(event.getMessage()).replace(number, QStringLiteral("#"))];
    }

private:
    mutable std::mutex m_mutex;
    QMap<QString, int> m_counts;
};

struct Totals
{
    std::atomic<qint64> capturedBytes{0};
    std::atomic<int> feeds{0};
    std::atomic<int> providers{0};
    std::atomic<int> writes{0};
    std::atomic<int> xruns{0};
    std::atomic<int> reopens{0};
    std::atomic<int> changed{0};
    std::atomic<int> reloads{0};
};

// A provider that is replaced every 20 s; feeds of random offsets that each
// live up to 2 s.
void captureForAWhile(AlsaInputDevice* device, std::mt19937& random, Totals* totals)
{
    AudioInputDataProvider provider(device, 2000, 480);
    ++totals->providers;
    auto count = [totals](const QByteArray& block) { totals->capturedBytes += block.size(); };
    CMUnbufferedDataTransfer live = provider.liveFeed();
    live.onDataAvailable(count);
    provider.start();
    QList<QPair<qint64, CMBufferedDataTransfer>> feeds;   // with the time each is finished
    QElapsedTimer clock;
    clock.start();
    while (s_running && clock.elapsed() < 20000) {
        CMBufferedDataTransfer feed = provider.liveFeedWithOffset(random() % 2500);
        feed.onDataAvailable(count);
        feeds.append({clock.elapsed() + static_cast<qint64>(random() % 2000), feed});
        ++totals->feeds;
        for (int i = feeds.size() - 1; i >= 0; --i) {
            if (feeds.at(i).first <= clock.elapsed()) {
                feeds[i].second.finish(CMError());
                feeds.removeAt(i);
            }
        }
        QThread::msleep(50);
    }
    provider.stop();
}

void captureThread(Totals* totals)
{
    std::mt19937 random(1);
    AlsaInputDevice device("pulse", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 200);
    while (s_running) {
        captureForAWhile(&device, random, totals);
        // The provider's thread object deletes itself through the event
        // queue of the thread that made it, which runs no event loop here.
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

// 20 ms blocks in real time; every 10 s a pause that runs the buffer dry,
// and every 30 s a close and reopen.
void playback(Totals* totals)
{
    AlsaOutputDevice device("pulse", 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    const QByteArray block(960 * 4, '\0');
    QElapsedTimer clock;
    clock.start();
    qint64 nextPause = 10000, nextReopen = 30000;
    while (s_running) {
        if (!device.isOpened() && !device.open()) {
            QThread::msleep(500);
            continue;
        }
        const AudioOutputDevice::WriteResult result = device.write(block);
        ++totals->writes;
        totals->xruns += result == AudioOutputDevice::XrunRecovered;
        device.delay(nullptr);
        if (clock.elapsed() > nextPause) {
            QThread::msleep(300);
            nextPause += 10000;
        }
        if (clock.elapsed() > nextReopen) {
            device.close(AudioOutputDevice::Drain);
            ++totals->reopens;
            nextReopen += 30000;
        }
    }
    device.close(AudioOutputDevice::Immediate);
}

} // namespace

static void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...)
{
}

int main(int argc, char** argv)
{
    snd_lib_error_set_handler(silentAlsaErrorHandler);   // the log counts tell
    log4cplus::Initializer initializer;
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? atoi(argv[1]) : 600;
    log4cplus::SharedAppenderPtr counter(new CountingAppender);
    log4cplus::Logger::getInstance("AudioLib").addAppender(counter);
    std::signal(SIGTERM, [](int) { s_running = false; });
    std::signal(SIGINT, [](int) { s_running = false; });

    Totals totals;
    std::thread capturing(captureThread, &totals);
    std::thread playing(playback, &totals);

    // The mixer lives on this thread's event loop; its elements are dropped
    // and loaded again every 5 s while the script changes the volume.
    AlsaCard card("pulse", true);
    AlsaMixerElementPtr master;
    auto reload = [&] {
        if (!card.isOpen())
            card.open();
        master = card.loadMixerElement("master");
        if (master)
            QObject::connect(master.data(), &AlsaMixerElement::changed, [&] { ++totals.changed; });
        ++totals.reloads;
    };
    reload();
    QTimer reloads;
    QObject::connect(&reloads, &QTimer::timeout, [&] {
        master.reset();
        reload();
    });
    reloads.start(5000);
    QTimer stop;
    QObject::connect(&stop, &QTimer::timeout, [&] {
        if (!s_running)
            app.quit();
    });
    stop.start(100);
    QTimer::singleShot(seconds * 1000, [] { s_running = false; });
    app.exec();

    capturing.join();
    playing.join();
    master.reset();
    printf("captured %lld bytes, %d providers, %d feeds; %d writes, %d xruns, %d reopens; "
           "%d mixer changes seen over %d reloads\n",
           static_cast<long long>(totals.capturedBytes.load()), totals.providers.load(), totals.feeds.load(),
           totals.writes.load(), totals.xruns.load(), totals.reopens.load(), totals.changed.load(),
           totals.reloads.load());
    const QMap<QString, int> counts = static_cast<CountingAppender*>(counter.get())->counts();
    for (auto it = counts.cbegin(); it != counts.cend(); ++it)
        printf("%6d x %s\n", it.value(), qPrintable(it.key()));
    log4cplus::Logger::getInstance("AudioLib").removeAppender(counter);
    return 0;
}
