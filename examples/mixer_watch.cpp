// A mixer control watched for changes: prints an element's volume and switch,
// then again at every change that ALSA reports (another program's included)
// for a few seconds.
// Usage: mixer_watch [MIXER [ELEMENT [SECONDS [capture]]]]
//        (default: "default", "Master", 2, the playback side)

#include "AlsaCard.h"

#include <QCoreApplication>
#include <QTimer>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void printState(AlsaMixerElement* element, AlsaElementMode side, const char* what)
{
    long volume = 0, min = 0, max = 0;
    bool on = false;
    const bool hasVolume = element->getVolume(&volume, side) && element->getVolumeRange(&min, &max, side);
    const bool hasSwitch = element->hasSwitch(side) && element->getSwitch(&on, side);
    std::printf("%s '%s': volume %s%ld [%ld..%ld], switch %s\n", what, qPrintable(element->name()),
                hasVolume ? "" : "(none) ", volume, min, max, hasSwitch ? (on ? "on" : "off") : "(none)");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    // The card's changed() signals come through the event loop of the thread that opened it.
    QCoreApplication app(argc, argv);
    log4cplus::Initializer logInitializer;
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::WARN_LOG_LEVEL);

    const QString mixer = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString::fromLatin1(AlsaCard::DefaultName);
    const QString name = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral("Master");
    const int seconds = argc > 3 ? std::atoi(argv[3]) : 2;
    const AlsaElementMode side = argc > 4 && std::strcmp(argv[4], "capture") == 0 ? Capture : Playback;

    //! [mixer]
    AlsaCard card(mixer, true);
    if (!card.isOpen()) {
        std::fprintf(stderr, "cannot open mixer '%s': %s\n", qPrintable(mixer), qPrintable(card.errorString()));
        return 1;
    }
    // A partial, case-insensitive name: "master" finds "Master".
    const AlsaMixerElementPtr element = card.loadMixerElement(name);
    if (!element) {
        std::fprintf(stderr, "no element '%s': %s\n", qPrintable(name), qPrintable(card.errorString()));
        return 1;
    }
    printState(element.data(), side, "watching");
    int changes = 0;
    QObject::connect(element.data(), &AlsaMixerElement::changed, [&] {
        ++changes;
        printState(element.data(), side, "changed");
    });
    //! [mixer]
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    std::printf("%d change(s) in %d s\n", changes, seconds);
    return 0;
}
