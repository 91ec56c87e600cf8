// End-to-end runs of the quil-audio tool. Every case is one command line with
// the exit status, the output and the stderr it must give; "{out}", "{in}",
// "{trig}", "{fifo}", "{lv}" and "{dir}" in the arguments name the
// case's files. Files in other containers are read back through sox.

#include "SoundServer.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using quiltest::fileContent;
using quiltest::patternBytes;

constexpr int FrameBytes = 4;           // the tool's default stream: S16_LE, 2 channels
constexpr int BytesPerMs = 48 * FrameBytes; // at 48000 Hz

struct Case
{
    QString name;
    QStringList args;
    int status;
    /// stdout or stderr's last line contains this; a failure gives exactly one line.
    QString text;
    /// Exactly what {out}, or stdout when there is no {out}, must hold.
    QByteArray output;
    /// Called with {out}'s path and the output.
    std::function<void(const QString& out, const QByteArray& output)> check;
    QByteArray input;
    /// A line the test mixer's FIFO holds before the tool starts.
    QByteArray fifoLine;
    int interruptAfterMs = -1;
    /// The run lasts this long at least: a playback's end waits for the device to play it all.
    int minMs = 0;
};

struct Result { int status = -1; QByteArray out; QStringList errLines; qint64 ms = 0; };

Result run(const QString& program, const QStringList& args, const QByteArray& input = {}, int interruptAfterMs = -1)
{
    QProcess tool;   // killed, if still running, when it goes
    QElapsedTimer clock;
    clock.start();
    tool.start(program, args);
    Result result;
    tool.write(input);
    tool.closeWriteChannel();
    if (interruptAfterMs >= 0 && !tool.waitForFinished(interruptAfterMs))
        ::kill(static_cast<pid_t>(tool.processId()), SIGINT);
    if (!tool.waitForFinished(30000))
        return result;
    result.ms = clock.elapsed();
    result.status = tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
    result.out = tool.readAllStandardOutput();
    result.errLines = QString::fromLocal8Bit(tool.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return result;
}

/// Checks {out}EXT as sox reads it: rate, channels, bits and frames, and the samples.
std::function<void(const QString&, const QByteArray&)> soxReads(const QString& ext, const QString& header,
                                                                const QByteArray& samples = {})
{
    return [=](const QString& out, const QByteArray&) {
        QStringList values;
        for (const char* flag : {"-r", "-c", "-b", "-s"})
            values << QString::fromLatin1(run("soxi", {flag, out + ext}).out).trimmed();
        EXPECT_EQ(values.join(QLatin1Char(' ')), header);
        if (!samples.isEmpty())
            EXPECT_TRUE(run("sox", {out + ext, "-t", "raw", "-"}).out == samples);
    };
}

class QuilAudioTool : public ::testing::Test
{
protected:
    void runCases(const QList<Case>& cases)
    {
        QDir().mkpath(m_dir);
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name.toStdString());
            const QString out = m_dir + QLatin1Char('/') + c.name + QStringLiteral(".raw");
            const QString fifo = m_dir + QStringLiteral("/mixer.fifo");
            QFile::remove(out);
            const QMap<QString, QString> names{{"{out}", out}, {"{in}", m_in}, {"{trig}", m_trig}, {"{fifo}", fifo},
                {"{snd}", quiltest::soundDevice()}, {"{lv}", m_levels}, {"{dir}", m_dir}};
            // A cross build's tool runs under the emulator that runs this test.
            QStringList args = QProcess::splitCommand(qEnvironmentVariable("QUIL_TEST_EMULATOR")) << QUIL_AUDIO_TOOL;
            for (QString arg : c.args) {
                for (auto name = names.begin(); name != names.end(); ++name)
                    arg.replace(name.key(), name.value());
                args << arg;
            }
            // The test mixer reads its FIFO only when the tool handles mixer
            // events; holding it open keeps the line there until then.
            int fifoFd = -1;
            if (!c.fifoLine.isEmpty()) {
                ::mkfifo(QFile::encodeName(fifo).constData(), 0600);
                fifoFd = ::open(QFile::encodeName(fifo).constData(), O_RDWR | O_NONBLOCK);
                ASSERT_EQ(::write(fifoFd, c.fifoLine.constData(), c.fifoLine.size()), c.fifoLine.size());
            }
            const Result r = run(args.takeFirst(), args, c.input, c.interruptAfterMs);
            if (fifoFd >= 0)
                ::close(fifoFd);

            const std::string stderrText = r.errLines.join(QLatin1Char('\n')).toStdString();
            EXPECT_EQ(r.status, c.status) << stderrText;
            EXPECT_GE(r.ms, c.minMs) << "ms: the run ended before its audio could have played";
            EXPECT_TRUE(r.errLines.value(r.errLines.size() - 1).contains(c.text) || r.out.contains(c.text.toUtf8()))
                << stderrText << r.out.toStdString();
            EXPECT_TRUE(c.status == 0 || r.errLines.size() == 1) << stderrText;
            const QByteArray output = c.args.join(QLatin1Char(' ')).contains(QLatin1String("{out}")) ? fileContent(out) : r.out;
            EXPECT_TRUE(c.output.isEmpty() || output == c.output) << output.size() << " bytes, not the " << c.output.size() << " expected";
            if (c.check)
                c.check(out, output);
        }
    }

    // 200 ms of distinct bytes; silence, a frame below -40 dBFS and, at frame
    // 4813, one at -6 dBFS on the right channel, then those bytes.
    const QByteArray m_pattern = patternBytes(200 * BytesPerMs);
    const QByteArray m_silenceThenPattern = QByteArray(4812 * FrameBytes, '\0') + QByteArray::fromHex("0001000000000040") + m_pattern;
    const QString m_in = quiltest::writeDataFile(QStringLiteral("tool_in.raw"), m_pattern);
    const QString m_trig = quiltest::writeDataFile(QStringLiteral("tool_trig.raw"), m_silenceThenPattern);
    // Samples 0x4000 and -0x2000 as S16_LE; read as other formats, other levels.
    const QString m_levels = quiltest::writeDataFile("tool_levels.raw", QByteArray::fromHex("004000e0").repeated(12000));
    const QString m_dir = quiltest::dataDirectory() + QStringLiteral("/tool");
};

TEST_F(QuilAudioTool, CapturesPlaysAndControlsThroughThePublicClasses)
{
    const QByteArray& in = m_pattern;
    runCases({
        // record: the provider's live path reproduces its source
        {"record_file", {"record", "--input-file", "{in}", "-d", "0.2", "{out}"}, 0, {}, in},
        {"record_pcm", {"record", "-D", "cap_file:INFILE={in}", "-d", "0.2", "{out}"}, 0, {}, in},
        {"record_stdout", {"record", "--input-file", "{in}", "-d", "0.05"}, 0, {}, in.left(50 * BytesPerMs)},
        {"record_muted", {"record", "--input-file", "{in}", "--mute", "-d", "0.1", "{out}"}, 0, {}, QByteArray(100 * BytesPerMs, '\0')},
        // Reads of 10 ms (480 frames): frame 4813 fires the trigger, 13 frames
        // into its read, and the output starts 50 ms (2400 frames) before it.
        {"record_preroll_trigger", {"record", "--input-file", "{trig}", "-F", "10000", "--trigger-dbfs", "-40", "--pre-roll-ms", "50",
         "-d", "0.1", "{out}"}, 0, {}, m_silenceThenPattern.mid(2413 * FrameBytes, 100 * BytesPerMs)},
        // Without a trigger recording is asked for before capture starts: the pre-roll is the ring's silence.
        {"record_preroll_start", {"record", "--input-file", "{in}", "--pre-roll-ms", "50", "-d", "0.15", "{out}"}, 0, {},
         QByteArray(50 * BytesPerMs, '\0') + in.left(100 * BytesPerMs)},
        {"record_interrupted", {"record", "--input-file", "{in}", "{out}"}, 0, {}, {},
         [&](const QString&, const QByteArray& output) {
             EXPECT_GT(output.size(), 0);
             EXPECT_EQ(output.size() % FrameBytes, 0);
             EXPECT_TRUE(output == (in + QByteArray(output.size(), '\0')).left(output.size()));
         }, {}, {}, 300},

        // play: the bytes reach the device unchanged
        {"play_pcm", {"play", "-D", "file:FILE={out},FORMAT=raw", "{in}"}, 0, {}, in},
        {"play_sound_server", {"play", "-D", "{snd}", "{in}"}, 0, "played 9600 frames (0.200 s)", {}, {}, {}, {}, -1, 190},
        {"play_stdin_to_file", {"play", "-o", "{out}", "-"}, 0, {}, in, {}, in},
        {"play_tone", {"play", "--tone", "1000", "-d", "0.01", "-o", "{out}"}, 0, "played 480 frames (0.010 s)"},

        // mixer: every change is read back from the mixer and shown
        {"mixer_db", {"mixer", "-D", "testmix", "set", "master", "--db", "-20"}, 0,
         "'Master' playback: volume 60 [0..100] 60% -20.00 dB, switch on"},
        {"mixer_enum", {"mixer", "-D", "testmix", "set", "input", "--enum", "cd"}, 0, "item 'CD' of Mic|Line|CD|Internal"},
        {"mixer_capture_side", {"mixer", "-D", "testmix", "set", "capture", "--volume", "25%", "--switch", "off"}, 0,
         "'Capture' capture: volume 25 [0..100] 25% -37.50 dB, switch off"},
        // The sound server keeps the value between processes.
        {"mixer_pulse_set", {"mixer", "-D", "{snd}", "set", "Master", "--volume", "40%"}, 0, "volume 26214 [0..65536] 40%"},
        {"mixer_watch", {"mixer", "-D", "testmix:FIFO={fifo}", "watch", "master", "--count", "1"}, 0,
         "changed 'Master' playback: volume 30 [0..100] 30% -35.00 dB", {}, {}, {}, "set Master Playback Volume 30\n"},

        // bad input: one line naming what was wrong
        {"bad_play_device", {"play", "-D", "nosuch", "{in}"}, 1, "cannot open playback device 'nosuch'"},
        {"bad_record_device", {"record", "-D", "nosuch", "{out}"}, 1, "cannot capture from 'nosuch'"},
        {"missing_play_file", {"play", "/nonexistent/x.raw"}, 1, "cannot open '/nonexistent/x.raw': No such file"},
        {"unknown_element", {"mixer", "-D", "testmix", "get", "nosuch"}, 1, "no element of mixer 'testmix' matches 'nosuch'"},
        {"no_db_scale", {"mixer", "-D", "{snd}", "set", "master", "--db", "-10"}, 1, "'Master' has no dB scale"},
        {"bad_mixer", {"mixer", "-D", "nosuch", "list"}, 1, "cannot open mixer 'nosuch'"},
    });
}

// The first write meets an underrun: its block of 6000 frames (a 125 ms period)
// is cut short and not counted, the last 3600 frames play.
TEST_F(QuilAudioTool, PlayCountsWhatAnXrunCutShortApart)
{
    qputenv("LD_PRELOAD", QUIL_TEST_XRUN_PRELOAD);
    qputenv("QUIL_TEST_XRUN_AT", "1");
    // A sanitized tool wants its runtime first among the libraries; the preloaded one needs none.
    const QByteArray asanOptions = qgetenv("ASAN_OPTIONS");
    qputenv("ASAN_OPTIONS", asanOptions + ":verify_asan_link_order=0");
    runCases({{"play_xrun", {"play", "-D", "null", "{in}"}, 0,
               "played 3600 frames (0.075 s) to 'null': xruns 1 (1 block cut short, not counted as played)"}});
    qunsetenv("LD_PRELOAD");
    qunsetenv("QUIL_TEST_XRUN_AT");
    qputenv("ASAN_OPTIONS", asanOptions);
}

TEST_F(QuilAudioTool, SpeaksAudioFilesAndListsDevices)
{
    ASSERT_TRUE(QDir().mkpath(m_dir));
    const QByteArray in = patternBytes(2 * 48000 * 4, 3);   // 2 s: many blocks
    const QString two = quiltest::writeDataFile(QStringLiteral("tool_two.raw"), in);
    const QString made = m_dir + QStringLiteral("/made.wav");
    ASSERT_EQ(run("sox", {"-t", "raw", "-r", "22050", "-c", "1", "-e", "signed", "-b", "16", two, made}).status, 0);
    const QStringList capture{"record", "-D", "cap_file:INFILE=" + two};
    const auto json = [](const QString&, const QByteArray& output) {
        const QJsonObject all = QJsonDocument::fromJson(output).object();
        EXPECT_EQ(all["mixers"].toArray().at(0)["mixerElements"].toInt(), 7);
        EXPECT_TRUE(all["pcms"].toArray().contains(QJsonObject{
            {"capture", false}, {"description", "Playback at 44100 Hz only"}, {"name", "only44k_plug"}, {"playback", true}}));
    };
    runCases({
        {"record_wav", capture + QStringList{"-d", "2", "{out}.wav"}, 0, {}, {}, soxReads(".wav", "48000 2 16 96000", in)},
        {"record_flac_24bit_mono", capture + QStringList{"-r", "44100", "-c", "1", "-f", "S24_3LE", "-d", "1", "{out}.flac"},
         0, {}, {}, soxReads(".flac", "44100 1 24 44100", in.left(44100 * 3))},
        {"record_wav_u8_mono", capture + QStringList{"-f", "U8", "-c", "1", "-d", "1", "{out}.wav"}, 0, {}, {},
         soxReads(".wav", "48000 1 8 48000", in.left(48000))},
        {"record_ogg", capture + QStringList{"-d", "1", "{out}.ogg"}, 0, {}, {}, soxReads(".ogg", "48000 2 0 48000")},
        {"play_wav", {"play", "-D", "file:FILE={out}.wav,FORMAT=wav", "{dir}/made.wav"}, 0, {}, {},
         soxReads(".wav", "22050 1 16 192000", in)},
        {"header_contradicted", {"play", "-D", "null", "-r", "44100", "{dir}/made.wav"}, 1, "holds 22050 Hz, not 44100"},
        // The summary's peaks come from the typed level scans.
        {"peaks_s16", {"record", "-D", "cap_file:INFILE={lv}", "-d", "0.1", "{out}"}, 0, "peak -6.0 / -12.0 dBFS"},
        {"peaks_u8_6ch", {"record", "-D", "cap_file:INFILE={lv}", "-f", "U8", "-c", "6", "-d", "0.1", "{out}"}, 0,
         "peak 0.0 / -2.5 / 0.0 / -2.5 / 0.0 / -2.5 dBFS"},
        // devices: the test configuration's PCM hints and its scripted mixer
        {"devices", {"devices", "--mixer", "testmix:EXTRA=3"}, 0, "  testmix:EXTRA=3: 10 mixer elements\n"},
        {"devices_json", {"devices", "--json", "-m", "testmix"}, 0, {}, {}, json},
    });
}

} // namespace
