// Pass-through definitions of the mixer functions that tests make fail or
// count (see AlsaFaults.h).

#include "AlsaFaults.h"

#include <alsa/asoundlib.h>

QUIL_INTERPOSE_OPEN_CLOSE(snd_mixer_t, snd_mixer_open, snd_mixer_close, (snd_mixer_t** handle, int mode), (handle, mode))

using Elem = snd_mixer_elem_t;
using Channel = snd_mixer_selem_channel_id_t;

QUIL_INTERPOSE(int, snd_mixer_attach, (snd_mixer_t* m, const char* name), (m, name))
QUIL_INTERPOSE(int, snd_mixer_selem_register,
               (snd_mixer_t* m, struct snd_mixer_selem_regopt* options, snd_mixer_class_t** c), (m, options, c))
QUIL_INTERPOSE(int, snd_mixer_load, (snd_mixer_t* m), (m))
QUIL_INTERPOSE(int, snd_mixer_poll_descriptors_count, (snd_mixer_t* m), (m))
QUIL_INTERPOSE(int, snd_mixer_poll_descriptors, (snd_mixer_t* m, struct pollfd* p, unsigned int n), (m, p, n))
QUIL_INTERPOSE(void, snd_mixer_elem_set_callback_private, (Elem* e, void* p), (e, p))

QUIL_INTERPOSE(int, snd_mixer_selem_set_playback_dB_all, (Elem* e, long v, int d), (e, v, d))
QUIL_INTERPOSE(int, snd_mixer_selem_get_playback_dB, (Elem* e, Channel c, long* v), (e, c, v))
QUIL_INTERPOSE(int, snd_mixer_selem_get_capture_dB, (Elem* e, Channel c, long* v), (e, c, v))
QUIL_INTERPOSE(int, snd_mixer_selem_set_capture_volume_all, (Elem* e, long v), (e, v))
QUIL_INTERPOSE(int, snd_mixer_selem_get_playback_volume, (Elem* e, Channel c, long* v), (e, c, v))
QUIL_INTERPOSE(int, snd_mixer_selem_get_playback_volume_range, (Elem* e, long* lo, long* hi), (e, lo, hi))
QUIL_INTERPOSE(int, snd_mixer_selem_has_playback_switch, (Elem* e), (e))
QUIL_INTERPOSE(int, snd_mixer_selem_set_playback_switch_all, (Elem* e, int v), (e, v))
QUIL_INTERPOSE(int, snd_mixer_selem_get_playback_switch, (Elem* e, Channel c, int* v), (e, c, v))
QUIL_INTERPOSE(int, snd_mixer_selem_is_enumerated, (Elem* e), (e))
QUIL_INTERPOSE(int, snd_mixer_selem_set_enum_item, (Elem* e, Channel c, unsigned int i), (e, c, i))
QUIL_INTERPOSE(int, snd_mixer_selem_get_enum_item, (Elem* e, Channel c, unsigned int* i), (e, c, i))
QUIL_INTERPOSE(int, snd_mixer_selem_get_enum_items, (Elem* e), (e))
QUIL_INTERPOSE(int, snd_mixer_selem_get_enum_item_name,
               (Elem* e, unsigned int i, size_t n, char* buffer), (e, i, n, buffer))
