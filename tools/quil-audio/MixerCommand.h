#pragma once

#include <QStringList>

namespace quilaudio {

/// `quil-audio mixer`: lists, reads, changes and watches simple-mixer
/// elements. `arguments` starts with "quil-audio mixer"; returns the exit status.
int runMixerCommand(const QStringList& arguments);

} // namespace quilaudio
