#pragma once

// The subcommands of quil-audio, one source file each. `arguments` starts
// with "quil-audio <command>"; each returns the exit status (ExitStatus).

#include <QStringList>

namespace quilaudio {

/// Captures from an ALSA PCM or a raw file into an audio file or stdout.
int runRecordCommand(const QStringList& arguments);
/// Plays an audio file, raw PCM on stdin or a tone to an ALSA PCM or a raw file.
int runPlayCommand(const QStringList& arguments);
/// Lists, reads, changes and watches simple-mixer elements.
int runMixerCommand(const QStringList& arguments);
/// Lists the hinted PCMs and the cards with their mixer element counts.
int runDevicesCommand(const QStringList& arguments);

} // namespace quilaudio
