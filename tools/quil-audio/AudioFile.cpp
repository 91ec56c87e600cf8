#include "AudioFile.h"

#include "CommandLine.h"
#include "PcmSamples.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>
#include <vector>

namespace quilaudio {

namespace {

bool isStdio(const QString& path) { return path == QLatin1String("-"); }

struct FileType {
    const char* name;
    int sfFormat;
    const char* extensions;
};

// -t names as the ALSA utilities spell them; "wav" writes RF64 once the file
// passes 4 GiB and plain WAV otherwise.
const FileType FileTypes[] = {
    {"raw", SF_FORMAT_RAW, "raw"},  {"wav", SF_FORMAT_RF64, "wav"},   {"rf64", SF_FORMAT_RF64, "rf64"},
    {"w64", SF_FORMAT_W64, "w64"},  {"flac", SF_FORMAT_FLAC, "flac"}, {"ogg", SF_FORMAT_OGG, "ogg oga"},
    {"au", SF_FORMAT_AU, "au snd"},
};

// libsndfile's sample encodings that ALSA names; the rest (Vorbis, ADPCM, ...)
// can only be read converted.
struct Encoding {
    int subtype;
    snd_pcm_format_t format;
};
const Encoding Encodings[] = {
    {SF_FORMAT_PCM_S8, SND_PCM_FORMAT_S8},      {SF_FORMAT_PCM_U8, SND_PCM_FORMAT_U8},
    {SF_FORMAT_PCM_16, SND_PCM_FORMAT_S16},     {SF_FORMAT_PCM_24, SND_PCM_FORMAT_S24_3LE},
    {SF_FORMAT_PCM_32, SND_PCM_FORMAT_S32},     {SF_FORMAT_FLOAT, SND_PCM_FORMAT_FLOAT},
    {SF_FORMAT_DOUBLE, SND_PCM_FORMAT_FLOAT64},
};

snd_pcm_format_t formatOfSubtype(int subtype)
{
    const Encoding* e = std::find_if(std::begin(Encodings), std::end(Encodings),
                                     [subtype](const Encoding& row) { return row.subtype == subtype; });
    return e == std::end(Encodings) ? SND_PCM_FORMAT_UNKNOWN : e->format;
}

int subtypeOfFormat(snd_pcm_format_t format)
{
    const Encoding* e = std::find_if(std::begin(Encodings), std::end(Encodings),
                                     [format](const Encoding& row) { return row.format == format; });
    return e == std::end(Encodings) ? 0 : e->subtype;
}

// Raw frames pass through libsndfile untouched (sf_read_raw, sf_write_raw);
// it only needs an encoding of the same sample size to count them.
int rawCarrier(snd_pcm_format_t format)
{
    const int bytes = snd_pcm_format_physical_width(format) / 8;
    const int byBytes[] = {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32};
    return bytes >= 1 && bytes <= 4 ? byBytes[bytes - 1] : SF_FORMAT_DOUBLE;
}

SF_INFO infoOf(const AudioFile::Layout& layout, int sfFormat)
{
    return {0, static_cast<int>(layout.rate), static_cast<int>(layout.channels), sfFormat, 0, 0};
}

} // namespace

AudioFile::~AudioFile() { close(); }

bool AudioFile::setType(const QString& path, const QString& typeName)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    const bool byName = !typeName.isEmpty();
    for (const FileType& type : FileTypes) {
        const bool matches = byName ? typeName.toLower() == QLatin1String(type.name)
                                    : QString::fromLatin1(type.extensions).split(QLatin1Char(' ')).contains(suffix);
        if (matches || (!byName && (suffix.isEmpty() || isStdio(path)) && type.sfFormat == SF_FORMAT_RAW)) {
            m_sfFormat = type.sfFormat;
            m_typeName = QString::fromLatin1(type.name);
            if (!isRaw() && isStdio(path))
                return refuse(&m_error, QStringLiteral("stdin and stdout carry raw PCM only, not %1").arg(typeName));
            return true;
        }
    }
    return refuse(&m_error,
                  byName
                      ? QStringLiteral("unknown file type '%1' (raw, wav, rf64, w64, flac, ogg or au)").arg(typeName)
                      : QStringLiteral("unknown file type '.%1' of '%2' (give -t raw, wav, rf64, w64, flac, ogg or au)")
                            .arg(suffix, path));
}

bool AudioFile::open(const QString& path, int mode, SF_INFO* info)
{
    m_path = path;
    const bool reading = mode == SFM_READ;
    const int fd = isStdio(path)
                       ? (reading ? STDIN_FILENO : STDOUT_FILENO)
                       : ::open(QFile::encodeName(path).constData(),
                                reading ? O_RDONLY | O_CLOEXEC : O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        m_error = QStringLiteral("cannot open '%1': %2").arg(path, qt_error_string(errno));
        return false;
    }
    m_file = sf_open_fd(fd, mode, info, fd > STDERR_FILENO);
    m_seekable = info->seekable == SF_TRUE;
    return m_file || fail("open");
}

bool AudioFile::openForReading(const QString& path, const QString& typeName, const Layout& layout)
{
    if (!setType(path, typeName))
        return false;
    m_layout = layout;
    SF_INFO info = isRaw() ? infoOf(layout, SF_FORMAT_RAW | rawCarrier(layout.format)) : SF_INFO{};
    if (!open(path, SFM_READ, &info))
        return false;
    if (!isRaw()) {
        m_layout = {static_cast<unsigned int>(info.samplerate), static_cast<unsigned int>(info.channels),
                    formatOfSubtype(info.format & SF_FORMAT_SUBMASK)};
        m_headerFrames = info.frames == SF_COUNT_MAX ? 0 : info.frames; // the maximum: not known
        sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    }
    const bool asStored = isRaw() || readableFormats().contains(m_layout.format);
    setReadFormat(asStored ? m_layout.format : readableFormats().first());
    return true;
}

QVector<snd_pcm_format_t> AudioFile::readableFormats()
{
    return {SND_PCM_FORMAT_S32, SND_PCM_FORMAT_FLOAT, SND_PCM_FORMAT_S16, SND_PCM_FORMAT_FLOAT64};
}

void AudioFile::setReadFormat(snd_pcm_format_t format)
{
    m_ioFormat = format;
    m_frameBytes = static_cast<int>(snd_pcm_format_size(format, m_layout.channels));
}

bool AudioFile::openForWriting(const QString& path, const QString& typeName, const Layout& layout)
{
    if (!setType(path, typeName))
        return false;
    m_layout = layout;
    setReadFormat(layout.format);
    const int subtype = isRaw()                       ? rawCarrier(layout.format)
                        : m_sfFormat == SF_FORMAT_OGG ? SF_FORMAT_VORBIS
                                                      : subtypeOfFormat(layout.format);
    SF_INFO info = infoOf(layout, m_sfFormat | subtype);
    if (subtype == 0 || !sf_format_check(&info)) {
        m_error = QStringLiteral("cannot write %1 samples into a %2 file")
                      .arg(QString::fromLatin1(snd_pcm_format_name(layout.format)), m_typeName.toUpper());
        return false;
    }
    if (!open(path, SFM_WRITE, &info))
        return false;
    // Plain WAV until the data passes WAV's 4 GiB, RF64 beyond.
    if (m_typeName == QLatin1String("wav"))
        sf_command(m_file, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    return true;
}

bool AudioFile::read(int frames, QByteArray* block)
{
    block->resize(frames * m_frameBytes);
    const sf_count_t done = readFrames(block->data(), frames);
    block->resize(static_cast<int>(done) * m_frameBytes);
    m_framesRead += done;
    if (sf_error(m_file) != SF_ERR_NO_ERROR)
        return fail("read");
    // libsndfile's FLAC decoder reports a broken stream late or not at all:
    // a container's end must come where its header says.
    if (done < frames && m_framesRead < m_headerFrames)
        return refuse(&m_error, QStringLiteral("cannot read '%1' as %2: it ends after %3 of its %4 frames")
                                    .arg(m_path, m_typeName.toUpper())
                                    .arg(m_framesRead)
                                    .arg(m_headerFrames));
    return true;
}

sf_count_t AudioFile::readFrames(char* data, sf_count_t frames)
{
    switch (isRaw() ? SND_PCM_FORMAT_UNKNOWN : m_ioFormat) {
    case SND_PCM_FORMAT_UNKNOWN:
        return sf_read_raw(m_file, data, frames * m_frameBytes) / m_frameBytes; // a partial last frame is dropped
    case SND_PCM_FORMAT_S16:
        return sf_readf_short(m_file, reinterpret_cast<short*>(data), frames);
    case SND_PCM_FORMAT_S32:
        return sf_readf_int(m_file, reinterpret_cast<int*>(data), frames);
    case SND_PCM_FORMAT_FLOAT:
        return sf_readf_float(m_file, reinterpret_cast<float*>(data), frames);
    default:
        return sf_readf_double(m_file, reinterpret_cast<double*>(data), frames);
    }
}

bool AudioFile::write(const QByteArray& block)
{
    const sf_count_t frames = block.size() / m_frameBytes;
    return writeFrames(block.constData(), frames) == frames || fail("write");
}

sf_count_t AudioFile::writeFrames(const char* data, sf_count_t frames)
{
    switch (isRaw() ? SND_PCM_FORMAT_UNKNOWN : m_ioFormat) {
    case SND_PCM_FORMAT_UNKNOWN:
        return sf_write_raw(m_file, data, frames * m_frameBytes) / m_frameBytes;
    case SND_PCM_FORMAT_S16:
        return sf_writef_short(m_file, reinterpret_cast<const short*>(data), frames);
    case SND_PCM_FORMAT_S32:
        return sf_writef_int(m_file, reinterpret_cast<const int*>(data), frames);
    case SND_PCM_FORMAT_FLOAT:
        return sf_writef_float(m_file, reinterpret_cast<const float*>(data), frames);
    case SND_PCM_FORMAT_FLOAT64:
        return sf_writef_double(m_file, reinterpret_cast<const double*>(data), frames);
    default:
        return writeWidened(data, frames);
    }
}

// 8 and 24-bit samples go to libsndfile as the top bits of 32-bit ones, which
// it stores back at their own width without loss.
sf_count_t AudioFile::writeWidened(const char* data, sf_count_t frames)
{
    const int sampleBytes = static_cast<int>(snd_pcm_format_size(m_ioFormat, 1));
    std::vector<int> wide(static_cast<size_t>(frames * m_layout.channels));
    for (size_t i = 0; i < wide.size(); ++i)
        wide[i] = static_cast<int>(decodeSample(data + i * sampleBytes, m_ioFormat) * 2147483648.0);
    return sf_writef_int(m_file, wide.data(), frames);
}

bool AudioFile::close()
{
    if (!m_file)
        return m_error.isEmpty();
    const int closed = sf_close(m_file);
    m_file = nullptr;
    if (closed != 0 && m_error.isEmpty())
        m_error = QStringLiteral("cannot close '%1' as %2: %3")
                      .arg(m_path, m_typeName.toUpper(), QString::fromLocal8Bit(sf_error_number(closed)));
    return m_error.isEmpty();
}

// Raw files fail as the system does; containers as libsndfile explains.
bool AudioFile::fail(const char* action)
{
    const QString why = isRaw() && m_file ? qt_error_string(errno) : QString::fromLocal8Bit(sf_strerror(m_file));
    m_error =
        isRaw()
            ? QStringLiteral("cannot %1 '%2': %3").arg(QLatin1String(action), m_path, why)
            : QStringLiteral("cannot %1 '%2' as %3: %4").arg(QLatin1String(action), m_path, m_typeName.toUpper(), why);
    return false;
}

} // namespace quilaudio
