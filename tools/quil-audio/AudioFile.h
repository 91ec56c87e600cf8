#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <alsa/asoundlib.h>

#include <sndfile.h>

namespace quilaudio {

/// An audio file, or stdin and stdout ("-"), as a stream of interleaved
/// frames, read and written through libsndfile: WAV, RF64, W64, FLAC, Ogg
/// and AU files, and raw ones (no header, the frames as they are).
class AudioFile {
public:
    /// The shape of the frames: a header's, or what the caller hands over.
    struct Layout {
        unsigned int rate = 0;
        unsigned int channels = 0;
        /// SND_PCM_FORMAT_UNKNOWN for a file's samples that ALSA has no name for (Vorbis).
        snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    };

    AudioFile() = default;
    ~AudioFile();
    Q_DISABLE_COPY(AudioFile)

    /// The file's type is the one a -t value (`typeName`, "wav") names or,
    /// without one, the one the path's extension implies; stdin/stdout and
    /// paths without an extension are raw. False with errorString() naming
    /// the file and the reason. A raw file takes `layout` as given; a
    /// container reports its header's in layout().
    bool openForReading(const QString& path, const QString& typeName, const Layout& layout);
    /// Containers hand out frames converted to one of readableFormats(),
    /// chosen here before the first read (the header's own format by default).
    void setReadFormat(snd_pcm_format_t format);
    static QVector<snd_pcm_format_t> readableFormats();
    bool openForWriting(const QString& path, const QString& typeName, const Layout& layout);
    Layout layout() const { return m_layout; }
    bool isRaw() const { return m_sfFormat == SF_FORMAT_RAW; }
    /// Bytes per frame at read() and write().
    int frameBytes() const { return m_frameBytes; }
    /// A container's frame count as its header gives it; 0 when unknown and
    /// for raw files. read() fails at an end that comes before it.
    sf_count_t headerFrames() const { return m_headerFrames; }
    /// A regular file, as opposed to a pipe or a terminal.
    bool isSeekable() const { return m_seekable; }

    /// The next `frames` frames of the input, fewer only at its end, none
    /// past it; false on error.
    bool read(int frames, QByteArray* block);
    /// Takes the block's whole frames; false on error.
    bool write(const QByteArray& block);
    /// Closes, completing a container's header; false on error. The
    /// destructor closes too, but cannot report.
    bool close();

    QString errorString() const { return m_error; }

private:
    bool setType(const QString& path, const QString& typeName);
    bool open(const QString& path, int mode, SF_INFO* info);
    bool fail(const char* action);
    sf_count_t readFrames(char* data, sf_count_t frames);
    sf_count_t writeFrames(const char* data, sf_count_t frames);
    sf_count_t writeWidened(const char* data, sf_count_t frames);

    QString m_path;
    int m_sfFormat = SF_FORMAT_RAW;
    QString m_typeName = QStringLiteral("raw");
    SNDFILE* m_file = nullptr;
    Layout m_layout;
    snd_pcm_format_t m_ioFormat = SND_PCM_FORMAT_UNKNOWN; // the frames' format at read() and write()
    int m_frameBytes = 0;
    sf_count_t m_headerFrames = 0; // a container's frame count, 0 when unknown
    sf_count_t m_framesRead = 0;
    bool m_seekable = false;
    QString m_error;
};

} // namespace quilaudio
