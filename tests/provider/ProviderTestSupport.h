#pragma once

#include "AudioInputDevice.h"
#include "CMDataTransfer.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace quiltest {

// An in-memory capture device whose stream is a frame counter: every frame's
// first four bytes hold its 1-based position in the stream (little endian), so
// a received stream shows any lost, repeated or reordered frame, and zeros
// stand out as silence. Reads can be held at a gate, made to fail, given
// varying lengths, or slowed down; every call is counted.
class ScriptedInputDevice : public AudioInputDevice
{
public:
    explicit ScriptedInputDevice(int sampleRate = 48000, int channelCount = 2, int bytesPerSample = 2);
    ~ScriptedInputDevice() override;

    bool open() override;
    void close() override;
    bool isOpened() override;
    bool read(QByteArray* buffer, int frameCount) override;
    int sampleRate() const override { return m_sampleRate; }
    int bytesPerSample() const override { return m_bytesPerSample; }
    int channelCount() const override { return m_channelCount; }
    QString name() const override { return QStringLiteral("Scripted Device"); }

    // Behaviour; set before start() unless atomic.
    std::atomic<bool> failOpen{false};
    std::atomic<bool> failReads{false};
    std::atomic<int> readDelayUs{0};
    QList<int> framesPerRead;   // cycled; empty: as many as requested

    // Reads wait at the gate until permitted (one read per permit) or the gate opens.
    void closeGate();
    void permit(int reads);
    void openGate();

    std::atomic<int> opens{0};
    std::atomic<int> closes{0};
    std::atomic<int> reads{0};         // reads entered, including those waiting at the gate
    std::atomic<int> deliveredFrames{0};

    // The thread and its OS name of the first open().
    QThread* openThread() const;
    QString openThreadName() const;

    // The counter frames [first, first + count), 1-based, in this device's format.
    QByteArray frames(int first, int count) const;

private:
    void passGate();

    const int m_sampleRate;
    const int m_channelCount;
    const int m_bytesPerSample;
    bool m_opened = false;   // worker thread only

    mutable std::mutex m_mutex;
    std::condition_variable m_gateChanged;
    bool m_gated = false;
    int m_permits = 0;
    QThread* m_openThread = nullptr;
    QString m_openThreadName;
};

// Labels of delivered blocks, in the order of delivery across transfers.
struct ArrivalLog
{
    QStringList labels() const;
    void append(const QString& label);

private:
    mutable std::mutex m_mutex;
    QStringList m_labels;
};

// Records what a transfer receives, from whichever thread, and whether it was
// finished. Its handlers hold only shared state, so the recorder may go before
// the transfer does.
class FeedRecorder
{
public:
    // `arrivals`, if given, gets `label` appended for every block, in delivery order.
    explicit FeedRecorder(CMDataTransfer transfer, const QString& label = QString(),
                          std::shared_ptr<ArrivalLog> arrivals = nullptr);

    CMDataTransfer& transfer() { return m_transfer; }
    QByteArray bytes() const;
    QList<QByteArray> blocks() const;
    int blockCount() const;
    bool isFinished() const;

private:
    struct State;
    CMDataTransfer m_transfer;
    std::shared_ptr<State> m_state;
};

// Polls until condition() holds or timeoutMs pass; returns the last result.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000);

// The frames of a counter stream as numbers, for comparisons.
QList<quint32> counterFrames(const QByteArray& bytes, int frameBytes = 4);

// Empty when `bytes` is silence followed by the counter stream from its
// beginning, or a gapless stretch of the counter stream; else what is wrong.
QString counterStreamDefect(const QByteArray& bytes, int frameBytes = 4);

} // namespace quiltest
