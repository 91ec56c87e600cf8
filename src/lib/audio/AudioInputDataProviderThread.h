#pragma once

#include "AudioInputDevice.h"
#include "CMDataTransfer.h"
#include "CaptureStatus.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSharedPointer>
#include <QVector>

#include <atomic>
#include <functional>

namespace quil {
struct WorkerLink;
}

/// \file
/// AudioInputDataProviderThread, the capture worker behind AudioInputDataProvider.

/// The capture worker: lives in a thread of its own (see AudioInputDataProvider),
/// reads an AudioInputDevice block by block while started, keeps the most recent
/// audio in a ring buffer and hands every block to the time-shifted feeds and
/// then to the live feed.
///
/// Every public operation may be called from any thread. The capture run blocks
/// the worker thread's event loop until it ends: on stop() after the current
/// block, on a read error (a new run follows 2000 ms later), or on an open error.
/// captureStatus() tells which, with the device's reason for a failure.
/// \ingroup internals
class QUIL_AUDIO_EXPORT AudioInputDataProviderThread : public QObject {
    Q_OBJECT

public:
    /// Runs in the worker thread. The ring buffer holds bufferDurationMs of
    /// silence at first; 0 gives no ring and so no prefill for time-shifted
    /// feeds. Asserts that oneReadSizeFrames is not 0 and that a non-empty ring
    /// holds at least one read. Neither opens the device nor starts capturing;
    /// the device is not owned and must outlive this object.
    AudioInputDataProviderThread(AudioInputDevice* device, unsigned int bufferDurationMs,
                                 unsigned int oneReadSizeFrames);
    /// Runs in the worker thread. A run that start() queued still takes place,
    /// going straight to finishing every feed and closing the device. Feeds
    /// still registered (never started) are released unfinished; finishing them later is safe.
    ~AudioInputDataProviderThread() override;

    /// Sets the run flag and queues a capture run to the worker thread. A
    /// failed open ends the run (captureStatus() tells why).
    void start();
    /// Clears the run flag; the running capture ends after its current block,
    /// finishes every transfer and closes the device. Does not wait. A restart
    /// pending after a read failure is dropped and ends the same way at once.
    void stop();
    /// Replaces captured audio by silence from the next block on.
    void setMuteState(bool muted);
    /// The mute state last set; false at first.
    bool isMuted() const;
    /// The device given at construction.
    const AudioInputDevice& audioDevice() const;
    /// The one live feed, the same transfer for this object's whole life.
    CMUnbufferedDataTransfer liveFeed() const;
    /// A new feed that first receives the newest offsetMs of the ring (the whole
    /// ring, with a warning, when it holds less) and then every block captured
    /// afterwards, in order, until it is finished. The prefill is handed over in
    /// the calling thread before this returns; nothing captured meanwhile is
    /// lost or delivered ahead of it.
    CMBufferedDataTransfer liveFeedWithOffset(int offsetMs);

    /// Bytes of `frames` frames of the device's format.
    int frameCountToByteCount(int frames) const;
    /// Bytes of `ms` milliseconds, truncated toward zero to whole frames.
    /// Meant for ms × bytes per second up to 2^31 - 1; beyond that, both
    /// conversions are clamped to the int range.
    int msToByteCount(int ms) const;

    /// The capture state now; safe from any thread.
    quil::CaptureStatus captureStatus() const;
    /// Frames shifted into the ring since the device was last opened, by a
    /// start() or by a restart after a read failure; 0 before the first
    /// block. Stays as it is while capture is stopped or waits to restart.
    /// Safe from any thread.
    qint64 framesSinceResume() const;
    /// Called in the worker thread, after captureStatusChanged(), on every
    /// change of the status; replaces the previous listener. Safe from any
    /// thread; the listener must not block, as capture waits for it.
    void setCaptureStatusListener(std::function<void(const quil::CaptureStatus&)> listener);

signals:
    /// Emitted in the worker thread whenever captureStatus() changes (a
    /// queued connection delivers a copy to a receiver in another thread).
    void captureStatusChanged(const quil::CaptureStatus& status);

private slots:
    void on_dataProvider_started();
    void endPendingRestart();

private:
    // A time-shifted feed whose prefill is being handed over by the thread that
    // requested it: the capture loop keeps its blocks back until then.
    struct HeldFeed {
        CMBufferedDataTransfer transfer;
        QList<QByteArray> backlog;
        bool prefillDelivered = false;
    };

    bool captureWhileRunning();
    void distribute(const QByteArray& captured);
    QVector<CMBufferedDataTransfer> recipientsOf(const QByteArray& block);
    QList<HeldFeed> takeReleasedFeeds();
    static void deliverBacklogs(QList<HeldFeed>* feeds);
    void finishTransfersAndClose();
    void releaseHeldFeed(unsigned int key);
    void forgetFeed(unsigned int key);
    int ringSize() const;
    void setCaptureStatus(quil::CaptureState state, const QString& fallbackText, bool restarting = false);

    mutable QMutex m_mutex;
    std::atomic<bool> m_running{false};
    AudioInputDevice* m_device;
    quint32 m_readSizeFrames;
    bool m_muted = false;
    CMUnbufferedDataTransfer m_liveFeed;
    QByteArray m_ringBuffer; // circular (see PcmRing_p.h), from m_ringOldest on
    int m_ringOldest = 0; // index of the oldest byte, where the next block goes
    QHash<unsigned int, CMBufferedDataTransfer> m_transfers;
    QHash<unsigned int, HeldFeed> m_heldFeeds;
    QSharedPointer<quil::WorkerLink> m_link;
    quil::CaptureStatus m_status; // under m_mutex
    std::function<void(const quil::CaptureStatus&)> m_statusListener; // under m_mutex
};
