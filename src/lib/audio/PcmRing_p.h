#pragma once

// The provider's ring of recent audio: a QByteArray of fixed size holding the
// newest bytes, oldest first. Every operation on it lives here, so that the
// representation can change without touching the capture loop.

#include <QByteArray>

namespace quil {

// Drops as many of the oldest bytes as the block holds and appends the block.
// An empty ring (a buffer duration of 0) stays empty; a block longer than the
// ring leaves the ring holding exactly that block.
inline void shiftIntoRing(QByteArray* ring, const QByteArray& block)
{
    if (ring->isEmpty())
        return;
    ring->remove(0, block.size());
    ring->append(block);
}

// A copy of the newest `count` bytes: the whole ring when it holds fewer,
// nothing for a count of 0 or below. Always a copy, never a shared reference:
// the capture loop goes on changing the ring while another thread reads this.
inline QByteArray newestBytesOfRing(const QByteArray& ring, int count)
{
    if (count <= 0)
        return QByteArray();
    const int bytes = qMin(count, ring.size());
    return QByteArray(ring.constData() + ring.size() - bytes, bytes);
}

} // namespace quil
