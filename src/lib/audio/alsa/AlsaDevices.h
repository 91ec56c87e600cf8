#pragma once

#include "QuilAudioGlobal.h"

#include <QList>
#include <QString>
#include <QVector>

#include <alsa/asoundlib.h>

/// What ALSA offers on this system, for a host program that lets a person
/// choose a device: the PCMs that ALSA's device name hints name, the sound
/// cards, and the sample formats a PCM takes. Each call asks ALSA afresh;
/// safe from any thread.
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AlsaDevices {
public:
    /// A PCM that a device name hint describes.
    struct Pcm {
        /// The name to open it by, e.g. "default" or "hw:CARD=PCH,DEV=0".
        QString name;
        /// As the hint gives it; hardware hints hold several lines.
        QString description;
        /// A hint without a direction serves both.
        bool playback = true;
        /// True when it captures (see playback).
        bool capture = true;
    };

    /// A sound card as the kernel names it.
    struct Card {
        /// ALSA's card number, the N of "hw:N".
        int index = -1;
        /// The card's short name.
        QString name;
        /// The card's long name, often with its bus address.
        QString longName;
        /// "hw:N": the card's control and mixer device.
        QString device;
    };

    /// The hinted PCMs in ALSA's order. A PCM without a hint (often
    /// "default") is not listed but opens by name. Empty on failure, after
    /// logging it; *errorCode (if given) receives the ALSA error code, else 0.
    static QList<Pcm> pcms(int* errorCode = nullptr);
    /// The sound cards in index order.
    static QList<Card> cards();
    /// The formats that the PCM `name` takes for `stream`, in ALSA's order,
    /// probed without waiting for a busy device. Empty when it cannot be
    /// opened, after logging why; *errorCode as for pcms().
    static QVector<_snd_pcm_format> formats(const QString& name, _snd_pcm_stream stream, int* errorCode = nullptr);
};
