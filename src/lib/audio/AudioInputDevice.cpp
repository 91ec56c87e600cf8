#include "AudioInputDevice.h"

AudioInputDevice::~AudioInputDevice() = default;

QString AudioInputDevice::errorString() const
{
    return m_lastError.text();
}

int AudioInputDevice::errorCode() const
{
    return m_lastError.code();
}
