#include "AudioInputDataProviderThread.h"

#include "AudioLog_p.h"
#include "PcmRing_p.h"

#include <QCoreApplication>
#include <QEvent>
#include <QMutexLocker>
#include <QTimer>

QUIL_AUDIO_DEFINE_LOGGER();

namespace quil {

// What a time-shifted feed's finish callback knows of the worker. Transfers
// can outlive the worker (it may be destroyed without a capture run having
// finished them: never started, after a failed open, with a restart pending),
// and whoever holds them may finish them at any time afterwards, on any
// thread. The callback therefore reaches the worker only through this link,
// holding the link's mutex while it does; the worker's destructor clears the
// pointer under the same mutex, so a late callback finds it null and does
// nothing. Lock order: link mutex before the worker's m_mutex.
struct WorkerLink
{
    QMutex mutex;
    AudioInputDataProviderThread* worker;
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

} // namespace

AudioInputDataProviderThread::AudioInputDataProviderThread(AudioInputDevice* device,
                                                           unsigned int bufferDurationMs,
                                                           unsigned int oneReadSizeFrames)
    : QObject(nullptr)
    , m_device(device)
    , m_readSizeFrames(oneReadSizeFrames)
    , m_liveFeed()
    , m_ringBuffer(msToByteCount(static_cast<int>(bufferDurationMs)), '\0')
    , m_link(new quil::WorkerLink{{}, this})
{
    Q_ASSERT(oneReadSizeFrames > 0);
    if (bufferDurationMs != 0)
        Q_ASSERT(m_ringBuffer.size() >= frameCountToByteCount(m_readSizeFrames));
}

// Runs in the worker thread, which the provider has stopped and whose event
// loop has quit.
//
// A capture run that start() queued just before the provider was destroyed
// may still sit unhandled in the thread's event queue when the loop quits.
// It is carried out here rather than dropped, so that start() always has its
// effect: with the run flag clear the run goes straight to its closing step
// (every transfer and the live feed finished, the device closed). Consumers
// can thus rely on a started provider finishing their feeds when it goes.
//
// Feeds still registered are then released unfinished, and their callbacks
// are detached from this object (see WorkerLink).
AudioInputDataProviderThread::~AudioInputDataProviderThread()
{
    m_running = false;
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    QMutexLocker locker(&m_link->mutex);
    m_link->worker = nullptr;
}

void AudioInputDataProviderThread::start()
{
    QUIL_TRACE_ENTRY();
    m_running = true;
    QTimer::singleShot(0, this, &AudioInputDataProviderThread::on_dataProvider_started);
}

void AudioInputDataProviderThread::stop()
{
    QUIL_TRACE_ENTRY();
    m_running = false;
}

void AudioInputDataProviderThread::setMuteState(bool muted)
{
    QMutexLocker locker(&m_mutex);
    m_muted = muted;
}

bool AudioInputDataProviderThread::isMuted() const
{
    QMutexLocker locker(&m_mutex);
    return m_muted;
}

const AudioInputDevice& AudioInputDataProviderThread::audioDevice() const
{
    return *m_device;
}

CMUnbufferedDataTransfer AudioInputDataProviderThread::liveFeed() const
{
    return m_liveFeed;
}

// The prefill must reach the feed before any block captured after it, and no
// transfer may be called under m_mutex (its finish callback takes the lock).
// So a feed with a prefill is registered as "held": the capture loop queues
// its blocks in m_heldBlocks instead of delivering them, while this thread
// hands over the prefill and then whatever was queued meanwhile, until the
// queue is found empty under the lock; only then does the feed receive
// blocks from the capture loop directly. The ring copy and the registration
// happen under one lock, so every block is either in the prefill or queued
// or delivered live, exactly once. A feed finished meanwhile leaves both
// tables through its callback, which ends the hand-over.
CMBufferedDataTransfer AudioInputDataProviderThread::liveFeedWithOffset(int offsetMs)
{
    CMBufferedDataTransfer transfer;
    const unsigned int key = qHash(transfer);
    const QSharedPointer<quil::WorkerLink> link = m_link;
    transfer.onFinished([link, key](const CMError&) {
        QMutexLocker locker(&link->mutex);
        if (link->worker)
            link->worker->forgetFeed(key);
    });

    const int offset = msToByteCount(offsetMs);
    QByteArray prefill;
    int ringBytes = 0;
    {
        QMutexLocker locker(&m_mutex);
        m_transfers.insert(key, transfer);
        ringBytes = m_ringBuffer.size();
        prefill = quil::newestBytesOfRing(m_ringBuffer, offset);
        if (!prefill.isEmpty())
            m_heldBlocks.insert(key, {});
    }
    if (offset > ringBytes) {
        LOG4CPLUS_WARN(logger, "Requested offset '" << offset << "' calculated from offsetMs '" << offsetMs
                                                    << "' is bigger than the amount of data in the buffer: "
                                                    << ringBytes);
    }
    if (!prefill.isEmpty()) {
        transfer.dataAvailable(prefill);
        handOverHeldBlocks(key, transfer);
    }
    return transfer;
}

void AudioInputDataProviderThread::handOverHeldBlocks(unsigned int key, CMBufferedDataTransfer& transfer)
{
    for (;;) {
        QList<QByteArray> held;
        {
            QMutexLocker locker(&m_mutex);
            const auto it = m_heldBlocks.find(key);
            if (it == m_heldBlocks.end())
                return;
            if (it->isEmpty()) {
                m_heldBlocks.erase(it);
                return;
            }
            held.swap(*it);
        }
        for (const QByteArray& block : qAsConst(held))
            transfer.dataAvailable(block);
    }
}

void AudioInputDataProviderThread::forgetFeed(unsigned int key)
{
    QMutexLocker locker(&m_mutex);
    m_transfers.remove(key);
    m_heldBlocks.remove(key);
}

int AudioInputDataProviderThread::frameCountToByteCount(int frames) const
{
    return m_device->channelCount() * frames * m_device->bytesPerSample();
}

int AudioInputDataProviderThread::msToByteCount(int ms) const
{
    const qint64 bytesPerSecond = m_device->bytesPerSample() * (m_device->sampleRate() * m_device->channelCount());
    // 64 bits only keep out-of-range durations from overflowing; in range the
    // result equals the 32-bit computation.
    const int bytes = static_cast<int>(ms * bytesPerSecond / 1000);
    const int frameBytes = frameCountToByteCount(1);
    return frameBytes > 0 ? bytes - bytes % frameBytes : bytes;
}

int AudioInputDataProviderThread::ringSize() const
{
    QMutexLocker locker(&m_mutex);
    return m_ringBuffer.size();
}

void AudioInputDataProviderThread::on_dataProvider_started()
{
    LOG4CPLUS_TRACE(logger, "Starting Audio Data Provider, read size: " << m_readSizeFrames
                                                                        << ", buffer duration: " << ringSize());
    if (m_running) {
        if (!m_device->open()) {
            LOG4CPLUS_ERROR(logger, "Unable to open audio input device: " << m_device->name());
            return;
        }
        if (!captureWhileRunning())
            return;
    }
    finishTransfersAndClose();
}

// False when a read failed; a new run is then scheduled and the device stays
// open, which the next run's open() accepts.
bool AudioInputDataProviderThread::captureWhileRunning()
{
    while (m_running) {
        QByteArray block;
        if (!m_device->read(&block, static_cast<int>(m_readSizeFrames))) {
            LOG4CPLUS_ERROR(logger, "Error while reading the input device, restarting provider in "
                                        << RestartDelayMs << " ms");
            QTimer::singleShot(RestartDelayMs, Qt::CoarseTimer, this,
                               &AudioInputDataProviderThread::on_dataProvider_started);
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
    QList<CMBufferedDataTransfer> recipients;
    {
        QMutexLocker locker(&m_mutex);
        block = m_muted ? silence : captured;
        quil::shiftIntoRing(&m_ringBuffer, block);
        recipients = recipientsOf(block);
    }
    for (CMBufferedDataTransfer& feed : recipients)
        feed.dataAvailable(block);
    m_liveFeed.dataAvailable(block);
}

// The registered feeds that get the block now; feeds whose prefill is still
// being handed over get it queued instead. m_mutex must be held.
QList<CMBufferedDataTransfer> AudioInputDataProviderThread::recipientsOf(const QByteArray& block)
{
    if (m_heldBlocks.isEmpty())
        return m_transfers.values();
    QList<CMBufferedDataTransfer> recipients;
    for (auto it = m_transfers.cbegin(); it != m_transfers.cend(); ++it) {
        const auto held = m_heldBlocks.find(it.key());
        if (held != m_heldBlocks.end())
            held->append(block);
        else
            recipients.append(it.value());
    }
    return recipients;
}

// Each feed leaves the registry through its own finish callback.
void AudioInputDataProviderThread::finishTransfersAndClose()
{
    LOG4CPLUS_TRACE(logger, "Data provider thread finished on demand, closing transfers");
    QList<CMBufferedDataTransfer> feeds;
    {
        QMutexLocker locker(&m_mutex);
        feeds = m_transfers.values();
    }
    for (CMBufferedDataTransfer& feed : feeds)
        feed.finish(CMError());
    m_liveFeed.finish(CMError());
    m_device->close();
}
