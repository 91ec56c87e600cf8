// A small client of libquil_audio: it captures a raw file through a
// FileInputDevice and an AudioInputDataProvider, writes what the live feed
// delivers to a FileOutputDevice, and checks that the copy is exact.

#include "AlsaCard.h"
#include "AudioInputDataProvider.h"
#include "FileInputDevice.h"
#include "FileOutputDevice.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <atomic>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // The library logs to the log4cplus logger "AudioLib"; where that goes is
    // the host's choice: here, warnings and errors go to stderr.
    log4cplus::Initializer logInitializer;
    log4cplus::Logger audioLog = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib"));
    audioLog.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender(true)));
    audioLog.setLogLevel(log4cplus::WARN_LOG_LEVEL);

    QTemporaryDir dir;
    constexpr int Rate = 8000;
    constexpr int Channels = 1;
    constexpr _snd_pcm_format Format = SND_PCM_FORMAT_S16_LE;

    // 100 ms of a ramp, as raw interleaved S16_LE.
    QByteArray input(Rate / 10 * 2, Qt::Uninitialized);
    for (int i = 0; i < input.size(); ++i)
        input[i] = static_cast<char>(i * 7);
    QFile inputFile(dir.filePath(QStringLiteral("in.raw")));
    if (!inputFile.open(QIODevice::WriteOnly) || inputFile.write(input) != input.size())
        return 1;
    inputFile.close();

    FileInputDevice source(Rate, Channels, Format);
    source.playFile(inputFile.fileName());
    FileOutputDevice sink(dir.filePath(QStringLiteral("out.raw")), Rate, Channels, Format);
    sink.open();

    std::atomic<int> copied{0};
    {
        // The live feed's handler runs on the provider's thread "AudioInputT";
        // only that thread uses the sink while the provider exists.
        AudioInputDataProvider provider(&source, 0, Rate / 100);
        CMUnbufferedDataTransfer feed = provider.liveFeed();
        feed.onDataAvailable([&](const QByteArray& block) {
            if (copied < input.size()) {
                sink.write(block);
                copied += block.size();
            }
        });
        provider.start();
        QElapsedTimer clock;
        clock.start();
        while (copied < input.size() && clock.elapsed() < 5000)
            QThread::msleep(10);
    } // stops capturing and waits for the provider's thread
    // The provider's thread object deletes itself through this thread's event queue.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    sink.close(AudioOutputDevice::Immediate);

    QFile output(dir.filePath(QStringLiteral("out.raw")));
    const bool exact = output.open(QIODevice::ReadOnly) && output.readAll().left(input.size()) == input;
    // The mixer classes link too; the card is not opened, as a build machine may have none.
    AlsaCard card(QString::fromLatin1(AlsaCard::DefaultName), false);
    std::printf("quil_audio example: %d bytes through the capture provider, copy %s; card '%s' (%s)\n", copied.load(),
                exact ? "exact" : "DIFFERS", qPrintable(card.name()), AlsaCard::staticMetaObject.className());
    return exact ? 0 : 1;
}
