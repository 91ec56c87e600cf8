#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <alsa/asoundlib.h>

#include <ctime>

struct sf_private_tag;

namespace quilaudio {

/// An audio file, or stdin and stdout ("-"), as a stream of interleaved
/// frames. Raw files and stdin/stdout hold the frames as they are; WAV, RF64,
/// W64, FLAC, Ogg and AU files are read and written through libsndfile.
/// Whatever size the caller reads or writes in, the file itself is read and
/// written in large chunks, so that a command's cost does not grow with the
/// device's period count.
class AudioFile
{
public:
    /// The shape of the frames: a header's, or what the caller hands over.
    struct Layout
    {
        unsigned int rate = 0;
        unsigned int channels = 0;
        /// SND_PCM_FORMAT_UNKNOWN for a file's samples that ALSA has no name for (Vorbis).
        snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    };

    AudioFile();
    ~AudioFile();
    AudioFile(const AudioFile&) = delete;
    AudioFile& operator=(const AudioFile&) = delete;

    /// The file type a -t value ("wav") names or, without one, the path's
    /// extension implies; stdin/stdout and paths without an extension are raw.
    /// False with a message for a type or extension not known.
    bool setType(const QString& path, const QString& typeName, QString* error);
    bool isRaw() const { return m_sfFormat == 0; }

    /// False with errorString() naming the file and the reason. A raw file
    /// takes `layout` as given; a container reports its header's in layout().
    bool openForReading(const QString& path, const Layout& layout);
    /// Containers hand out frames converted to one of readableFormats(),
    /// chosen here before the first read (the header's own format by default).
    void setReadFormat(snd_pcm_format_t format);
    static QVector<snd_pcm_format_t> readableFormats();
    bool openForWriting(const QString& path, const Layout& layout);
    Layout layout() const { return m_layout; }

    /// The next `bytes` of the input (fewer only at its end, none past it),
    /// valid until the next call: as a rule a view into the chunk, copied
    /// only where a block spans two chunks. False on error. An interrupt that
    /// asks to stop ends the input early.
    bool readBlock(qint64 bytes, QByteArray* block);
    /// Takes all bytes, whole frames; false on error.
    bool write(const char* data, qint64 bytes);
    /// Writes what is still held and closes, completing a container's
    /// header; false on error. The destructor closes too, but cannot report.
    bool close();

    QString errorString() const { return m_error; }

private:
    qint64 chunkBytes() const;
    bool nextChunk();
    qint64 fillChunk();
    qint64 mapChunk();
    void unmapChunk();
    bool flush();
    bool fail(const char* action);
    bool failSndfile(const char* action, const char* why = nullptr);

    QString m_path;
    int m_sfFormat = 0;      // libsndfile's major format; 0 for raw
    QString m_typeName = QStringLiteral("raw");
    int m_fd = -1;
    sf_private_tag* m_sndfile = nullptr;
    Layout m_layout;
    snd_pcm_format_t m_ioFormat = SND_PCM_FORMAT_UNKNOWN; // the frames' format at read() and write()
    int m_frameBytes = 0;
    bool m_writing = false;
    QByteArray m_chunk;
    const char* m_chunkData = nullptr; // reading: m_chunk's bytes or a mapped window of the file
    bool m_mapped = false;   // a raw regular file is read through windows mapped in turn
    qint64 m_mapBytes = 0;
    qint64 m_fileOffset = 0; // mapped: where the next window starts
    QByteArray m_joined;     // a block that spans two chunks
    qint64 m_chunkPos = 0;   // reading: next byte to hand out
    qint64 m_chunkFill = 0;  // bytes held
    timespec m_heldSince{}; // writing: when the oldest held byte came
    QString m_error;
};

} // namespace quilaudio
