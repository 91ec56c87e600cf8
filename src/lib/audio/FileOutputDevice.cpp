#include "FileOutputDevice.h"

#include "PcmFormat_p.h"

#include <cerrno>

namespace {

constexpr int FileFramesReady = 4096;

} // namespace

FileOutputDevice::FileOutputDevice(const QString& fileName, int sampleRate, int channelCount, _snd_pcm_format format)
    : m_file(fileName)
    , m_sampleRate(sampleRate)
    , m_channelCount(channelCount)
    , m_format(format)
{
}

FileOutputDevice::~FileOutputDevice() = default;

bool FileOutputDevice::open()
{
    if (m_file.isOpen() || m_file.open(QIODevice::WriteOnly)) {
        setErrorString(QString());
        return true;
    }
    // This device logs nothing; its caller still learns why.
    const int code = -errno;
    setErrorString(QStringLiteral("Cannot open file: %1 (%2)").arg(m_file.fileName(), m_file.errorString()), code);
    return false;
}

void FileOutputDevice::close(AudioOutputDevice::CloseMode) { m_file.close(); }

bool FileOutputDevice::isOpened() { return m_file.isOpen(); }

// Nothing reports a write to a closed file, so it is not even attempted: Qt
// would only print a warning of its own.
AudioOutputDevice::WriteResult FileOutputDevice::write(const QByteArray& data)
{
    if (!m_file.isOpen())
        return Written;
    if (m_file.write(data) != data.size()) {
        const int code = -errno;
        setErrorString(QStringLiteral("Cannot write to file: %1 (%2)").arg(m_file.fileName(), m_file.errorString()),
                       code);
    }
    return Written;
}

int FileOutputDevice::framesReady() const { return FileFramesReady; }

int FileOutputDevice::sampleRate() const { return m_sampleRate; }

int FileOutputDevice::bytesPerSample() const { return quil::bytesPerSampleOf(m_format); }

int FileOutputDevice::channelCount() const { return m_channelCount; }

QString FileOutputDevice::name() const { return QStringLiteral("File Output Device"); }
