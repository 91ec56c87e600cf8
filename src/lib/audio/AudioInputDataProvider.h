#pragma once

#include "AudioInputDevice.h"
#include "CMDataTransfer.h"
#include "CaptureStatus.h"

#include <QtGlobal>

#include <functional>

class AudioInputDataProviderThread;

/// Captures from an AudioInputDevice in a thread of its own, "AudioInputT", and
/// hands the stream to a live feed and to any number of time-shifted feeds.
///
/// Every operation forwards directly, in the caller's thread, to the worker
/// (AudioInputDataProviderThread), whose operations are safe from any thread.
class QUIL_AUDIO_EXPORT AudioInputDataProvider
{
public:
    /// Starts the worker thread and builds the worker in it; returns once it
    /// exists. The ring buffer keeps bufferDurationMs of audio (0: none), every
    /// read asks the device for oneReadSizeFrames frames (not 0). The device is
    /// not owned and must outlive the provider. Does not start capturing.
    AudioInputDataProvider(AudioInputDevice* device, unsigned int bufferDurationMs,
                           unsigned int oneReadSizeFrames);
    /// Stops capturing and waits until the worker thread has ended: a running
    /// capture completes its current read, finishes every transfer and closes
    /// the device before this returns.
    virtual ~AudioInputDataProvider();

    /// Starts capturing in the worker thread.
    void start();
    /// Stops capturing after the current block, finishing every transfer.
    void stop();
    /// Replaces captured audio by silence while muted.
    void setMuteState(bool muted);
    /// The mute state last set; false at first.
    bool isMuted() const;
    /// The device given at construction.
    const AudioInputDevice& audioDevice() const;
    /// The one live feed (see AudioInputDataProviderThread::liveFeed()).
    CMUnbufferedDataTransfer liveFeed() const;
    /// A new feed starting offsetMs in the past (see
    /// AudioInputDataProviderThread::liveFeedWithOffset()).
    CMBufferedDataTransfer liveFeedWithOffset(int offsetMs);

    /// Whether capture is running, stopped, or waiting to restart after a
    /// read failure, with the failure's reason and the number of restarts
    /// (see AudioInputDataProviderThread::captureStatus()). Safe from any thread.
    quil::CaptureStatus captureStatus() const;
    /// Calls listener in the provider's worker thread whenever captureStatus()
    /// changes; replaces the previous listener, an empty one removes it. Safe
    /// from any thread. The listener must not block: capture waits for it.
    void setCaptureStatusListener(std::function<void(const quil::CaptureStatus&)> listener);

private:
    Q_DISABLE_COPY(AudioInputDataProvider)

    AudioInputDataProviderThread* m_thread;
};
