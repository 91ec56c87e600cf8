#pragma once

namespace quilaudio {

/// Where the log4cplus logger "AudioLib" goes: with `verbose` every record is
/// printed on stderr, otherwise nothing is; ALSA's own error printing follows
/// the same choice. A command learns why the library failed from the failing
/// object itself (errorString()), never from the log.
void routeLibraryLog(bool verbose);

} // namespace quilaudio
