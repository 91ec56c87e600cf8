#pragma once

#include <QString>

namespace quiltest {

// The private sound server (PulseAudio or PipeWire) that a "sound_server_*"
// ctest fixture starts (scripts/lib/soundserver.sh) is reached through
// PULSE_SERVER, and through ALSA's PCM and ctl soundDevice(): "pulse" (either
// server) or "pipewire" (PipeWire's own plugins).
inline QString soundDevice()
{
    return qEnvironmentVariable("QUIL_TEST_SOUND_DEVICE", QStringLiteral("pulse"));
}

} // namespace quiltest
