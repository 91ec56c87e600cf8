#pragma once

/// \file
/// Core helpers shared by the library and its clients: a signal connection that
/// verifies what Qt would otherwise only warn about, and a thread host that
/// builds an object inside a new, named thread.
///
/// The templates' Q_ASSERTs are compiled into the code that instantiates them,
/// so they follow that code's own settings: a host's release build (QT_NO_DEBUG)
/// drops them unless it defines QT_FORCE_ASSERTS. The library's copies keep them.

#include "QuilPlatform.h"

#include <QByteArray>
#include <QList>
#include <QMetaMethod>
#include <QMetaType>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QThread>
#include <QWaitCondition>

#include <functional>
#include <utility>

/// True unless the connection crosses threads (queued, or automatic between
/// objects of different threads) and the signal has a parameter type that Qt
/// cannot queue: neither a pointer nor registered with QMetaType.
/// \ingroup internals
template <class Signal>
bool verifyConnectionSignalParameters(const QObject* sender, Signal signal, const QObject* receiver,
                                      Qt::ConnectionType type)
{
    const bool crossesThreads =
        type == Qt::QueuedConnection || (type == Qt::AutoConnection && sender->thread() != receiver->thread());
    if (!crossesThreads)
        return true;
    const QMetaMethod method = QMetaMethod::fromSignal(signal);
    const QList<QByteArray> typeNames = method.parameterTypes();
    for (int index = 0; index < typeNames.size(); ++index) {
        // Qt 5 knows a type once it is registered; Qt 6 registers (and can queue) every type moc saw complete.
        if (!typeNames.at(index).endsWith('*') && method.parameterType(index) == QMetaType::UnknownType)
            return false;
    }
    return true;
}

/// QObject::connect that asserts that a cross-thread signal can be queued and
/// that the connection was made (assertions as the instantiating code has them).
/// Any thread, as QObject::connect.
/// \ingroup internals
template <class Sender, class Signal, class Receiver, class Slot>
QMetaObject::Connection quilConnect(const Sender* sender, Signal signal, const Receiver* receiver, Slot slot,
                                    Qt::ConnectionType type = Qt::AutoConnection)
{
    Q_ASSERT(verifyConnectionSignalParameters(sender, signal, receiver, type));
    QMetaObject::Connection connection = QObject::connect(sender, signal, receiver, slot, type);
    Q_ASSERT(connection);
    return connection;
}

template <class T, class... Args> class NewQThread;

template <class T, class... Args> T* createInNewQThread(const QString& threadName, Args&&... args);

/// A thread whose run() first names itself and constructs a T from copies of
/// the given arguments (so the object belongs to the new thread), then runs
/// the event loop until told to quit. It never deletes the T.
/// \ingroup internals
template <class T, class... Args> class NewQThread : public QThread {
public:
    /// Keeps copies of the arguments for run(); starts nothing.
    NewQThread(const QString& threadName, Args... args)
        : QThread(nullptr)
    {
        m_creator = [this, threadName, args...]() mutable {
            quilSetThreadName(threadName);
            m_object = new T(args...);
        };
    }
    ~NewQThread() override = default;

protected:
    /// In the new thread: names it, builds the T, wakes the creator, then runs
    /// the event loop until quit().
    void run() override
    {
        m_creationMutex.lock();
        m_creator();
        m_objectCreated.wakeAll();
        m_creationMutex.unlock();
        exec();
    }

private:
    template <class U, class... A> friend U* createInNewQThread(const QString& threadName, A&&... args);

    T* m_object = nullptr;
    QWaitCondition m_objectCreated;
    QMutex m_creationMutex;
    std::function<void()> m_creator;
};

/// Starts a thread named threadName, constructs a T from args inside it and
/// returns the T once it exists. The thread object deletes itself when the
/// thread finishes (through the creating thread's event loop); the caller
/// becomes responsible for the T, which lives in the new thread. Blocks the
/// calling thread until then; call it from a thread with an event loop.
/// \ingroup internals
template <class T, class... Args> T* createInNewQThread(const QString& threadName, Args&&... args)
{
    auto* thread = new NewQThread<T, Args...>(threadName, std::forward<Args>(args)...);
    quilConnect(thread, &QThread::finished, thread, &QObject::deleteLater, Qt::AutoConnection);
    // Held from before start(), as run() holds it from before construction:
    // the wake-up cannot be missed, and m_object is read only after it.
    thread->m_creationMutex.lock();
    thread->start(QThread::InheritPriority);
    do {
        thread->m_objectCreated.wait(&thread->m_creationMutex);
    } while (!thread->m_object);
    T* object = thread->m_object;
    thread->m_creationMutex.unlock();
    return object;
}
