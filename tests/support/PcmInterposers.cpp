// Pass-through definitions of every PCM and card function the library calls, so that a
// test can make any of them fail (see AlsaFaults.h).

#include "AlsaFaults.h"

#include <alsa/asoundlib.h>

using Pcm = snd_pcm_t;
using Hw = snd_pcm_hw_params_t;
using Sw = snd_pcm_sw_params_t;
using Frames = snd_pcm_uframes_t;

QUIL_INTERPOSE_OPEN_CLOSE(Pcm, snd_pcm_open, snd_pcm_close, (Pcm** handle, const char* name, snd_pcm_stream_t stream, int mode),
                          (handle, name, stream, mode))
QUIL_INTERPOSE(int, snd_pcm_hw_params_malloc, (Hw** p), (p))
QUIL_INTERPOSE(void, snd_pcm_hw_params_free, (Hw* p), (p))
QUIL_INTERPOSE(int, snd_pcm_hw_params_any, (Pcm* pcm, Hw* p), (pcm, p))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_access, (Pcm* pcm, Hw* p, snd_pcm_access_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_format, (Pcm* pcm, Hw* p, snd_pcm_format_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_channels, (Pcm* pcm, Hw* p, unsigned int v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_channels_near, (Pcm* pcm, Hw* p, unsigned int* v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_get_channels, (const Hw* p, unsigned int* v), (p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_rate, (Pcm* pcm, Hw* p, unsigned int v, int dir), (pcm, p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_rate_near, (Pcm* pcm, Hw* p, unsigned int* v, int* dir), (pcm, p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_period_size_near, (Pcm* pcm, Hw* p, Frames* v, int* dir), (pcm, p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_buffer_size_near, (Pcm* pcm, Hw* p, Frames* v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_get_period_size, (const Hw* p, Frames* v, int* dir), (p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_get_buffer_size, (const Hw* p, Frames* v), (p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params, (Pcm* pcm, Hw* p), (pcm, p))
QUIL_INTERPOSE(int, snd_pcm_sw_params_current, (Pcm* pcm, Sw* p), (pcm, p))
QUIL_INTERPOSE(int, snd_pcm_sw_params_get_start_threshold, (const Sw* p, Frames* v), (p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params_set_start_threshold, (Pcm* pcm, Sw* p, Frames v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params_set_tstamp_mode, (Pcm* pcm, Sw* p, snd_pcm_tstamp_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params_set_tstamp_type, (Pcm* pcm, Sw* p, snd_pcm_tstamp_type_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params, (Pcm* pcm, Sw* p), (pcm, p))
QUIL_INTERPOSE(snd_pcm_sframes_t, snd_pcm_readi, (Pcm* pcm, void* buffer, Frames frames), (pcm, buffer, frames))
QUIL_INTERPOSE(int, snd_pcm_prepare, (Pcm* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_start, (Pcm* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_drain, (Pcm* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_recover, (Pcm* pcm, int err, int silent), (pcm, err, silent))
QUIL_INTERPOSE(snd_pcm_sframes_t, snd_pcm_avail_update, (Pcm* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_status, (Pcm* pcm, snd_pcm_status_t* status), (pcm, status))
QUIL_INTERPOSE(int, snd_card_next, (int* index), (index))
QUIL_INTERPOSE(int, snd_card_get_name, (int index, char** name), (index, name))
QUIL_INTERPOSE(int, snd_card_get_longname, (int index, char** name), (index, name))

// Retry and back-off sleeps, so tests can check them exactly (and skip them).
QUIL_INTERPOSE(int, usleep, (useconds_t us), (us))
