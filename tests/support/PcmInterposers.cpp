// Pass-through definitions of every PCM function the library calls, so that a
// test can make any of them fail (see AlsaFaults.h).

#include "AlsaFaults.h"

#include <alsa/asoundlib.h>

QUIL_INTERPOSE_OPEN_CLOSE(snd_pcm_t, snd_pcm_open, snd_pcm_close,
                          (snd_pcm_t** handle, const char* name, snd_pcm_stream_t stream, int mode),
                          (handle, name, stream, mode))
QUIL_INTERPOSE(int, snd_pcm_hw_params_malloc, (snd_pcm_hw_params_t** p), (p))
QUIL_INTERPOSE(int, snd_pcm_hw_params_any, (snd_pcm_t* pcm, snd_pcm_hw_params_t* p), (pcm, p))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_access,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_access_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_format,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_format_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_channels,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, unsigned int v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_channels_near,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, unsigned int* v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_get_channels,
               (const snd_pcm_hw_params_t* p, unsigned int* v), (p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_rate,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, unsigned int v, int dir), (pcm, p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_rate_near,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, unsigned int* v, int* dir), (pcm, p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_period_size_near,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v, int* dir),
               (pcm, p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_set_buffer_size_near,
               (snd_pcm_t* pcm, snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params_get_period_size,
               (const snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v, int* dir), (p, v, dir))
QUIL_INTERPOSE(int, snd_pcm_hw_params_get_buffer_size,
               (const snd_pcm_hw_params_t* p, snd_pcm_uframes_t* v), (p, v))
QUIL_INTERPOSE(int, snd_pcm_hw_params, (snd_pcm_t* pcm, snd_pcm_hw_params_t* p), (pcm, p))
QUIL_INTERPOSE(int, snd_pcm_sw_params_current, (snd_pcm_t* pcm, snd_pcm_sw_params_t* p), (pcm, p))
QUIL_INTERPOSE(int, snd_pcm_sw_params_get_start_threshold,
               (const snd_pcm_sw_params_t* p, snd_pcm_uframes_t* v), (p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params_set_start_threshold,
               (snd_pcm_t* pcm, snd_pcm_sw_params_t* p, snd_pcm_uframes_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params_set_tstamp_mode,
               (snd_pcm_t* pcm, snd_pcm_sw_params_t* p, snd_pcm_tstamp_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params_set_tstamp_type,
               (snd_pcm_t* pcm, snd_pcm_sw_params_t* p, snd_pcm_tstamp_type_t v), (pcm, p, v))
QUIL_INTERPOSE(int, snd_pcm_sw_params, (snd_pcm_t* pcm, snd_pcm_sw_params_t* p), (pcm, p))
QUIL_INTERPOSE(snd_pcm_sframes_t, snd_pcm_readi,
               (snd_pcm_t* pcm, void* buffer, snd_pcm_uframes_t frames), (pcm, buffer, frames))
QUIL_INTERPOSE(snd_pcm_sframes_t, snd_pcm_writei,
               (snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t frames), (pcm, buffer, frames))
QUIL_INTERPOSE(int, snd_pcm_prepare, (snd_pcm_t* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_start, (snd_pcm_t* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_drain, (snd_pcm_t* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_recover, (snd_pcm_t* pcm, int err, int silent), (pcm, err, silent))
QUIL_INTERPOSE(snd_pcm_sframes_t, snd_pcm_avail_update, (snd_pcm_t* pcm), (pcm))
QUIL_INTERPOSE(int, snd_pcm_status, (snd_pcm_t* pcm, snd_pcm_status_t* status), (pcm, status))
QUIL_INTERPOSE(void, snd_pcm_hw_params_free, (snd_pcm_hw_params_t* p), (p))

// Retry and back-off sleeps, so tests can check them exactly (and skip them).
QUIL_INTERPOSE(int, usleep, (useconds_t us), (us))
