#include "Commands.h"

#include "CommandLine.h"
#include "Signals.h"

#include "AlsaCard.h"

#include <QEventLoop>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <memory>
#include <utility>

namespace quilaudio {

namespace {

const QString Command = QStringLiteral("mixer");
constexpr int StopPollMs = 50;

const char* const Usage = "Reads and changes the simple-mixer elements of an ALSA mixer device:\n"
                          "  list                 every element with its controls and current values\n"
                          "  get NAME             one element\n"
                          "  set NAME OPTION...   change it (--db, --volume, --switch, --enum), then show it\n"
                          "  watch [NAME...]      show the elements (all by default), then every change until\n"
                          "                       Ctrl-C or --count changes\n"
                          "NAME is matched as the library matches it: the exact name, else the first element\n"
                          "whose name contains it, ignoring case. A control is changed on the playback side\n"
                          "when the element has it there, else on the capture side, unless --playback or\n"
                          "--capture says which.";

QString describeSide(AlsaMixerElement& element, AlsaElementMode mode)
{
    QStringList parts;
    long min = 0, max = 0, value = 0;
    if (element.getVolumeRange(&min, &max, mode) && element.getVolume(&value, mode)) {
        // In double: where long has 32 bits, max - min of a full-range control overflows.
        const long percent = max > min ? std::lround(100.0 * (double(value) - min) / (double(max) - min)) : 0;
        QString volume = QStringLiteral("volume %1 [%2..%3] %4%").arg(value).arg(min).arg(max).arg(percent);
        double dB = 0;
        if (element.hasDB(mode) && element.getDB(&dB, mode))
            volume += QStringLiteral(" %1 dB").arg(dB, 0, 'f', 2);
        parts << volume;
    }
    bool on = false;
    if (element.hasSwitch(mode) && element.getSwitch(&on, mode))
        parts << (on ? QStringLiteral("switch on") : QStringLiteral("switch off"));
    if (parts.isEmpty())
        return QString();
    return (mode == Playback ? QStringLiteral("playback: ") : QStringLiteral("capture: "))
           + parts.join(QStringLiteral(", "));
}

QStringList enumItems(AlsaMixerElement& element)
{
    QStringList items;
    const unsigned int size = static_cast<unsigned int>(element.getEnumSize());
    for (unsigned int index = 0; index < size; ++index) {
        QString item;
        items << (element.getEnumItemName(index, &item) ? item : QStringLiteral("?"));
    }
    return items;
}

/// One line: the element's name, each side's volume (raw, range, percent, dB)
/// and switch, and the selected item of an enumeration.
QString describe(AlsaMixerElement& element)
{
    QStringList parts;
    for (AlsaElementMode mode : {Playback, Capture}) {
        const QString side = describeSide(element, mode);
        if (!side.isEmpty())
            parts << side;
    }
    unsigned int item = 0;
    if (element.isEnumerated() && element.getEnum(&item)) {
        const QStringList items = enumItems(element);
        parts
            << QStringLiteral("item '%1' of %2").arg(items.value(static_cast<int>(item)), items.join(QLatin1Char('|')));
    }
    if (parts.isEmpty())
        parts << QStringLiteral("no controls");
    return QStringLiteral("'%1' %2").arg(element.name(), parts.join(QStringLiteral("; ")));
}

/// `quil-audio mixer`: lists, reads, changes and watches simple-mixer
/// elements through AlsaCard, on the calling thread, whose event loop
/// delivers the elements' changed() signals while watching.
class MixerCommand {
public:
    int run(const QStringList& arguments)
    {
        if (const std::optional<int> status = readCommandLine(arguments))
            return *status;
        int status = openCard();
        if (status != ExitOk)
            return status;
        if (m_action == QLatin1String("set"))
            return set(m_names[0]);
        const QList<AlsaMixerElementPtr> elements = load(m_names, &status);
        if (status != ExitOk || m_action == QLatin1String("watch"))
            return status != ExitOk ? status : watch(elements, m_count);
        for (const AlsaMixerElementPtr& element : elements)
            printOut(describe(*element));
        return ExitOk;
    }

    /// The status to end with before the mixer opens (--help, a usage error), or none.
    std::optional<int> readCommandLine(const QStringList& arguments)
    {
        QCommandLineParser& parser = m_parser;
        parser.setApplicationDescription(QString::fromLatin1(Usage));
        addOptions(parser, {
                               {"D,device", "ALSA mixer device name.", "name", AlsaCard::DefaultName},
                               {"db", "set: gain in dB (the nearest value at or below it).", "dB"},
                               {"volume", "set: raw volume, or N% of the element's range.", "n[%]"},
                               {"switch", "set: switch on or off.", "on|off"},
                               {"enum", "set: enumeration item by (partial) name or number.", "item"},
                               {"playback", "set: change the playback side."},
                               {"capture", "set: change the capture side."},
                               {"count", "watch: end after this many changes.", "n"},
                           });
        parser.addPositionalArgument(QStringLiteral("action"), QStringLiteral("list, get, set or watch."));
        parser.addPositionalArgument(QStringLiteral("name"), QStringLiteral("Element name."),
                                     QStringLiteral("[name...]"));
        return parseCommandLine(parser, arguments, Command, [&](QString* error) { return readOptions(error); });
    }

private:
    bool readOptions(QString* error)
    {
        const QCommandLineParser& parser = m_parser;
        m_device = parser.value(QStringLiteral("device"));
        m_playbackAsked = parser.isSet(QStringLiteral("playback"));
        m_captureAsked = parser.isSet(QStringLiteral("capture"));
        const QStringList positional = parser.positionalArguments();
        m_action = positional.value(0);
        m_names = positional.mid(1);
        if (!readInt(parser, QStringLiteral("count"), 1, 1000000, &m_count, error))
            return false;
        if (m_playbackAsked && m_captureAsked)
            return refuse(error, QStringLiteral("--playback and --capture exclude each other"));
        const bool named = m_action == QLatin1String("get") || m_action == QLatin1String("set");
        if (!named && m_action != QLatin1String("list") && m_action != QLatin1String("watch"))
            return refuse(error, m_action.isEmpty()
                                     ? QStringLiteral("give an action: list, get, set or watch")
                                     : QStringLiteral("unknown action '%1' (list, get, set or watch)").arg(m_action));
        if (named ? m_names.size() != 1 : m_action == QLatin1String("list") && !m_names.isEmpty())
            return refuse(error,
                          QStringLiteral("'%1' takes %2")
                              .arg(m_action, named ? QStringLiteral("one element name") : QStringLiteral("no name")));
        if (m_action != QLatin1String("set"))
            return true;
        return exclusive(parser, QStringLiteral("volume"), QStringLiteral("db"), error)
               && (std::any_of(std::begin(Setters), std::end(Setters),
                               [&](const Setter& s) { return parser.isSet(s.option); })
                   || refuse(error, QStringLiteral("set needs --db, --volume, --switch or --enum")));
    }

    int openCard()
    {
        m_card = std::make_unique<AlsaCard>(m_device, true);
        return m_card->isOpen() ? ExitOk
                                : failBecause(Command, QStringLiteral("cannot open mixer '%1'").arg(m_device),
                                              m_card->errorString());
    }

    // The named elements, or all that the mixer lists; reports each name that matches none.
    QList<AlsaMixerElementPtr> load(const QStringList& names, int* status)
    {
        QList<AlsaMixerElementPtr> elements;
        for (const QString& name : names.isEmpty() ? m_card->elementNames() : QList<QString>(names)) {
            if (AlsaMixerElementPtr element = m_card->loadMixerElement(name))
                elements << element;
            else
                *status = fail(Command, QStringLiteral("no element of mixer '%1' matches '%2'").arg(m_device, name),
                               ExitFailed);
        }
        return elements;
    }

    int set(const QString& name)
    {
        int status = ExitOk;
        const AlsaMixerElementPtr element = load({name}, &status).value(0);
        if (!element)
            return status;
        for (const Setter& setter : Setters) {
            const QString option = QString::fromLatin1(setter.option);
            if (status == ExitOk && m_parser.isSet(option))
                status = (this->*setter.apply)(*element, m_parser.value(option));
        }
        if (status == ExitOk)
            printOut(describe(*element));
        return status;
    }

    // The side to change: the one asked for, else playback when the element
    // has the control there, else capture; reports an element without it.
    int chooseSide(const QString& control, AlsaMixerElement& element, AlsaElementMode* mode)
    {
        long min = 0, max = 0;
        const QVector<AlsaElementMode> sides = m_playbackAsked  ? QVector<AlsaElementMode>{Playback}
                                               : m_captureAsked ? QVector<AlsaElementMode>{Capture}
                                                                : QVector<AlsaElementMode>{Playback, Capture};
        for (AlsaElementMode side : sides) {
            *mode = side;
            if (control == QLatin1String("switch") ? element.hasSwitch(side) : element.getVolumeRange(&min, &max, side))
                return ExitOk;
        }
        const QString asked = m_playbackAsked  ? QStringLiteral("playback ")
                              : m_captureAsked ? QStringLiteral("capture ")
                                               : QString();
        return fail(Command, QStringLiteral("'%1' has no %2%3").arg(element.name(), asked, control), ExitFailed);
    }

    int setVolume(AlsaMixerElement& element, const QString& value)
    {
        AlsaElementMode mode = Playback;
        long min = 0, max = 0;
        if (chooseSide(QStringLiteral("volume"), element, &mode) != ExitOk)
            return ExitFailed;
        element.getVolumeRange(&min, &max, mode);
        const bool percent = value.endsWith(QLatin1Char('%'));
        bool ok = false;
        const double number = (percent ? value.chopped(1) : value).toDouble(&ok);
        if (!ok || (!percent && number != std::floor(number)))
            return fail(Command, QStringLiteral("--volume takes a whole number or a percentage, not '%1'").arg(value),
                        ExitUsage);
        // In double, then converted once in range: long may have 32 bits.
        const double target = percent ? min + std::round(number * (double(max) - min) / 100.0) : number;
        if (!(target >= min && target <= max) || (percent && (number < 0 || number > 100)))
            return fail(Command,
                        QStringLiteral("volume %1 is out of range %2..%3 for '%4'")
                            .arg(value)
                            .arg(min)
                            .arg(max)
                            .arg(element.name()),
                        ExitFailed);
        return element.setVolume(static_cast<long>(target), mode)
                   ? ExitOk
                   : failBecause(Command, QStringLiteral("cannot set the volume of '%1'").arg(element.name()),
                                 element.errorString());
    }

    int setDb(AlsaMixerElement& element, const QString& value)
    {
        bool ok = false;
        const double dB = value.toDouble(&ok);
        if (!ok || !std::isfinite(dB))
            return fail(Command, QStringLiteral("--db takes a number, not '%1'").arg(value), ExitUsage);
        AlsaElementMode mode = Playback;
        if (chooseSide(QStringLiteral("volume"), element, &mode) != ExitOk)
            return ExitFailed;
        if (!element.hasDB(mode))
            return fail(Command, QStringLiteral("'%1' has no dB scale; use --volume").arg(element.name()), ExitFailed);
        return element.setDB(dB, mode)
                   ? ExitOk
                   : failBecause(Command, QStringLiteral("cannot set '%1' to %2 dB").arg(element.name(), value),
                                 element.errorString());
    }

    int setSwitch(AlsaMixerElement& element, const QString& value)
    {
        const QString state = value.toLower();
        if (state != QLatin1String("on") && state != QLatin1String("off"))
            return fail(Command, QStringLiteral("--switch takes on or off, not '%1'").arg(value), ExitUsage);
        AlsaElementMode mode = Playback;
        if (chooseSide(QStringLiteral("switch"), element, &mode) != ExitOk)
            return ExitFailed;
        return element.setSwitch(state == QLatin1String("on"), mode)
                   ? ExitOk
                   : failBecause(Command, QStringLiteral("cannot switch '%1' %2").arg(element.name(), state),
                                 element.errorString());
    }

    // Items are matched like element names: exact, else the first that contains
    // the text, ignoring case; a number selects by position.
    int setEnum(AlsaMixerElement& element, const QString& item)
    {
        if (!element.isEnumerated())
            return fail(Command, QStringLiteral("'%1' is not an enumeration").arg(element.name()), ExitFailed);
        const QStringList items = enumItems(element);
        bool isNumber = false;
        int index = item.toInt(&isNumber);
        if (!isNumber) {
            index = items.indexOf(
                QRegularExpression(QRegularExpression::escape(item), QRegularExpression::CaseInsensitiveOption));
            for (int i = 0; i < items.size() && index < 0; ++i)
                index = items[i].contains(item, Qt::CaseInsensitive) ? i : -1;
        }
        if (index < 0 || index >= items.size())
            return fail(Command,
                        QStringLiteral("'%1' has no item '%2' (items: %3)")
                            .arg(element.name(), item, items.join(QStringLiteral(", "))),
                        ExitFailed);
        return element.setEnum(static_cast<unsigned int>(index))
                   ? ExitOk
                   : failBecause(Command,
                                 QStringLiteral("cannot select '%1' on '%2'").arg(items[index], element.name()),
                                 element.errorString());
    }

    int watch(const QList<AlsaMixerElementPtr>& elements, int count)
    {
        QEventLoop loop;
        watchSignals();
        QTimer stopPoll;
        QObject::connect(&stopPoll, &QTimer::timeout, &loop, [&loop] {
            if (stopRequested())
                loop.exit(ExitOk);
        });
        stopPoll.start(StopPollMs);
        int changes = 0;
        for (const AlsaMixerElementPtr& element : qAsConst(elements)) {
            printOut(describe(*element));
            AlsaMixerElement* raw = element.data();
            QObject::connect(raw, &AlsaMixerElement::changed, &loop, [this, raw, &loop, &changes, count] {
                if (changes == count)
                    return; // the loop is ending; a closing mixer signals every element at once
                // A mixer that closed itself (its server went away) never reports again.
                if (!m_card->isOpen()) {
                    changes = count;
                    failBecause(Command, QStringLiteral("mixer '%1' closed").arg(m_device), m_card->errorString());
                    loop.exit(ExitFailed);
                    return;
                }
                printOut(QStringLiteral("changed ") + describe(*raw));
                if (++changes == count)
                    loop.exit(ExitOk);
            });
        }
        return loop.exec();
    }

    // set's options, applied in this order, each only while those before it succeeded.
    struct Setter {
        const char* option;
        int (MixerCommand::*apply)(AlsaMixerElement&, const QString&);
    };
    static constexpr Setter Setters[] = {{"enum", &MixerCommand::setEnum},
                                         {"switch", &MixerCommand::setSwitch},
                                         {"volume", &MixerCommand::setVolume},
                                         {"db", &MixerCommand::setDb}};

    QCommandLineParser m_parser;
    QString m_action;
    QStringList m_names;
    int m_count = -1;
    QString m_device;
    bool m_playbackAsked = false;
    bool m_captureAsked = false;
    std::unique_ptr<AlsaCard> m_card;
};

} // namespace

int runMixerCommand(const QStringList& arguments) { return MixerCommand().run(arguments); }

int checkMixerCommandLine(const QStringList& arguments)
{
    return MixerCommand().readCommandLine(arguments).value_or(ExitOk);
}

} // namespace quilaudio
