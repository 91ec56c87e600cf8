// What a host shows a person who picks the devices: the PCMs that ALSA's
// device name hints name, the sound cards, the formats one PCM captures in and
// the elements of one mixer. Exits 1 when that PCM cannot be opened.
// Usage: device_list [PCM [MIXER]]     (default: "default", "default")

#include "AlsaCard.h"
#include "AlsaDevices.h"

#include <QCoreApplication>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <cstdio>

int main(int argc, char** argv)
{
    // The mixer card watches its descriptors through Qt's event dispatcher.
    QCoreApplication app(argc, argv);
    log4cplus::Initializer logInitializer;
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::WARN_LOG_LEVEL);

    const QString pcm = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("default");
    const QString mixer = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString::fromLatin1(AlsaCard::DefaultName);

    //! [devices]
    // A PCM without a hint (often "default") is not listed but opens by name.
    for (const AlsaDevices::Pcm& hinted : AlsaDevices::pcms())
        std::printf("pcm %s:%s%s\n", qPrintable(hinted.name), hinted.playback ? " playback" : "",
                    hinted.capture ? " capture" : "");
    for (const AlsaDevices::Card& card : AlsaDevices::cards())
        std::printf("card %d %s (%s), mixer %s\n", card.index, qPrintable(card.name), qPrintable(card.longName),
                    qPrintable(card.device));
    int error = 0;
    const QVector<_snd_pcm_format> formats = AlsaDevices::formats(pcm, SND_PCM_STREAM_CAPTURE, &error);
    std::printf("'%s' captures in:", qPrintable(pcm));
    for (const _snd_pcm_format format : formats)
        std::printf(" %s", snd_pcm_format_name(format));
    if (formats.isEmpty())
        std::printf(" none: %s", snd_strerror(error));
    std::printf("\n");
    AlsaCard card(mixer, true);
    std::printf("mixer '%s': %s\n", qPrintable(mixer), qPrintable(card.elementNames().join(QStringLiteral(", "))));
    //! [devices]
    return formats.isEmpty() ? 1 : 0;
}
