#pragma once

#include "QuilAudioGlobal.h"

#include <alsa/asoundlib.h>

#include <QList>
#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QVector>

#include <poll.h>

class QSocketNotifier;

/// \file
/// AlsaMixerHandle, an opened ALSA simple mixer watched on the Qt event loop.

/// One opened ALSA simple mixer whose poll descriptors are watched on the Qt
/// event loop of the thread that opened it; pending mixer events are handed to
/// ALSA there, which calls the element callbacks (see AlsaMixerElement).
///
/// Always held through QSharedPointer: the card holds one reference and every
/// element another, so the mixer, and the element pointers ALSA handed out,
/// stay valid while any of them is alive.
///
/// The handle closes itself for good when a descriptor reports POLLERR or
/// POLLNVAL, or when ALSA fails to process pending events (a dead backend
/// leaves its descriptor readable forever). A closed handle leaves ALSA alone:
/// the lookups then return an empty list, an empty string and null.
///
/// Not thread-safe: use it, and drop its last reference, on the thread that
/// opened it, which must run a Qt event loop. Most hosts use it through AlsaCard.
/// \ingroup internals
class QUIL_AUDIO_EXPORT AlsaMixerHandle : public QObject {
    Q_OBJECT

public:
    /// Takes ownership of an opened mixer; used by openHandle().
    explicit AlsaMixerHandle(_snd_mixer* mixer);
    /// Closes the mixer.
    ~AlsaMixerHandle() override;

    /// Opens, attaches, registers and loads the mixer device `name` (e.g.
    /// "default") and starts watching its poll descriptors. Null after logging
    /// the failing step.
    static QSharedPointer<AlsaMixerHandle> openHandle(const QString& name);

    /// Names of the active simple elements in mixer order, once per index.
    QList<QString> buildElementList();
    /// The full name of the active element that matches `name` best, ignoring
    /// case: an exact match, else the first element whose name contains it;
    /// empty when none does. Spelled as the mixer spells it.
    QString guessElementName(const QString& name);
    /// The simple element with exactly this name and index 0 (active or not),
    /// or null.
    _snd_mixer_elem* findElement(const QString& name);
    /// Releases notifiers, descriptors and the mixer; harmless when closed.
    void close();
    /// True until close(), the destructor, or a poll or event error.
    bool isOpen() const;
    /// Why the handle closed itself (the logged poll or event error), or
    /// empty. Safe from any thread.
    QString errorString() const;
    /// The ALSA error code of that failure, or 0 (a poll error has none).
    int errorCode() const;

private slots:
    void on_alsaMixerEvent_received(int fd);

private:
    friend class AlsaCard; // learns why an open failed

    /// openHandle(name) that also records the failing step's log text and
    /// ALSA code as the error value of the object errorOwner (may be null).
    static QSharedPointer<AlsaMixerHandle> openHandle(const QString& name, const void* errorOwner);
    bool fetchPollDescriptors(const void* error);
    void watchPollDescriptors();
    unsigned short pendingPollEvents();

    _snd_mixer* m_mixer;
    QVector<pollfd> m_pollFds;
    QList<QSocketNotifier*> m_notifiers;
};
