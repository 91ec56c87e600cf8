#pragma once

#include "LastError.h"
#include "QuilAudioGlobal.h"

#include <QByteArray>
#include <QString>

/// A source of captured audio: interleaved PCM frames at a fixed sample rate,
/// channel count and sample format, delivered block by block on request.
///
/// open(), read() and close() are called by one thread; the format accessors
/// return values fixed at construction and may be called from any thread.
class QUIL_AUDIO_EXPORT AudioInputDevice : public quil::ErrorReporting
{
public:
    virtual ~AudioInputDevice();

    /// Makes the device ready to deliver frames; true on an already open device.
    /// On false the device holds nothing open.
    virtual bool open() = 0;
    /// Releases what open() acquired; harmless on a closed device.
    virtual void close() = 0;
    /// True while the device holds an open source.
    virtual bool isOpened() = 0;
    /// Blocks until a block of at most frameCount frames is available and stores
    /// it in buffer (resized by the device). False: the device failed and the
    /// buffer content is meaningless.
    virtual bool read(QByteArray* buffer, int frameCount) = 0;
    /// Frames per second.
    virtual int sampleRate() const = 0;
    /// Bit width of the sample format / 8, truncated.
    virtual int bytesPerSample() const = 0;
    virtual int channelCount() const = 0;
    /// Human-readable name for log messages.
    virtual QString name() const = 0;
};
