#pragma once

// The provider's ring of recent audio: a fixed run of bytes, oldest first, that
// every block shifts, stored circularly so that a block costs a copy of the
// block only (docs/internals.md). Its every operation lives here.

#include <QByteArray>

#include <cstring>

namespace quil {

// Writes the block over the oldest bytes; an empty ring stays empty. A block at
// least as long as the ring becomes the whole ring, and so a longer one gives
// the ring its length from then on: that is what shifting it in does.
inline void shiftIntoRing(QByteArray* ring, int* oldest, const QByteArray& block)
{
    const int ringBytes = ring->size();
    const int blockBytes = block.size();
    if (ringBytes == 0 || blockBytes == 0)
        return;
    if (blockBytes >= ringBytes) {
        if (blockBytes > ringBytes)
            ring->resize(blockBytes);
        std::memcpy(ring->data(), block.constData(), static_cast<size_t>(blockBytes));
        *oldest = 0;
        return;
    }
    const int untilEnd = qMin(blockBytes, ringBytes - *oldest);
    char* const bytes = ring->data();
    std::memcpy(bytes + *oldest, block.constData(), static_cast<size_t>(untilEnd));
    std::memcpy(bytes, block.constData() + untilEnd, static_cast<size_t>(blockBytes - untilEnd));
    *oldest = (*oldest + blockBytes) % ringBytes;
}

// A copy of the newest `count` bytes, oldest first (the whole ring when it holds
// fewer, nothing for a count of 0 or below); never a shared reference, as the
// capture loop goes on writing into the ring while another thread reads this.
inline QByteArray newestBytesOfRing(const QByteArray& ring, int oldest, int count)
{
    const int ringBytes = ring.size();
    if (count <= 0 || ringBytes == 0)
        return QByteArray();
    const int bytes = qMin(count, ringBytes);
    const int first = (oldest + ringBytes - bytes) % ringBytes;
    const int untilEnd = qMin(bytes, ringBytes - first);
    QByteArray newest(bytes, Qt::Uninitialized);
    std::memcpy(newest.data(), ring.constData() + first, static_cast<size_t>(untilEnd));
    std::memcpy(newest.data() + untilEnd, ring.constData(), static_cast<size_t>(bytes - untilEnd));
    return newest;
}

} // namespace quil
