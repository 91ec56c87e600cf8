#include "FileInputDevice.h"

#include "AudioLog_p.h"
#include "PcmFormat_p.h"
#include "Synchronization_p.h"

#include <cerrno>
#include <unistd.h>

QUIL_AUDIO_DEFINE_LOGGER();

namespace {
constexpr qint64 MaxSleepMs = 1000000;
} // namespace

FileInputDevice::FileInputDevice(int sampleRate, int channelCount, _snd_pcm_format format)
    : m_sampleRate(sampleRate)
    , m_channelCount(channelCount)
    , m_format(format)
{
}

FileInputDevice::~FileInputDevice() = default;

bool FileInputDevice::open()
{
    m_timer.restart();
    setErrorString(QString());
    return true;
}

void FileInputDevice::close() {}

bool FileInputDevice::isOpened() { return true; }

bool FileInputDevice::read(QByteArray* buffer, int frameCount)
{
    // Without a positive rate a block has no duration to pace by, and the
    // provider would spin through reads at full speed; fail as on a read error.
    if (m_sampleRate <= 0) {
        QUIL_ERROR(this, 0, "Cannot pace blocks at a sample rate of " << m_sampleRate);
        return false;
    }
    // A format without a width, or no channels, gives frames of no bytes:
    // empty blocks, still paced by their frame count.
    const qint64 frameBytes = qMax<qint64>(0, static_cast<qint64>(bytesPerSample()) * m_channelCount);
    const qint64 blockBytes = quil::blockByteCount(frameCount, frameBytes);
    if (blockBytes < 0) {
        QUIL_ERROR(this, 0, "Cannot read " << frameCount << " frames into one block");
        return false;
    }
    buffer->fill(0, static_cast<int>(blockBytes));
    const qint64 missing = readFileInto(buffer);
    if (missing < 0)
        return false;

    const qint64 frames = qMax(frameCount, 0);
    const qint64 framesRead = frameBytes > 0 ? frames - missing / frameBytes : frames;
    const qint64 durationMs = 1000 * framesRead / m_sampleRate;
    LOG4CPLUS_TRACE(logger, "Time duration for this buffer: " << durationMs << " ms");
    pace(durationMs);
    return true;
}

// Fills the buffer from the file under the lock and returns how many of its
// bytes the file could not supply (they stay zero), or -1 on a read error.
qint64 FileInputDevice::readFileInto(QByteArray* buffer)
{
    const qint64 blockBytes = buffer->size();
    qint64 remaining = blockBytes;
    quil::MutexLocker locker(&m_mutex);
    while (remaining >= 1) {
        if (!m_file.isOpen())
            return 0; // no file: the zero block counts as delivered in full
        const qint64 got = m_file.read(buffer->data() + (blockBytes - remaining), remaining);
        if (got == 0) {
            LOG4CPLUS_INFO(logger, "No more data to read");
            m_file.close();
            break;
        }
        if (got < 0) {
            QUIL_ERROR(this, -errno, "Error reading from file");
            m_file.close();
            return -1;
        }
        remaining -= got;
    }
    return remaining;
}

// Only the time between reads counts towards the lag, not the sleep itself, so
// an oversleep is not made up later.
void FileInputDevice::pace(qint64 durationMs)
{
    // Reading before open() (which starts the timer) counts as no time passed.
    m_lagMs += m_timer.isValid() ? m_timer.elapsed() : 0;
    if (m_lagMs < durationMs) {
        const qint64 sleepMs = durationMs - m_lagMs;
        LOG4CPLUS_TRACE(logger, "Simulating live feed by sleeping for " << sleepMs << " ms");
        // usleep() takes 32 bits of microseconds: a longer block sleeps in parts.
        for (qint64 leftMs = sleepMs; leftMs > 0; leftMs -= MaxSleepMs)
            usleep(static_cast<useconds_t>(qMin(leftMs, MaxSleepMs) * 1000));
        m_lagMs = 0;
    } else {
        m_lagMs -= durationMs;
    }
    m_timer.restart();
}

int FileInputDevice::sampleRate() const { return m_sampleRate; }

int FileInputDevice::bytesPerSample() const { return quil::bytesPerSampleOf(m_format); }

int FileInputDevice::channelCount() const { return m_channelCount; }

QString FileInputDevice::name() const { return QStringLiteral("File Input Device"); }

bool FileInputDevice::playFile(const QString& path)
{
    LOG4CPLUS_INFO(logger, "Playing file: " << path);
    quil::MutexLocker locker(&m_mutex);
    m_file.close();
    m_file.setFileName(path);
    const bool opened = m_file.open(QIODevice::ReadOnly);
    const int openErrno = errno; // QFile keeps only its own error kind
    if (!opened)
        QUIL_ERROR(this, -openErrno, "Cannot open file: " << path);
    else
        setErrorString(QString());
    return opened;
}
