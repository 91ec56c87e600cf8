#include "CMDataTransfer.h"

#include <QList>

#include <atomic>
#include <mutex>

namespace {
std::atomic<unsigned int> s_nextKey{1};
}

class CMDataTransferPrivate {
public:
    explicit CMDataTransferPrivate(bool isBuffered)
        : buffered(isBuffered)
    {
    }

    void deliverQueued(std::unique_lock<std::mutex>& lock);

    const unsigned int key = s_nextKey.fetch_add(1, std::memory_order_relaxed);
    const bool buffered;
    mutable std::mutex mutex;
    std::function<void(const QByteArray&)> handler;
    QList<QByteArray> kept; // buffered blocks waiting for a handler
    QList<QByteArray> queue; // blocks waiting for the thread that is delivering
    bool delivering = false;
    bool finished = false;
    QList<std::function<void(const CMError&)>> finishFunctions;
};

// Whichever thread finds nobody delivering becomes the deliverer and drains
// the queue; the others only enqueue. That keeps blocks in call order and one
// at a time without holding the mutex while the handler runs.
void CMDataTransferPrivate::deliverQueued(std::unique_lock<std::mutex>& lock)
{
    if (delivering)
        return;
    delivering = true;
    while (!queue.isEmpty() && handler) {
        const QByteArray block = queue.takeFirst();
        const auto current = handler;
        lock.unlock();
        current(block);
        lock.lock();
    }
    delivering = false;
}

CMDataTransfer::CMDataTransfer(bool buffered)
    : d(std::make_shared<CMDataTransferPrivate>(buffered))
{
}

CMDataTransfer::~CMDataTransfer() = default;

void CMDataTransfer::dataAvailable(const QByteArray& data)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (d->finished)
        return;
    if (!d->handler) {
        if (d->buffered)
            d->kept.append(data);
        return;
    }
    d->queue.append(data);
    d->deliverQueued(lock);
}

void CMDataTransfer::finish(const CMError& error)
{
    QList<std::function<void(const CMError&)>> functions;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->finished)
            return;
        d->finished = true;
        functions.swap(d->finishFunctions);
    }
    for (const auto& function : functions)
        function(error);
}

// The platform's signature takes the function by value; QList copies it in.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void CMDataTransfer::onFinished(std::function<void(const CMError&)> function)
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->finished) {
            d->finishFunctions.append(function);
            return;
        }
    }
    function(CMError());
}

void CMDataTransfer::onDataAvailable(std::function<void(const QByteArray&)> handler)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    d->handler = std::move(handler);
    if (!d->handler)
        return;
    d->queue.append(d->kept);
    d->kept.clear();
    d->deliverQueued(lock);
}

bool CMDataTransfer::isFinished() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->finished;
}

unsigned int qHash(const CMDataTransfer& transfer) { return transfer.d->key; }

CMBufferedDataTransfer::CMBufferedDataTransfer()
    : CMDataTransfer(true)
{
}

QByteArray CMBufferedDataTransfer::readAll()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    QByteArray all;
    for (const QByteArray& block : qAsConst(d->kept))
        all.append(block);
    d->kept.clear();
    return all;
}

CMUnbufferedDataTransfer::CMUnbufferedDataTransfer()
    : CMDataTransfer(false)
{
}
