#include "AudioInputDevice.h"

AudioInputDevice::~AudioInputDevice() = default;
