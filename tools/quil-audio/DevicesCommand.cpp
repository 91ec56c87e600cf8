#include "Commands.h"

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

QJsonValue countJson(int count) { return count < 0 ? QJsonValue() : QJsonValue(count); }

QString elementsText(int count)
{
    return count < 0 ? QStringLiteral("mixer cannot be opened") : QStringLiteral("%1 mixer elements").arg(count);
}

// A titled section of the text listing; an empty one says "none".
void printSection(const QString& title, const QStringList& lines)
{
    printOut(title);
    for (const QString& line : lines.isEmpty() ? QStringList{QStringLiteral("none")} : lines)
        printOut(QStringLiteral("  ") + line);
}

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
    int width = 0;
    for (const AlsaDevices::Pcm& pcm : found)
        width = static_cast<int>(std::max<qsizetype>(width, pcm.name.size())); // size(): int on Qt 5, qsizetype on 6
    // Each section is built twice over, as JSON and as text lines, from the same values.
    QJsonArray pcms, cards, mixers;
    QStringList pcmLines, cardLines, mixerLines;
    for (const AlsaDevices::Pcm& pcm : found) {
        pcms.append(QJsonObject{{QStringLiteral("name"), pcm.name},
                                {QStringLiteral("description"), pcm.description},
                                {QStringLiteral("playback"), pcm.playback},
                                {QStringLiteral("capture"), pcm.capture}});
        const QString served = pcm.playback && pcm.capture ? QStringLiteral("playback, capture")
                               : pcm.playback              ? QStringLiteral("playback")
                                                           : QStringLiteral("capture");
        const QString description = pcm.description.split(QLatin1Char('\n'), Qt::SkipEmptyParts).join(", ");
        pcmLines << (pcm.name.leftJustified(width) + "  " + served.leftJustified(17) + "  " + description).trimmed();
    }
    for (const AlsaDevices::Card& card : AlsaDevices::cards()) {
        const int count = elementCount(card.device);
        cards.append(QJsonObject{{QStringLiteral("card"), card.index},
                                 {QStringLiteral("name"), card.name},
                                 {QStringLiteral("longName"), card.longName},
                                 {QStringLiteral("mixer"), card.device},
                                 {QStringLiteral("mixerElements"), countJson(count)}});
        cardLines << QStringLiteral("%1  %2 (%3): %4").arg(card.device, card.name, card.longName, elementsText(count));
    }
    // A mixer asked for by name must open: its count is what the caller wants to know.
    for (const QString& device : parser.values(QStringLiteral("mixer"))) {
        const int count = elementCount(device);
        if (count < 0)
            return fail(Command, QStringLiteral("cannot open mixer '%1'").arg(device), ExitFailed);
        mixers.append(QJsonObject{{QStringLiteral("mixer"), device}, {QStringLiteral("mixerElements"), count}});
        mixerLines << QStringLiteral("%1: %2").arg(device, elementsText(count));
    }
    if (parser.isSet(QStringLiteral("json"))) {
        const QJsonObject all{
            {QStringLiteral("pcms"), pcms}, {QStringLiteral("cards"), cards}, {QStringLiteral("mixers"), mixers}};
        std::fputs(QJsonDocument(all).toJson(QJsonDocument::Indented).constData(), stdout);
        return ExitOk;
    }
    printSection(QStringLiteral("PCMs:"), pcmLines);
    printSection(QStringLiteral("Cards:"), cardLines);
    if (!mixerLines.isEmpty())
        printSection(QStringLiteral("Mixers:"), mixerLines);
    return ExitOk;
}

} // namespace quilaudio
