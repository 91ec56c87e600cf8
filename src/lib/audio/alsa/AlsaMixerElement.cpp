#include "AlsaMixerElement.h"

#include "AlsaMixerHandle.h"
#include "AudioLog_p.h"

#include <cmath>
#include <limits>
#include <sstream>

QUIL_AUDIO_DEFINE_LOGGER();

namespace {

// ALSA's front-left channel, also the only channel of a mono element.
constexpr snd_mixer_selem_channel_id_t FirstChannel = SND_MIXER_SCHN_FRONT_LEFT;

// The playback and capture variants of each ALSA call share one signature;
// only mode 0 means playback.
template <class Function> Function* side(AlsaElementMode mode, Function* playback, Function* capture)
{
    return mode == 0 ? playback : capture;
}

// For the element's controls any result but 0 is a failure, positive ones included;
// it is reported as action + name [+ " to: " + the value set] + " failed: " + the error text.
template <class... Value>
bool controlDone(const AlsaMixerElement* element, int result, const char* action, const Value&... set)
{
    if (result == 0)
        return true;
    std::ostringstream to;
    ((to << " to: " << set), ...);
    QUIL_ERROR(element, result, action << element->name() << to.str() << " failed: " << snd_strerror(result));
    return false;
}

} // namespace

AlsaMixerElement::AlsaMixerElement(const QString& name, _snd_mixer_elem* elem, QSharedPointer<AlsaMixerHandle> handle)
    : m_name(name)
    , m_elem(elem)
    , m_handle(std::move(handle))
{
    Q_ASSERT(m_elem);
    snd_mixer_elem_set_callback(m_elem, mixerElemCallback);
    snd_mixer_elem_set_callback_private(m_elem, this);
}

AlsaMixerElement::~AlsaMixerElement()
{
    // After the mixer closed or ALSA removed the element, m_elem is freed memory.
    if (isUsable()) {
        snd_mixer_elem_set_callback(m_elem, nullptr);
        snd_mixer_elem_set_callback_private(m_elem, nullptr);
    }
    quil::ErrorRegistry::clear(this);
}

QString AlsaMixerElement::name() const { return m_name; }

bool AlsaMixerElement::isUsable() const
{
    // A removed element's m_elem is freed memory; the mark stays outside the
    // object, whose layout host programs rely on.
    return m_handle->isOpen() && !quil::ErrorRegistry::isRetired(this);
}

bool AlsaMixerElement::isUsableLogged() const
{
    if (isUsable())
        return true;
    QUIL_ERROR(this, 0, "Mixer element " << m_name << " is no longer available");
    return false;
}

bool AlsaMixerElement::setDB(double dB, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " setDB " << dB);
    if (!isUsableLogged())
        return false;
    // Truncated toward zero. Beyond long's range (±21 million dB where long has
    // 32 bits) the conversion is undefined: such a gain asks for an end of the range.
    const double hundredths = dB * 100.0;
    const long value = hundredths >= double(std::numeric_limits<long>::max())   ? std::numeric_limits<long>::max()
                       : hundredths <= double(std::numeric_limits<long>::min()) ? std::numeric_limits<long>::min()
                       : std::isnan(hundredths)                                 ? 0
                                                                                : static_cast<long>(hundredths);
    const int result =
        side(mode, snd_mixer_selem_set_playback_dB_all, snd_mixer_selem_set_capture_dB_all)(m_elem, value, -1);
    return controlDone(this, result, "Set dB on: ", dB);
}

bool AlsaMixerElement::getDB(double* dB, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " getDB");
    if (!isUsableLogged())
        return false;
    long value = 0;
    const int result =
        side(mode, snd_mixer_selem_get_playback_dB, snd_mixer_selem_get_capture_dB)(m_elem, FirstChannel, &value);
    if (!controlDone(this, result, "Get dB on: "))
        return false;
    *dB = value / 100.0;
    return true;
}

bool AlsaMixerElement::hasDB(AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " hasDB");
    if (!isUsable())
        return false;
    long scratch = 0;
    return side(mode, snd_mixer_selem_get_playback_dB, snd_mixer_selem_get_capture_dB)(m_elem, FirstChannel, &scratch)
           == 0;
}

bool AlsaMixerElement::setVolume(long value, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " setVolume " << value);
    if (!isUsableLogged())
        return false;
    const int result =
        side(mode, snd_mixer_selem_set_playback_volume_all, snd_mixer_selem_set_capture_volume_all)(m_elem, value);
    return controlDone(this, result, "Set volume on: ", value);
}

bool AlsaMixerElement::getVolume(long* value, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " getVolume");
    if (!isUsableLogged())
        return false;
    const int result = side(mode, snd_mixer_selem_get_playback_volume,
                            snd_mixer_selem_get_capture_volume)(m_elem, FirstChannel, value);
    return controlDone(this, result, "Get volume on: ");
}

bool AlsaMixerElement::getVolumeRange(long* min, long* max, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " getVolumeRange");
    if (!isUsableLogged())
        return false;
    const int result = side(mode, snd_mixer_selem_get_playback_volume_range,
                            snd_mixer_selem_get_capture_volume_range)(m_elem, min, max);
    return controlDone(this, result, "Get volume range on: ");
}

bool AlsaMixerElement::hasSwitch(AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " hasSwitch");
    if (!isUsable())
        return false;
    return side(mode, snd_mixer_selem_has_playback_switch, snd_mixer_selem_has_capture_switch)(m_elem) != 0;
}

bool AlsaMixerElement::setSwitch(bool on, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " setSwitch " << on);
    if (!isUsableLogged())
        return false;
    const int result =
        side(mode, snd_mixer_selem_set_playback_switch_all, snd_mixer_selem_set_capture_switch_all)(m_elem, on ? 1 : 0);
    return controlDone(this, result, "Set switch on: ", on);
}

bool AlsaMixerElement::getSwitch(bool* on, AlsaElementMode mode)
{
    QUIL_TRACE_ENTRY(<< m_name << " getSwitch");
    if (!isUsableLogged())
        return false;
    int value = 0;
    const int result = side(mode, snd_mixer_selem_get_playback_switch,
                            snd_mixer_selem_get_capture_switch)(m_elem, FirstChannel, &value);
    if (!controlDone(this, result, "Get switch: "))
        return false;
    *on = value == 1;
    return true;
}

bool AlsaMixerElement::isEnumerated() { return isUsable() && snd_mixer_selem_is_enumerated(m_elem) != 0; }

bool AlsaMixerElement::setEnum(unsigned int item)
{
    if (!isUsableLogged())
        return false;
    const int result = snd_mixer_selem_set_enum_item(m_elem, FirstChannel, item);
    return controlDone(this, result, "Set Enum: ");
}

bool AlsaMixerElement::getEnum(unsigned int* item)
{
    if (!isUsableLogged())
        return false;
    const int result = snd_mixer_selem_get_enum_item(m_elem, FirstChannel, item);
    return controlDone(this, result, "Get Enum: ");
}

size_t AlsaMixerElement::getEnumSize()
{
    if (!isUsableLogged())
        return 0;
    const int items = snd_mixer_selem_get_enum_items(m_elem);
    if (items < 0) {
        QUIL_ERROR(this, items, "Get Enum size: " << m_name << " failed: " << snd_strerror(items));
        return 0;
    }
    return static_cast<size_t>(items);
}

bool AlsaMixerElement::getEnumItemName(unsigned int index, QString* name)
{
    if (!isUsableLogged())
        return false;
    char buffer[100];
    const int result = snd_mixer_selem_get_enum_item_name(m_elem, index, sizeof buffer, buffer);
    if (!controlDone(this, result, "Get Enum item name: "))
        return false;
    *name = QString::fromUtf8(buffer);
    return true;
}

QString AlsaMixerElement::errorString() const { return quil::ErrorRegistry::text(this); }

int AlsaMixerElement::errorCode() const { return quil::ErrorRegistry::code(this); }

int AlsaMixerElement::mixerElemCallback(_snd_mixer_elem* elem, unsigned int mask)
{
    QUIL_TRACE_ENTRY(<< "mask: " << mask << " element " << snd_mixer_selem_get_name(elem));
    if (!(mask & SND_CTL_EVENT_MASK_VALUE))
        return 0;
    auto* element = static_cast<AlsaMixerElement*>(snd_mixer_elem_get_callback_private(elem));
    if (!element)
        return 0;
    // ALSA frees the element when this callback returns; a receiver of the
    // signal below already finds the object retired.
    if (mask == SND_CTL_EVENT_MASK_REMOVE)
        quil::ErrorRegistry::retire(element);
    emit element->changed();
    return 0;
}
