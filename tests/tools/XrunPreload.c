// Preloaded into quil-audio by the tool test: the Nth snd_pcm_writei of the
// process (N from QUIL_TEST_XRUN_AT) fails with -EPIPE, an underrun on demand.
#define _GNU_SOURCE // RTLD_NEXT
#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t size)
{
    static int calls;
    static snd_pcm_sframes_t (*real)(snd_pcm_t*, const void*, snd_pcm_uframes_t);
    if (!real)
        real = (snd_pcm_sframes_t(*)(snd_pcm_t*, const void*, snd_pcm_uframes_t))dlsym(RTLD_NEXT, "snd_pcm_writei");
    const char* at = getenv("QUIL_TEST_XRUN_AT");
    return at && ++calls == atoi(at) ? -EPIPE : real(pcm, buffer, size);
}
