#pragma once

// The subcommands of quil-audio, one source file each, and the table that
// main(), the help and the fuzz targets read them from.

#include <QStringList>

#include <array>

namespace quilaudio {

/// One subcommand. `arguments` starts with "quil-audio <name>".
struct Subcommand {
    const char* name;
    /// Its line in the tool's help.
    const char* summary;
    /// Runs it: the exit status (ExitStatus).
    int (*run)(const QStringList& arguments);
    /// Reads and checks its command line only, opening no device or file:
    /// ExitOk when it would go on to run (or after --help), else ExitUsage.
    int (*checkCommandLine)(const QStringList& arguments);
};

/// Every subcommand, in the help's order.
extern const std::array<Subcommand, 4> Subcommands;

int runRecordCommand(const QStringList& arguments);
int checkRecordCommandLine(const QStringList& arguments);
int runPlayCommand(const QStringList& arguments);
int checkPlayCommandLine(const QStringList& arguments);
int runMixerCommand(const QStringList& arguments);
int checkMixerCommandLine(const QStringList& arguments);
int runDevicesCommand(const QStringList& arguments);
int checkDevicesCommandLine(const QStringList& arguments);

} // namespace quilaudio
