#pragma once

#include <QStringList>

namespace quilaudio {

/// `quil-audio record`: captures from an ALSA PCM or a raw file into an audio
/// file or stdout. `arguments` starts with "quil-audio record"; returns the exit status.
int runRecordCommand(const QStringList& arguments);

} // namespace quilaudio
