#pragma once

#include "AudioInputDevice.h"
#include "CMDataTransfer.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>
#include <QList>
#include <QThread>
#include <QtEndian>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <pthread.h>

namespace quiltest {

// An in-memory capture device whose stream is a frame counter: every frame
// starts with its 1-based position in the stream (32 bits, little endian), so
// a received stream shows any lost, repeated or reordered frame, and silence
// stands out. Reads can wait at a gate, fail, or vary in length.
class ScriptedInputDevice : public AudioInputDevice
{
public:
    explicit ScriptedInputDevice(int rate = 48000, int channels = 2, int sampleBytes = 2)
        : m_rate(rate), m_channels(channels), m_sampleBytes(sampleBytes) {}
    bool open() override
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_openThreadName = QString::fromUtf8(name);
        ++opens;
        return m_opened = !failOpen;
    }
    void close() override { ++closes, m_opened = false; }
    bool isOpened() override { return m_opened; }
    bool read(QByteArray* buffer, int frameCount) override
    {
        const int readNumber = reads++;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_gateChanged.wait(lock, [this] { return !m_gated || m_permits > 0; });
            m_permits -= m_gated ? 1 : 0;
        }
        if (failReads)
            return false;
        if (!framesPerRead.isEmpty())
            frameCount = framesPerRead.at(readNumber % framesPerRead.size());
        *buffer = frames(deliveredFrames + 1, frameCount);
        deliveredFrames += frameCount;
        return true;
    }
    int sampleRate() const override { return m_rate; }
    int bytesPerSample() const override { return m_sampleBytes; }
    int channelCount() const override { return m_channels; }
    QString name() const override { return QStringLiteral("Scripted Device"); }
    // While closed, each read waits for one permit.
    void closeGate() { setGate(true, 0); }
    void permit(int reads) { setGate(true, reads); }
    void openGate() { setGate(false, 0); }
    QString openThreadName() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_openThreadName;
    }
    // The counter frames [first, first + count).
    QByteArray frames(int first, int count) const
    {
        const int frameBytes = m_sampleBytes * m_channels;
        QByteArray bytes(count * frameBytes, '\0');
        for (int i = 0; i < count; ++i)
            qToLittleEndian<quint32>(static_cast<quint32>(first + i), bytes.data() + i * frameBytes);
        return bytes;
    }

    std::atomic<bool> failOpen{false}, failReads{false};
    QList<int> framesPerRead;   // cycled; empty: as many as asked for. Set before start().
    std::atomic<int> opens{0}, closes{0}, reads{0}, deliveredFrames{0};   // reads: entered, waiting ones too

private:
    void setGate(bool gated, int permits)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_gated = gated;
        m_permits += permits;
        m_gateChanged.notify_all();
    }
    const int m_rate, m_channels, m_sampleBytes;
    std::atomic<bool> m_opened{false};
    mutable std::mutex m_mutex;
    std::condition_variable m_gateChanged;
    bool m_gated = false;
    int m_permits = 0;
    QString m_openThreadName;
};

// Records what a transfer receives, from whichever thread, and whether it was
// finished. The handlers hold only shared state, so the recorder may go first.
class FeedRecorder
{
public:
    explicit FeedRecorder(CMDataTransfer transfer) : m_transfer(std::move(transfer))
    {
        m_transfer.onDataAvailable([state = m_state](const QByteArray& block) {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->blocks.append(block);
        });
        m_transfer.onFinished([state = m_state](const CMError&) { state->finished = true; });
    }
    CMDataTransfer& transfer() { return m_transfer; }
    QList<QByteArray> blocks() const
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->blocks;
    }
    QByteArray bytes() const { return blocks().join(); }
    int blockCount() const { return blocks().size(); }
    bool isFinished() const { return m_state->finished; }

private:
    struct State
    {
        std::mutex mutex;
        QList<QByteArray> blocks;
        std::atomic<bool> finished{false};
    };
    CMDataTransfer m_transfer;
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

// Polls until condition() holds or timeoutMs pass; returns the last result.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition() && timer.elapsed() <= quiltest::scaledMs(timeoutMs))
        QThread::msleep(1);
    return condition();
}

// Empty when `bytes` is silence followed by the counter stream from its
// beginning, or a gapless stretch of the counter stream; else what is wrong.
inline QString counterStreamDefect(const QByteArray& bytes)
{
    if (bytes.size() % 4 != 0)
        return QStringLiteral("%1 bytes are no whole number of frames").arg(bytes.size());
    quint32 previous = 0;
    for (int offset = 0; offset < bytes.size(); offset += 4) {
        const quint32 frame = qFromLittleEndian<quint32>(bytes.constData() + offset);
        if (frame != previous + 1 && !(frame == 0 && previous == 0) && offset != 0)
            return QStringLiteral("frame %1 follows frame %2 at byte %3").arg(frame).arg(previous).arg(offset);
        previous = frame;
    }
    return QString();
}

} // namespace quiltest
