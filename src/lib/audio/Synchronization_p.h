#pragma once

// ThreadSanitizer cannot see the ordering that Qt 5's uninstrumented QMutex and
// posted events give (docs/internals.md): these helpers tell it in sanitizer
// builds and compile to plain Qt code elsewhere.

#include <QMutex>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace quil {

// Everything the calling thread did so far happens before whatever follows
// acceptHandOff(key) in the thread that a queued call or deletion reaches.
#if defined(__SANITIZE_THREAD__)
inline void publishHandOff(const void* key) { __tsan_release(const_cast<void*>(key)); }
inline void acceptHandOff(const void* key) { __tsan_acquire(const_cast<void*>(key)); }
#else
inline void publishHandOff(const void* /*key*/) {}
inline void acceptHandOff(const void* /*key*/) {}
#endif

// QMutexLocker for the library's own mutexes.
class MutexLocker {
public:
    explicit MutexLocker(QMutex* mutex)
        : m_mutex(mutex)
    {
        m_mutex->lock();
        acceptHandOff(m_mutex);
    }
    ~MutexLocker()
    {
        publishHandOff(m_mutex);
        m_mutex->unlock();
    }
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

private:
    QMutex* m_mutex;
};

} // namespace quil
