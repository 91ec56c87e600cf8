#include "AlsaDevices.h"

#include "AudioLog_p.h"

#include <cstdlib>
#include <memory>

QUIL_AUDIO_DEFINE_LOGGER();

namespace {

// ALSA hands out hint and card texts allocated with malloc().
QString takeText(char* text)
{
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    return owned ? QString::fromLocal8Bit(owned.get()) : QString();
}

// Hands an ALSA result on, keeping its error code for the caller.
int reported(int result, int* errorCode)
{
    if (errorCode)
        *errorCode = result < 0 ? result : 0;
    return result;
}

} // namespace

QList<AlsaDevices::Pcm> AlsaDevices::pcms(int* errorCode)
{
    QUIL_TRACE_ENTRY();
    void** hints = nullptr;
    if (QUIL_ALSA_FAILED(nullptr, reported(snd_device_name_hint(-1, "pcm", &hints), errorCode),
                         "Cannot read the device name hints: "))
        return {};
    const std::unique_ptr<void*, decltype(&snd_device_name_free_hint)> owned(hints, &snd_device_name_free_hint);
    QList<Pcm> found;
    for (void** hint = hints; *hint; ++hint) {
        Pcm pcm;
        pcm.name = takeText(snd_device_name_get_hint(*hint, "NAME"));
        if (pcm.name.isEmpty())
            continue;
        pcm.description = takeText(snd_device_name_get_hint(*hint, "DESC"));
        const QString direction = takeText(snd_device_name_get_hint(*hint, "IOID"));
        pcm.playback = direction != QLatin1String("Input");
        pcm.capture = direction != QLatin1String("Output");
        found << pcm;
    }
    return found;
}

QList<AlsaDevices::Card> AlsaDevices::cards()
{
    QUIL_TRACE_ENTRY();
    QList<Card> found;
    int index = -1;
    while (snd_card_next(&index) == 0 && index >= 0) {
        Card card;
        card.index = index;
        card.device = QStringLiteral("hw:%1").arg(index);
        char* text = nullptr;
        if (snd_card_get_name(index, &text) == 0)
            card.name = takeText(text);
        text = nullptr;
        if (snd_card_get_longname(index, &text) == 0)
            card.longName = takeText(text);
        found << card;
    }
    return found;
}

QVector<snd_pcm_format_t> AlsaDevices::formats(const QString& name, snd_pcm_stream_t stream, int* errorCode)
{
    QUIL_TRACE_ENTRY(<< "Name: " << name << ", stream: " << stream);
    snd_pcm_t* opened = nullptr;
    if (QUIL_ALSA_FAILED(
            nullptr,
            reported(snd_pcm_open(&opened, name.toLocal8Bit().constData(), stream, SND_PCM_NONBLOCK), errorCode),
            "Cannot open the PCM to probe its formats: "))
        return {};
    const std::unique_ptr<snd_pcm_t, decltype(&snd_pcm_close)> pcm(opened, &snd_pcm_close);
    snd_pcm_hw_params_t* params = nullptr;
    snd_pcm_hw_params_alloca(&params);
    if (QUIL_ALSA_FAILED(nullptr, reported(snd_pcm_hw_params_any(pcm.get(), params), errorCode),
                         "Cannot read the PCM's hardware parameters: "))
        return {};
    QVector<snd_pcm_format_t> taken;
    for (int format = 0; format <= SND_PCM_FORMAT_LAST; ++format) {
        if (snd_pcm_hw_params_test_format(pcm.get(), params, static_cast<snd_pcm_format_t>(format)) == 0)
            taken << static_cast<snd_pcm_format_t>(format);
    }
    return taken;
}
