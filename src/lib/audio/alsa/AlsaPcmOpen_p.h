#pragma once

#include <QString>

#include <alsa/asoundlib.h>

namespace quil {

// Devices that are being brought up by another process (a sound server
// starting, a USB device enumerating) often appear within a second, so an
// open is tried this many times with this pause after every failed attempt.
constexpr int PcmOpenAttempts = 4;
constexpr unsigned int PcmOpenRetryDelayUs = 250000;

// Opens `name` in blocking mode into *pcm, retrying as above. Returns 0 on
// success, else the last attempt's ALSA error code (and *pcm stays null).
int openPcmWithRetries(snd_pcm_t** pcm, const QString& name, snd_pcm_stream_t stream);

} // namespace quil
