#include "CommandLine.h"

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <algorithm>
#include <cmath>

namespace quilaudio {

namespace {

// An ALSA format name such as S16_LE (case-insensitive). Formats whose samples
// do not fill their bytes (S24_LE keeps 24 bits in 4) are refused: the library
// sizes blocks by the bit width, so those would be cut short.
bool parseFormat(const QString& name, snd_pcm_format_t* format, QString* error)
{
    const snd_pcm_format_t value = snd_pcm_format_value(name.toUtf8().constData());
    const int width = snd_pcm_format_width(value);
    if (value == SND_PCM_FORMAT_UNKNOWN || width < 8)
        return refuse(error, QStringLiteral("unknown sample format '%1' (use an ALSA name such as S16_LE)").arg(name));
    if (width != snd_pcm_format_physical_width(value))
        return refuse(error,
                      QStringLiteral("sample format '%1' keeps %2 bits in %3 bytes, which the library cannot size;"
                                     " use a packed format such as S24_3LE or S32_LE")
                          .arg(name)
                          .arg(width)
                          .arg(snd_pcm_format_physical_width(value) / 8));
    *format = value;
    return true;
}

void printLineTo(FILE* stream, const QString& line)
{
    std::fprintf(stream, "%s\n", line.toLocal8Bit().constData());
    std::fflush(stream);
}

void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

// Where the log4cplus logger "AudioLib" goes: with `verbose` every record is
// printed on stderr, otherwise nothing is; ALSA's own error printing follows
// the same choice. A command learns why the library failed from the failing
// object itself (errorString()), never from the log.
void routeLibraryLog(bool verbose)
{
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib"));
    logger.setAdditivity(false);
    logger.removeAllAppenders();
    if (verbose) {
        log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
        console->setLayout(std::unique_ptr<log4cplus::Layout>(
            new log4cplus::PatternLayout(LOG4CPLUS_TEXT("%D{%H:%M:%S.%q} %-5p %m%n"))));
        logger.addAppender(console);
        logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        snd_lib_error_set_handler(nullptr);
    } else {
        // Off rather than without appenders, which log4cplus would report.
        logger.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        snd_lib_error_set_handler(silentAlsaErrorHandler);
    }
}

} // namespace

bool refuse(QString* error, const QString& message)
{
    *error = message;
    return false;
}

int fail(const QString& command, const QString& message, int status)
{
    printLine(QStringLiteral("quil-audio %1: %2").arg(command, message));
    return status;
}

int failBecause(const QString& command, const QString& message, const QString& why)
{
    return fail(command, why.isEmpty() ? message : message + QStringLiteral(": ") + why, ExitFailed);
}

void printLine(const QString& line) { printLineTo(stderr, line); }

void printOut(const QString& line) { printLineTo(stdout, line); }

void printHelp(const QCommandLineParser& parser, const QString& program, FILE* stream)
{
    // Qt names the executable by its path; the usage line names the program as typed.
    QString text = parser.helpText();
    const int optionsAt = text.indexOf(QStringLiteral(" [options]"));
    if (optionsAt > 0 && optionsAt < text.indexOf(QLatin1Char('\n')))
        text.replace(0, optionsAt, QStringLiteral("Usage: ") + program);
    std::fputs(text.toLocal8Bit().constData(), stream);
}

std::optional<int> parseCommandLine(QCommandLineParser& parser, const QStringList& arguments, const QString& command,
                                    const std::function<bool(QString* error)>& checkOptions)
{
    const QCommandLineOption help = parser.addHelpOption();
    parser.addOption({{QStringLiteral("v"), QStringLiteral("verbose")},
                      QStringLiteral("Print the library's log (logger \"AudioLib\") on stderr.")});
    if (!parser.parse(arguments))
        return fail(command, parser.errorText(), ExitUsage);
    if (parser.isSet(help)) {
        printHelp(parser, QStringLiteral("quil-audio ") + command, stdout);
        return ExitOk;
    }
    routeLibraryLog(parser.isSet(QStringLiteral("verbose")));
    QString error;
    if (checkOptions && !checkOptions(&error))
        return fail(command, error, ExitUsage);
    return std::nullopt;
}

qint64 StreamOptions::durationFrames() const { return durationS < 0 ? -1 : std::llround(durationS * rate); }

void addOptions(QCommandLineParser& parser, std::initializer_list<OptionSpec> options)
{
    for (const OptionSpec& option : options)
        parser.addOption({QString::fromUtf8(option.names).split(QLatin1Char(',')), QString::fromUtf8(option.help),
                          QString::fromUtf8(option.valueName), QString::fromUtf8(option.defaultValue)});
}

void addStreamOptions(QCommandLineParser& parser, const char* usage, const char* fileHelp)
{
    parser.setApplicationDescription(QString::fromLatin1(usage));
    parser.addPositionalArgument(QStringLiteral("file"), QString::fromLatin1(fileHelp), QStringLiteral("[file]"));
    addOptions(parser,
               {
                   {"D,device", "ALSA PCM name (default).", "name", "default"},
                   {"r,rate", "Sample rate in Hz (48000).", "hz"},
                   {"c,channels", "Channel count (2).", "n"},
                   {"f,format", "Sample format by its ALSA name (S16_LE).", "format"},
                   {"d,duration",
                    "Seconds to run (fractions allowed); default: until Ctrl-C or, for play, the end of the input.",
                    "seconds"},
                   {"t,file-type",
                    "File type: raw, wav, rf64, w64, flac, ogg or au (default: by the file name's extension).", "type"},
               });
}

bool readStreamOptions(const QCommandLineParser& parser, StreamOptions* options, QString* error)
{
    options->device = parser.value(QStringLiteral("device"));
    options->fileType = parser.value(QStringLiteral("file-type"));
    options->rateGiven = parser.isSet(QStringLiteral("rate"));
    options->channelsGiven = parser.isSet(QStringLiteral("channels"));
    options->formatGiven = parser.isSet(QStringLiteral("format"));
    int rate = static_cast<int>(options->rate);
    int channels = static_cast<int>(options->channels);
    if (!readInt(parser, QStringLiteral("rate"), 1, 1000000, &rate, error)
        || !readInt(parser, QStringLiteral("channels"), 1, 256, &channels, error)
        || !readDouble(parser, QStringLiteral("duration"), &options->durationS, error))
        return false;
    options->rate = static_cast<unsigned int>(rate);
    options->channels = static_cast<unsigned int>(channels);
    if (parser.isSet(QStringLiteral("duration")) && !(options->durationS > 0))
        return refuse(
            error, QStringLiteral("--duration must be above 0, not %1").arg(parser.value(QStringLiteral("duration"))));
    const QString format = parser.value(QStringLiteral("format"));
    return format.isEmpty() || parseFormat(format, &options->format, error);
}

bool exclusive(const QCommandLineParser& parser, const QString& a, const QString& b, QString* error)
{
    if (parser.isSet(a) && parser.isSet(b))
        return refuse(error, QStringLiteral("--%1 and --%2 set the same thing; give one of them").arg(a, b));
    return true;
}

bool readFileArgument(const QCommandLineParser& parser, const QString& what, QString* file, QString* error)
{
    const QStringList positional = parser.positionalArguments();
    if (positional.size() > 1)
        return refuse(error,
                      QStringLiteral("one %1 file at most, got: %2").arg(what, positional.join(QLatin1Char(' '))));
    *file = positional.value(0, QStringLiteral("-"));
    return true;
}

bool readInt(const QCommandLineParser& parser, const QString& option, qint64 min, qint64 max, int* value,
             QString* error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const qint64 number = parser.value(option).toLongLong(&ok);
    if (!ok || number < min || number > max)
        return refuse(error, QStringLiteral("--%1 must be a whole number from %2 to %3, not '%4'")
                                 .arg(option)
                                 .arg(min)
                                 .arg(max)
                                 .arg(parser.value(option)));
    *value = static_cast<int>(number);
    return true;
}

bool readMicrosecondsAsMs(const QCommandLineParser& parser, const QString& option, int* valueMs, QString* error)
{
    int us = 0;
    if (!readInt(parser, option, 1, 10000000, &us, error))
        return false;
    // The library counts these times in whole milliseconds.
    if (us > 0)
        *valueMs = std::max(1, (us + 500) / 1000);
    return true;
}

bool readDouble(const QCommandLineParser& parser, const QString& option, double* value, QString* error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const double number = parser.value(option).toDouble(&ok);
    if (!ok || !std::isfinite(number))
        return refuse(error, QStringLiteral("--%1 must be a number, not '%2'").arg(option, parser.value(option)));
    *value = number;
    return true;
}

} // namespace quilaudio
