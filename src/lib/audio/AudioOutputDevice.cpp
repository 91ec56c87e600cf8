#include "AudioOutputDevice.h"

AudioOutputDevice::~AudioOutputDevice() = default;
