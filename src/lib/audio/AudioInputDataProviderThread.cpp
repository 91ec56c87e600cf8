#include "AudioInputDataProviderThread.h"

#include "AudioLog_p.h"
#include "PcmFormat_p.h"
#include "PcmRing_p.h"
#include "Synchronization_p.h"

#include <QCoreApplication>
#include <QEvent>
#include <QTimer>

QUIL_AUDIO_DEFINE_LOGGER();

namespace quil {

// What a feed's finish callback knows of the worker, which its feeds may
// outlive: null once the worker is gone (docs/internals.md). Lock order: link
// mutex before the worker's m_mutex. Also holds the restart timer and the
// resume count, kept out of the worker, whose layout is published.
struct WorkerLink {
    QMutex mutex;
    AudioInputDataProviderThread* worker;
    QTimer* restartTimer = nullptr;
    qint64 framesSinceResume = 0; // under the worker's m_mutex, not this one
};

} // namespace quil

namespace {

constexpr int RestartDelayMs = 2000;

// Muting delivers this one zero block, shared by every provider of the
// process; it is sized by the first successful read anywhere and never
// resized, so muting never allocates.
const QByteArray& silenceBlock(int firstBlockSize)
{
    static const QByteArray silence(firstBlockSize, '\0');
    return silence;
}

// A ring too large for one QByteArray (a duration far beyond the range that
// callers may use) is not attempted: left empty, it is reported by the
// ring-capacity assertion like any other ring that cannot hold a read.
int heldRingBytes(int bytes) { return bytes <= quil::MaxBlockBytes ? bytes : 0; }

} // namespace

AudioInputDataProviderThread::AudioInputDataProviderThread(AudioInputDevice* device, unsigned int bufferDurationMs,
                                                           unsigned int oneReadSizeFrames)
    : QObject(nullptr)
    , m_device(device)
    , m_readSizeFrames(oneReadSizeFrames)
    , m_liveFeed()
    , m_ringBuffer(heldRingBytes(msToByteCount(quil::clampedToInt(bufferDurationMs))), '\0')
    , m_link(new quil::WorkerLink{{}, this, new QTimer(this)})
{
    qRegisterMetaType<quil::CaptureStatus>();
    QTimer* restartTimer = m_link->restartTimer;
    restartTimer->setSingleShot(true);
    restartTimer->setTimerType(Qt::CoarseTimer);
    restartTimer->setInterval(RestartDelayMs);
    connect(restartTimer, SIGNAL(timeout()), this, SLOT(on_dataProvider_started()));
    Q_ASSERT(oneReadSizeFrames > 0);
    if (bufferDurationMs != 0)
        Q_ASSERT(m_ringBuffer.size() >= frameCountToByteCount(m_readSizeFrames));
}

// Runs in the stopped worker thread. A run still queued by start() is carried
// out, straight to its closing step, so that a started provider always finishes
// its feeds; so is the provider's stop(), which ends a pending restart.
AudioInputDataProviderThread::~AudioInputDataProviderThread()
{
    quil::acceptHandOff(this); // published by the provider before deleteLater()
    m_running = false;
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    {
        quil::MutexLocker locker(&m_link->mutex);
        m_link->worker = nullptr;
        m_link->restartTimer = nullptr; // goes with this object
    }
    // Everything this thread did, the capture run's use of the device
    // included, is over: the provider waiting for the thread may now let the
    // device go (accepted after QThread::wait()).
    quil::publishHandOff(thread());
}

void AudioInputDataProviderThread::start()
{
    QUIL_TRACE_ENTRY();
    m_running = true;
    quil::publishHandOff(this);
    // Queued by name, not by member pointer: the pointer form would allocate
    // here, after the hand-over point, a slot object that the worker thread
    // reads in code compiled into this library, which the thread sanitizer
    // cannot tell apart from a race (see Synchronization_p.h).
    QTimer::singleShot(0, this, SLOT(on_dataProvider_started()));
}

void AudioInputDataProviderThread::stop()
{
    QUIL_TRACE_ENTRY();
    m_running = false;
    quil::publishHandOff(this);
    QMetaObject::invokeMethod(this, "endPendingRestart", Qt::QueuedConnection);
}

// Without this, a stop() while a restart waits would leave the status at
// Restarting and the feeds open until the timer fired. A run in progress
// when stop() came has ended by now, and closed, or armed the timer.
void AudioInputDataProviderThread::endPendingRestart()
{
    quil::acceptHandOff(this); // published by stop()
    if (m_running || !m_link->restartTimer->isActive())
        return;
    m_link->restartTimer->stop();
    finishTransfersAndClose();
}

void AudioInputDataProviderThread::setMuteState(bool muted)
{
    quil::MutexLocker locker(&m_mutex);
    m_muted = muted;
}

bool AudioInputDataProviderThread::isMuted() const
{
    quil::MutexLocker locker(&m_mutex);
    return m_muted;
}

const AudioInputDevice& AudioInputDataProviderThread::audioDevice() const { return *m_device; }

CMUnbufferedDataTransfer AudioInputDataProviderThread::liveFeed() const { return m_liveFeed; }

// The feed is registered as held while this thread hands over the prefill
// outside the lock; the capture loop keeps its blocks back until it is
// released, so every block arrives once and in order (docs/internals.md).
CMBufferedDataTransfer AudioInputDataProviderThread::liveFeedWithOffset(int offsetMs)
{
    CMBufferedDataTransfer transfer;
    const unsigned int key = qHash(transfer);
    const QSharedPointer<quil::WorkerLink> link = m_link;
    transfer.onFinished([link, key](const CMError&) {
        quil::MutexLocker locker(&link->mutex);
        if (link->worker)
            link->worker->forgetFeed(key);
    });

    const int offset = msToByteCount(offsetMs);
    QByteArray prefill;
    int ringBytes = 0;
    {
        quil::MutexLocker locker(&m_mutex);
        m_transfers.insert(key, transfer);
        ringBytes = m_ringBuffer.size();
        prefill = quil::newestBytesOfRing(m_ringBuffer, m_ringOldest, offset);
        if (!prefill.isEmpty())
            m_heldFeeds.insert(key, HeldFeed{transfer, {}, false});
    }
    if (offset > ringBytes) {
        LOG4CPLUS_WARN(logger, "Requested offset '"
                                   << offset << "' calculated from offsetMs '" << offsetMs
                                   << "' is bigger than the amount of data in the buffer: " << ringBytes);
    }
    if (!prefill.isEmpty()) {
        transfer.dataAvailable(prefill);
        releaseHeldFeed(key);
    }
    return transfer;
}

void AudioInputDataProviderThread::releaseHeldFeed(unsigned int key)
{
    quil::MutexLocker locker(&m_mutex);
    const auto held = m_heldFeeds.find(key);
    if (held != m_heldFeeds.end()) // else finished meanwhile
        held->prefillDelivered = true;
}

void AudioInputDataProviderThread::forgetFeed(unsigned int key)
{
    quil::MutexLocker locker(&m_mutex);
    m_transfers.remove(key);
    m_heldFeeds.remove(key);
}

// Both conversions compute in 64 bits and clamp to the int range: in range
// the results equal the 32-bit computation, beyond it they stay at its end
// (an offset of INT_MAX ms is then simply more than the ring holds) instead
// of overflowing into some small or negative count.
int AudioInputDataProviderThread::frameCountToByteCount(int frames) const
{
    const qint64 samples = quil::saturatedProduct(m_device->channelCount(), frames);
    return quil::clampedToInt(quil::saturatedProduct(samples, m_device->bytesPerSample()));
}

int AudioInputDataProviderThread::msToByteCount(int ms) const
{
    const int frameBytes = frameCountToByteCount(1);
    const qint64 bytesPerSecond = quil::saturatedProduct(frameBytes, m_device->sampleRate());
    const int bytes = quil::clampedToInt(quil::saturatedProduct(ms, bytesPerSecond) / 1000);
    return frameBytes > 0 ? bytes - bytes % frameBytes : bytes;
}

int AudioInputDataProviderThread::ringSize() const
{
    quil::MutexLocker locker(&m_mutex);
    return m_ringBuffer.size();
}

void AudioInputDataProviderThread::on_dataProvider_started()
{
    quil::acceptHandOff(this); // published by start()
    m_link->restartTimer->stop(); // this run supersedes a pending restart
    LOG4CPLUS_TRACE(logger, "Starting Audio Data Provider, read size: " << m_readSizeFrames
                                                                        << ", buffer duration: " << ringSize());
    if (m_running) {
        if (!m_device->open()) {
            LOG4CPLUS_ERROR(logger, "Unable to open audio input device: " << m_device->name());
            setCaptureStatus(quil::CaptureState::Stopped,
                             QStringLiteral("Unable to open audio input device: ") + m_device->name());
            return;
        }
        {
            quil::MutexLocker locker(&m_mutex);
            m_link->framesSinceResume = 0; // the ring's older audio is from before a gap
        }
        setCaptureStatus(quil::CaptureState::Running, QString());
        if (!captureWhileRunning())
            return;
    }
    finishTransfersAndClose();
}

// False when a read failed; a new run is then scheduled and the device stays
// open, which the next run's open() accepts.
bool AudioInputDataProviderThread::captureWhileRunning()
{
    // A read size beyond the int range is asked for as INT_MAX frames, which a
    // device refuses, rather than as a negative count it might take for 0.
    const int readFrames = quil::clampedToInt(m_readSizeFrames);
    while (m_running) {
        QByteArray block;
        if (!m_device->read(&block, readFrames)) {
            LOG4CPLUS_ERROR(logger,
                            "Error while reading the input device, restarting provider in " << RestartDelayMs << " ms");
            setCaptureStatus(quil::CaptureState::Restarting,
                             QStringLiteral("Error while reading the input device, restarting provider in %1 ms")
                                 .arg(RestartDelayMs),
                             true);
            m_link->restartTimer->start();
            return false;
        }
        distribute(block);
    }
    return true;
}

void AudioInputDataProviderThread::distribute(const QByteArray& captured)
{
    const QByteArray& silence = silenceBlock(captured.size());
    QByteArray block;
    QList<HeldFeed> released;
    QVector<CMBufferedDataTransfer> recipients;
    {
        quil::MutexLocker locker(&m_mutex);
        block = m_muted ? silence : captured;
        quil::shiftIntoRing(&m_ringBuffer, &m_ringOldest, block);
        const int frameBytes = frameCountToByteCount(1);
        m_link->framesSinceResume += frameBytes > 0 ? block.size() / frameBytes : 0;
        released = takeReleasedFeeds();
        recipients = recipientsOf(block);
    }
    deliverBacklogs(&released);
    for (CMBufferedDataTransfer& feed : recipients)
        feed.dataAvailable(block);
    m_liveFeed.dataAvailable(block);
}

// The registered feeds that get the block now, in the registry's order; held
// feeds keep it back instead. m_mutex must be held. A vector rather than the
// list values() gives: a Qt 5 list would allocate every handle on its own, so
// each feed would cost an allocation per block. One pass over the registry:
// Qt 6 walks a hash's buckets, not its entries, and a two-iterator constructor
// would walk them twice.
QVector<CMBufferedDataTransfer> AudioInputDataProviderThread::recipientsOf(const QByteArray& block)
{
    QVector<CMBufferedDataTransfer> recipients;
    recipients.reserve(m_transfers.size());
    for (auto it = m_transfers.cbegin(); it != m_transfers.cend(); ++it) {
        const auto held = m_heldFeeds.find(it.key());
        if (held != m_heldFeeds.end())
            held->backlog.append(block);
        else
            recipients.append(it.value());
    }
    return recipients;
}

// Removes the held feeds whose prefill has been handed over, with the blocks
// kept back for them. m_mutex must be held.
QList<AudioInputDataProviderThread::HeldFeed> AudioInputDataProviderThread::takeReleasedFeeds()
{
    // Nearly always none: a non-const walk would detach (allocate) the empty hash every block.
    if (m_heldFeeds.isEmpty())
        return {};
    QList<HeldFeed> released;
    for (auto it = m_heldFeeds.begin(); it != m_heldFeeds.end();) {
        if (it->prefillDelivered) {
            released.append(*it);
            it = m_heldFeeds.erase(it);
        } else {
            ++it;
        }
    }
    return released;
}

// Called for every block, nearly always with no feed: the early return spares
// the allocation that detaching an empty list for the loop would make.
void AudioInputDataProviderThread::deliverBacklogs(QList<HeldFeed>* feeds)
{
    if (feeds->isEmpty())
        return;
    for (HeldFeed& feed : *feeds) {
        for (const QByteArray& block : qAsConst(feed.backlog))
            feed.transfer.dataAvailable(block);
    }
}

// Each feed leaves the registry through its own finish callback. Blocks kept
// back for a released feed reach it first, so that a stop loses none.
void AudioInputDataProviderThread::finishTransfersAndClose()
{
    LOG4CPLUS_TRACE(logger, "Data provider thread finished on demand, closing transfers");
    QList<HeldFeed> released;
    QList<CMBufferedDataTransfer> feeds;
    {
        quil::MutexLocker locker(&m_mutex);
        released = takeReleasedFeeds();
        feeds = m_transfers.values();
    }
    deliverBacklogs(&released);
    for (CMBufferedDataTransfer& feed : feeds)
        feed.finish(CMError());
    m_liveFeed.finish(CMError());
    m_device->close();
    setCaptureStatus(quil::CaptureState::Stopped, QString());
}

quil::CaptureStatus AudioInputDataProviderThread::captureStatus() const
{
    quil::MutexLocker locker(&m_mutex);
    return m_status;
}

qint64 AudioInputDataProviderThread::framesSinceResume() const
{
    quil::MutexLocker locker(&m_mutex);
    return m_link->framesSinceResume;
}

void AudioInputDataProviderThread::setCaptureStatusListener(std::function<void(const quil::CaptureStatus&)> listener)
{
    quil::MutexLocker locker(&m_mutex);
    m_statusListener = std::move(listener);
}

// Runs in the worker thread. A failure carries the device's own reason; the
// provider's log line stands in when the device gave none. Running and a plain
// stop carry no text.
void AudioInputDataProviderThread::setCaptureStatus(quil::CaptureState state, const QString& fallbackText,
                                                    bool restarting)
{
    quil::CaptureStatus status;
    std::function<void(const quil::CaptureStatus&)> listener;
    {
        quil::MutexLocker locker(&m_mutex);
        status.state = state;
        status.restartCount = m_status.restartCount + (restarting ? 1 : 0);
        if (!fallbackText.isEmpty()) {
            const QString deviceText = m_device->errorString();
            status.errorString = deviceText.isEmpty() ? fallbackText : deviceText;
            status.errorCode = m_device->errorCode();
        }
        if (status == m_status)
            return;
        m_status = status;
        listener = m_statusListener;
    }
    emit captureStatusChanged(status);
    if (listener)
        listener(status);
}
