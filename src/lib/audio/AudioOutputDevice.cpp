#include "AudioOutputDevice.h"

#include "ErrorRegistry_p.h"

using quil::ErrorRegistry;

AudioOutputDevice::~AudioOutputDevice() { ErrorRegistry::clear(this); }
QString AudioOutputDevice::errorString() const { return ErrorRegistry::text(this); }
int AudioOutputDevice::errorCode() const { return ErrorRegistry::code(this); }
void AudioOutputDevice::setErrorString(const QString& text, int code) { ErrorRegistry::record(this, text, code); }
