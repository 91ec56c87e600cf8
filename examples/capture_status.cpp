// A capture status listener: captures from an ALSA PCM for a while and prints
// every change of the capture's state (running, restarting after a read
// failure, stopped) with its reason. Exits 1 when capture failed.
// Usage: capture_status [PCM [SECONDS]]     (default: "default", 1)

#include "AlsaInputDevice.h"
#include "AudioInputDataProvider.h"

#include <QCoreApplication>
#include <QTimer>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    // The provider's capture thread deletes itself through this thread's events.
    QCoreApplication app(argc, argv);
    log4cplus::Initializer logInitializer;
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::WARN_LOG_LEVEL);

    const QString pcm = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("default");
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 1;
    AlsaInputDevice mic(pcm, 48000, 2, SND_PCM_FORMAT_S16_LE, 20, 100);
    quil::CaptureStatus failure;
    {
        AudioInputDataProvider provider(&mic, 0, 960); // no ring: live feed only
        //! [status]
        // Runs on "AudioInputT" at every change: keep it short, never destroy the provider here.
        provider.setCaptureStatusListener([&](const quil::CaptureStatus& status) {
            static const char* const names[] = {"stopped", "running", "restarting"};
            std::printf("capture %s (restarts %d)%s%s\n", names[static_cast<int>(status.state)], status.restartCount,
                        status.errorString.isEmpty() ? "" : ": ", qPrintable(status.errorString));
            if (!status.errorString.isEmpty())
                failure = status;
            if (status.state == quil::CaptureState::Stopped)
                QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection);
        });
        //! [status]
        qint64 bytes = 0; // the live feed's handler runs on "AudioInputT" only
        CMUnbufferedDataTransfer live = provider.liveFeed();
        live.onDataAvailable([&bytes](const QByteArray& block) { bytes += block.size(); });
        provider.start();
        QTimer::singleShot(seconds * 1000, [&provider] { provider.stop(); }); // finishes the live feed for good
        app.exec();
        std::printf("live feed: %lld bytes\n", bytes);
    } // destroying the provider waits for "AudioInputT"
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return failure.errorString.isEmpty() ? 0 : 1;
}
