#include "Commands.h"

#include "CommandLine.h"

#include "AlsaDevices.h"
#include "AlsaMixerHandle.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <functional>

namespace quilaudio {

namespace {

const QString Command = QStringLiteral("devices");

const char* const Usage = "Lists the PCMs that ALSA's device name hints name, with the directions each\n"
                          "serves and its description, and the sound cards with the number of simple-mixer\n"
                          "elements on each (mixer device hw:N). PCMs without a hint (such as 'default'\n"
                          "on many systems) are not listed but can still be opened by name.";

// The number of the mixer's active simple elements, each index counted; -1
// when it cannot be opened (null, not a number, in JSON).
int elementCount(const QString& device)
{
    const QSharedPointer<AlsaMixerHandle> handle = AlsaMixerHandle::openHandle(device);
    return handle ? handle->buildElementList().size() : -1;
}

QString elementsText(const QJsonValue& count)
{
    return count.isNull() ? QStringLiteral("mixer cannot be opened")
                          : QStringLiteral("%1 mixer elements").arg(count.toInt());
}

QJsonValue countJson(int count) { return count < 0 ? QJsonValue() : QJsonValue(count); }

// What devices lists: the rows are collected once, as the JSON objects of
// --json, and the text listing renders each section's lines from them.
struct Listing {
    QJsonArray pcms, cards, mixers;

    void print() const
    {
        int width = 0;
        for (const QJsonValue& pcm : pcms)
            width = static_cast<int>(std::max<qsizetype>(width, pcm[QLatin1String("name")].toString().size()));
        printSection(QStringLiteral("PCMs:"), pcms, [width](const QJsonValue& pcm) {
            const bool playback = pcm[QLatin1String("playback")].toBool(),
                       capture = pcm[QLatin1String("capture")].toBool();
            const QString served = playback && capture ? QStringLiteral("playback, capture")
                                   : playback          ? QStringLiteral("playback")
                                                       : QStringLiteral("capture");
            const QString description =
                pcm[QLatin1String("description")].toString().split(QLatin1Char('\n'), Qt::SkipEmptyParts).join(", ");
            return (pcm[QLatin1String("name")].toString().leftJustified(width) + "  " + served.leftJustified(17) + "  "
                    + description)
                .trimmed();
        });
        printSection(QStringLiteral("Cards:"), cards, [](const QJsonValue& card) {
            return QStringLiteral("%1  %2 (%3): %4")
                .arg(card[QLatin1String("mixer")].toString(), card[QLatin1String("name")].toString(),
                     card[QLatin1String("longName")].toString(), elementsText(card[QLatin1String("mixerElements")]));
        });
        if (!mixers.isEmpty())
            printSection(QStringLiteral("Mixers:"), mixers, [](const QJsonValue& mixer) {
                return QStringLiteral("%1: %2").arg(mixer[QLatin1String("mixer")].toString(),
                                                    elementsText(mixer[QLatin1String("mixerElements")]));
            });
    }

    // A titled section of the text listing; an empty one says "none".
    static void printSection(const QString& title, const QJsonArray& rows,
                             const std::function<QString(const QJsonValue&)>& line)
    {
        printOut(title);
        if (rows.isEmpty())
            printOut(QStringLiteral("  none"));
        for (const QJsonValue& row : rows)
            printOut(QStringLiteral("  ") + line(row));
    }
};

// The status to end with before any device is read (--help, a usage error), or none.
std::optional<int> readCommandLine(QCommandLineParser& parser, const QStringList& arguments)
{
    parser.setApplicationDescription(QString::fromLatin1(Usage));
    addOptions(parser,
               {
                   {"json", "Print one JSON object with the arrays \"pcms\", \"cards\" and \"mixers\"."},
                   {"m,mixer", "Also count the elements of this mixer device, such as default (repeatable).", "name"},
               });
    return parseCommandLine(parser, arguments, Command, [&](QString* error) {
        return parser.positionalArguments().isEmpty()
               || refuse(error,
                         QStringLiteral("takes no arguments, not '%1'").arg(parser.positionalArguments().first()));
    });
}

} // namespace

int checkDevicesCommandLine(const QStringList& arguments)
{
    QCommandLineParser parser;
    return readCommandLine(parser, arguments).value_or(ExitOk);
}

int runDevicesCommand(const QStringList& arguments)
{
    QCommandLineParser parser;
    if (const std::optional<int> status = readCommandLine(parser, arguments))
        return *status;

    int code = 0;
    const QList<AlsaDevices::Pcm> found = AlsaDevices::pcms(&code);
    if (code < 0)
        return failBecause(Command, QStringLiteral("cannot read ALSA's device name hints"),
                           QString::fromLocal8Bit(snd_strerror(code)));
    Listing listing;
    for (const AlsaDevices::Pcm& pcm : found)
        listing.pcms.append(QJsonObject{{QStringLiteral("name"), pcm.name},
                                        {QStringLiteral("description"), pcm.description},
                                        {QStringLiteral("playback"), pcm.playback},
                                        {QStringLiteral("capture"), pcm.capture}});
    for (const AlsaDevices::Card& card : AlsaDevices::cards())
        listing.cards.append(QJsonObject{{QStringLiteral("card"), card.index},
                                         {QStringLiteral("name"), card.name},
                                         {QStringLiteral("longName"), card.longName},
                                         {QStringLiteral("mixer"), card.device},
                                         {QStringLiteral("mixerElements"), countJson(elementCount(card.device))}});
    // A mixer asked for by name must open: its count is what the caller wants to know.
    for (const QString& device : parser.values(QStringLiteral("mixer"))) {
        const int count = elementCount(device);
        if (count < 0)
            return fail(Command, QStringLiteral("cannot open mixer '%1'").arg(device), ExitFailed);
        listing.mixers.append(QJsonObject{{QStringLiteral("mixer"), device}, {QStringLiteral("mixerElements"), count}});
    }
    if (parser.isSet(QStringLiteral("json"))) {
        const QJsonObject all{{QStringLiteral("pcms"), listing.pcms},
                              {QStringLiteral("cards"), listing.cards},
                              {QStringLiteral("mixers"), listing.mixers}};
        std::fputs(QJsonDocument(all).toJson(QJsonDocument::Indented).constData(), stdout);
        return ExitOk;
    }
    listing.print();
    return ExitOk;
}

} // namespace quilaudio
