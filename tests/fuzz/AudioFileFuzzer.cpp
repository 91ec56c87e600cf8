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

QString pickPath(FuzzedDataProvider& input, const char* stem)
{
    return quilfuzz::workFile(stem) + QLatin1Char('.') + QLatin1String(input.PickValueInArray(Extensions));
}

AudioFile::Layout pickLayout(FuzzedDataProvider& input)
{
    return {input.ConsumeIntegralInRange(1u, 1000000u), input.ConsumeIntegralInRange(1u, 256u),
            input.PickValueInArray(Formats)};
}

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
    // Past the end: nothing, or the error a decoder noticed late.
    FUZZ_CHECK(file.read(1, &block) ? block.isEmpty() : !file.errorString().isEmpty());
    return all;
}

void readArbitraryFile(FuzzedDataProvider& input)
{
    const QString path = pickPath(input, "in");
    const QString type = QLatin1String(input.PickValueInArray(TypeNames));
    const AudioFile::Layout raw = pickLayout(input);
    QFile out(path);
    FUZZ_CHECK(out.open(QIODevice::WriteOnly) && out.write(QByteArray::fromStdString(input.ConsumeRandomLengthString())) >= 0);
    out.close();
    AudioFile file;
    if (!file.openForReading(path, type, raw)) {
        FUZZ_CHECK(!file.errorString().isEmpty());
        return;
    }
    FUZZ_CHECK(file.layout().rate > 0 && file.layout().channels > 0);
    const QVector<snd_pcm_format_t> readable = AudioFile::readableFormats();
    if (!file.isRaw())
        file.setReadFormat(readable[input.ConsumeIntegralInRange<int>(0, int(readable.size()) - 1)]);
    FUZZ_CHECK(file.frameBytes() > 0);
    readToEnd(file, input);
}

void writeAndReadBack(FuzzedDataProvider& input)
{
    const QString path = pickPath(input, "out");
    const QString type = QLatin1String(input.PickValueInArray(TypeNames));
    const AudioFile::Layout layout = pickLayout(input);
    const QByteArray frames = QByteArray::fromStdString(input.ConsumeRandomLengthString());
    AudioFile writer;
    if (!writer.openForWriting(path, type, layout) || !writer.write(frames) || !writer.close()) {
        FUZZ_CHECK(!writer.errorString().isEmpty());
        return;
    }
    // libsndfile cannot read back a FLAC file without a frame.
    if (frames.size() < writer.frameBytes())
        return;
    AudioFile reader;
    FUZZ_CHECK(reader.openForReading(path, type, layout));
    const bool lossless = reader.isRaw() || (reader.layout().format == layout.format
                                             && AudioFile::readableFormats().contains(layout.format));
    if (!lossless)
        return;
    const QByteArray whole = frames.left(frames.size() - frames.size() % reader.frameBytes());
    FUZZ_CHECK(readToEnd(reader, input) == whole);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    quilfuzz::initialize(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool())
        writeAndReadBack(input);
    else
        readArbitraryFile(input);
    return 0;
}
