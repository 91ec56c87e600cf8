#pragma once

#include <QStringList>

namespace quilaudio {

/// `quil-audio devices`: what a board offers, as ALSA names it (AlsaDevices):
/// the hinted PCMs, and the cards with the number of simple-mixer elements
/// the library finds on each. `arguments` starts with "quil-audio devices";
/// returns the exit status.
int runDevicesCommand(const QStringList& arguments);

} // namespace quilaudio
