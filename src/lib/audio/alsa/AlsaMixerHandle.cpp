#include "AlsaMixerHandle.h"

#include "AudioLog_p.h"
#include "quil.h"

#include <QByteArray>
#include <QSocketNotifier>

QUIL_AUDIO_DEFINE_LOGGER();

AlsaMixerHandle::AlsaMixerHandle(_snd_mixer* mixer)
    : m_mixer(mixer)
{
}

AlsaMixerHandle::~AlsaMixerHandle()
{
    close();
    quil::ErrorRegistry::clear(this);
}

QSharedPointer<AlsaMixerHandle> AlsaMixerHandle::openHandle(const QString& name) { return openHandle(name, nullptr); }

QSharedPointer<AlsaMixerHandle> AlsaMixerHandle::openHandle(const QString& name, const void* error)
{
    QUIL_TRACE_ENTRY(<< "Name: " << name);
    snd_mixer_t* mixer = nullptr;
    if (QUIL_ALSA_FAILED(error, snd_mixer_open(&mixer, 0), "Mixer open error: "))
        return {};

    // From here on, dropping this pointer closes the mixer on every failure.
    QSharedPointer<AlsaMixerHandle> handle(new AlsaMixerHandle(mixer));
    const QByteArray deviceName = name.toUtf8();
    if (QUIL_ALSA_FAILED(error, snd_mixer_attach(mixer, deviceName.constData()),
                         ("Mixer attach " + deviceName + " error: ").constData()))
        return {};
    if (QUIL_ALSA_FAILED(error, snd_mixer_selem_register(mixer, nullptr, nullptr), "Mixer register error: "))
        return {};
    if (QUIL_ALSA_FAILED(error, snd_mixer_load(mixer), ("Mixer " + deviceName + " load error: ").constData()))
        return {};
    if (!handle->fetchPollDescriptors(error))
        return {};
    handle->watchPollDescriptors();
    return handle;
}

// A mixer without descriptors could never report a change, so it counts as a
// failure rather than as a handle without events.
bool AlsaMixerHandle::fetchPollDescriptors(const void* error)
{
    const int count = snd_mixer_poll_descriptors_count(m_mixer);
    if (count <= 0) {
        QUIL_ERROR(error, count, "Failed to get poll descriptors count: " << count);
        return false;
    }
    m_pollFds.resize(count);
    const int filled = snd_mixer_poll_descriptors(m_mixer, m_pollFds.data(), static_cast<unsigned int>(count));
    if (filled <= 0) {
        QUIL_ERROR(error, filled, "Failed to get poll descriptors: " << filled);
        return false;
    }
    m_pollFds.resize(qMin(filled, count));
    return true;
}

// Read notifiers for every descriptor, whatever events ALSA asked for: the
// event loop also wakes a read notifier on POLLERR and POLLHUP, and the slot
// asks poll() for the details.
void AlsaMixerHandle::watchPollDescriptors()
{
    for (pollfd& entry : m_pollFds) {
        entry.revents = 0;
        auto* notifier = new QSocketNotifier(entry.fd, QSocketNotifier::Read, this);
        // Qt 5.15 hides the activated(int) overload from callers; the
        // descriptor of the visible one converts to the slot's int.
        quilConnect(notifier, &QSocketNotifier::activated, this, &AlsaMixerHandle::on_alsaMixerEvent_received,
                    Qt::AutoConnection);
        m_notifiers.append(notifier);
    }
}

QList<QString> AlsaMixerHandle::buildElementList()
{
    QList<QString> names;
    if (!m_mixer)
        return names;
    snd_mixer_selem_id_t* id = nullptr;
    snd_mixer_selem_id_alloca(&id);
    for (snd_mixer_elem_t* elem = snd_mixer_first_elem(m_mixer); elem; elem = snd_mixer_elem_next(elem)) {
        snd_mixer_selem_get_id(elem, id);
        if (snd_mixer_selem_is_active(elem))
            names.append(QString::fromUtf8(snd_mixer_selem_id_get_name(id)));
    }
    return names;
}

QString AlsaMixerHandle::guessElementName(const QString& name)
{
    QUIL_TRACE_ENTRY(<< "Selem: " << name);
    const QString key = name.toLower();
    QString candidate;
    for (const QString& elementName : buildElementList()) {
        const QString lowered = elementName.toLower();
        if (!lowered.contains(key))
            continue;
        if (lowered == key)
            return elementName;
        if (candidate.isEmpty())
            candidate = elementName;
    }
    return candidate;
}

_snd_mixer_elem* AlsaMixerHandle::findElement(const QString& name)
{
    if (!m_mixer)
        return nullptr;
    snd_mixer_selem_id_t* id = nullptr;
    snd_mixer_selem_id_alloca(&id);
    snd_mixer_selem_id_set_index(id, 0);
    snd_mixer_selem_id_set_name(id, name.toUtf8().constData());
    return snd_mixer_find_selem(m_mixer, id);
}

void AlsaMixerHandle::close()
{
    qDeleteAll(m_notifiers);
    m_notifiers.clear();
    m_pollFds.clear();
    if (!m_mixer)
        return;
    // snd_mixer_close calls every element callback with the removal mask, and
    // a receiver of the resulting changed() may come back to this handle: it
    // must already find it closed.
    snd_mixer_t* mixer = m_mixer;
    m_mixer = nullptr;
    snd_mixer_close(mixer);
}

bool AlsaMixerHandle::isOpen() const { return m_mixer != nullptr; }

void AlsaMixerHandle::on_alsaMixerEvent_received(int fd)
{
    Q_UNUSED(fd) // every descriptor is examined, whichever one woke up
    QUIL_TRACE_ENTRY();
    if (!m_mixer)
        return;
    const unsigned short revents = pendingPollEvents();
    if (revents & (POLLERR | POLLNVAL)) {
        QUIL_ERROR(this, 0, "POLLERR | POLLNVAL: " << revents);
        close();
        return;
    }
    // A backend that died (e.g. a sound server that went away) fails here on
    // every wake-up while its descriptor stays readable: without closing, the
    // event loop would come straight back, spinning a core.
    if (QUIL_ALSA_FAILED(this, snd_mixer_handle_events(m_mixer), "Mixer event handling error: "))
        close();
}

QString AlsaMixerHandle::errorString() const { return quil::ErrorRegistry::text(this); }

int AlsaMixerHandle::errorCode() const { return quil::ErrorRegistry::code(this); }

// The notifier tells only that some descriptor woke up: a poll() without timeout
// fills in what happened, and ALSA combines that. If ALSA cannot, 0 stays and a
// broken mixer shows through snd_mixer_handle_events instead.
unsigned short AlsaMixerHandle::pendingPollEvents()
{
    for (pollfd& entry : m_pollFds)
        entry.revents = 0;
    ::poll(m_pollFds.data(), static_cast<nfds_t>(m_pollFds.size()), 0);
    unsigned short revents = 0;
    snd_mixer_poll_descriptors_revents(m_mixer, m_pollFds.data(), static_cast<unsigned int>(m_pollFds.size()),
                                       &revents);
    return revents;
}
