// Arbitrary bytes as an audio file, opened and read as quil-audio play reads
// its input (by -t type or by extension, with any raw layout its command line
// accepts, converted to any format it may ask for), and arbitrary frames
// written as record writes them, then read back. A failure must say why; an
// opened file has a usable layout; reads hand out whole frames, fewer only at
// the end and none after it; a lossless file reads back what was written.

#include "FuzzSupport.h"

#include "AudioFile.h"

#include <QFile>

using quilaudio::AudioFile;

namespace {

const char* const TypeNames[] = {"", "", "raw", "wav", "rf64", "w64", "flac", "ogg", "au", "mp3"};
const char* const Extensions[] = {"", "raw", "wav", "rf64", "w64", "flac", "ogg", "oga", "au", "snd", "txt"};
const snd_pcm_format_t Formats[] = {SND_PCM_FORMAT_S16_LE,     SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_FLOAT_LE,
                                    SND_PCM_FORMAT_FLOAT64_LE, SND_PCM_FORMAT_U8,     SND_PCM_FORMAT_S8,
                                    SND_PCM_FORMAT_S24_3LE,    SND_PCM_FORMAT_S16_BE, SND_PCM_FORMAT_MU_LAW};

// Everything the file holds, in blocks of the sizes the input picks.
QByteArray readToEnd(AudioFile& file, FuzzedDataProvider& input)
{
    QByteArray all, block;
    for (bool ended = false; !ended;) {
        const int frames = input.ConsumeIntegralInRange(1, std::max(1, (1 << 20) / file.frameBytes()));
        const bool read = file.read(frames, &block);
        FUZZ_CHECK(read || !file.errorString().isEmpty());
        if (!read)
            return all;
        FUZZ_CHECK(block.size() % file.frameBytes() == 0 && block.size() <= frames * file.frameBytes());
        ended = block.size() < frames * file.frameBytes();
        all += block;
    }
    // Past the end: nothing, or the error of a stream that a decoder found broken late.
    FUZZ_CHECK(file.read(1, &block) ? block.isEmpty() : !file.errorString().isEmpty());
    return all;
}

} // namespace

// The input's bytes become the file, as they are or written as frames.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const QString path = quilfuzz::workFile("audio.") + QLatin1String(input.PickValueInArray(Extensions));
    const QString type = QLatin1String(input.PickValueInArray(TypeNames));
    const AudioFile::Layout layout{input.ConsumeIntegralInRange(1u, 1000000u), input.ConsumeIntegralInRange(1u, 256u),
                                   input.PickValueInArray(Formats)};
    const bool written = input.ConsumeBool();
    const QByteArray bytes = QByteArray::fromStdString(input.ConsumeRandomLengthString());
    if (written) {
        AudioFile writer;
        if (!writer.openForWriting(path, type, layout) || !writer.write(bytes) || !writer.close()) {
            FUZZ_CHECK(!writer.errorString().isEmpty());
            return 0;
        }
    } else {
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }
    AudioFile reader;
    if (!reader.openForReading(path, type, layout)) {
        // libsndfile cannot read back a FLAC file without a frame.
        const auto frameBytes = static_cast<int>(snd_pcm_format_size(layout.format, layout.channels));
        FUZZ_CHECK(!reader.errorString().isEmpty() && (!written || bytes.size() < frameBytes));
        return 0;
    }
    FUZZ_CHECK(reader.layout().rate > 0 && reader.layout().channels > 0);
    const QVector<snd_pcm_format_t> readable = AudioFile::readableFormats();
    const bool lossless =
        written && (reader.isRaw() || (reader.layout().format == layout.format && readable.contains(layout.format)));
    if (!reader.isRaw() && !lossless)
        reader.setReadFormat(readable[input.ConsumeIntegralInRange<int>(0, int(readable.size()) - 1)]);
    FUZZ_CHECK(reader.frameBytes() > 0);
    const QByteArray all = readToEnd(reader, input);
    FUZZ_CHECK(!lossless || all == bytes.left(bytes.size() - bytes.size() % reader.frameBytes()));
    FUZZ_CHECK(!reader.errorString().isEmpty() || all.size() / reader.frameBytes() >= reader.headerFrames());
    return 0;
}
