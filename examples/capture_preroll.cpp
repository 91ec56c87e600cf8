// Live capture from an ALSA PCM to a consumer with pre-roll: the consumer asks
// for its feed half a second into the capture and still gets the 300 ms before
// its request first, then the live stream. A restarted capture gets a new feed.
// Usage: capture_preroll [PCM [SECONDS]]     (default: "default", 1)

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"

#include <QCoreApplication>
#include <QTimer>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char** argv)
{
    //! [setup]
    // The provider's capture thread deletes itself through this thread's events.
    QCoreApplication app(argc, argv);
    // The library logs to "AudioLib"; without an appender log4cplus says "No appenders".
    log4cplus::Initializer logInitializer;
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::WARN_LOG_LEVEL);
    //! [setup]

    const QString pcm = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("default");
    const int runMs = (argc > 2 ? std::atoi(argv[2]) : 1) * 1000;
    constexpr int Rate = 48000, FrameBytes = 4, PreRollMs = 300;

    //! [capture]
    AlsaInputDevice mic(pcm, Rate, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    // A ring of 1 s (the longest pre-roll a feed can ask for), reads of 20 ms.
    auto provider = std::make_unique<AudioInputDataProvider>(&mic, 1000, Rate / 50);
    std::atomic<qint64> received{0};
    const auto consume = [&](const QByteArray& block) { received += block.size(); };
    CMBufferedDataTransfer feed;

    provider->start();
    QTimer::singleShot(500, [&] {
        // The prefill is handed over here, before the call returns; live blocks
        // follow on the thread "AudioInputT". Keep the handler short.
        feed = provider->liveFeedWithOffset(PreRollMs);
        feed.onDataAvailable(consume);
    });
    //! [capture]
    //! [restart]
    QTimer::singleShot(500 + runMs, [&] {
        if (provider->captureStatus().state != quil::CaptureState::Running)
            return app.quit(); // the PCM did not open, or a read failed
        // stop() finishes every feed once the run has ended, the live one for good.
        feed.onFinished([&](const CMError&) { // on "AudioInputT"
            QMetaObject::invokeMethod(
                &app,
                [&] {
                    std::printf("first run: %lld ms of audio, %d ms of it pre-roll\n",
                                received.load() * 1000 / (Rate * FrameBytes), PreRollMs);
                    received = 0;
                    // A restarted capture is read through a new feed; offset 0: no past audio.
                    provider->start();
                    feed = provider->liveFeedWithOffset(0);
                    feed.onDataAvailable(consume);
                    QTimer::singleShot(500, &app, &QCoreApplication::quit);
                },
                Qt::QueuedConnection);
        });
        provider->stop();
    });
    //! [restart]
    app.exec();

    const quil::CaptureStatus status = provider->captureStatus();
    provider.reset(); // stops, finishes the feed, closes the PCM, ends "AudioInputT"
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    if (!status.errorString.isEmpty()) {
        std::fprintf(stderr, "capture failed: %s\n", qPrintable(status.errorString));
        return 1;
    }
    std::printf("second run: %lld ms of audio\n", received.load() * 1000 / (Rate * FrameBytes));
    return 0;
}
