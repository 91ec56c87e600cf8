#pragma once

// What the benchmarks share: the stream they measure (48 kHz stereo S16 in
// blocks of 10 ms) and an in-memory capture device that never waits.

#include "AudioInputDevice.h"

#include <QByteArray>

#include <atomic>
#include <cstring>
#include <functional>

namespace quilbench {

constexpr int SampleRate = 48000;
constexpr int Channels = 2;
constexpr int BytesPerSample = 2;
constexpr int BlockFrames = SampleRate / 100;
constexpr int BlockBytes = BlockFrames * Channels * BytesPerSample;

// Every read returns a block at once, so a capture run goes as fast as the
// provider distributes. A shared block costs the read one reference; a fresh
// one is allocated and filled per read, as a real device's read is.
class UnpacedInputDevice : public AudioInputDevice {
public:
    enum Blocks { SharedBlocks, FreshBlocks };

    explicit UnpacedInputDevice(Blocks blocks, std::function<void()> beforeRead = {})
        : m_blocks(blocks)
        , m_beforeRead(std::move(beforeRead))
        , m_block(BlockBytes, '\x5a')
    {
    }

    bool open() override { return true; }
    void close() override {}
    bool isOpened() override { return true; }
    bool read(QByteArray* buffer, int) override
    {
        if (m_beforeRead)
            m_beforeRead();
        if (m_blocks == SharedBlocks) {
            *buffer = m_block;
        } else {
            buffer->resize(BlockBytes);
            std::memcpy(buffer->data(), m_block.constData(), BlockBytes);
        }
        reads.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    int sampleRate() const override { return SampleRate; }
    int bytesPerSample() const override { return BytesPerSample; }
    int channelCount() const override { return Channels; }
    QString name() const override { return QStringLiteral("Unpaced"); }

    std::atomic<qint64> reads{0};

private:
    const Blocks m_blocks;
    const std::function<void()> m_beforeRead;
    const QByteArray m_block;
};

} // namespace quilbench
