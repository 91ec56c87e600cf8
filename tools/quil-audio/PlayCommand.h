#pragma once

#include <QStringList>

namespace quilaudio {

/// `quil-audio play`: plays an audio file, raw PCM on stdin or a tone to an
/// ALSA PCM or a raw file. `arguments` starts with "quil-audio play"; returns the exit status.
int runPlayCommand(const QStringList& arguments);

} // namespace quilaudio
