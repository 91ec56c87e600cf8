#pragma once

#include "AudioInputDevice.h"
#include "CaptureStatus.h"
#include "CMDataTransfer.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QList>
#include <QSemaphore>
#include <QThread>
#include <QtEndian>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <pthread.h>

namespace quil {
inline void PrintTo(const CaptureStatus& s, std::ostream* os)
{
    *os << "{state " << int(s.state) << ", \"" << s.errorString.toStdString() << "\", " << s.errorCode << ", restarts " << s.restartCount << "}";
}
} // namespace quil

namespace quiltest {

// An in-memory capture device whose stream is a frame counter: every frame
// starts with its 1-based position in the stream (32 bits, little endian), so
// a received stream shows any lost, repeated or reordered frame, and silence
// stands out. Reads can wait at a gate, fail, or vary in length.
class ScriptedInputDevice : public AudioInputDevice
{
public:
    bool open() override
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        openedOnCaptureThread = std::strcmp(name, "AudioInputT") == 0;
        const bool fail = failOpen; // read once: a test may set it for the next open while this one runs
        ++opens;
        setErrorString(fail ? QStringLiteral("Scripted open failure") : QString(), -ENODEV);
        framesAtOpen = fail ? framesAtOpen.load() : deliveredFrames.load();
        return m_opened = !fail;
    }
    void close() override { ++closes, m_opened = false; }
    bool isOpened() override { return m_opened; }
    bool read(QByteArray* buffer, int frameCount) override
    {
        const int readNumber = reads++;
        if (gated)
            m_permits.acquire();
        if (failReads || failNextRead.exchange(false)) {
            ++failures;
            setErrorString(QStringLiteral("Scripted read failure"), -EIO);
            return false;
        }
        if (!framesPerRead.isEmpty())
            frameCount = framesPerRead.at(readNumber % framesPerRead.size());
        *buffer = frames(deliveredFrames + 1, frameCount);
        deliveredFrames += frameCount;
        return true;
    }
    int sampleRate() const override { return rate; }
    int bytesPerSample() const override { return 2; }
    int channelCount() const override { return 2; }
    QString name() const override { return QStringLiteral("Scripted Device"); }
    void permit(int count) { permitted += count, m_permits.release(count); }
    // Takes back the permits no read used: the next read waits again.
    void withdrawPermits() { m_permits.acquire(m_permits.available()), permitted = reads.load(); }
    // Whether the reader waits at the gate for a permit.
    bool idle() const { return reads == permitted + 1; }
    // The counter frames [first, first + count).
    static QByteArray frames(int first, int count)
    {
        QByteArray bytes(count * 4, '\0');
        for (int i = 0; i < count; ++i)
            qToLittleEndian<quint32>(static_cast<quint32>(first + i), bytes.data() + i * 4);
        return bytes;
    }

    std::atomic<bool> failOpen{false}, failReads{false}, failNextRead{false}, openedOnCaptureThread{false};
    std::atomic<bool> gated{false};   // set before start(): each read waits for a permit()
    QList<int> framesPerRead;   // cycled; empty: as many as asked for. Set before start().
    int rate = 48000;   // set before the provider is made
    std::atomic<int> opens{0}, closes{0}, reads{0}, deliveredFrames{0};   // reads: entered, waiting ones too
    std::atomic<int> failures{0}, permitted{0}, framesAtOpen{0};

private:
    std::atomic<bool> m_opened{false};
    QSemaphore m_permits;
};

// Records what a transfer receives, from whichever thread, and whether it was
// finished; each block gets a number from one count for all recorders, which
// tells the order of deliveries across feeds. The handlers hold only shared
// state, so the recorder may go first.
class FeedRecorder
{
public:
    explicit FeedRecorder(CMDataTransfer transfer) : m_transfer(std::move(transfer))
    {
        m_transfer.onDataAvailable([state = m_state](const QByteArray& block) {
            static std::atomic<int> deliveries{0};
            std::lock_guard<std::mutex> lock(state->mutex);
            state->blocks.append(block);
            state->order.append(++deliveries);
        });
        m_transfer.onFinished([state = m_state](const CMError&) { state->finished = true; });
    }
    CMDataTransfer& transfer() { return m_transfer; }
    QList<QByteArray> blocks() const { return locked(&State::blocks); }
    QList<int> order() const { return locked(&State::order); }
    QByteArray bytes() const { return blocks().join(); }
    int blockCount() const { return blocks().size(); }
    bool isFinished() const { return m_state->finished; }

private:
    struct State { std::mutex mutex; QList<QByteArray> blocks; QList<int> order; std::atomic<bool> finished{false}; };
    template <class T> T locked(T State::*member) const
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return (*m_state).*member;
    }
    std::shared_ptr<State> m_state = std::make_shared<State>();
    CMDataTransfer m_transfer;
};

// Polls until condition() holds or timeoutMs pass; returns the last result.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition() && timer.elapsed() <= quiltest::scaledMs(timeoutMs))
        QThread::usleep(100);
    return condition();
}

// A finished worker thread's object asks this thread, by a queued call, to
// delete it later; this thread runs no event loop, so do both steps here.
inline void deleteFinishedThreadObjects()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
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
