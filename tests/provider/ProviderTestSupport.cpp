#include "ProviderTestSupport.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <pthread.h>

namespace quiltest {

ScriptedInputDevice::ScriptedInputDevice(int sampleRate, int channelCount, int bytesPerSample)
    : m_sampleRate(sampleRate)
    , m_channelCount(channelCount)
    , m_bytesPerSample(bytesPerSample)
{
}

bool ScriptedInputDevice::open()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_openThreadName = QString::fromUtf8(name);
    }
    openThread = QThread::currentThread();
    ++opens;
    m_opened = !failOpen;
    return m_opened;
}

void ScriptedInputDevice::close()
{
    ++closes;
    m_opened = false;
}

bool ScriptedInputDevice::read(QByteArray* buffer, int frameCount)
{
    const int readNumber = reads++;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_gateChanged.wait(lock, [this] { return !m_gated || m_permits > 0; });
        if (m_gated)
            --m_permits;
    }
    if (failReads)
        return false;
    if (!framesPerRead.isEmpty())
        frameCount = framesPerRead.at(readNumber % framesPerRead.size());
    *buffer = frames(deliveredFrames + 1, frameCount);
    deliveredFrames += frameCount;
    return true;
}

void ScriptedInputDevice::closeGate()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_gated = true;
}

void ScriptedInputDevice::permit(int readCount)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_permits += readCount;
    m_gateChanged.notify_all();
}

void ScriptedInputDevice::openGate()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_gated = false;
    m_gateChanged.notify_all();
}

QString ScriptedInputDevice::openThreadName() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_openThreadName;
}

QByteArray ScriptedInputDevice::frames(int first, int count) const
{
    const int frameBytes = m_bytesPerSample * m_channelCount;
    QByteArray bytes(count * frameBytes, '\0');
    for (int i = 0; i < count; ++i)
        qToLittleEndian<quint32>(static_cast<quint32>(first + i), bytes.data() + i * frameBytes);
    return bytes;
}

struct FeedRecorder::State
{
    mutable std::mutex mutex;
    QList<QByteArray> blocks;
    bool finished = false;
};

FeedRecorder::FeedRecorder(CMDataTransfer transfer)
    : m_transfer(std::move(transfer))
    , m_state(std::make_shared<State>())
{
    std::shared_ptr<State> state = m_state;
    m_transfer.onDataAvailable([state](const QByteArray& block) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->blocks.append(block);
    });
    m_transfer.onFinished([state](const CMError&) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->finished = true;
    });
}

QByteArray FeedRecorder::bytes() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    QByteArray all;
    for (const QByteArray& block : qAsConst(m_state->blocks))
        all += block;
    return all;
}

// A list of its own, not a shared copy: the handler goes on appending to the
// recorded one in another thread.
QList<QByteArray> FeedRecorder::blocks() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return QList<QByteArray>(m_state->blocks.cbegin(), m_state->blocks.cend());
}

int FeedRecorder::blockCount() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->blocks.size();
}

bool FeedRecorder::isFinished() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->finished;
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs)
            return condition();
        QThread::msleep(1);
    }
    return true;
}

QString counterStreamDefect(const QByteArray& bytes)
{
    if (bytes.size() % 4 != 0)
        return QStringLiteral("%1 bytes are no whole number of frames").arg(bytes.size());
    quint32 previous = 0;
    for (int offset = 0; offset < bytes.size(); offset += 4) {
        const quint32 frame = qFromLittleEndian<quint32>(bytes.constData() + offset);
        const bool continues = frame == previous + 1 || (frame == 0 && previous == 0) || offset == 0;
        if (!continues)
            return QStringLiteral("frame %1 follows frame %2 at byte %3").arg(frame).arg(previous).arg(offset);
        previous = frame;
    }
    return QString();
}

} // namespace quiltest
