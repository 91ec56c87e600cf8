#pragma once

#include "AlsaMixerElement.h"
#include "AlsaMixerHandle.h"
#include "QuilAudioGlobal.h"

#include <QHash>
#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QWeakPointer>

/// \file
/// AlsaCard, an ALSA mixer device that hands out its elements by name.

/// A named ALSA mixer device (for example DefaultName) that hands out its
/// elements by partial, case-insensitive name.
///
/// Every request that resolves to the same full element name gets the same
/// element object, and with it the same changed() signals, for as long as some
/// client holds it; the card itself never keeps an element alive.
///
/// Threads: open the card on a thread that runs a Qt event loop and use it and
/// its elements there only: that loop delivers the elements' changed() signals.
/// A failure (false, null) is explained by errorString() and errorCode().
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AlsaCard : public QObject {
    Q_OBJECT

public:
    /// ALSA's default mixer device, "default".
    static const char* const DefaultName;

    /// `name` is the ALSA mixer device name; with `open` true the card is
    /// opened at once (see isOpen() for the outcome, errorString() for a failure).
    AlsaCard(const QString& name, bool open);
    /// Drops the card's reference to the mixer; elements still held keep it open.
    ~AlsaCard() override;

    /// Opens the mixer unless the card is open; true when it is open afterwards.
    /// After a failure it may be called again.
    bool open();
    /// True while the card holds an open mixer. A mixer that closed itself on
    /// a poll error or a dead backend counts as closed, so that open() can
    /// open the device afresh; elements loaded before then stay unusable and
    /// must be loaded again.
    bool isOpen() const;
    /// The ALSA mixer device name.
    QString name() const;
    /// The names of the mixer's active simple elements, in mixer order, each
    /// once (see AlsaMixerHandle::buildElementList()); empty while closed.
    QList<QString> elementNames() const;

    /// The shared element whose full name best matches `name` (see
    /// AlsaMixerHandle::guessElementName()), or null after logging why.
    AlsaMixerElementPtr loadMixerElement(const QString& name);

    /// Why the last failed open() or loadMixerElement() failed, or else why
    /// an open mixer closed itself (see isOpen()): the text of the ERROR line
    /// logged for it. Empty until a failure and again once open() succeeds;
    /// a successful loadMixerElement() leaves it. Kept outside the object,
    /// as for AudioInputDevice::errorString(). Safe from any thread.
    QString errorString() const;
    /// The ALSA error code of that failure (negative), or 0 when it had
    /// none (an element that is not there) or there was no failure.
    int errorCode() const;

private:
    AlsaMixerElementPtr cachedElement(const QString& fullName);

    QString m_name;
    QSharedPointer<AlsaMixerHandle> m_handle;
    QHash<QString, QWeakPointer<AlsaMixerElement>> m_elements;
};
