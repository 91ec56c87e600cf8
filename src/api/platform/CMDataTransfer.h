#pragma once

#include "CMError.h"

#include <QByteArray>

#include <functional>
#include <memory>

/// \file
/// Data-transfer handles of the platform library libquil_api (a stand-in of it).

class CMDataTransferPrivate;

/// Implicitly shared handle to one data transfer: every copy refers to the
/// same transfer, which lives until its last handle goes.
///
/// Every operation may be called from any thread. A transfer hands blocks to
/// its handler one at a time and in the order dataAvailable() was called; no
/// internal lock is held while the handler or a finish function runs, so both
/// may call back into the transfer (a handler may finish its own transfer).
/// \ingroup hostapi
class CMDataTransfer {
public:
    /// Drops this handle; the transfer goes with its last one.
    virtual ~CMDataTransfer();

    /// Producer side: hands one block to the consumer. Dropped once finished.
    void dataAvailable(const QByteArray& data);
    /// Producer or consumer side: ends the transfer. The first call runs the
    /// finish functions synchronously in the calling thread; later calls do nothing.
    void finish(const CMError& error);
    /// Registers a function to run when the transfer finishes; runs at once if
    /// the transfer has already finished.
    void onFinished(std::function<void(const CMError&)> function);

    /// Consumer side: sets the function that receives the blocks.
    void onDataAvailable(std::function<void(const QByteArray&)> handler);
    /// True once finish() was called on any handle of the transfer.
    bool isFinished() const;

    /// True when both handles refer to the same transfer.
    bool operator==(const CMDataTransfer& other) const { return d == other.d; }
    /// True when the handles refer to different transfers.
    bool operator!=(const CMDataTransfer& other) const { return d != other.d; }

    friend unsigned int qHash(const CMDataTransfer& transfer);

protected:
    /// Creates a new transfer that keeps (buffered) or drops blocks sent before a handler is set.
    explicit CMDataTransfer(bool buffered);
    /// The transfer itself, shared by every handle of it.
    std::shared_ptr<CMDataTransferPrivate> d;
};

/// The same key for every handle of one transfer, distinct for distinct transfers.
/// (Qt 6's own qHash returns size_t; its QHash takes this one-argument form too.)
/// \ingroup internals
unsigned int qHash(const CMDataTransfer& transfer);

/// A transfer that keeps, in order, the blocks arriving while no handler is
/// set, and hands them to the handler once one is set.
/// \ingroup hostapi
class CMBufferedDataTransfer : public CMDataTransfer {
public:
    /// Creates a new transfer.
    CMBufferedDataTransfer();
    /// Takes every block kept so far, concatenated.
    QByteArray readAll();
};

/// A transfer that drops the blocks arriving while no handler is set.
/// \ingroup hostapi
class CMUnbufferedDataTransfer : public CMDataTransfer {
public:
    /// Creates a new transfer.
    CMUnbufferedDataTransfer();
};
