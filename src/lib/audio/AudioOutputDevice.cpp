#include "AudioOutputDevice.h"

AudioOutputDevice::~AudioOutputDevice() = default;

QString AudioOutputDevice::errorString() const
{
    return m_lastError.text();
}

int AudioOutputDevice::errorCode() const
{
    return m_lastError.code();
}
