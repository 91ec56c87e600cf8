#pragma once

#include "QuilAudioGlobal.h"

#include <QByteArray>
#include <QString>

/// \file
/// The playback-device interface with its close modes and write results.

/// A sink for interleaved PCM frames: opened, fed block by block, and closed
/// either at once or after the queued audio has played out.
///
/// Threads: use a device from one thread at a time; no operation takes a lock.
/// A failed open() reports false, a failed write() a WriteResult other than
/// Written; the reason is in errorString() and errorCode(), read right after the call.
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AudioOutputDevice {
public:
    /// How close() treats audio that is still queued.
    enum CloseMode {
        Immediate = 0, ///< discard it and close at once
        Drain = 1 ///< block until it has played, then close
    };

    /// The outcome of one write().
    enum WriteResult {
        Written = 0, ///< every whole frame of the block was accepted
        XrunRecovered = 1, ///< the device ran dry; it runs on, the rest of the block was dropped
        DeviceClosed = 2 ///< the device is closed (an unrecoverable error closed it): open() it again
    };

    /// Destroying a device closes it with Immediate.
    virtual ~AudioOutputDevice();

    /// Makes the device ready to accept frames; true when it is open afterwards
    /// (also when it already was).
    virtual bool open() = 0;
    /// Closes the device; any mode but Drain closes at once. Harmless when closed.
    virtual void close(AudioOutputDevice::CloseMode mode) = 0;
    /// True while the device is open.
    virtual bool isOpened() = 0;
    /// Hands the whole frames of data to the device; a trailing partial frame
    /// is ignored. What a closed device answers differs by class:
    /// AlsaOutputDevice gives DeviceClosed, FileOutputDevice Written.
    virtual AudioOutputDevice::WriteResult write(const QByteArray& data) = 0;
    /// Frames the device can accept now, or -1 when it cannot tell.
    virtual int framesReady() const = 0;
    /// Frames per second.
    virtual int sampleRate() const = 0;
    /// Bit width of the sample format / 8, truncated.
    virtual int bytesPerSample() const = 0;
    /// Samples per frame.
    virtual int channelCount() const = 0;
    /// Human-readable name for log messages.
    virtual QString name() const = 0;

    /// Why this device's last failed operation failed: the text of the ERROR
    /// line the library logged for it (a file device, which logs nothing,
    /// gives its own text). Empty while nothing failed since the device was
    /// made or last opened; later successes leave it, so read it right after
    /// an operation reported failure. Kept outside the object, as for
    /// AudioInputDevice::errorString(). Safe from any thread.
    QString errorString() const;
    /// The ALSA or system error code of that failure (a negative errno
    /// value), or 0 when it had none or nothing failed.
    int errorCode() const;

protected:
    /// For a device of one's own: records why an operation failed, as
    /// errorString() reports it. An empty text clears the value.
    void setErrorString(const QString& text, int code = 0);
};
