#include "Commands.h"

namespace quilaudio {

const std::array<Subcommand, 4> Subcommands{{
    {"record", "capture from an ALSA PCM or a raw file into an audio file or stdout", runRecordCommand,
     checkRecordCommandLine},
    {"play", "play an audio file, raw PCM on stdin or a tone to an ALSA PCM or a raw file", runPlayCommand,
     checkPlayCommandLine},
    {"mixer", "list, get, set and watch mixer elements", runMixerCommand, checkMixerCommandLine},
    {"devices", "list the PCMs and the sound cards with their mixer elements", runDevicesCommand,
     checkDevicesCommandLine},
}};

} // namespace quilaudio
