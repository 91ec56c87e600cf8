// quil-audio with audio files. What it records reads back through sox as the
// same stream, bit for bit where the container is lossless; a file sox made
// reaches the device with its header's parameters and data; a file it cannot
// use ends in one line. The files pass the tool's 256 KiB chunks. The summary's
// peaks come from the typed level scans (byte-swapped, unsigned, 6 channels).

#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QProcess>

#include <gtest/gtest.h>

namespace {

struct Result
{
    int status = -1;
    QByteArray out;
    QStringList errLines;
};

Result run(const QString& program, const QStringList& args)
{
    QProcess process;
    process.start(program, args);
    Result r;
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
        return process.kill(), process.waitForFinished(), r;
    r.status = process.exitCode();
    r.out = process.readAllStandardOutput();
    r.errLines = QString::fromLocal8Bit(process.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return r;
}

// Rate, channels, bits per sample and frames, as soxi reads the header.
QString soxi(const QString& path)
{
    QStringList values;
    for (const char* flag : {"-r", "-c", "-b", "-s"})
        values << QString::fromLatin1(run("soxi", {flag, path}).out).trimmed();
    return values.join(QLatin1Char(' '));
}

QByteArray samplesOf(const QString& path)
{
    return run("sox", {path, "-t", "raw", "-"}).out;
}

struct Case
{
    QString name;
    QStringList args;         // "{in}", "{dir}" and "{out}" (the file soxi reads) are filled in
    QString outName;
    QString header;           // soxi's view of {out}; empty: no file to read
    QByteArray samples;       // what sox reads from {out}
    int status = 0;
    QString lastLine;         // stderr's last line (a failure's only one) contains this
};

TEST(ToolFiles, WritesAndReadsFilesThatOtherToolsRead)
{
    const QString dir = quiltest::dataDirectory() + QStringLiteral("/toolfiles");
    ASSERT_TRUE(QDir().mkpath(dir));
    const QByteArray in = quiltest::patternBytes(2 * 48000 * 4, 3);   // 2 s of S16_LE stereo
    const QString inPath = quiltest::writeDataFile(QStringLiteral("toolfiles_in.raw"), in);
    const QByteArray bigIn = quiltest::patternBytes(8 * 1024 * 1024 + 100000, 4);
    const QString big = quiltest::writeDataFile(QStringLiteral("toolfiles_big.raw"), bigIn);
    const QString made = dir + QStringLiteral("/made.wav");
    ASSERT_EQ(run("sox", {"-t", "raw", "-r", "22050", "-c", "1", "-e", "signed", "-b", "16", inPath, made}).status, 0);
    QByteArray lying = quiltest::fileContent(made);
    lying[22] = lying[23] = '\0';   // the channel count
    quiltest::writeDataFile(QStringLiteral("toolfiles/lying.wav"), lying);
    const QStringList capture{"record", "-D", "cap_file:INFILE={in}"};
    // Samples 0x4000 and -0x2000 as S16_LE; read as other formats, other levels.
    const QString levels = quiltest::writeDataFile("toolfiles_levels.raw", QByteArray::fromHex("004000e0").repeated(12000));

    const QList<Case> cases{
        {"record_wav", capture + QStringList{"-d", "2", "{out}"}, "rec.wav", "48000 2 16 96000", in},
        {"record_flac_24bit_mono", capture + QStringList{"-r", "44100", "-c", "1", "-f", "S24_3LE", "-d", "1", "{out}"},
         "rec.flac", "44100 1 24 44100", in.left(44100 * 3)},
        {"record_ogg", capture + QStringList{"-d", "1", "{out}"}, "rec.ogg", "48000 2 0 48000"},
        {"play_wav", {"play", "-D", "file:FILE={out},FORMAT=wav", "{dir}/made.wav"}, "dev.wav", "22050 1 16 192000", in},
        // Past the first mapped window of the file, with a period that straddles it.
        {"play_raw_across_chunks", {"play", "-D", "file:FILE={out},FORMAT=raw", big}, "dev.raw", {}, bigIn},
        {"record_raw_across_chunks", capture + QStringList{"-d", "2", "{out}"}, "rec.raw", {}, in},
        {"unknown_extension", capture + QStringList{"-d", "1", "{out}"}, "rec.xyz", {}, {}, 1, "unknown file type '.xyz'"},
        {"header_contradicted", {"play", "-D", "null", "-r", "44100", "{dir}/made.wav"}, {}, {}, {}, 1,
         "holds 22050 Hz, not 44100"},
        {"header_lies", {"play", "-D", "null", "{dir}/lying.wav"}, {}, {}, {}, 1, "Channel count is zero"},
        {"peaks_s16", {"record", "-D", "cap_file:INFILE={lv}", "-d", "0.1", "{out}"}, "lv.raw", {}, {}, 0, "peak -6.0 / -12.0 dBFS"},
        {"peaks_s16_be", {"record", "-D", "cap_file:INFILE={lv}", "-f", "S16_BE", "-d", "0.1", "{out}"}, "lv.raw", {}, {}, 0,
         "peak -54.2 / -43.3 dBFS"},
        {"peaks_u8_6ch", {"record", "-D", "cap_file:INFILE={lv}", "-f", "U8", "-c", "6", "-d", "0.1", "{out}"}, "lv.raw", {}, {},
         0, "peak 0.0 / -2.5 / 0.0 / -2.5 / 0.0 / -2.5 dBFS"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name.toStdString());
        const QString out = dir + QLatin1Char('/') + c.outName;
        QFile::remove(out);
        QStringList args;
        for (QString arg : c.args)
            args << arg.replace(QLatin1String("{in}"), inPath).replace(QLatin1String("{dir}"), dir).replace("{lv}", levels)
                        .replace(QLatin1String("{out}"), out);
        const Result r = run(QStringLiteral(QUIL_AUDIO_TOOL), args);
        EXPECT_EQ(r.status, c.status) << r.errLines.join(QLatin1Char('\n')).toStdString();
        if (c.status != 0)
            ASSERT_EQ(r.errLines.size(), 1) << r.errLines.join(QLatin1Char('\n')).toStdString();
        EXPECT_TRUE(r.errLines.value(r.errLines.size() - 1).contains(c.lastLine)) << r.errLines.join(QLatin1Char('\n')).toStdString();
        if (!c.header.isEmpty())
            EXPECT_EQ(soxi(out), c.header);
        if (!c.samples.isEmpty())
            EXPECT_TRUE((c.header.isEmpty() ? quiltest::fileContent(out) : samplesOf(out)) == c.samples);
    }
}

} // namespace
