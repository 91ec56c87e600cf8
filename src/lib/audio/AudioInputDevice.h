#pragma once

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
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AudioInputDevice {
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

    /// Why this device's last failed operation failed: the text of the ERROR
    /// line the library logged for it. Empty while nothing failed since the
    /// device was made or last opened; later successes leave it, so read it
    /// right after an operation reported failure. Safe from any thread.
    ///
    /// Error values live in a table of the library keyed by the device's
    /// address, not in the object, whose layout host programs rely on; only
    /// failures and destruction touch that table, never a successful read.
    QString errorString() const;
    /// The ALSA or system error code of that failure (a negative errno
    /// value), or 0 when it had none or nothing failed.
    int errorCode() const;

protected:
    /// For a device of one's own: records why an operation failed, which
    /// errorString() and a provider's capture status then report. An empty
    /// text clears the value. A device that never calls it is reported with
    /// the provider's own message.
    void setErrorString(const QString& text, int code = 0);
};
