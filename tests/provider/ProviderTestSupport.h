#pragma once

#include "AudioInputDevice.h"
#include "CMDataTransfer.h"

#include <QList>
#include <QString>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace quiltest {

// An in-memory capture device whose stream is a frame counter: every 4-byte
// frame holds its 1-based position in the stream (little endian), so a
// received stream shows any lost, repeated or reordered frame, and silence
// stands out. Reads can wait at a gate, fail, or vary in length.
class ScriptedInputDevice : public AudioInputDevice
{
public:
    explicit ScriptedInputDevice(int sampleRate = 48000, int channelCount = 2, int bytesPerSample = 2);

    bool open() override;
    void close() override;
    bool isOpened() override { return m_opened; }
    bool read(QByteArray* buffer, int frameCount) override;
    int sampleRate() const override { return m_sampleRate; }
    int bytesPerSample() const override { return m_bytesPerSample; }
    int channelCount() const override { return m_channelCount; }
    QString name() const override { return QStringLiteral("Scripted Device"); }

    std::atomic<bool> failOpen{false};
    std::atomic<bool> failReads{false};
    QList<int> framesPerRead;   // cycled; empty: as many as asked for. Set before start().

    // While closed, each read waits for one permit.
    void closeGate();
    void permit(int reads);
    void openGate();

    std::atomic<int> opens{0};   // attempts
    std::atomic<int> closes{0};
    std::atomic<int> reads{0};   // entered, including one waiting at the gate
    std::atomic<int> deliveredFrames{0};
    std::atomic<QThread*> openThread{nullptr};   // of the last open()
    QString openThreadName() const;

    // The counter frames [first, first + count).
    QByteArray frames(int first, int count) const;

private:
    const int m_sampleRate;
    const int m_channelCount;
    const int m_bytesPerSample;
    bool m_opened = false;   // worker thread only
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
    explicit FeedRecorder(CMDataTransfer transfer);

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

// Empty when `bytes` is silence followed by the counter stream from its
// beginning, or a gapless stretch of the counter stream; else what is wrong.
QString counterStreamDefect(const QByteArray& bytes);

} // namespace quiltest
