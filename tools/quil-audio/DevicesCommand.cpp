#include "DevicesCommand.h"

#include "CommandLine.h"

#include "AlsaDevices.h"
#include "AlsaMixerHandle.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace quilaudio {

namespace {

const QString Command = QStringLiteral("devices");

const char* const Usage =
    "Lists the PCMs that ALSA's device name hints name, with the directions each\n"
    "serves and its description, and the sound cards with the number of simple-mixer\n"
    "elements on each (mixer device hw:N). PCMs without a hint (such as 'default'\n"
    "on many systems) are not listed but can still be opened by name.";

/// Active simple elements of the mixer `device`, each index counted; -1 when it cannot be opened.
int countMixerElements(const QString& device)
{
    const QSharedPointer<AlsaMixerHandle> handle = AlsaMixerHandle::openHandle(device);
    return handle ? handle->buildElementList().size() : -1;
}

QString elementsText(int count)
{
    return count < 0 ? QStringLiteral("mixer cannot be opened") : QStringLiteral("%1 mixer elements").arg(count);
}

struct Listing
{
    QList<AlsaDevices::Pcm> pcms;
    QList<AlsaDevices::Card> cards;
    QList<int> cardElements;   ///< per card, as countMixerElements() gives it
    QStringList mixers;        ///< named on the command line
    QList<int> mixerElements;
};

// A mixer that cannot be opened has no element count: null, not a number.
QJsonValue elementsJson(int count)
{
    return count < 0 ? QJsonValue() : QJsonValue(count);
}

void printText(const Listing& listing)
{
    int width = 0;
    for (const AlsaDevices::Pcm& pcm : listing.pcms)
        width = std::max(width, pcm.name.size());
    printOut(QStringLiteral("PCMs:"));
    if (listing.pcms.isEmpty())
        printOut(QStringLiteral("  none"));
    for (const AlsaDevices::Pcm& pcm : listing.pcms) {
        QStringList served;
        if (pcm.playback)
            served << QStringLiteral("playback");
        if (pcm.capture)
            served << QStringLiteral("capture");
        const QString description = pcm.description.split(QLatin1Char('\n'), Qt::SkipEmptyParts).join(QStringLiteral(", "));
        const QString line = pcm.name.leftJustified(width) + QStringLiteral("  ")
                             + served.join(QStringLiteral(", ")).leftJustified(17) + QStringLiteral("  ") + description;
        printOut(QStringLiteral("  ") + line.trimmed());
    }
    printOut(QStringLiteral("Cards:"));
    if (listing.cards.isEmpty())
        printOut(QStringLiteral("  none"));
    for (int i = 0; i < listing.cards.size(); ++i)
        printOut(QStringLiteral("  %1  %2 (%3): %4").arg(listing.cards[i].device, listing.cards[i].name, listing.cards[i].longName,
                                                          elementsText(listing.cardElements[i])));
    if (!listing.mixers.isEmpty())
        printOut(QStringLiteral("Mixers:"));
    for (int i = 0; i < listing.mixers.size(); ++i)
        printOut(QStringLiteral("  %1: %2").arg(listing.mixers[i], elementsText(listing.mixerElements[i])));
}

void printJson(const Listing& listing)
{
    QJsonArray pcmArray;
    for (const AlsaDevices::Pcm& pcm : listing.pcms)
        pcmArray.append(QJsonObject{{QStringLiteral("name"), pcm.name},
                                    {QStringLiteral("description"), pcm.description},
                                    {QStringLiteral("playback"), pcm.playback},
                                    {QStringLiteral("capture"), pcm.capture}});
    QJsonArray cardArray;
    for (int i = 0; i < listing.cards.size(); ++i)
        cardArray.append(QJsonObject{{QStringLiteral("card"), listing.cards[i].index},
                                     {QStringLiteral("name"), listing.cards[i].name},
                                     {QStringLiteral("longName"), listing.cards[i].longName},
                                     {QStringLiteral("mixer"), listing.cards[i].device},
                                     {QStringLiteral("mixerElements"), elementsJson(listing.cardElements[i])}});
    QJsonArray mixerArray;
    for (int i = 0; i < listing.mixers.size(); ++i)
        mixerArray.append(QJsonObject{{QStringLiteral("mixer"), listing.mixers[i]},
                                      {QStringLiteral("mixerElements"), elementsJson(listing.mixerElements[i])}});
    const QJsonObject all{{QStringLiteral("pcms"), pcmArray}, {QStringLiteral("cards"), cardArray},
                          {QStringLiteral("mixers"), mixerArray}};
    std::fputs(QJsonDocument(all).toJson(QJsonDocument::Indented).constData(), stdout);
}

} // namespace

int runDevicesCommand(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(Usage));
    parser.addOptions({
        {QStringLiteral("json"), QStringLiteral("Print one JSON object with the arrays \"pcms\", \"cards\" and \"mixers\".")},
        {{QStringLiteral("m"), QStringLiteral("mixer")},
         QStringLiteral("Also count the elements of this mixer device, such as default (repeatable)."),
         QStringLiteral("name")},
    });
    int status = ExitOk;
    if (!parseCommandLine(parser, arguments, Command, &status))
        return status;
    if (!parser.positionalArguments().isEmpty())
        return fail(Command, QStringLiteral("takes no arguments, not '%1'").arg(parser.positionalArguments().first()),
                    ExitUsage);

    int code = 0;
    Listing listing;
    listing.pcms = AlsaDevices::pcms(&code);
    if (code < 0)
        return fail(Command, QStringLiteral("cannot read ALSA's device name hints: %1").arg(QString::fromLocal8Bit(snd_strerror(code))),
                    ExitFailed);
    listing.cards = AlsaDevices::cards();
    for (const AlsaDevices::Card& card : qAsConst(listing.cards))
        listing.cardElements << countMixerElements(card.device);
    // A mixer asked for by name must open: its count is what the caller wants to know.
    listing.mixers = parser.values(QStringLiteral("mixer"));
    for (const QString& mixer : qAsConst(listing.mixers)) {
        listing.mixerElements << countMixerElements(mixer);
        if (listing.mixerElements.last() < 0)
            return fail(Command, QStringLiteral("cannot open mixer '%1'").arg(mixer), ExitFailed);
    }
    if (parser.isSet(QStringLiteral("json")))
        printJson(listing);
    else
        printText(listing);
    return ExitOk;
}

} // namespace quilaudio
