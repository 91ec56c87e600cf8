#include "DevicesCommand.h"

#include "CommandSupport.h"

#include "AlsaMixerHandle.h"

#include <QCommandLineParser>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace quilaudio {

namespace {

const QString Command = QStringLiteral("devices");

const char* const Usage =
    "Lists the PCMs that ALSA's device name hints name, with the directions each\n"
    "serves and its description, and the sound cards with the number of simple-mixer\n"
    "elements on each (mixer device hw:N). PCMs without a hint (such as 'default'\n"
    "on many systems) are not listed but can still be opened by name.";

struct HintsDeleter
{
    void operator()(void** hints) const { snd_device_name_free_hint(hints); }
};

struct MallocDeleter
{
    void operator()(char* text) const { std::free(text); }
};

using MallocText = std::unique_ptr<char, MallocDeleter>;

QString takeText(char* text)
{
    const MallocText owned(text);
    return owned ? QString::fromLocal8Bit(owned.get()) : QString();
}

/// Active simple elements of the mixer `device`, each index counted; -1 when it cannot be opened.
int countMixerElements(const QString& device)
{
    const QSharedPointer<AlsaMixerHandle> handle = AlsaMixerHandle::openHandle(device);
    return handle ? handle->buildElementList().size() : -1;
}

QString directions(bool playback, bool capture)
{
    QStringList served;
    if (playback)
        served << QStringLiteral("playback");
    if (capture)
        served << QStringLiteral("capture");
    return served.join(QStringLiteral(", "));
}

QString elementsText(int count)
{
    return count < 0 ? QStringLiteral("mixer cannot be opened") : QStringLiteral("%1 mixer elements").arg(count);
}

void printOut(const QString& line)
{
    std::printf("%s\n", line.toLocal8Bit().constData());
}

} // namespace

int DevicesCommand::run(const QStringList& arguments)
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

    QString error;
    if (!readPcms(&error))
        return fail(Command, error, ExitFailed);
    readCards();
    if (!readNamedMixers(parser.values(QStringLiteral("mixer")), &error))
        return fail(Command, error, ExitFailed);
    if (parser.isSet(QStringLiteral("json")))
        printJson();
    else
        printText();
    return ExitOk;
}

bool DevicesCommand::readPcms(QString* error)
{
    void** rawHints = nullptr;
    const int result = snd_device_name_hint(-1, "pcm", &rawHints);
    if (result < 0) {
        *error = QStringLiteral("cannot read ALSA's device name hints: %1").arg(QString::fromLocal8Bit(snd_strerror(result)));
        return false;
    }
    const std::unique_ptr<void*, HintsDeleter> hints(rawHints);
    for (void** hint = hints.get(); *hint; ++hint) {
        Pcm pcm;
        pcm.name = takeText(snd_device_name_get_hint(*hint, "NAME"));
        if (pcm.name.isEmpty())
            continue;
        pcm.description = takeText(snd_device_name_get_hint(*hint, "DESC"));
        // No direction in the hint means both.
        const QString direction = takeText(snd_device_name_get_hint(*hint, "IOID"));
        pcm.playback = direction != QLatin1String("Input");
        pcm.capture = direction != QLatin1String("Output");
        m_pcms << pcm;
    }
    return true;
}

void DevicesCommand::readCards()
{
    int card = -1;
    while (snd_card_next(&card) == 0 && card >= 0) {
        Mixer mixer;
        mixer.card = card;
        mixer.device = QStringLiteral("hw:%1").arg(card);
        char* text = nullptr;
        if (snd_card_get_name(card, &text) == 0)
            mixer.cardName = takeText(text);
        text = nullptr;
        if (snd_card_get_longname(card, &text) == 0)
            mixer.cardLongName = takeText(text);
        mixer.elementCount = countMixerElements(mixer.device);
        m_cards << mixer;
    }
}

// A mixer asked for by name must open: its count is what the caller wants to know.
bool DevicesCommand::readNamedMixers(const QStringList& devices, QString* error)
{
    for (const QString& device : devices) {
        Mixer mixer;
        mixer.device = device;
        mixer.elementCount = countMixerElements(device);
        if (mixer.elementCount < 0) {
            *error = QStringLiteral("cannot open mixer '%1'").arg(device);
            return false;
        }
        m_mixers << mixer;
    }
    return true;
}

void DevicesCommand::printText() const
{
    int width = 0;
    for (const Pcm& pcm : m_pcms)
        width = std::max(width, pcm.name.size());
    printOut(QStringLiteral("PCMs:"));
    if (m_pcms.isEmpty())
        printOut(QStringLiteral("  none"));
    for (const Pcm& pcm : m_pcms) {
        const QString description = pcm.description.split(QLatin1Char('\n'), Qt::SkipEmptyParts).join(QStringLiteral(", "));
        const QString line = pcm.name.leftJustified(width) + QStringLiteral("  ")
                             + directions(pcm.playback, pcm.capture).leftJustified(17) + QStringLiteral("  ") + description;
        printOut(QStringLiteral("  ") + line.trimmed());
    }
    printOut(QStringLiteral("Cards:"));
    if (m_cards.isEmpty())
        printOut(QStringLiteral("  none"));
    for (const Mixer& card : m_cards)
        printOut(QStringLiteral("  %1  %2 (%3): %4").arg(card.device, card.cardName, card.cardLongName, elementsText(card.elementCount)));
    if (m_mixers.isEmpty())
        return;
    printOut(QStringLiteral("Mixers:"));
    for (const Mixer& mixer : m_mixers)
        printOut(QStringLiteral("  %1: %2").arg(mixer.device, elementsText(mixer.elementCount)));
}

void DevicesCommand::printJson() const
{
    QJsonArray pcms;
    for (const Pcm& pcm : m_pcms)
        pcms.append(QJsonObject{{QStringLiteral("name"), pcm.name},
                                {QStringLiteral("description"), pcm.description},
                                {QStringLiteral("playback"), pcm.playback},
                                {QStringLiteral("capture"), pcm.capture}});
    // A mixer that cannot be opened has no element count: null, not a number.
    const auto count = [](const Mixer& mixer) {
        return mixer.elementCount < 0 ? QJsonValue() : QJsonValue(mixer.elementCount);
    };
    QJsonArray cards;
    for (const Mixer& card : m_cards)
        cards.append(QJsonObject{{QStringLiteral("card"), card.card},
                                 {QStringLiteral("name"), card.cardName},
                                 {QStringLiteral("longName"), card.cardLongName},
                                 {QStringLiteral("mixer"), card.device},
                                 {QStringLiteral("mixerElements"), count(card)}});
    QJsonArray mixers;
    for (const Mixer& mixer : m_mixers)
        mixers.append(QJsonObject{{QStringLiteral("mixer"), mixer.device}, {QStringLiteral("mixerElements"), count(mixer)}});
    const QJsonObject all{{QStringLiteral("pcms"), pcms}, {QStringLiteral("cards"), cards}, {QStringLiteral("mixers"), mixers}};
    std::fputs(QJsonDocument(all).toJson(QJsonDocument::Indented).constData(), stdout);
}

} // namespace quilaudio
