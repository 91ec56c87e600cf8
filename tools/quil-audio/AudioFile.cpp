#include "AudioFile.h"

#include "CommandSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QVector>

#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace quilaudio {

namespace {

constexpr qint64 ChunkBytes = 256 * 1024;
// A raw file is played from its page cache without a copy, a window at a
// time, so that a 32-bit process maps a file of any size.
constexpr qint64 MapWindowBytes = 8 * 1024 * 1024;
// Held output goes out after this long even when the chunk is not full, so a
// live stream into a pipe keeps moving; faster sources fill the chunk first.
constexpr qint64 MaxHoldNs = 100 * 1000 * 1000;

bool isStdio(const QString& path)
{
    return path == QLatin1String("-");
}

struct FileType
{
    const char* name;
    int sfFormat;
    const char* extensions;
};

// -t names as the ALSA utilities spell them; "wav" writes RF64 once the file
// passes 4 GiB and plain WAV otherwise.
const FileType FileTypes[] = {
    {"raw", 0, "raw"},
    {"wav", SF_FORMAT_RF64, "wav"},
    {"rf64", SF_FORMAT_RF64, "rf64"},
    {"w64", SF_FORMAT_W64, "w64"},
    {"flac", SF_FORMAT_FLAC, "flac"},
    {"ogg", SF_FORMAT_OGG, "ogg oga"},
    {"au", SF_FORMAT_AU, "au snd"},
};

// libsndfile's sample encodings that ALSA names; the rest (Vorbis, ADPCM, ...)
// can only be read converted.
struct Encoding
{
    int subtype;
    snd_pcm_format_t format;
};
const Encoding Encodings[] = {
    {SF_FORMAT_PCM_S8, SND_PCM_FORMAT_S8}, {SF_FORMAT_PCM_U8, SND_PCM_FORMAT_U8},
    {SF_FORMAT_PCM_16, SND_PCM_FORMAT_S16}, {SF_FORMAT_PCM_24, SND_PCM_FORMAT_S24_3LE},
    {SF_FORMAT_PCM_32, SND_PCM_FORMAT_S32}, {SF_FORMAT_FLOAT, SND_PCM_FORMAT_FLOAT},
    {SF_FORMAT_DOUBLE, SND_PCM_FORMAT_FLOAT64},
};

snd_pcm_format_t formatOfSubtype(int subtype)
{
    for (const Encoding& e : Encodings) {
        if (e.subtype == subtype)
            return e.format;
    }
    return SND_PCM_FORMAT_UNKNOWN;
}

int subtypeOfFormat(snd_pcm_format_t format)
{
    for (const Encoding& e : Encodings) {
        if (e.format == format)
            return e.subtype;
    }
    return 0;
}

int frameBytesOf(snd_pcm_format_t format, unsigned int channels)
{
    return snd_pcm_format_physical_width(format) / 8 * static_cast<int>(channels);
}

// libsndfile, with the codecs it links (FLAC, Vorbis, Opus, MP3), is eight of
// the shared objects a start of this tool would load and relocate, and raw
// files never need it: it is opened when the first container is.
struct Sndfile
{
    decltype(&sf_open) open = nullptr;
    decltype(&sf_close) close = nullptr;
    decltype(&sf_command) command = nullptr;
    decltype(&sf_format_check) formatCheck = nullptr;
    decltype(&sf_strerror) strerror = nullptr;
    decltype(&sf_error_number) errorNumber = nullptr;
    decltype(&sf_readf_short) readfShort = nullptr;
    decltype(&sf_readf_int) readfInt = nullptr;
    decltype(&sf_readf_float) readfFloat = nullptr;
    decltype(&sf_readf_double) readfDouble = nullptr;
    decltype(&sf_writef_short) writefShort = nullptr;
    decltype(&sf_writef_int) writefInt = nullptr;
    decltype(&sf_writef_float) writefFloat = nullptr;
    decltype(&sf_writef_double) writefDouble = nullptr;
    QByteArray loadError; // empty once every function is there
};

template <typename Function>
bool resolve(void* library, const char* name, Function*& function)
{
    function = reinterpret_cast<Function*>(dlsym(library, name));
    return function != nullptr;
}

const Sndfile& sndfile()
{
    static const Sndfile api = [] {
        Sndfile s;
        // The library's ABI name: libsndfile has kept it since 1.0.
        void* library = dlopen("libsndfile.so.1", RTLD_NOW | RTLD_LOCAL);
        const bool complete = library && resolve(library, "sf_open", s.open) && resolve(library, "sf_close", s.close)
            && resolve(library, "sf_command", s.command) && resolve(library, "sf_format_check", s.formatCheck)
            && resolve(library, "sf_strerror", s.strerror) && resolve(library, "sf_error_number", s.errorNumber)
            && resolve(library, "sf_readf_short", s.readfShort) && resolve(library, "sf_readf_int", s.readfInt)
            && resolve(library, "sf_readf_float", s.readfFloat) && resolve(library, "sf_readf_double", s.readfDouble)
            && resolve(library, "sf_writef_short", s.writefShort) && resolve(library, "sf_writef_int", s.writefInt)
            && resolve(library, "sf_writef_float", s.writefFloat)
            && resolve(library, "sf_writef_double", s.writefDouble);
        if (!complete) {
            const char* why = dlerror();
            s.loadError = why ? why : "libsndfile.so.1 lacks a function the tool calls";
        }
        return s;
    }();
    return api;
}

sf_count_t readFrames(SNDFILE* file, snd_pcm_format_t format, char* data, sf_count_t frames)
{
    switch (format) {
    case SND_PCM_FORMAT_S16:
        return sndfile().readfShort(file, reinterpret_cast<short*>(data), frames);
    case SND_PCM_FORMAT_S32:
        return sndfile().readfInt(file, reinterpret_cast<int*>(data), frames);
    case SND_PCM_FORMAT_FLOAT:
        return sndfile().readfFloat(file, reinterpret_cast<float*>(data), frames);
    default:
        return sndfile().readfDouble(file, reinterpret_cast<double*>(data), frames);
    }
}

// 8 and 24-bit samples go to libsndfile as the top bits of 32-bit ones, which
// it stores back at their own width without loss.
int32_t widened(const uint8_t* sample, snd_pcm_format_t format)
{
    if (format == SND_PCM_FORMAT_S8)
        return int32_t(uint32_t(sample[0]) << 24);
    if (format == SND_PCM_FORMAT_U8)
        return int32_t(uint32_t(sample[0] ^ 0x80) << 24);
    return int32_t(uint32_t(sample[2]) << 24 | uint32_t(sample[1]) << 16 | uint32_t(sample[0]) << 8);
}

sf_count_t writeFrames(SNDFILE* file, snd_pcm_format_t format, const char* data, sf_count_t frames, int channels)
{
    switch (format) {
    case SND_PCM_FORMAT_S16:
        return sndfile().writefShort(file, reinterpret_cast<const short*>(data), frames);
    case SND_PCM_FORMAT_S32:
        return sndfile().writefInt(file, reinterpret_cast<const int*>(data), frames);
    case SND_PCM_FORMAT_FLOAT:
        return sndfile().writefFloat(file, reinterpret_cast<const float*>(data), frames);
    case SND_PCM_FORMAT_FLOAT64:
        return sndfile().writefDouble(file, reinterpret_cast<const double*>(data), frames);
    default: {
        const int sampleBytes = snd_pcm_format_physical_width(format) / 8;
        std::vector<int32_t> wide(static_cast<size_t>(frames * channels));
        for (size_t i = 0; i < wide.size(); ++i)
            wide[i] = widened(reinterpret_cast<const uint8_t*>(data) + i * sampleBytes, format);
        return sndfile().writefInt(file, wide.data(), frames);
    }
    }
}

qint64 nsSince(const timespec& then)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return (now.tv_sec - then.tv_sec) * 1000000000LL + (now.tv_nsec - then.tv_nsec);
}

bool writeFully(int fd, const char* data, qint64 size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, static_cast<size_t>(size));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= n;
    }
    return true;
}

} // namespace

AudioFile::AudioFile() = default;

AudioFile::~AudioFile()
{
    close();
}

bool AudioFile::setType(const QString& path, const QString& typeName, QString* error)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    const bool byName = !typeName.isEmpty();
    for (const FileType& type : FileTypes) {
        const bool matches = byName ? typeName.toLower() == QLatin1String(type.name)
                                    : QString::fromLatin1(type.extensions).split(QLatin1Char(' ')).contains(suffix);
        if (matches || (!byName && (suffix.isEmpty() || isStdio(path)) && type.sfFormat == 0)) {
            m_sfFormat = type.sfFormat;
            m_typeName = QString::fromLatin1(type.name);
            if (m_sfFormat != 0 && isStdio(path)) {
                *error = QStringLiteral("stdin and stdout carry raw PCM only, not %1").arg(typeName);
                return false;
            }
            return true;
        }
    }
    *error = byName ? QStringLiteral("unknown file type '%1' (raw, wav, rf64, w64, flac, ogg or au)").arg(typeName)
                    : QStringLiteral("unknown file type '.%1' of '%2' (give -t raw, wav, rf64, w64, flac, ogg or au)")
                          .arg(suffix, path);
    return false;
}

bool AudioFile::openForReading(const QString& path, const Layout& layout)
{
    m_path = path;
    m_layout = layout;
    setReadFormat(layout.format);
    if (isRaw()) {
        m_fd = isStdio(path) ? STDIN_FILENO : ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        struct stat st {};
        m_mapped = m_fd > STDIN_FILENO && ::fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode);
        return m_fd >= 0 || fail("open");
    }
    if (!sndfile().loadError.isEmpty())
        return failSndfile("open", sndfile().loadError.constData());
    SF_INFO info{};
    m_sndfile = sndfile().open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!m_sndfile)
        return failSndfile("open");
    m_layout = {static_cast<unsigned int>(info.samplerate), static_cast<unsigned int>(info.channels),
                formatOfSubtype(info.format & SF_FORMAT_SUBMASK)};
    sndfile().command(m_sndfile, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    const QVector<snd_pcm_format_t> readable = readableFormats();
    setReadFormat(readable.contains(m_layout.format) ? m_layout.format : readable.first());
    return true;
}

QVector<snd_pcm_format_t> AudioFile::readableFormats()
{
    return {SND_PCM_FORMAT_S32, SND_PCM_FORMAT_FLOAT, SND_PCM_FORMAT_S16, SND_PCM_FORMAT_FLOAT64};
}

void AudioFile::setReadFormat(snd_pcm_format_t format)
{
    m_ioFormat = format;
    m_frameBytes = frameBytesOf(format, m_layout.channels);
}

bool AudioFile::openForWriting(const QString& path, const Layout& layout)
{
    m_path = path;
    m_layout = layout;
    m_writing = true;
    m_ioFormat = layout.format;
    m_frameBytes = frameBytesOf(layout.format, layout.channels);
    if (isRaw()) {
        m_fd = isStdio(path) ? STDOUT_FILENO
                             : ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        return m_fd >= 0 || fail("open");
    }
    if (!sndfile().loadError.isEmpty())
        return failSndfile("open", sndfile().loadError.constData());
    const int subtype = m_sfFormat == SF_FORMAT_OGG ? SF_FORMAT_VORBIS : subtypeOfFormat(layout.format);
    SF_INFO info{};
    info.samplerate = static_cast<int>(layout.rate);
    info.channels = static_cast<int>(layout.channels);
    info.format = m_sfFormat | subtype;
    if (subtype == 0 || !sndfile().formatCheck(&info)) {
        m_error = QStringLiteral("cannot write %1 samples into a %2 file")
                      .arg(QString::fromLatin1(snd_pcm_format_name(layout.format)), m_typeName.toUpper());
        return false;
    }
    m_sndfile = sndfile().open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!m_sndfile)
        return failSndfile("open");
    // Plain WAV until the data passes WAV's 4 GiB, RF64 beyond.
    if (m_typeName == QLatin1String("wav"))
        sndfile().command(m_sndfile, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    return true;
}

// Containers move whole frames only, so their chunk is a whole number of them.
qint64 AudioFile::chunkBytes() const
{
    return m_frameBytes > 0 ? std::max<qint64>(ChunkBytes / m_frameBytes, 1) * m_frameBytes : ChunkBytes;
}

bool AudioFile::nextChunk()
{
    m_chunkPos = 0;
    m_chunkFill = m_mapped ? mapChunk() : fillChunk();
    return m_chunkFill >= 0;
}

qint64 AudioFile::fillChunk()
{
    if (m_chunk.isEmpty())
        m_chunk.resize(static_cast<int>(chunkBytes()));
    m_chunkData = m_chunk.constData();
    if (m_sndfile) {
        const sf_count_t frames = readFrames(m_sndfile, m_ioFormat, m_chunk.data(), m_chunk.size() / m_frameBytes);
        return frames < 0 ? (failSndfile("read"), -1) : frames * m_frameBytes;
    }
    while (true) {
        // One read, not a full chunk: a pipe hands over what it has.
        const ssize_t n = ::read(m_fd, m_chunk.data(), static_cast<size_t>(m_chunk.size()));
        if (n >= 0 || (errno == EINTR && SignalWatcher::stopRequested()))
            return std::max<ssize_t>(n, 0);
        if (errno != EINTR)
            return fail("read"), -1;
    }
}

// The file's size is taken anew for each window: a file that grows while it
// plays is played to its new end.
qint64 AudioFile::mapChunk()
{
    unmapChunk();
    struct stat st {};
    if (::fstat(m_fd, &st) != 0)
        return fail("read"), -1;
    const qint64 bytes = std::min<qint64>(MapWindowBytes, st.st_size - m_fileOffset);
    if (bytes <= 0 || SignalWatcher::stopRequested())
        return 0;
    void* window = ::mmap(nullptr, static_cast<size_t>(bytes), PROT_READ, MAP_PRIVATE | MAP_POPULATE, m_fd,
                          static_cast<off_t>(m_fileOffset));
    if (window == MAP_FAILED)
        return fail("read"), -1;
    m_chunkData = static_cast<const char*>(window);
    m_mapBytes = bytes;
    m_fileOffset += bytes;
    return bytes;
}

void AudioFile::unmapChunk()
{
    if (m_mapBytes > 0)
        ::munmap(const_cast<char*>(m_chunkData), static_cast<size_t>(m_mapBytes));
    m_chunkData = nullptr;
    m_mapBytes = 0;
}

bool AudioFile::readBlock(qint64 bytes, QByteArray* block)
{
    if (m_chunkPos == m_chunkFill && !nextChunk())
        return false;
    if (m_chunkFill - m_chunkPos >= bytes || m_chunkFill == 0) {
        const qint64 part = std::min(bytes, m_chunkFill - m_chunkPos);
        *block = QByteArray::fromRawData(m_chunkData + m_chunkPos, static_cast<int>(part));
        m_chunkPos += part;
        return true;
    }
    m_joined.resize(static_cast<int>(bytes));
    qint64 done = 0;
    while (done < bytes) {
        if (m_chunkPos == m_chunkFill && !nextChunk())
            return false;
        if (m_chunkFill == 0)
            break;
        const qint64 part = std::min(bytes - done, m_chunkFill - m_chunkPos);
        std::memcpy(m_joined.data() + done, m_chunkData + m_chunkPos, static_cast<size_t>(part));
        m_chunkPos += part;
        done += part;
    }
    m_joined.resize(static_cast<int>(done));
    *block = m_joined;
    return true;
}

bool AudioFile::write(const char* data, qint64 bytes)
{
    if (m_chunk.isEmpty())
        m_chunk.resize(static_cast<int>(chunkBytes()));
    if (m_chunkFill == 0)
        clock_gettime(CLOCK_MONOTONIC_COARSE, &m_heldSince);
    while (bytes > 0) {
        const qint64 part = std::min(bytes, m_chunk.size() - m_chunkFill);
        std::memcpy(m_chunk.data() + m_chunkFill, data, static_cast<size_t>(part));
        m_chunkFill += part;
        data += part;
        bytes -= part;
        if ((m_chunkFill == m_chunk.size() || nsSince(m_heldSince) >= MaxHoldNs) && !flush())
            return false;
    }
    return true;
}

bool AudioFile::flush()
{
    bool written;
    if (m_sndfile) {
        const sf_count_t frames = m_chunkFill / m_frameBytes;
        written = writeFrames(m_sndfile, m_ioFormat, m_chunk.constData(), frames, static_cast<int>(m_layout.channels))
            == frames;
    } else {
        written = writeFully(m_fd, m_chunk.constData(), m_chunkFill);
    }
    m_chunkFill = 0;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &m_heldSince);
    return written || (m_sndfile ? failSndfile("write") : fail("write"));
}

bool AudioFile::close()
{
    bool done = !m_writing || m_chunkFill == 0 || flush();
    const int closed = m_sndfile ? sndfile().close(m_sndfile) : 0;
    m_sndfile = nullptr;
    if (closed != 0 && done)
        done = failSndfile("close", sndfile().errorNumber(closed));
    unmapChunk();
    if (m_fd > STDERR_FILENO)
        ::close(m_fd);
    m_fd = -1;
    m_writing = false;
    return done && m_error.isEmpty();
}

bool AudioFile::fail(const char* action)
{
    m_error = QStringLiteral("cannot %1 '%2': %3")
                  .arg(QLatin1String(action), m_path, QString::fromLocal8Bit(std::strerror(errno)));
    return false;
}

bool AudioFile::failSndfile(const char* action, const char* why)
{
    m_error = QStringLiteral("cannot %1 '%2' as %3: %4")
                  .arg(QLatin1String(action), m_path, m_typeName.toUpper(),
                       QString::fromLocal8Bit(why ? why : sndfile().strerror(m_sndfile)));
    return false;
}

} // namespace quilaudio
