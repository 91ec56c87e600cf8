#pragma once

#include "QuilAudioGlobal.h"

#include <alsa/asoundlib.h>

#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <cstddef>

class AlsaMixerHandle;

/// \file
/// AlsaMixerElement, one ALSA simple-mixer control with its change signal.

/// The side of a mixer element an operation works on. Only 0 means playback:
/// every other value acts as capture.
/// \ingroup hostapi
enum AlsaElementMode : int {
    Playback = 0, ///< the playback controls
    Capture = 1, ///< the capture controls
};

/// One ALSA simple mixer element (volume, switch, enumerated selector) with
/// its controls, and the signal changed() whenever ALSA reports a new value.
///
/// The mode-taking operations have no default side: many elements ("Mic")
/// have controls on one side only.
///
/// Every query goes to ALSA; nothing is cached. dB values are in decibels
/// (ALSA's hundredths, converted with 100.0), volumes in the element's own
/// range (getVolumeRange()). Getters write their output only on success.
///
/// Once the mixer closed itself (see AlsaMixerHandle) or ALSA removed the
/// element, the object stays, but every operation fails without touching ALSA.
///
/// Created by AlsaCard::loadMixerElement(); use it on the thread that opened
/// the card, whose event loop delivers changed(). The getters and setters
/// return false (getEnumSize() 0) on failure, and errorString() and errorCode()
/// tell why; hasDB(), hasSwitch() and isEnumerated() answer false silently.
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AlsaMixerElement : public QObject {
    Q_OBJECT

public:
    /// Registers this object as the element's ALSA callback; an ALSA element
    /// has one callback slot, so the newest object for it gets its events.
    /// `elem` must not be null and must belong to the open `handle`.
    AlsaMixerElement(const QString& name, _snd_mixer_elem* elem, QSharedPointer<AlsaMixerHandle> handle);
    /// Removes the ALSA callback, then drops the handle reference.
    ~AlsaMixerElement() override;

    /// The full name as the mixer spells it.
    QString name() const;

    /// Sets every channel to dB, or the nearest value below it.
    bool setDB(double dB, AlsaElementMode mode);
    /// Channel 0 in dB.
    bool getDB(double* dB, AlsaElementMode mode);
    /// True when channel 0 can be read in dB.
    bool hasDB(AlsaElementMode mode);

    /// Sets every channel to the raw value, without range check.
    bool setVolume(long value, AlsaElementMode mode);
    /// Channel 0's raw value.
    bool getVolume(long* value, AlsaElementMode mode);
    /// The raw volume range of the side's volume control.
    bool getVolumeRange(long* min, long* max, AlsaElementMode mode);

    /// True when the side has a switch (false once the element is unusable).
    bool hasSwitch(AlsaElementMode mode);
    /// Switches every channel on (true) or off.
    bool setSwitch(bool on, AlsaElementMode mode);
    /// Channel 0's switch.
    bool getSwitch(bool* on, AlsaElementMode mode);

    /// True for an enumerated control (a selector with named items).
    bool isEnumerated();
    /// Selects the item on channel 0 only.
    bool setEnum(unsigned int item);
    /// Channel 0's selected item.
    bool getEnum(unsigned int* item);
    /// The number of items; 0 on failure.
    size_t getEnumSize();
    /// The item's name (at most 99 bytes).
    bool getEnumItemName(unsigned int index, QString* name);

    /// The callback registered with ALSA: emits changed() for a value change,
    /// including ALSA's removal of the element, which also retires the object.
    static int mixerElemCallback(_snd_mixer_elem* elem, unsigned int mask);

    /// Why the last failed call failed: the text of the ERROR line logged
    /// for it. Empty until a failure; later successes leave it, so read it
    /// right after a call reported failure. Kept outside the object, as for
    /// AudioInputDevice::errorString(). Safe from any thread.
    QString errorString() const;
    /// The ALSA error code of that failure, or 0 when it had none (an
    /// element that is no longer available) or there was no failure.
    int errorCode() const;

signals:
    /// The element's value changed; read it through the getters. Emitted on
    /// the thread that opened the card, from its event loop. Some ALSA plugins
    /// (the pulse mixer among them) do not report a change made through this
    /// same card: a setter that returned true has made it.
    void changed();

private:
    friend class AlsaCard; // replaces elements that ALSA removed in its cache

    bool isUsable() const;
    bool isUsableLogged() const;

    QString m_name;
    _snd_mixer_elem* m_elem;
    QSharedPointer<AlsaMixerHandle> m_handle;
};

/// How elements are handed to clients.
/// \ingroup hostapi
typedef QSharedPointer<AlsaMixerElement> AlsaMixerElementPtr;
