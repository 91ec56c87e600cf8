#include "ProviderTestSupport.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <pthread.h>
#include <unistd.h>

namespace quiltest {

ScriptedInputDevice::ScriptedInputDevice(int sampleRate, int channelCount, int bytesPerSample)
    : m_sampleRate(sampleRate)
    , m_channelCount(channelCount)
    , m_bytesPerSample(bytesPerSample)
{
}

ScriptedInputDevice::~ScriptedInputDevice() = default;

bool ScriptedInputDevice::open()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_openThread) {
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof name);
            m_openThread = QThread::currentThread();
            m_openThreadName = QString::fromUtf8(name);
        }
    }
    ++opens;
    if (failOpen)
        return false;
    m_opened = true;
    return true;
}

void ScriptedInputDevice::close()
{
    ++closes;
    m_opened = false;
}

bool ScriptedInputDevice::isOpened()
{
    return m_opened;
}

bool ScriptedInputDevice::read(QByteArray* buffer, int frameCount)
{
    const int readNumber = reads++;
    passGate();
    if (readDelayUs > 0)
        usleep(static_cast<useconds_t>(readDelayUs.load()));
    if (failReads)
        return false;
    if (!framesPerRead.isEmpty())
        frameCount = framesPerRead.at(readNumber % framesPerRead.size());
    *buffer = frames(deliveredFrames + 1, frameCount);
    deliveredFrames += frameCount;
    return true;
}

void ScriptedInputDevice::passGate()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_gateChanged.wait(lock, [this] { return !m_gated || m_permits > 0; });
    if (m_gated)
        --m_permits;
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

QThread* ScriptedInputDevice::openThread() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_openThread;
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
    for (int i = 0; i < count; ++i) {
        const quint32 value = qToLittleEndian(static_cast<quint32>(first + i));
        memcpy(bytes.data() + i * frameBytes, &value, static_cast<size_t>(qMin(4, frameBytes)));
    }
    return bytes;
}

struct FeedRecorder::State
{
    mutable std::mutex mutex;
    QList<QByteArray> blocks;
    bool finished = false;
};

FeedRecorder::FeedRecorder(CMDataTransfer transfer, const QString& label, std::shared_ptr<ArrivalLog> arrivals)
    : m_transfer(std::move(transfer))
    , m_state(std::make_shared<State>())
{
    std::shared_ptr<State> state = m_state;
    m_transfer.onDataAvailable([state, label, arrivals](const QByteArray& block) {
        if (arrivals)
            arrivals->append(label);
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

// A list of its own rather than a shared copy: the handler keeps appending to
// the recorded one in another thread.
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

QStringList ArrivalLog::labels() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return QStringList(m_labels.cbegin(), m_labels.cend());
}

void ArrivalLog::append(const QString& label)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_labels.append(label);
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

QList<quint32> counterFrames(const QByteArray& bytes, int frameBytes)
{
    QList<quint32> values;
    for (int offset = 0; offset + 4 <= bytes.size(); offset += frameBytes)
        values.append(qFromLittleEndian<quint32>(bytes.constData() + offset));
    return values;
}

QString counterStreamDefect(const QByteArray& bytes, int frameBytes)
{
    if (bytes.size() % frameBytes != 0)
        return QStringLiteral("%1 bytes are no whole number of frames").arg(bytes.size());
    const QList<quint32> values = counterFrames(bytes, frameBytes);
    int i = 0;
    while (i < values.size() && values.at(i) == 0)
        ++i;
    if (i > 0 && i < values.size() && values.at(i) != 1)
        return QStringLiteral("silence is followed by frame %1, not by the first frame").arg(values.at(i));
    for (++i; i < values.size(); ++i) {
        if (values.at(i) != values.at(i - 1) + 1)
            return QStringLiteral("frame %1 follows frame %2 at position %3")
                .arg(values.at(i)).arg(values.at(i - 1)).arg(i);
    }
    return QString();
}

} // namespace quiltest
