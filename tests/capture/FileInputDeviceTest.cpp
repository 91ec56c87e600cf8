// FileInputDevice: pacing against the monotonic clock (real sleeps where the
// pace itself is measured, recorded sleeps elsewhere), file switching from
// another thread, and the zero blocks without a file and after its end.

#include "FileInputDevice.h"

#include "AlsaFaults.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <QtEndian>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>

using namespace quiltest;
namespace faults = quiltest::faults;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::INFO_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;

namespace {

using USleep = int(useconds_t);

class FileInputDeviceTest : public ::testing::Test
{
protected:
    void SetUp() override { faults::reset(); }
    void TearDown() override { faults::reset(); }

    // Records the device's sleeps instead of sleeping.
    void recordSleeps()
    {
        faults::setHook<USleep>("usleep", [this](useconds_t us) {
            m_sleeps.append(static_cast<int>(us));
            return 0;
        });
    }

    QList<int> m_sleeps;
    LogCapture m_log;
};

// 4-byte frames holding tag << 24 | index, so a block shows which file and
// which position every frame came from.
QByteArray taggedFrames(quint32 tag, int count)
{
    QByteArray bytes(count * 4, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        qToLittleEndian<quint32>(tag << 24 | static_cast<quint32>(i), bytes.data() + 4 * i);
    return bytes;
}

quint32 frameAt(const QByteArray& block, int frame)
{
    return qFromLittleEndian<quint32>(block.constData() + 4 * frame);
}

} // namespace

TEST_F(FileInputDeviceTest, HoldsReadsToRealTime)
{
    FileInputDevice device(48000, 2, SND_PCM_FORMAT_S16_LE);
    ASSERT_TRUE(device.open());
    QElapsedTimer timer;
    timer.start();
    QByteArray block;
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(device.read(&block, 960));   // 20 ms each
    const qint64 elapsed = timer.elapsed();
    EXPECT_GE(elapsed, 2000);
    // Each of the 100 sleeps may overrun, which is not made up; on cores
    // shared with other work that adds up to some tens of ms.
    EXPECT_LE(elapsed, 2120);
    EXPECT_EQ(block, QByteArray(3840, '\0'));   // no file: zeros
    EXPECT_EQ(device.name(), "File Input Device");
}

// Frames without bytes (no width, no channels) still take their time; with
// no rate to pace by, or a block no QByteArray holds, read() fails instead.
TEST_F(FileInputDeviceTest, BlockDurationIsTruncatedToWholeMilliseconds)
{
    recordSleeps();
    struct Case { int rate; int channels; snd_pcm_format_t format; int frames; int bytes; int ms; QString error; };
    const QList<Case> cases{
        {44100, 2, SND_PCM_FORMAT_S16_LE, 1000, 4000, 22, {}},   // 22.68 ms
        {48000, 1, SND_PCM_FORMAT_S24_3LE, 47, 141, 0, {}},      // 0.98 ms: no sleep
        {48000, 2, SND_PCM_FORMAT_S16_LE, 0, 0, 0, {}},
        {48000, 2, SND_PCM_FORMAT_S16_LE, -5, 0, 0, {}},
        {48000, 2, SND_PCM_FORMAT_UNKNOWN, 480, 0, 10, {}},
        {48000, 0, SND_PCM_FORMAT_S16_LE, 480, 0, 10, {}},
        {48000, -2, SND_PCM_FORMAT_S16_LE, 480, 0, 10, {}},
        {0, 2, SND_PCM_FORMAT_S16_LE, 480, 0, 0, "Cannot pace blocks at a sample rate of 0"},
        {-44100, 2, SND_PCM_FORMAT_S16_LE, 480, 0, 0, "Cannot pace blocks at a sample rate of -44100"},
        {48000, 2, SND_PCM_FORMAT_S16_LE, INT_MAX, 0, 0, "Cannot read 2147483647 frames into one block"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.frames);
        m_log.clear();
        m_sleeps.clear();
        FileInputDevice device(c.rate, c.channels, c.format);
        ASSERT_TRUE(device.open());
        QByteArray block("stale");
        EXPECT_EQ(device.read(&block, c.frames), c.error.isEmpty());
        EXPECT_EQ(block, c.error.isEmpty() ? QByteArray(c.bytes, '\0') : QByteArray("stale"));
        EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), c.error.isEmpty() ? QStringList() : QStringList{c.error});
        EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL).value(0),
                  c.error.isEmpty() ? QStringLiteral("Time duration for this buffer: %1 ms").arg(c.ms) : QString());
        // The read follows open() within microseconds; allow for a preempted test thread.
        EXPECT_EQ(m_sleeps.size(), c.ms > 0 ? 1 : 0);
        EXPECT_NEAR(m_sleeps.value(0), c.ms * 1000, 2000);
    }
}

TEST_F(FileInputDeviceTest, ReaderThatFellBehindCatchesUpWithoutSleeping)
{
    recordSleeps();
    FileInputDevice device(48000, 2, SND_PCM_FORMAT_S16_LE);
    ASSERT_TRUE(device.open());
    QThread::msleep(500);
    QByteArray block;
    int reads = 0;
    while (m_sleeps.isEmpty() && reads < 100) {
        ASSERT_TRUE(device.read(&block, 960));
        ++reads;
    }
    // 25 blocks of 20 ms make up the 500 ms; the 26th waits again.
    EXPECT_GE(reads, 26);
    EXPECT_LE(reads, 28);
}

TEST_F(FileInputDeviceTest, PlayFileFromAnotherThreadSwitchesBetweenWholeBlocks)
{
    recordSleeps();
    constexpr int BlockFrames = 64;
    constexpr int Blocks = 2000;
    // Each file outlasts the whole read, so no block meets an end of file.
    const QStringList paths{writeDataFile("switch_a.raw", taggedFrames(0xA, Blocks * BlockFrames)),
                            writeDataFile("switch_b.raw", taggedFrames(0xB, Blocks * BlockFrames))};
    FileInputDevice device(48000, 2, SND_PCM_FORMAT_S16_LE);
    ASSERT_TRUE(device.playFile(paths.at(0)));
    ASSERT_TRUE(device.open());

    QList<QByteArray> blocks;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        QByteArray block;
        for (int i = 0; i < Blocks; ++i) {
            if (!device.read(&block, BlockFrames))
                break;
            blocks.append(block);
        }
        done = true;
    });
    int switches = 0;
    while (!done) {
        EXPECT_TRUE(device.playFile(paths.at(++switches % 2)));
        QThread::usleep(200);
    }
    reader.join();

    ASSERT_EQ(blocks.size(), Blocks);
    int runs = 0;
    quint32 previous = 0;
    for (const QByteArray& block : qAsConst(blocks)) {
        const quint32 first = frameAt(block, 0);
        for (int f = 1; f < BlockFrames; ++f)
            ASSERT_EQ(frameAt(block, f), first + f) << "a block mixes files or skips frames";
        // Either the same file continues, or a switch restarted a file at its beginning.
        if (first & 0xffffff) {
            ASSERT_EQ(first, previous + 1);
        } else {
            ++runs;
        }
        previous = frameAt(block, BlockFrames - 1);
    }
    EXPECT_GE(runs, 5) << "too few switches landed to show anything";
    EXPECT_EQ(m_log.startingWith(INFO_LOG_LEVEL, "Playing file: ").size(), switches + 1);
}

TEST_F(FileInputDeviceTest, EndOfFileAndUnreadableFilesGiveZeroBlocks)
{
    recordSleeps();
    const QByteArray data = patternBytes(1000 * 4);   // 1000 frames, shorter than a block
    FileInputDevice device(48000, 2, SND_PCM_FORMAT_S16_LE);
    ASSERT_TRUE(device.playFile(writeDataFile("short.raw", data)));
    ASSERT_TRUE(device.open());
    QByteArray block;
    ASSERT_TRUE(device.read(&block, 4800));
    EXPECT_EQ(block, data + QByteArray(4800 * 4 - data.size(), '\0'));
    EXPECT_EQ(m_log.messages(INFO_LOG_LEVEL).last(), "No more data to read");
    EXPECT_TRUE(m_log.messages(TRACE_LOG_LEVEL).contains("Time duration for this buffer: 20 ms"));   // the file's frames only
    m_log.clear();
    ASSERT_TRUE(device.read(&block, 4800));
    EXPECT_EQ(block, QByteArray(4800 * 4, '\0'));
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL).value(0), "Time duration for this buffer: 100 ms");
    EXPECT_TRUE(m_log.messages(INFO_LOG_LEVEL).isEmpty());

    // close() keeps the file and its position.
    const QByteArray longer = patternBytes(4000, 1);
    ASSERT_TRUE(device.playFile(writeDataFile("long.raw", longer)));
    ASSERT_TRUE(device.read(&block, 500));
    device.close();
    EXPECT_TRUE(device.isOpened());
    ASSERT_TRUE(device.open());
    QByteArray next;
    ASSERT_TRUE(device.read(&next, 500));
    EXPECT_EQ(block + next, longer);

    // A file that cannot be opened still closes the previous one.
    ASSERT_TRUE(device.playFile(writeDataFile("again.raw", longer)));
    m_log.clear();
    EXPECT_FALSE(device.playFile("/nonexistent/capture.raw"));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Cannot open file: /nonexistent/capture.raw"});
    ASSERT_TRUE(device.read(&block, 100));
    EXPECT_EQ(block, QByteArray(400, '\0'));

    // A read error closes the file and fails at once, without pacing.
    ASSERT_TRUE(device.playFile("/proc/self/mem"));   // reading at offset 0 fails with EIO
    m_log.clear();
    m_sleeps.clear();
    EXPECT_FALSE(device.read(&block, 100));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Error reading from file"});
    EXPECT_TRUE(m_log.messages(TRACE_LOG_LEVEL).isEmpty());
    EXPECT_TRUE(m_sleeps.isEmpty());
    ASSERT_TRUE(device.read(&block, 100));
    EXPECT_EQ(block, QByteArray(400, '\0'));

    // A file cut short while it is read ends where it was cut; a deleted one
    // is read on to its end (the open descriptor keeps it); a directory is
    // no file to play.
    const QByteArray large = patternBytes(40000, 2);   // beyond what QFile buffers ahead
    const QString cut = writeDataFile("cut.raw", large);
    const QString deleted = writeDataFile("deleted.raw", large);
    for (const QString& path : {cut, deleted}) {
        ASSERT_TRUE(device.playFile(path));
        ASSERT_TRUE(device.read(&block, 100));
        if (path == cut)
            ASSERT_TRUE(QFile::resize(path, 20000));
        else
            ASSERT_TRUE(QFile::remove(path));
        m_log.clear();
        ASSERT_TRUE(device.read(&block, 9900));
        EXPECT_EQ(block, path == cut ? large.mid(400, 19600) + QByteArray(20000, '\0') : large.mid(400));
        EXPECT_EQ(m_log.messages(INFO_LOG_LEVEL), path == cut ? QStringList{"No more data to read"} : QStringList());
    }
    m_log.clear();
    EXPECT_FALSE(device.playFile(dataDirectory()));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL), QStringList{"Cannot open file: " + dataDirectory()});
}
