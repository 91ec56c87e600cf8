#pragma once

#include "AudioInputDevice.h"
#include "CMDataTransfer.h"
#include "CaptureStatus.h"

#include <QtGlobal>

#include <functional>

class AudioInputDataProviderThread;

/// \file
/// AudioInputDataProvider, which captures from an input device and hands the stream to feeds.

/// Captures from an AudioInputDevice in a thread of its own, "AudioInputT", and
/// hands the stream to a live feed and to any number of time-shifted feeds.
///
/// Threads: every operation is safe from any thread and forwards, in the
/// caller's thread, to the worker (AudioInputDataProviderThread). Feed
/// handlers and the status listener run on "AudioInputT" and must not destroy
/// the provider. Its thread object deletes itself through the event loop of
/// the thread that built the provider: run a QCoreApplication's loop there.
///
/// Feeds: stop() finishes every feed, the live one for good; read a capture
/// started again through a new liveFeedWithOffset(), 0 for no past audio.
/// No operation fails; capture failures show in captureStatus().
/// \ingroup hostapi
class QUIL_AUDIO_EXPORT AudioInputDataProvider {
public:
    /// Starts the worker thread and builds the worker in it; returns once it
    /// exists. The ring buffer keeps bufferDurationMs of audio (0: none), every
    /// read asks the device for oneReadSizeFrames frames (not 0, and a ring
    /// holds at least one read: both asserted). The device is not owned and
    /// must outlive the provider. Does not start capturing.
    AudioInputDataProvider(AudioInputDevice* device, unsigned int bufferDurationMs, unsigned int oneReadSizeFrames);
    /// Stops capturing and waits until the worker thread has ended: a running
    /// capture completes its current read, finishes every transfer and closes
    /// the device before this returns.
    virtual ~AudioInputDataProvider();

    /// Starts capturing in the worker thread: it opens the device and reads
    /// until stop(). A failed open stops it again (see captureStatus()).
    void start();
    /// Stops capturing after the current block, finishing every transfer and
    /// closing the device; does not wait for it.
    void stop();
    /// Replaces captured audio by silence while muted.
    void setMuteState(bool muted);
    /// The mute state last set; false at first.
    bool isMuted() const;
    /// The device given at construction.
    const AudioInputDevice& audioDevice() const;
    /// The one live feed (see AudioInputDataProviderThread::liveFeed()): every
    /// block from now on, until the first stop() finishes it for good.
    CMUnbufferedDataTransfer liveFeed() const;
    /// A new feed starting offsetMs in the past (see
    /// AudioInputDataProviderThread::liveFeedWithOffset()). The ring spans
    /// restarts and stops: framesSinceResume() tells how much of it is unbroken.
    CMBufferedDataTransfer liveFeedWithOffset(int offsetMs);

    /// Whether capture is running, stopped, or waiting to restart after a
    /// read failure, with the failure's reason and the number of restarts
    /// (see AudioInputDataProviderThread::captureStatus()). Safe from any thread.
    quil::CaptureStatus captureStatus() const;
    /// How much of the ring is one unbroken stretch of capture: the frames
    /// captured since the device was last opened, by start() or by a restart
    /// after a read failure (see AudioInputDataProviderThread::framesSinceResume()).
    /// Audio in the ring older than the newest that many frames comes from
    /// before a gap, such as a sound-server outage, which nothing in a feed
    /// marks. Compare it with the offset before liveFeedWithOffset();
    /// frames × 1000 / audioDevice().sampleRate() gives milliseconds. Safe
    /// from any thread.
    qint64 framesSinceResume() const;
    /// Calls listener in the provider's worker thread whenever captureStatus()
    /// changes; replaces the previous listener, an empty one removes it. Safe
    /// from any thread. The listener must not block: capture waits for it.
    void setCaptureStatusListener(std::function<void(const quil::CaptureStatus&)> listener);

private:
    Q_DISABLE_COPY(AudioInputDataProvider)

    AudioInputDataProviderThread* m_thread;
};
