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

// The mixer with the number of its active simple elements, each index
// counted; null, not a number, when it cannot be opened.
QJsonObject mixerJson(const QString& device)
{
    const QSharedPointer<AlsaMixerHandle> handle = AlsaMixerHandle::openHandle(device);
    return {{QStringLiteral("mixer"), device},
            {QStringLiteral("mixerElements"), handle ? QJsonValue(handle->buildElementList().size()) : QJsonValue()}};
}

QString elementsText(const QJsonValue& count)
{
    return count.isNull() ? QStringLiteral("mixer cannot be opened")
                          : QStringLiteral("%1 mixer elements").arg(count.toInt());
}

// The listing as text, from the same object that --json prints.
void printText(const QJsonObject& all)
{
    const QJsonArray pcms = all[QStringLiteral("pcms")].toArray();
    int width = 0;
    for (const QJsonValue& pcm : pcms)
        width = std::max(width, pcm[QStringLiteral("name")].toString().size());
    printOut(QStringLiteral("PCMs:"));
    if (pcms.isEmpty())
        printOut(QStringLiteral("  none"));
    for (const QJsonValue& pcm : pcms) {
        QStringList served;
        if (pcm[QStringLiteral("playback")].toBool())
            served << QStringLiteral("playback");
        if (pcm[QStringLiteral("capture")].toBool())
            served << QStringLiteral("capture");
        const QString description = pcm[QStringLiteral("description")]
                                        .toString()
                                        .split(QLatin1Char('\n'), Qt::SkipEmptyParts)
                                        .join(QStringLiteral(", "));
        const QString line = pcm[QStringLiteral("name")].toString().leftJustified(width) + QStringLiteral("  ")
                             + served.join(QStringLiteral(", ")).leftJustified(17) + QStringLiteral("  ") + description;
        printOut(QStringLiteral("  ") + line.trimmed());
    }
    const QJsonArray cards = all[QStringLiteral("cards")].toArray();
    printOut(QStringLiteral("Cards:"));
    if (cards.isEmpty())
        printOut(QStringLiteral("  none"));
    for (const QJsonValue& card : cards)
        printOut(QStringLiteral("  %1  %2 (%3): %4")
                     .arg(card[QStringLiteral("mixer")].toString(), card[QStringLiteral("name")].toString(),
                          card[QStringLiteral("longName")].toString(),
                          elementsText(card[QStringLiteral("mixerElements")])));
    const QJsonArray mixers = all[QStringLiteral("mixers")].toArray();
    if (!mixers.isEmpty())
        printOut(QStringLiteral("Mixers:"));
    for (const QJsonValue& mixer : mixers)
        printOut(
            QStringLiteral("  %1: %2")
                .arg(mixer[QStringLiteral("mixer")].toString(), elementsText(mixer[QStringLiteral("mixerElements")])));
}

} // namespace

int runDevicesCommand(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(Usage));
    addOptions(parser,
               {
                   {"json", "Print one JSON object with the arrays \"pcms\", \"cards\" and \"mixers\"."},
                   {"m,mixer", "Also count the elements of this mixer device, such as default (repeatable).", "name"},
               });
    if (const std::optional<int> status = parseCommandLine(parser, arguments, Command))
        return *status;
    if (!parser.positionalArguments().isEmpty())
        return fail(Command, QStringLiteral("takes no arguments, not '%1'").arg(parser.positionalArguments().first()),
                    ExitUsage);

    int code = 0;
    QJsonArray pcms;
    for (const AlsaDevices::Pcm& pcm : AlsaDevices::pcms(&code))
        pcms.append(QJsonObject{{QStringLiteral("name"), pcm.name},
                                {QStringLiteral("description"), pcm.description},
                                {QStringLiteral("playback"), pcm.playback},
                                {QStringLiteral("capture"), pcm.capture}});
    if (code < 0)
        return fail(
            Command,
            QStringLiteral("cannot read ALSA's device name hints: %1").arg(QString::fromLocal8Bit(snd_strerror(code))),
            ExitFailed);
    QJsonArray cards;
    for (const AlsaDevices::Card& card : AlsaDevices::cards()) {
        QJsonObject object = mixerJson(card.device);
        object.insert(QStringLiteral("card"), card.index);
        object.insert(QStringLiteral("name"), card.name);
        object.insert(QStringLiteral("longName"), card.longName);
        cards.append(object);
    }
    // A mixer asked for by name must open: its count is what the caller wants to know.
    QJsonArray mixers;
    for (const QString& device : parser.values(QStringLiteral("mixer"))) {
        mixers.append(mixerJson(device));
        if (mixers.last()[QStringLiteral("mixerElements")].isNull())
            return fail(Command, QStringLiteral("cannot open mixer '%1'").arg(device), ExitFailed);
    }
    const QJsonObject all{
        {QStringLiteral("pcms"), pcms}, {QStringLiteral("cards"), cards}, {QStringLiteral("mixers"), mixers}};
    if (parser.isSet(QStringLiteral("json")))
        std::fputs(QJsonDocument(all).toJson(QJsonDocument::Indented).constData(), stdout);
    else
        printText(all);
    return ExitOk;
}

} // namespace quilaudio
