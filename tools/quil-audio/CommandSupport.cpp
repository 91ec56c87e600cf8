#include "CommandSupport.h"

#include <QSocketNotifier>

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quilaudio {

int fail(const QString& command, const QString& message, int status)
{
    printLine(QStringLiteral("quil-audio %1: %2").arg(command, message));
    return status;
}

void printLine(const QString& line)
{
    std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
    std::fflush(stderr);
}

void printHelp(const QCommandLineParser& parser, const QString& program, FILE* stream)
{
    // Qt names the executable by its path; the usage line names the program as typed.
    QString text = parser.helpText();
    const int optionsAt = text.indexOf(QStringLiteral(" [options]"));
    if (optionsAt > 0 && optionsAt < text.indexOf(QLatin1Char('\n')))
        text.replace(0, optionsAt, QStringLiteral("Usage: ") + program);
    std::fputs(text.toLocal8Bit().constData(), stream);
}

bool parseCommandLine(QCommandLineParser& parser, const QStringList& arguments, const QString& command,
                      int* status, const std::function<bool(QString* error)>& checkOptions)
{
    const QCommandLineOption help = parser.addHelpOption();
    parser.addOption({{QStringLiteral("v"), QStringLiteral("verbose")},
                      QStringLiteral("Print the library's log (logger \"AudioLib\") on stderr.")});
    if (!parser.parse(arguments)) {
        *status = fail(command, parser.errorText(), ExitUsage);
        return false;
    }
    if (parser.isSet(help)) {
        printHelp(parser, QStringLiteral("quil-audio ") + command, stdout);
        *status = ExitOk;
        return false;
    }
    LibraryLog::configure(parser.isSet(QStringLiteral("verbose")));
    QString error;
    if (checkOptions && !checkOptions(&error)) {
        *status = fail(command, error, ExitUsage);
        return false;
    }
    return true;
}

int StreamOptions::frameBytes() const
{
    const int width = snd_pcm_format_width(format);
    return width > 0 ? width / 8 * static_cast<int>(channels) : 0;
}

qint64 StreamOptions::durationFrames() const
{
    return durationS < 0 ? -1 : std::llround(durationS * rate);
}

void addStreamOptions(QCommandLineParser& parser)
{
    parser.addOptions({
        {{QStringLiteral("D"), QStringLiteral("device")}, QStringLiteral("ALSA PCM name (default)."),
         QStringLiteral("name"), QStringLiteral("default")},
        {{QStringLiteral("r"), QStringLiteral("rate")}, QStringLiteral("Sample rate in Hz (48000)."),
         QStringLiteral("hz")},
        {{QStringLiteral("c"), QStringLiteral("channels")}, QStringLiteral("Channel count (2)."),
         QStringLiteral("n")},
        {{QStringLiteral("f"), QStringLiteral("format")},
         QStringLiteral("Sample format by its ALSA name (S16_LE)."), QStringLiteral("format")},
        {{QStringLiteral("d"), QStringLiteral("duration")},
         QStringLiteral("Seconds to run (fractions allowed); default: until Ctrl-C or, for play, the end of the input."),
         QStringLiteral("seconds")},
        {{QStringLiteral("t"), QStringLiteral("file-type")},
         QStringLiteral("File type: raw, wav, rf64, w64, flac, ogg or au (default: by the file name's extension)."),
         QStringLiteral("type")},
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
    if (parser.isSet(QStringLiteral("duration")) && !(options->durationS > 0)) {
        *error = QStringLiteral("--duration must be above 0, not %1").arg(parser.value(QStringLiteral("duration")));
        return false;
    }
    const QString format = parser.value(QStringLiteral("format"));
    return format.isEmpty() || parseFormat(format, &options->format, error);
}

bool parseFormat(const QString& name, snd_pcm_format_t* format, QString* error)
{
    const snd_pcm_format_t value = snd_pcm_format_value(name.toUtf8().constData());
    const int width = snd_pcm_format_width(value);
    if (value == SND_PCM_FORMAT_UNKNOWN || width < 8) {
        *error = QStringLiteral("unknown sample format '%1' (use an ALSA name such as S16_LE)").arg(name);
        return false;
    }
    if (width != snd_pcm_format_physical_width(value)) {
        *error = QStringLiteral("sample format '%1' keeps %2 bits in %3 bytes, which the library cannot size;"
                                " use a packed format such as S24_3LE or S32_LE")
                     .arg(name).arg(width).arg(snd_pcm_format_physical_width(value) / 8);
        return false;
    }
    *format = value;
    return true;
}

bool readInt(const QCommandLineParser& parser, const QString& option, qint64 min, qint64 max, int* value,
             QString* error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const qint64 number = parser.value(option).toLongLong(&ok);
    if (!ok || number < min || number > max) {
        *error = QStringLiteral("--%1 must be a whole number from %2 to %3, not '%4'")
                     .arg(option).arg(min).arg(max).arg(parser.value(option));
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

bool readMicrosecondsAsMs(const QCommandLineParser& parser, const QString& option, int* valueMs,
                          QString* error)
{
    if (!parser.isSet(option))
        return true;
    int us = 0;
    if (!readInt(parser, option, 1, 10000000, &us, error))
        return false;
    // The library counts these times in whole milliseconds.
    *valueMs = std::max(1, (us + 500) / 1000);
    return true;
}

bool readDouble(const QCommandLineParser& parser, const QString& option, double* value, QString* error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const double number = parser.value(option).toDouble(&ok);
    if (!ok || !std::isfinite(number)) {
        *error = QStringLiteral("--%1 must be a number, not '%2'").arg(option, parser.value(option));
        return false;
    }
    *value = number;
    return true;
}

// ---- the library's log

namespace {

void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...)
{
}

} // namespace

void LibraryLog::configure(bool verbose)
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

// ---- signals

namespace {

int selfPipe[2] = {-1, -1};
std::atomic<bool> stopFlag{false};

void onSignal(int signal)
{
    const int savedErrno = errno;
    if (signal != SIGUSR1)
        stopFlag = true;
    const char byte = static_cast<char>(signal);
    if (::write(selfPipe[1], &byte, 1) < 0) {
        // A full pipe already holds a wake-up; the flag carries the stop.
    }
    errno = savedErrno;
}

void onWatchdog(int)
{
    static const char text[] = "quil-audio: the device did not stop in time, giving up\n";
    if (::write(STDERR_FILENO, text, sizeof text - 1) < 0) {
        // Nothing more can be done on the way out.
    }
    ::_exit(ExitFailed);
}

void setHandler(int signal, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a read of stdin that waits for input returns on Ctrl-C.
    sigaction(signal, &action, nullptr);
}

} // namespace

SignalWatcher::SignalWatcher()
{
    if (selfPipe[0] < 0 && ::pipe2(selfPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        selfPipe[0] = selfPipe[1] = -1;
    if (selfPipe[0] >= 0) {
        m_notifier = new QSocketNotifier(selfPipe[0], QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &SignalWatcher::onSelfPipeReadable);
    }
    for (int signal : {SIGINT, SIGTERM, SIGUSR1})
        setHandler(signal, onSignal);
    // A reader that goes away shows as a failed write, not as a silent death.
    std::signal(SIGPIPE, SIG_IGN);
}

SignalWatcher::~SignalWatcher()
{
    for (int signal : {SIGINT, SIGTERM, SIGUSR1})
        setHandler(signal, SIG_DFL);
}

bool SignalWatcher::stopRequested()
{
    return stopFlag;
}

void SignalWatcher::onSelfPipeReadable()
{
    char received[16];
    ssize_t n;
    while ((n = ::read(selfPipe[0], received, sizeof received)) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            if (received[i] == SIGUSR1)
                emit toggleSignalled();
            else
                emit stopSignalled();
        }
    }
}

void armStopWatchdog(unsigned int seconds)
{
    setHandler(SIGALRM, onWatchdog);
    ::alarm(seconds);
}

// ---- progress

ProgressLine::ProgressLine()
    : m_enabled(::isatty(STDERR_FILENO) == 1)
{
}

void ProgressLine::show(const QString& text)
{
    if (!m_enabled)
        return;
    std::fprintf(stderr, "\r%s\033[K", text.toLocal8Bit().constData());
    std::fflush(stderr);
    m_drawn = true;
}

void ProgressLine::finish()
{
    if (m_drawn)
        std::fputs("\n", stderr);
    m_drawn = false;
}

QString secondsText(qint64 frames, unsigned int rate)
{
    return QStringLiteral("%1 s").arg(rate ? double(frames) / rate : 0.0, 0, 'f', 3);
}

} // namespace quilaudio
