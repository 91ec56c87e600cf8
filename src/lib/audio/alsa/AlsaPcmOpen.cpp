#include "AlsaPcmOpen_p.h"

#include <unistd.h>

namespace quil {

int openPcmWithRetries(snd_pcm_t** pcm, const QString& name, snd_pcm_stream_t stream)
{
    const QByteArray utf8Name = name.toUtf8();
    int result = 0;
    for (int attempt = 0; attempt < PcmOpenAttempts; ++attempt) {
        result = snd_pcm_open(pcm, utf8Name.constData(), stream, 0);
        if (result >= 0)
            return 0;
        *pcm = nullptr;
        usleep(PcmOpenRetryDelayUs);
    }
    return result;
}

} // namespace quil
