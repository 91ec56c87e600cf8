// Playback to an ALSA PCM with the delay query and a drain: plays a 440 Hz
// tone in 20 ms blocks, prints how much is queued ahead of the speaker every
// 200 ms, then closes with Drain, which returns once the queue has played.
// Usage: playback_delay [PCM [SECONDS]]     (default: "default", 1)

#include "AlsaOutputDevice.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    // Playback needs no event loop; a host has its QCoreApplication anyway.
    QCoreApplication app(argc, argv);
    log4cplus::Initializer logInitializer;
    log4cplus::BasicConfigurator::doConfigure(log4cplus::Logger::getDefaultHierarchy(), true);
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::WARN_LOG_LEVEL);

    const QString pcm = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("default");
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 1;
    constexpr int Rate = 48000, BlockFrames = Rate / 50;

    //! [playback]
    // 20 ms periods in a 200 ms buffer; playing starts once 40 ms are queued.
    AlsaOutputDevice speaker(pcm, Rate, 2, SND_PCM_FORMAT_S16_LE, 20, 200);
    speaker.setStartThresholdMs(40);
    speaker.enableTstamp(); // delay() then also tells the age of its figure
    if (!speaker.open()) {
        std::fprintf(stderr, "cannot open '%s': %s\n", qPrintable(pcm), qPrintable(speaker.errorString()));
        return 1;
    }
    std::printf("'%s': period %u ms, buffer %u ms\n", qPrintable(pcm), speaker.periodTimeMs(), speaker.bufferTimeMs());

    QByteArray block(BlockFrames * 4, Qt::Uninitialized);
    auto* samples = reinterpret_cast<qint16*>(block.data());
    for (int n = 0, frame = 0; n < seconds * 50; ++n) {
        for (int i = 0; i < BlockFrames; ++i, ++frame)
            samples[2 * i] = samples[2 * i + 1] = qint16(8000 * std::sin(2 * M_PI * 440 * frame / Rate));
        // write() blocks until ALSA has taken the block: it paces this loop.
        const AudioOutputDevice::WriteResult result = speaker.write(block);
        if (result == AudioOutputDevice::DeviceClosed) {
            std::fprintf(stderr, "write failed: %s\n", qPrintable(speaker.errorString()));
            return 1;
        }
        if (result == AudioOutputDevice::XrunRecovered)
            std::printf("xrun: %s\n", qPrintable(speaker.errorString()));
        if (n % 10 == 9) {
            int64_t ageUs = 0;
            const int frames = speaker.delay(&ageUs); // -1: no status
            std::printf("delay %d frames (%.1f ms), measured %lld us ago\n", frames, frames * 1000.0 / Rate,
                        static_cast<long long>(ageUs));
        }
    }
    QElapsedTimer drain;
    drain.start();
    speaker.close(AudioOutputDevice::Drain);
    std::printf("drained in %lld ms\n", drain.elapsed());
    //! [playback]
    return 0;
}
