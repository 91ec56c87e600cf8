// The core header: the thread host builds its object inside a new, named
// thread, and the verifying connect refuses cross-thread signals that Qt
// cannot queue and connections that were not made.

#include "quil.h"

#include "DeathTest.h"
#include "QtPrinters.h"

#include <QCoreApplication>
#include <QPointer>

#include <gtest/gtest.h>

#include <functional>
#include <pthread.h>

// Never registered with QMetaType, so Qt cannot queue it.
struct UnqueueableValue
{
    int value = 0;
};

class Emitter : public QObject
{
    Q_OBJECT
signals:
    void valueSent(UnqueueableValue value);
    void pointerSent(UnqueueableValue* value);
    void textSent(const QString& text);
};

class Receiver : public QObject
{
    Q_OBJECT
public:
    void takeValue(UnqueueableValue) {}
    void takePointer(UnqueueableValue*) {}
    void takeText(const QString&) {}
};

namespace {

// Records where and from what it was built.
struct Probe
{
    Probe(const QString& label, int number)
        : label(label)
        , number(number)
        , thread(QThread::currentThread())
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        threadName = QString::fromUtf8(name);
    }
    QString label;
    int number;
    QThread* thread;
    QString threadName;
};

} // namespace

TEST(ThreadHost, BuildsTheObjectInsideANewNamedThread)
{
    QString label = QStringLiteral("first");
    int number = 7;
    Probe* probe = createInNewQThread<Probe>(QStringLiteral("ProbeThread"), label, number);
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->label, "first");
    EXPECT_EQ(probe->number, 7);
    EXPECT_NE(probe->thread, QThread::currentThread());
    EXPECT_EQ(probe->threadName, "ProbeThread");
    EXPECT_TRUE(probe->thread->isRunning());   // its event loop runs until told to quit

    QPointer<QThread> thread = probe->thread;
    thread->quit();
    thread->wait();
    // The finished thread asks this thread, by a queued call, to delete it later.
    QCoreApplication::sendPostedEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(thread.isNull());
    delete probe;   // never owned by the thread
}

TEST(VerifiedConnect, AssertsQueueableParametersAcrossThreadsAndAMadeConnection)
{
    const QString parameters = QStringLiteral("verifyConnectionSignalParameters(sender, signal, receiver, type)");
    struct Case { const char* what; std::function<void()> connect; QString assertion; };
    const QList<Case> cases{
        {"queued, unregistered value", [] {
             Emitter emitter;
             Receiver receiver;
             quilConnect(&emitter, &Emitter::valueSent, &receiver, &Receiver::takeValue, Qt::QueuedConnection);
         }, parameters},
        {"automatic across threads, unregistered value", [] {
             Emitter emitter;
             QThread other;
             Receiver receiver;
             receiver.moveToThread(&other);
             quilConnect(&emitter, &Emitter::valueSent, &receiver, &Receiver::takeValue);
         }, parameters},
        {"the same unique connection twice", [] {
             Emitter emitter;
             Receiver receiver;
             quilConnect(&emitter, &Emitter::textSent, &receiver, &Receiver::takeText, Qt::UniqueConnection);
             quilConnect(&emitter, &Emitter::textSent, &receiver, &Receiver::takeText, Qt::UniqueConnection);
         }, QStringLiteral("connection")},
        {"queued pointer", [] {
             Emitter emitter;
             Receiver receiver;
             quilConnect(&emitter, &Emitter::pointerSent, &receiver, &Receiver::takePointer, Qt::QueuedConnection);
         }, {}},
        {"queued registered type", [] {
             Emitter emitter;
             Receiver receiver;
             quilConnect(&emitter, &Emitter::textSent, &receiver, &Receiver::takeText, Qt::QueuedConnection);
         }, {}},
        {"automatic within one thread, unregistered value", [] {
             Emitter emitter;
             Receiver receiver;
             quilConnect(&emitter, &Emitter::valueSent, &receiver, &Receiver::takeValue);
         }, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const quiltest::DeathResult result = quiltest::runInChild(c.connect);
        EXPECT_EQ(result.aborted, !c.assertion.isEmpty());
        if (!c.assertion.isEmpty())
            EXPECT_TRUE(result.fatalMessage.startsWith("ASSERT: \"" + c.assertion + "\" in file")) << result.fatalMessage.toStdString();
    }
}

#include "QuilCoreTest.moc"
