#pragma once

// What the subcommands of quil-audio share: the command-line options spelled
// as the common ALSA utilities spell them, the one-line failure report, the
// routing of the library's log, signals, and the progress line.

#include <QCommandLineParser>
#include <QObject>
#include <QString>
#include <QStringList>

#include <alsa/asoundlib.h>

#include <cstdio>
#include <functional>

class QSocketNotifier;

namespace quilaudio {

/// Exit statuses of every subcommand. An interrupt (SIGINT, SIGTERM) that
/// ends a command cleanly is a success.
enum ExitStatus {
    ExitOk = 0,
    ExitFailed = 1,   ///< a device, file or element could not be used
    ExitUsage = 2     ///< the command line itself is wrong
};

/// Prints "quil-audio <command>: <message>" as one line on stderr and returns status.
int fail(const QString& command, const QString& message, int status);

/// Prints one line on stderr (summaries, notices).
void printLine(const QString& line);

/// Prints the parser's help with `program` ("quil-audio play") in its usage line.
void printHelp(const QCommandLineParser& parser, const QString& program, FILE* stream);

/// Adds --help and -v/--verbose, parses `arguments` (the first one is
/// "quil-audio <command>"), answers --help, routes the library's log and runs
/// the command's own check of its options, if given. False when the command
/// must end now with *status: after --help, or after reporting a parse error
/// or the check's message.
bool parseCommandLine(QCommandLineParser& parser, const QStringList& arguments, const QString& command,
                      int* status, const std::function<bool(QString* error)>& checkOptions = {});

/// The stream every PCM command describes: -D, -r, -c, -f, -d and -t.
struct StreamOptions
{
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

    /// Bytes per frame as the library counts them (bit width / 8 per sample).
    int frameBytes() const;
    /// Frames in durationS, rounded; -1 without a duration.
    qint64 durationFrames() const;
};

void addStreamOptions(QCommandLineParser& parser);
/// False with a message naming the offending option and value.
bool readStreamOptions(const QCommandLineParser& parser, StreamOptions* options, QString* error);

/// An ALSA format name such as S16_LE (case-insensitive). False with a
/// message for unknown names and for formats whose samples do not fill their
/// bytes (S24_LE keeps 24 bits in 4 bytes): the library sizes blocks by the
/// bit width, so those would be cut short.
bool parseFormat(const QString& name, snd_pcm_format_t* format, QString* error);

/// Reads an option as an integer within [min, max], a time in microseconds
/// converted to whole milliseconds (at least 1), or a number. Each leaves
/// *value alone when the option is not set and fails with a message naming
/// the option when its value is not acceptable.
bool readInt(const QCommandLineParser& parser, const QString& option, qint64 min, qint64 max, int* value,
             QString* error);
bool readMicrosecondsAsMs(const QCommandLineParser& parser, const QString& option, int* valueMs,
                          QString* error);
bool readDouble(const QCommandLineParser& parser, const QString& option, double* value, QString* error);

/// Where the log4cplus logger "AudioLib" goes: with --verbose every record is
/// printed on stderr, otherwise nothing is. A command learns why the library
/// failed from the failing object itself (errorString()), never from the log.
/// ALSA's own error printing follows the same choice.
class LibraryLog
{
public:
    static void configure(bool verbose);
};

/// SIGINT and SIGTERM ask a command to stop, SIGUSR1 to toggle (mute); both
/// arrive as Qt signals on the thread that created the watcher (through a
/// self-pipe), and a stop request is also visible as a flag for loops that
/// run without an event loop. Handlers are installed for the watcher's life.
class SignalWatcher : public QObject
{
    Q_OBJECT

public:
    SignalWatcher();
    ~SignalWatcher() override;

    /// True once SIGINT or SIGTERM arrived; safe in any thread.
    static bool stopRequested();

signals:
    void stopSignalled();
    void toggleSignalled();

private:
    void onSelfPipeReadable();

    QSocketNotifier* m_notifier = nullptr;
};

/// Ends the process with a one-line report if it is still running `seconds`
/// from now: every wait on a device that might never return is bounded.
void armStopWatchdog(unsigned int seconds);

/// A status line redrawn in place on stderr, shown only when stderr is a terminal.
class ProgressLine
{
public:
    ProgressLine();
    bool isShown() const { return m_enabled; }
    void show(const QString& text);
    /// Ends the line so that following output starts on a new one.
    void finish();

private:
    bool m_enabled;
    bool m_drawn = false;
};

/// "3.25 s" style seconds for frames at rate.
QString secondsText(qint64 frames, unsigned int rate);

} // namespace quilaudio
