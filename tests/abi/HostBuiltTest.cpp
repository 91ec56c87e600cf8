// Built as a host program is built: the classes below are declared from their
// published layouts alone, without the library's headers, and the program
// runs on libquil_audio.so. A field, base or virtual function the library
// adds to them shows here as a crash, a sanitizer report or a broken canary.

#include "CMDataTransfer.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>
#include <QTest>

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <new>

// The published declarations, virtual functions in slot order.
class AudioInputDevice
{
public:
    virtual ~AudioInputDevice();
    virtual bool open() = 0;
    virtual void close() = 0;
    virtual bool isOpened() = 0;
    virtual bool read(QByteArray* buffer, int frameCount) = 0;
    virtual int sampleRate() const = 0;
    virtual int bytesPerSample() const = 0;
    virtual int channelCount() const = 0;
    virtual QString name() const = 0;
};

class AlsaInputDevice : public AudioInputDevice
{
public:
    AlsaInputDevice(const QString& deviceName, int sampleRate, unsigned int channelCount,
                    _snd_pcm_format format, int periodTimeMs, int bufferTimeMs);
    ~AlsaInputDevice() override;
    bool open() override;
    void close() override;
    bool isOpened() override;
    bool read(QByteArray* buffer, int frameCount) override;
    int sampleRate() const override;
    int bytesPerSample() const override;
    int channelCount() const override;
    QString name() const override;

    QString m_deviceName;
    int m_sampleRate;
    unsigned int m_channelCount;
    _snd_pcm_format m_format;
    int m_periodTimeMs;
    int m_bufferTimeMs;
    snd_pcm_t* m_pcm;
};

class AudioOutputDevice
{
public:
    enum CloseMode { Immediate = 0, Drain = 1 };
    enum WriteResult { Written = 0, XrunRecovered = 1, DeviceClosed = 2 };
    virtual ~AudioOutputDevice();
    virtual bool open() = 0;
    virtual void close(AudioOutputDevice::CloseMode mode) = 0;
    virtual bool isOpened() = 0;
    virtual AudioOutputDevice::WriteResult write(const QByteArray& data) = 0;
    virtual int framesReady() const = 0;
    virtual int sampleRate() const = 0;
    virtual int bytesPerSample() const = 0;
    virtual int channelCount() const = 0;
    virtual QString name() const = 0;
};

class AudioInputDataProviderThread;

class AudioInputDataProvider
{
public:
    AudioInputDataProvider(AudioInputDevice* device, unsigned int bufferDurationMs, unsigned int oneReadSizeFrames);
    virtual ~AudioInputDataProvider();
    void start();
    void stop();
    CMUnbufferedDataTransfer liveFeed() const;

private:
    AudioInputDataProviderThread* m_thread;
};

namespace {

// A host's capture device: its own fields right after the interface's vtable
// pointer, where a library field in the interface would sit. The first read fails.
class HostInputDevice : public AudioInputDevice
{
public:
    bool open() override { return ++m_opens, true; }
    void close() override {}
    bool isOpened() override { return true; }
    bool read(QByteArray* buffer, int frameCount) override
    {
        if (m_reads++ == 0)
            return false;
        *buffer = QByteArray(frameCount * 4, char(m_reads));
        return true;
    }
    int sampleRate() const override { return 48000; }
    int bytesPerSample() const override { return 2; }
    int channelCount() const override { return 2; }
    QString name() const override { return QStringLiteral("Host Device"); }

    std::atomic<int> m_opens{0}, m_reads{0};
};

class HostOutputDevice : public AudioOutputDevice
{
public:
    bool open() override { return true; }
    void close(CloseMode) override {}
    bool isOpened() override { return true; }
    WriteResult write(const QByteArray& data) override { return m_bytes += data.size(), Written; }
    int framesReady() const override { return 1; }
    int sampleRate() const override { return 8000; }
    int bytesPerSample() const override { return 1; }
    int channelCount() const override { return 1; }
    QString name() const override { return QStringLiteral("Host Output"); }

    int m_bytes = 0;
};

} // namespace

// The provider reads the host's device through a failed read and its restart
// 2000 ms later; the live feed then gets the host's blocks.
TEST(HostBuilt, ProviderRestartsAHostDeviceAfterAFailedRead)
{
    int argc = 1;
    char* argv[] = {const_cast<char*>("host_built_test"), nullptr};
    QCoreApplication app(argc, argv);
    HostInputDevice device;
    std::atomic<int> blocks{0};
    {
        AudioInputDataProvider provider(&device, 100, 480);
        CMUnbufferedDataTransfer live = provider.liveFeed();
        live.onDataAvailable([&](const QByteArray& block) {
            if (block.size() == 480 * 4 && block.at(0) >= 2)
                ++blocks;
        });
        provider.start();
        EXPECT_TRUE(QTest::qWaitFor([&] { return blocks >= 3; }, 10000));
        EXPECT_EQ(device.m_opens, 2);
        provider.stop();
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// The library's constructor, open, read and destructor stay within the size
// this program allocates: the canary behind the object stays intact.
TEST(HostBuilt, LibraryConstructorsFitTheSizesTheHostAllocates)
{
    alignas(AlsaInputDevice) unsigned char storage[sizeof(AlsaInputDevice) + 64];
    std::memset(storage, 0xA5, sizeof storage);
    auto* device = new (storage) AlsaInputDevice(QStringLiteral("null"), 48000, 2u, SND_PCM_FORMAT_S16_LE, 20, 100);
    EXPECT_EQ(std::make_pair(device->m_deviceName.toStdString(), device->m_bufferTimeMs), std::make_pair(std::string("null"), 100));   // at its offsets
    ASSERT_TRUE(device->open());
    EXPECT_NE(device->m_pcm, nullptr);
    QByteArray block;
    EXPECT_TRUE(device->read(&block, 64));
    EXPECT_EQ(block.size(), 64 * 4);
    device->~AlsaInputDevice();
    for (size_t i = sizeof(AlsaInputDevice); i < sizeof storage; ++i)
        ASSERT_EQ(storage[i], 0xA5) << "byte " << i << " past the object was written";

    HostOutputDevice output;
    AudioOutputDevice* base = &output;
    EXPECT_EQ(base->write("abc"), AudioOutputDevice::Written);
    EXPECT_EQ(output.m_bytes, 3);
}
