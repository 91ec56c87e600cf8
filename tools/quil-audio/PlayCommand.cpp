#include "Commands.h"

#include "AudioFile.h"
#include "CommandLine.h"
#include "PcmSamples.h"
#include "ProgressLine.h"
#include "Signals.h"

#include "AlsaDevices.h"
#include "AlsaOutputDevice.h"
#include "FileOutputDevice.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace quilaudio {

namespace {

const QString Command = QStringLiteral("play");

const char* const Usage = "Plays FILE, stdin (\"-\", the default) or a generated tone through an ALSA PCM (-D)\n"
                          "or into a raw PCM file (-o). WAV, RF64, W64, FLAC, Ogg and AU files (by extension or -t)\n"
                          "give rate, channels and format from their header, read in a format the device takes;\n"
                          ".raw files, names without extension and stdin are raw PCM (interleaved frames).\n"
                          "Xruns are recovered, counted and reported. On a terminal a progress line shows the\n"
                          "current delay. The end of the input waits until the queue has played (unless\n"
                          "--no-drain); Ctrl-C stops at once. The last line on stderr sums up frames, xruns and delay.";

// Frames per write for a file, which has no period.
constexpr int FileBlockFrames = 1024;
// 16 MiB: far below QByteArray's 2 GiB; larger reads gain nothing.
constexpr int MaxPlayBlockBytes = 1 << 24;
// How long a drain may take beyond the buffer's own length before we give up.
constexpr unsigned int DrainSlackS = 5;

QString formatText(snd_pcm_format_t format)
{
    return format == SND_PCM_FORMAT_UNKNOWN ? QStringLiteral("encoded")
                                            : QString::fromLatin1(snd_pcm_format_name(format));
}

/// `quil-audio play`: an audio file, raw PCM on stdin or a generated tone into
/// an AlsaOutputDevice or a FileOutputDevice (raw), on the calling thread.
class PlayCommand {
public:
    int run(const QStringList& arguments)
    {
        if (const std::optional<int> status = readCommandLine(arguments))
            return *status;
        watchSignals();
        int status = openSource();
        if (status == ExitOk)
            status = openDevice();
        return status == ExitOk ? playUntilDone() : status;
    }

    /// The status to end with before anything opens (--help, a usage error), or none.
    std::optional<int> readCommandLine(const QStringList& arguments)
    {
        QCommandLineParser parser;
        addStreamOptions(parser, Usage, "Input file; \"-\" is stdin (raw).");
        addOptions(parser, {
                               {"o,output-file", "Write into this raw file instead of an ALSA device.", "file"},
                               {"tone", "Play a sine tone at -6 dBFS instead of FILE.", "hz"},
                               {"F,period-time", "Period in microseconds (125000 with no -B).", "us"},
                               {"period-size", "Period in frames.", "frames"},
                               {"B,buffer-time", "Buffer in microseconds (500000 with no -F).", "us"},
                               {"buffer-size", "Buffer in frames.", "frames"},
                               {"start-threshold", "Frames queued before playback starts.", "frames"},
                               {"start-threshold-time", "Start threshold in microseconds.", "us"},
                               {"near-rate", "Accept the device's nearest rate."},
                               {"near-channels", "Accept the device's nearest channel count."},
                               {"tstamp", "Timestamp the device status; the progress shows the delay's age."},
                               {"no-drain", "At the end, close at once instead of waiting for the queue."},
                           });
        return parseCommandLine(parser, arguments, Command, [&](QString* error) { return readOptions(parser, error); });
    }

private:
    bool readOptions(const QCommandLineParser& parser, QString* error)
    {
        if (!readStreamOptions(parser, &m_stream, error)
            || !readDouble(parser, QStringLiteral("tone"), &m_toneHz, error)
            || !readFileArgument(parser, QStringLiteral("input"), &m_input, error))
            return false;
        m_outputFile = parser.value(QStringLiteral("output-file"));
        m_drain = !parser.isSet(QStringLiteral("no-drain"));
        if (parser.isSet(QStringLiteral("tone"))) {
            if (!parser.positionalArguments().isEmpty())
                return refuse(error, QStringLiteral("--tone replaces the input file; give one of them"));
            if (!(m_toneHz > 0 && m_toneHz < m_stream.rate / 2.0))
                return refuse(error, QStringLiteral("--tone must lie between 0 and half the rate (%1 Hz), not %2")
                                         .arg(m_stream.rate / 2.0)
                                         .arg(parser.value(QStringLiteral("tone"))));
            if (!hasSampleValues(m_stream.format))
                return refuse(error, QStringLiteral("cannot generate a tone in this sample format"));
            // A file never makes the writer wait: without an end the tone would fill the disk.
            if (!m_outputFile.isEmpty() && m_stream.durationS < 0)
                return refuse(error, QStringLiteral("--tone into a file needs --duration"));
        }
        AlsaSettings& alsa = m_alsaSettings;
        alsa.nearRate = parser.isSet(QStringLiteral("near-rate"));
        alsa.nearChannels = parser.isSet(QStringLiteral("near-channels"));
        alsa.timestamps = parser.isSet(QStringLiteral("tstamp"));
        constexpr qint64 MaxFrames = 1 << 24;
        if (!parser.isSet(QStringLiteral("period-time")) && !parser.isSet(QStringLiteral("period-size"))
            && !parser.isSet(QStringLiteral("buffer-time")) && !parser.isSet(QStringLiteral("buffer-size"))) {
            alsa.periodMs = DefaultPeriodMs;
            alsa.bufferMs = DefaultBufferMs;
        }
        return exclusive(parser, QStringLiteral("period-time"), QStringLiteral("period-size"), error)
               && exclusive(parser, QStringLiteral("buffer-time"), QStringLiteral("buffer-size"), error)
               && exclusive(parser, QStringLiteral("start-threshold"), QStringLiteral("start-threshold-time"), error)
               && readMicrosecondsAsMs(parser, QStringLiteral("period-time"), &alsa.periodMs, error)
               && readMicrosecondsAsMs(parser, QStringLiteral("buffer-time"), &alsa.bufferMs, error)
               && readMicrosecondsAsMs(parser, QStringLiteral("start-threshold-time"), &alsa.startThresholdMs, error)
               && readInt(parser, QStringLiteral("period-size"), 1, MaxFrames, &alsa.periodFrames, error)
               && readInt(parser, QStringLiteral("buffer-size"), 1, MaxFrames, &alsa.bufferFrames, error)
               && readInt(parser, QStringLiteral("start-threshold"), 1, MaxFrames, &alsa.startThresholdFrames, error);
    }

    int openSource()
    {
        if (m_toneHz > 0)
            return ExitOk;
        QString error;
        if (!m_inputFile.openForReading(m_input, m_stream.fileType,
                                        {m_stream.rate, m_stream.channels, m_stream.format}))
            return fail(Command, m_inputFile.errorString(), ExitFailed);
        if (!m_inputFile.isRaw() && (!takeHeader(&error) || !chooseReadFormat(&error)))
            return fail(Command, error, ExitFailed);
        return ExitOk;
    }

    // The header decides; a command-line value that says otherwise is a mistake.
    bool takeHeader(QString* error)
    {
        const AudioFile::Layout header = m_inputFile.layout();
        const auto contradicts = [&](bool given, const QString& asked, const QString& held, const char* what) {
            return given && asked != held
                   && !refuse(error, QStringLiteral("'%1' holds %2 %3, not %4 as the command line says")
                                         .arg(m_input, held, QLatin1String(what), asked));
        };
        const auto number = [](unsigned int value) { return QString::number(value); };
        if (contradicts(m_stream.rateGiven, number(m_stream.rate), number(header.rate), "Hz")
            || contradicts(m_stream.channelsGiven, number(m_stream.channels), number(header.channels), "channels")
            || contradicts(m_stream.formatGiven, formatText(m_stream.format), formatText(header.format), "samples"))
            return false;
        m_stream.rate = header.rate;
        m_stream.channels = header.channels;
        return true;
    }

    // The file's own format if the device takes it and libsndfile hands it out
    // as it is, else the first of libsndfile's conversions the device takes.
    bool chooseReadFormat(QString* error)
    {
        const snd_pcm_format_t own = m_inputFile.layout().format;
        QVector<snd_pcm_format_t> candidates = AudioFile::readableFormats();
        if (candidates.removeOne(own))
            candidates.prepend(own);
        // A PCM that does not open keeps the first, for the real open to say why.
        const QVector<snd_pcm_format_t> taken = m_outputFile.isEmpty()
                                                    ? AlsaDevices::formats(m_stream.device, SND_PCM_STREAM_PLAYBACK)
                                                    : QVector<snd_pcm_format_t>();
        const auto first = std::find_first_of(candidates.cbegin(), candidates.cend(), taken.cbegin(), taken.cend());
        const snd_pcm_format_t chosen = taken.isEmpty()              ? candidates.first()
                                        : first == candidates.cend() ? SND_PCM_FORMAT_UNKNOWN
                                                                     : *first;
        if (chosen == SND_PCM_FORMAT_UNKNOWN)
            return refuse(
                error,
                QStringLiteral("'%1' takes none of the formats '%2' can be read as").arg(m_stream.device, m_input));
        if (chosen != own)
            printLine(QStringLiteral("quil-audio play: reading the %1 samples of '%2' as %3")
                          .arg(formatText(own), m_input, formatText(chosen)));
        m_inputFile.setReadFormat(chosen);
        m_stream.format = chosen;
        return true;
    }

    std::unique_ptr<AudioOutputDevice> createDevice()
    {
        if (!m_outputFile.isEmpty())
            return std::make_unique<FileOutputDevice>(m_outputFile, m_stream.rate, m_stream.channels, m_stream.format);
        const AlsaSettings& s = m_alsaSettings;
        auto device = std::make_unique<AlsaOutputDevice>(m_stream.device, m_stream.rate, m_stream.channels,
                                                         m_stream.format, s.periodMs, s.bufferMs);
        if (s.periodFrames > 0)
            device->setPeriodSize(s.periodFrames);
        if (s.bufferFrames > 0)
            device->setBufferSize(s.bufferFrames);
        if (s.startThresholdMs > 0)
            device->setStartThresholdMs(s.startThresholdMs);
        if (s.startThresholdFrames > 0)
            device->setStartThreshold(s.startThresholdFrames);
        if (s.nearRate)
            device->enableSamplerateNear();
        if (s.nearChannels)
            device->enableChannelsNear();
        if (s.timestamps)
            device->enableTstamp();
        m_alsa = device.get();
        return device;
    }

    int openDevice()
    {
        m_device = createDevice();
        if (!m_device->open()) {
            const QString where = m_alsa ? QStringLiteral("playback device '%1'").arg(m_stream.device)
                                         : QStringLiteral("'%1'").arg(m_outputFile);
            return failBecause(Command, QStringLiteral("cannot open ") + where, m_device->errorString());
        }
        if (!m_alsa)
            return ExitOk;
        // Blocks and reads stay within MaxPlayBlockBytes, whatever period and buffer ALSA grants.
        const int deviceFrameBytes = m_device->bytesPerSample() * m_device->channelCount();
        const int maxFrames = MaxPlayBlockBytes / std::max({1, m_inputFile.frameBytes(), deviceFrameBytes});
        m_blockFrames = static_cast<int>(std::clamp<snd_pcm_uframes_t>(m_alsa->periodSize(), 1, maxFrames));
        // A pipe's writer may fill a period in time, but not a buffer.
        if (m_inputFile.isSeekable())
            m_readAheadPeriods = static_cast<int>(
                std::clamp<snd_pcm_uframes_t>(m_alsa->bufferSize() / m_blockFrames, 1, maxFrames / m_blockFrames));
        if (static_cast<unsigned int>(m_alsa->sampleRate()) != m_stream.rate
            || static_cast<unsigned int>(m_alsa->channelCount()) != m_stream.channels) {
            printLine(QStringLiteral("quil-audio play: '%1' runs at %2 Hz with %3 channels (asked for %4 Hz, %5)")
                          .arg(m_stream.device)
                          .arg(m_alsa->sampleRate())
                          .arg(m_alsa->channelCount())
                          .arg(m_stream.rate)
                          .arg(m_stream.channels));
        }
        return ExitOk;
    }

    int playUntilDone()
    {
        qint64 framesLeft = m_stream.durationFrames();
        const int deviceFrameBytes = m_device->bytesPerSample() * m_device->channelCount();
        QElapsedTimer sinceProgress;
        sinceProgress.start();
        QString error;
        while (framesLeft != 0 && error.isEmpty() && !stopRequested()) {
            const int frames =
                framesLeft < 0 ? m_blockFrames : static_cast<int>(qMin<qint64>(framesLeft, m_blockFrames));
            QByteArray block;
            if (!nextBlock(frames, &block, &error) || block.isEmpty())
                break;
            const AudioOutputDevice::WriteResult result = m_device->write(block);
            if (result == AudioOutputDevice::DeviceClosed) {
                if (!stopRequested())
                    error = QStringLiteral("playback on '%1' failed: %2").arg(m_stream.device, m_device->errorString());
                break;
            }
            m_xruns += result == AudioOutputDevice::XrunRecovered ? 1 : 0;
            const qint64 sent = deviceFrameBytes > 0 ? block.size() / deviceFrameBytes : 0;
            m_framesSent += sent;
            // write() drops the rest of a block at an xrun without saying how
            // much went out before it: the summary counts none of that block.
            m_framesPlayed += result == AudioOutputDevice::XrunRecovered ? 0 : sent;
            framesLeft = framesLeft < 0 ? -1 : framesLeft - sent;
            if (m_progress.isShown() && sinceProgress.elapsed() >= ProgressIntervalMs) {
                showProgress();
                sinceProgress.restart();
            }
        }
        m_progress.finish();
        updateDelay();
        // Ctrl-C, or a failure, ends at once: nothing more is drained.
        closeDevice(stopRequested() || !error.isEmpty());
        if (!error.isEmpty())
            return fail(Command, error, ExitFailed);
        printLine(summary());
        return ExitOk;
    }

    // The next block in the device's layout; empty at the end of the input.
    bool nextBlock(int frames, QByteArray* block, QString* error)
    {
        if (m_toneHz > 0) {
            *block = toneBlock(m_toneHz, m_device->sampleRate(), m_device->channelCount(), m_stream.format,
                               m_framesSent, frames);
            return true;
        }
        // A regular file is read a buffer at a time and played a period at a
        // time: a quarter of the reads, and Ctrl-C still ends within a period.
        if (m_readOffset >= m_readAhead.size()) {
            if (!m_inputFile.read(frames * m_readAheadPeriods, &m_readAhead))
                return refuse(error, m_inputFile.errorString());
            m_readOffset = 0;
        }
        // size() is int on Qt 5 and qsizetype on Qt 6; both sides stay under the read cap.
        const int bytes = static_cast<int>(
            std::min(qsizetype(frames) * m_inputFile.frameBytes(), qsizetype(m_readAhead.size() - m_readOffset)));
        *block = matchDeviceChannels(QByteArray::fromRawData(m_readAhead.constData() + m_readOffset, bytes));
        m_readOffset += bytes;
        return true;
    }

    // With --near-channels the device may run with another channel count than
    // the input has: extra device channels repeat the input's last channel,
    // input channels the device lacks are dropped.
    QByteArray matchDeviceChannels(const QByteArray& frames) const
    {
        const int inChannels = static_cast<int>(m_stream.channels);
        const int outChannels = m_device->channelCount();
        if (outChannels == inChannels || outChannels <= 0)
            return frames;
        const int sampleBytes = m_device->bytesPerSample();
        const int count = frames.size() / (sampleBytes * inChannels);
        QByteArray out(count * outChannels * sampleBytes, Qt::Uninitialized);
        for (int frame = 0; frame < count; ++frame) {
            for (int channel = 0; channel < outChannels; ++channel) {
                const int from = (frame * inChannels + qMin(channel, inChannels - 1)) * sampleBytes;
                std::copy_n(frames.constData() + from, sampleBytes,
                            out.data() + static_cast<qsizetype>(frame * outChannels + channel) * sampleBytes);
            }
        }
        return out;
    }

    void updateDelay()
    {
        if (m_alsa)
            m_delayFrames = m_alsa->delay(&m_delayAgeUs);
    }

    // "480 frames (10.0 ms)"; with timestamps, and asked for, the status's age too.
    QString delayText(bool withAge) const
    {
        const QString age = withAge && m_alsaSettings.timestamps
                                ? QStringLiteral(", status %1 ms old").arg(m_delayAgeUs / 1000.0, 0, 'f', 1)
                                : QString();
        return QStringLiteral("%1 frames (%2 ms%3)")
            .arg(m_delayFrames)
            .arg(1000.0 * m_delayFrames / m_device->sampleRate(), 0, 'f', 1)
            .arg(age);
    }

    void showProgress()
    {
        updateDelay();
        QString text = QStringLiteral("playing %1").arg(secondsText(m_framesPlayed, m_device->sampleRate()));
        if (m_alsa && m_delayFrames >= 0)
            text += QStringLiteral("  delay ") + delayText(true);
        m_progress.show(text + QStringLiteral("  xruns %1").arg(m_xruns));
    }

    void closeDevice(bool interrupted)
    {
        if (m_alsa && m_drain && !interrupted) {
            armStopWatchdog(DrainSlackS + m_alsa->bufferTimeMs() / 1000);
            m_device->close(AudioOutputDevice::Drain);
            armStopWatchdog(0);
            return;
        }
        m_device->close(AudioOutputDevice::Immediate);
    }

    QString summary() const
    {
        const QString played = QStringLiteral("played %1 frames (%2)")
                                   .arg(m_framesPlayed)
                                   .arg(secondsText(m_framesPlayed, m_device->sampleRate()));
        if (!m_alsa)
            return played + QStringLiteral(" into '%1'").arg(m_outputFile);
        const QString delay = m_delayFrames < 0 ? QStringLiteral("unknown") : delayText(false);
        const QString cut = m_xruns == 0 ? QString()
                                         : QStringLiteral(" (%1 cut short, not counted as played)")
                                               .arg(m_xruns == 1 ? QStringLiteral("1 block")
                                                                 : QStringLiteral("%1 blocks").arg(m_xruns));
        return played
               + QStringLiteral(" to '%1': xruns %2%3, delay %4").arg(m_stream.device).arg(m_xruns).arg(cut, delay);
    }

    // What the command line asks of an ALSA device; -1: left to ALSA.
    struct AlsaSettings {
        int periodMs = -1, periodFrames = -1, bufferMs = -1, bufferFrames = -1;
        int startThresholdMs = -1, startThresholdFrames = -1;
        bool nearRate = false, nearChannels = false, timestamps = false;
    };

    StreamOptions m_stream;
    AlsaSettings m_alsaSettings;
    QString m_input, m_outputFile;
    double m_toneHz = 0;
    bool m_drain = true;
    std::unique_ptr<AudioOutputDevice> m_device;
    AlsaOutputDevice* m_alsa = nullptr;
    AudioFile m_inputFile;
    QByteArray m_readAhead; // periods of a regular file read at once; m_readOffset bytes played
    int m_readOffset = 0, m_readAheadPeriods = 1;
    int m_blockFrames = FileBlockFrames;
    qint64 m_framesPlayed = 0; // in blocks that reached the device whole
    qint64 m_framesSent = 0; // handed to the device: the tone's position
    int m_xruns = 0;
    int m_delayFrames = -1; // and its age, from the last delay() asked
    int64_t m_delayAgeUs = 0;
    ProgressLine m_progress;
};

} // namespace

int runPlayCommand(const QStringList& arguments) { return PlayCommand().run(arguments); }

int checkPlayCommandLine(const QStringList& arguments)
{
    return PlayCommand().readCommandLine(arguments).value_or(ExitOk);
}

} // namespace quilaudio
