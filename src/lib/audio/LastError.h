#pragma once

#include <QMutex>
#include <QMutexLocker>
#include <QString>

#include <atomic>

namespace quil {

/// The last failure of a device, card or mixer element, as its owner's
/// errorString() and errorCode() report it: the text of the ERROR line that
/// the library logged for it, and the ALSA or system error code (a negative
/// errno value) when there is one, else 0. The owner sets it on a failure and
/// clears it on the next success.
///
/// Header-only, so that it adds nothing to the library's binary interface.
/// Safe from any thread: a device may fail in its reading thread while
/// another thread asks why.
class LastError
{
public:
    LastError() = default;
    LastError(const LastError&) = delete;
    LastError& operator=(const LastError&) = delete;

    /// Empty when the last operation succeeded.
    QString text() const
    {
        QMutexLocker locker(&m_mutex);
        return m_text;
    }

    /// 0 when the last operation succeeded or its failure carried no code.
    int code() const
    {
        QMutexLocker locker(&m_mutex);
        return m_code;
    }

    void set(const QString& text, int code)
    {
        QMutexLocker locker(&m_mutex);
        m_text = text;
        m_code = code;
        m_set.store(true, std::memory_order_relaxed);
    }

    /// Cheap when nothing is set, as it runs after every successful read.
    void clear()
    {
        if (!m_set.load(std::memory_order_relaxed))
            return;
        QMutexLocker locker(&m_mutex);
        m_text.clear();
        m_code = 0;
        m_set.store(false, std::memory_order_relaxed);
    }

private:
    mutable QMutex m_mutex;
    QString m_text;
    int m_code = 0;
    std::atomic<bool> m_set{false};
};

/// Gives a device base class errorString() and errorCode() over its own
/// LastError; inline, so the exported device classes gain no symbols from it.
class ErrorReporting
{
public:
    /// Why the last failed operation failed: the text of the ERROR line the
    /// library logged for it (the last one, when it logged several). Empty
    /// until a failure, and again once the device's open() or next transfer
    /// succeeds. Safe from any thread.
    QString errorString() const { return m_lastError.text(); }
    /// The ALSA or system error code of that failure (a negative errno
    /// value), or 0 when it had none or there was no failure.
    int errorCode() const { return m_lastError.code(); }

protected:
    ~ErrorReporting() = default;
    /// Where a device records its failures. The library's devices keep it
    /// up to date; a device of one's own may use it too.
    LastError& lastError() const { return m_lastError; }

private:
    mutable LastError m_lastError;
};

} // namespace quil
