#pragma once

#include "LastError.h"
#include "QuilAudioGlobal.h"

#include <QByteArray>
#include <QString>

/// \file
/// The capture-device interface that AudioInputDataProvider reads from.

/// A source of captured audio: interleaved PCM frames at a fixed sample rate,
/// channel count and sample format, delivered block by block on request.
///
/// Threads: open(), read() and close() are called by one thread at a time (an
/// AudioInputDataProvider calls them on its thread "AudioInputT" while it
/// captures); the format accessors return values fixed at construction and
/// may be called from any thread. A failed open() or read() reports false;
/// its reason is in errorString() and errorCode(), read right after the call.
class QUIL_AUDIO_EXPORT AudioInputDevice : public quil::ErrorReporting
{
public:
    /// Destroying a device releases whatever it holds open.
    virtual ~AudioInputDevice();

    /// Makes the device ready to deliver frames; true on an already open device.
    /// On false the device holds nothing open (reason: errorString()).
    virtual bool open() = 0;
    /// Releases what open() acquired; harmless on a closed device.
    virtual void close() = 0;
    /// True while the device holds an open source. Same thread as open().
    virtual bool isOpened() = 0;
    /// Blocks until a block of at most frameCount frames is available and stores
    /// it in buffer (resized by the device). False: the device failed and the
    /// buffer content is meaningless.
    virtual bool read(QByteArray* buffer, int frameCount) = 0;
    /// Frames per second.
    virtual int sampleRate() const = 0;
    /// Bit width of the sample format / 8, truncated.
    virtual int bytesPerSample() const = 0;
    /// Samples per frame.
    virtual int channelCount() const = 0;
    /// Human-readable name for log messages.
    virtual QString name() const = 0;
};
