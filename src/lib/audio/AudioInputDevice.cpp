#include "AudioInputDevice.h"

#include "ErrorRegistry_p.h"

using quil::ErrorRegistry;

// Every device, a host program's own included, passes through here, so no
// error value outlives its device to be found by a later one at its address.
AudioInputDevice::~AudioInputDevice() { ErrorRegistry::clear(this); }
QString AudioInputDevice::errorString() const { return ErrorRegistry::text(this); }
int AudioInputDevice::errorCode() const { return ErrorRegistry::code(this); }
void AudioInputDevice::setErrorString(const QString& text, int code) { ErrorRegistry::record(this, text, code); }
