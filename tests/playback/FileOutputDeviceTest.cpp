// FileOutputDevice: what reaches the file across open, write and close.

#include "FileOutputDevice.h"

#include "LogCapture.h"
#include "TestEnvironment.h"

#include <gtest/gtest.h>

using namespace quiltest;

TEST(FileOutputDeviceTest, WritesRawBlocksAndStartsEmptyOnEveryReopen)
{
    const QString path = writeDataFile(QStringLiteral("playback-file.raw"), "stale content");
    FileOutputDevice device(path, 44100, 2, SND_PCM_FORMAT_S24_3LE);
    EXPECT_EQ(device.framesReady(), 4096);
    EXPECT_EQ(device.write("dropped while closed"), AudioOutputDevice::Written);
    EXPECT_EQ(fileContent(path), QByteArray("stale content"));

    ASSERT_TRUE(device.open());
    EXPECT_EQ(fileContent(path), QByteArray());   // truncated
    const QByteArray first = patternBytes(6 * 100 + 5, 1);   // a trailing partial frame too
    EXPECT_EQ(device.write(first), AudioOutputDevice::Written);
    EXPECT_EQ(device.write(QByteArray()), AudioOutputDevice::Written);
    EXPECT_TRUE(device.open());   // already open: keeps what was written
    const QByteArray second = patternBytes(600, 2);
    EXPECT_EQ(device.write(second), AudioOutputDevice::Written);
    EXPECT_EQ(device.framesReady(), 4096);
    device.close(AudioOutputDevice::Drain);
    EXPECT_FALSE(device.isOpened());
    EXPECT_EQ(device.framesReady(), 4096);
    EXPECT_TRUE(fileContent(path) == first + second);

    ASSERT_TRUE(device.open());
    EXPECT_TRUE(device.isOpened());
    device.close(AudioOutputDevice::Immediate);
    device.close(AudioOutputDevice::Immediate);
    EXPECT_EQ(fileContent(path), QByteArray());
}

// open() reports an unusable path by its result alone; writes to a file the
// file system refuses (here a full device) are dropped without a word.
TEST(FileOutputDeviceTest, UnwritablePathsFailOpenAndRefusedWritesStillCount)
{
    struct Case { QString path; bool opens; };
    const QList<Case> cases{
        {dataDirectory() + QStringLiteral("/no/such/dir/out.raw"), false},
        {dataDirectory(), false},
        {QString(), false},
        {QStringLiteral("/dev/full"), true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path.toStdString());
        LogCapture log;
        FileOutputDevice device(c.path, 8000, 1, SND_PCM_FORMAT_S32_LE);
        EXPECT_EQ(device.open(), c.opens);
        EXPECT_EQ(device.isOpened(), c.opens);
        EXPECT_EQ(device.write(patternBytes(100000)), AudioOutputDevice::Written);
        device.close(AudioOutputDevice::Drain);
        EXPECT_FALSE(device.isOpened());
        EXPECT_TRUE(log.records().isEmpty());
        EXPECT_EQ(device.sampleRate(), 8000);
        EXPECT_EQ(device.channelCount(), 1);
        EXPECT_EQ(device.bytesPerSample(), 4);
        EXPECT_EQ(device.name(), QStringLiteral("File Output Device"));
    }
}
