#include "AudioInputDataProvider.h"

#include "AudioInputDataProviderThread.h"
#include "AudioLog_p.h"
#include "Synchronization_p.h"
#include "quil.h"

QUIL_AUDIO_DEFINE_LOGGER();

AudioInputDataProvider::AudioInputDataProvider(AudioInputDevice* device, unsigned int bufferDurationMs,
                                               unsigned int oneReadSizeFrames)
{
    QUIL_TRACE_ENTRY();
    m_thread = createInNewQThread<AudioInputDataProviderThread>(QStringLiteral("AudioInputT"), device, bufferDurationMs,
                                                                oneReadSizeFrames);
}

// Deletion and quit take effect once a capture run in progress has finished
// its transfers and closed the device; the thread object deletes itself later
// through this thread's event loop (docs/internals.md).
AudioInputDataProvider::~AudioInputDataProvider()
{
    QThread* thread = m_thread->thread();
    m_thread->stop();
    quil::publishHandOff(m_thread);
    m_thread->deleteLater();
    thread->quit();
    thread->wait();
    quil::acceptHandOff(thread); // published as the worker's destructor ends
}

void AudioInputDataProvider::start()
{
    QUIL_TRACE_ENTRY();
    m_thread->start();
}

void AudioInputDataProvider::stop()
{
    QUIL_TRACE_ENTRY();
    m_thread->stop();
}

void AudioInputDataProvider::setMuteState(bool muted)
{
    QUIL_TRACE_ENTRY();
    m_thread->setMuteState(muted);
}

bool AudioInputDataProvider::isMuted() const
{
    QUIL_TRACE_ENTRY();
    return m_thread->isMuted();
}

const AudioInputDevice& AudioInputDataProvider::audioDevice() const
{
    QUIL_TRACE_ENTRY();
    return m_thread->audioDevice();
}

CMUnbufferedDataTransfer AudioInputDataProvider::liveFeed() const
{
    QUIL_TRACE_ENTRY();
    return m_thread->liveFeed();
}

CMBufferedDataTransfer AudioInputDataProvider::liveFeedWithOffset(int offsetMs)
{
    QUIL_TRACE_ENTRY();
    return m_thread->liveFeedWithOffset(offsetMs);
}

quil::CaptureStatus AudioInputDataProvider::captureStatus() const { return m_thread->captureStatus(); }

qint64 AudioInputDataProvider::framesSinceResume() const { return m_thread->framesSinceResume(); }

void AudioInputDataProvider::setCaptureStatusListener(std::function<void(const quil::CaptureStatus&)> listener)
{
    m_thread->setCaptureStatusListener(std::move(listener));
}
