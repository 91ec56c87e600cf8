#pragma once

// The command line as every subcommand of quil-audio reads it: options
// spelled as the common ALSA utilities spell them, exit statuses, and the
// one-line reports on stdout and stderr.

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <alsa/asoundlib.h>

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <optional>

namespace quilaudio {

/// Exit statuses of every subcommand. An interrupt (SIGINT, SIGTERM) that
/// ends a command cleanly is a success.
enum ExitStatus {
    ExitOk = 0,
    ExitFailed = 1, ///< a device, file or element could not be used
    ExitUsage = 2 ///< the command line itself is wrong
};

/// Periods and buffer as the ALSA utilities choose them, a 500 ms buffer in
/// four periods: every period costs a wake-up and a device transfer, and
/// neither a recording nor a playback here needs lower latency.
constexpr int DefaultPeriodMs = 125;
constexpr int DefaultBufferMs = 500;

/// Sets *error to message and returns false: how an option check fails.
bool refuse(QString* error, const QString& message);
/// Prints "quil-audio <command>: <message>" as one line on stderr and returns status.
int fail(const QString& command, const QString& message, int status);
/// fail() with ExitFailed, the message followed by ": why" when there is a why
/// (the failing object's errorString(), empty when it has none).
int failBecause(const QString& command, const QString& message, const QString& why);
/// One line on stderr (summaries, notices).
void printLine(const QString& line);
/// One line on stdout, flushed: a watcher's lines must reach a pipe as they happen.
void printOut(const QString& line);
/// Prints the parser's help with `program` ("quil-audio play") in its usage line.
void printHelp(const QCommandLineParser& parser, const QString& program, FILE* stream);

/// One option as a table row: its names joined by ',' ("o,output-file"), its
/// help and, for an option that takes a value, the value's name and default.
struct OptionSpec {
    const char* names;
    const char* help;
    const char* valueName = "";
    const char* defaultValue = "";
};
void addOptions(QCommandLineParser& parser, std::initializer_list<OptionSpec> options);

/// Adds --help and -v/--verbose, parses `arguments` (the first one is
/// "quil-audio <command>"), answers --help, routes the library's log and runs
/// the command's own check of its options, if given. The status when the
/// command must end now: after --help, or after reporting a parse error
/// or the check's message.
std::optional<int> parseCommandLine(QCommandLineParser& parser, const QStringList& arguments, const QString& command,
                                    const std::function<bool(QString* error)>& checkOptions = {});

/// The stream every PCM command describes: -D, -r, -c, -f, -d and -t.
struct StreamOptions {
    QString device;
    unsigned int rate = 48000;
    unsigned int channels = 2;
    snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE;
    /// Seconds to run, or below 0 to run until the input ends or an interrupt.
    double durationS = -1;
    /// -t: the file's type by name; empty to go by its extension.
    QString fileType;
    /// Which of -r, -c and -f the command line gave.
    bool rateGiven = false;
    bool channelsGiven = false;
    bool formatGiven = false;

    /// Frames in durationS, rounded; -1 without a duration.
    qint64 durationFrames() const;
};

/// Describes a PCM command (`usage`) and adds the options of StreamOptions
/// and its file argument, described by `fileHelp`.
void addStreamOptions(QCommandLineParser& parser, const char* usage, const char* fileHelp);
/// False with a message naming the offending option and value.
bool readStreamOptions(const QCommandLineParser& parser, StreamOptions* options, QString* error);

/// False with a message when both options are given: each sets the same
/// quantity, and the later one would win silently.
bool exclusive(const QCommandLineParser& parser, const QString& a, const QString& b, QString* error);

/// The one file argument, "-" (stdin or stdout) without one; `what` names
/// it ("input") in the message for more than one.
bool readFileArgument(const QCommandLineParser& parser, const QString& what, QString* file, QString* error);

/// Reads an option as an integer within [min, max], a time in microseconds
/// converted to whole milliseconds (at least 1), or a number. Each leaves
/// *value alone when the option is not set and fails with a message naming
/// the option when its value is not acceptable.
bool readInt(const QCommandLineParser& parser, const QString& option, qint64 min, qint64 max, int* value,
             QString* error);
bool readMicrosecondsAsMs(const QCommandLineParser& parser, const QString& option, int* valueMs, QString* error);
bool readDouble(const QCommandLineParser& parser, const QString& option, double* value, QString* error);

} // namespace quilaudio
