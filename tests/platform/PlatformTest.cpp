// The platform stand-in and the test harness itself: a wrong transfer or a
// blind death test would make every later test meaningless.

#include "CMDataTransfer.h"
#include "DeathTest.h"
#include "QuilPlatform.h"

#include <QThread>
#include <QVector>

#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

TEST(DataTransfer, HandlesShareOneTransferAndKeysAreDistinct)
{
    CMBufferedDataTransfer first;
    CMDataTransfer copy = first;
    CMBufferedDataTransfer second;
    EXPECT_EQ(qHash(first), qHash(copy));
    EXPECT_NE(qHash(first), qHash(second));
    copy.finish(CMError());
    EXPECT_TRUE(first.isFinished());
    EXPECT_FALSE(second.isFinished());
}

TEST(DataTransfer, BufferedKeepsBlocksUntilAHandlerIsSetUnbufferedDrops)
{
    CMBufferedDataTransfer buffered;
    CMUnbufferedDataTransfer unbuffered;
    for (const char* block : {"ab", "cd"}) {
        buffered.dataAvailable(block);
        unbuffered.dataAvailable(block);
    }
    QByteArray seen;
    buffered.onDataAvailable([&](const QByteArray& b) { seen += b; });
    unbuffered.onDataAvailable([&](const QByteArray& b) { seen += b; });
    EXPECT_EQ(seen, QByteArray("abcd"));
    buffered.dataAvailable("ef");
    EXPECT_EQ(seen, QByteArray("abcdef"));

    CMBufferedDataTransfer unread;
    unread.dataAvailable("12");
    unread.dataAvailable("34");
    EXPECT_EQ(unread.readAll(), QByteArray("1234"));
    EXPECT_EQ(unread.readAll(), QByteArray());
}

TEST(DataTransfer, FinishRunsOnceAndLateFunctionsRunAtOnce)
{
    CMBufferedDataTransfer transfer;
    int finishes = 0;
    transfer.onFinished([&](const CMError& e) { EXPECT_TRUE(e.isNull()); ++finishes; });
    QByteArray seen;
    transfer.onDataAvailable([&](const QByteArray& b) {
        seen += b;
        transfer.finish(CMError());   // a handler may finish its own transfer
    });
    transfer.dataAvailable("x");
    transfer.finish(CMError());
    transfer.dataAvailable("dropped");
    EXPECT_EQ(finishes, 1);
    EXPECT_EQ(seen, QByteArray("x"));
    transfer.onFinished([&](const CMError&) { ++finishes; });
    EXPECT_EQ(finishes, 2);
}

TEST(DataTransfer, BlocksFromTwoThreadsReachTheHandlerOneAtATime)
{
    CMBufferedDataTransfer transfer;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    QVector<int> perThread[2];
    transfer.onDataAvailable([&](const QByteArray& b) {
        if (inside.fetch_add(1) != 0)
            overlapped = true;
        perThread[b[0] - '0'].append(b.mid(1).toInt());
        inside.fetch_sub(1);
    });
    auto produce = [&](char id) {
        for (int i = 0; i < 2000; ++i)
            transfer.dataAvailable(QByteArray(1, id) + QByteArray::number(i));
    };
    std::thread a(produce, '0'), b(produce, '1');
    a.join();
    b.join();
    EXPECT_FALSE(overlapped);
    for (const auto& sequence : perThread) {
        ASSERT_EQ(sequence.size(), 2000);
        for (int i = 0; i < sequence.size(); ++i)
            ASSERT_EQ(sequence[i], i);
    }
}

TEST(Platform, ThreadNameAndQStringStreaming)
{
    std::thread([] {
        quilSetThreadName(QStringLiteral("AudioInputT"));
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_STREQ(name, "AudioInputT");
    }).join();
    std::ostringstream stream;
    stream << QString::fromUtf8("Gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(stream.str(), "Gr\xc3\xbc\xc3\x9f");
}

TEST(Harness, DeathTestReportsTheAssertionText)
{
    const auto result = quiltest::runInChild([] {
        volatile int readSize = 0;
        Q_ASSERT(readSize > 0);
    });
    EXPECT_TRUE(result.aborted);
    EXPECT_TRUE(result.fatalMessage.startsWith(QStringLiteral("ASSERT: \"readSize > 0\"")))
        << result.fatalMessage.toStdString();
    EXPECT_FALSE(quiltest::runInChild([] {}).aborted);
}
