#include "AlsaCard.h"

#include "AudioLog_p.h"

#include <QStringList>

QUIL_AUDIO_DEFINE_LOGGER();

const char* const AlsaCard::DefaultName = "default";

AlsaCard::AlsaCard(const QString& name, bool open)
    : QObject(nullptr)
    , m_name(name)
{
    QUIL_TRACE_ENTRY(<< "Name: " << m_name << ", open: " << open);
    if (open)
        AlsaCard::open();
}

AlsaCard::~AlsaCard() { quil::ErrorRegistry::clear(this); }

bool AlsaCard::open()
{
    if (!isOpen()) {
        // A handle that closed itself is replaced; the cache never hands out its
        // elements again, as they are all retired (see cachedElement()).
        m_handle = AlsaMixerHandle::openHandle(m_name, this);
        if (!isOpen())
            return false;
    }
    quil::ErrorRegistry::clear(this);
    return true;
}

bool AlsaCard::isOpen() const { return m_handle && m_handle->isOpen(); }

QString AlsaCard::name() const { return m_name; }

QList<QString> AlsaCard::elementNames() const
{
    if (!isOpen())
        return {};
    QStringList names = m_handle->buildElementList();
    names.removeDuplicates();
    return names;
}

// A card's own failure comes first; without one, a mixer that closed itself
// speaks for the card.
QString AlsaCard::errorString() const
{
    const QString text = quil::ErrorRegistry::text(this);
    return text.isEmpty() && m_handle && !m_handle->isOpen() ? m_handle->errorString() : text;
}

int AlsaCard::errorCode() const
{
    const QString text = quil::ErrorRegistry::text(this);
    return text.isEmpty() && m_handle && !m_handle->isOpen() ? m_handle->errorCode() : quil::ErrorRegistry::code(this);
}

AlsaMixerElementPtr AlsaCard::loadMixerElement(const QString& name)
{
    QUIL_TRACE_ENTRY(<< "Name: " << name << ", open " << isOpen());
    if (name.isEmpty()) {
        QUIL_ERROR(this, 0, "Cannot load mixer element with empty name");
        return {};
    }
    if (!isOpen()) {
        QUIL_ERROR(this, 0, "Cannot load mixer element, not opened " << m_name);
        return {};
    }

    const QString fullName = m_handle->guessElementName(name);
    LOG4CPLUS_DEBUG(logger, "Search element by name: " << name << " -> " << fullName);
    if (AlsaMixerElementPtr cached = cachedElement(fullName))
        return cached;

    snd_mixer_elem_t* elem = m_handle->findElement(fullName);
    if (!elem) {
        QUIL_ERROR(this, 0, "Element '" << name << "' ('" << fullName << "') not found");
        return {};
    }
    LOG4CPLUS_TRACE(logger, "Element '" << fullName << "' at " << static_cast<const void*>(elem));
    AlsaMixerElementPtr element(new AlsaMixerElement(fullName, elem, m_handle));
    m_elements.insert(fullName, element);
    return element;
}

// A live element is shared. An entry whose element is gone, or whose ALSA
// element was removed from the mixer (it may come back as a new one), is
// dropped so that the caller creates a fresh object.
AlsaMixerElementPtr AlsaCard::cachedElement(const QString& fullName)
{
    const auto entry = m_elements.find(fullName);
    if (entry == m_elements.end())
        return {};
    AlsaMixerElementPtr element = entry->toStrongRef();
    if (element && element->isUsable())
        return element;
    m_elements.erase(entry);
    return {};
}
