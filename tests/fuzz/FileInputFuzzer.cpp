// FileInputDevice over arbitrary file contents, formats, rates and read sizes:
// every block is the current file's next bytes, zero-filled past its end,
// whatever files are switched in between reads; the documented failures fail
// as documented and leave the position alone.

#include "FileInputDevice.h"

#include "FuzzSupport.h"

#include <QElapsedTimer>
#include <QFile>

#include <cerrno>
#include <climits>
#include <unistd.h>

// Pacing sleeps are recorded instead of slept: an input costs no media time.
// A block is paced by the frames the file supplied (all of them once it has
// none), less the time since the last block; the model below takes that time
// from before the call that started it, so its sleeps are a lower bound.
static uint64_t sleptUs = 0;
extern "C" int usleep(useconds_t us) { return sleptUs += us, 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const snd_pcm_format_t formats[] = {SND_PCM_FORMAT_S16_LE,   SND_PCM_FORMAT_U8,    SND_PCM_FORMAT_S24_3LE,
                                               SND_PCM_FORMAT_S32_LE,   SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_FLOAT64_LE,
                                               SND_PCM_FORMAT_UNKNOWN};
    FuzzedDataProvider input(data, size);
    const int rate = input.ConsumeIntegralInRange(-1, 384000);
    const int channels = input.ConsumeIntegralInRange(0, 8);
    FileInputDevice device(rate, channels, input.PickValueInArray(formats));
    const qint64 frameBytes = qint64{device.bytesPerSample()} * channels;
    QByteArray files[2];
    for (int i = 0; i < 2; ++i) {
        files[i] = QByteArray::fromStdString(input.ConsumeBytesAsString(input.ConsumeIntegralInRange(0, 4096)));
        QFile file(quilfuzz::workFile(i == 0 ? "a.raw" : "b.raw"));
        FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(files[i]) == files[i].size());
    }
    QByteArray current; // the file being read (none: zeros), and the model's position in it
    int position = 0;
    bool fileOpen = false;
    QElapsedTimer clock;
    clock.start();
    qint64 timerStartNs = 0, lagMs = 0;
    QByteArray block;
    for (int step = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
        switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0: // close() does nothing: the file stays where it was
            if (input.ConsumeBool())
                device.close();
            timerStartNs = clock.nsecsElapsed();
            FUZZ_CHECK(device.open() && device.isOpened() && device.errorString().isEmpty());
            break;
        case 1: {
            const int chosen = input.ConsumeBool();
            FUZZ_CHECK(device.playFile(quilfuzz::workFile(chosen == 0 ? "a.raw" : "b.raw")) && device.errorCode() == 0
                       && device.errorString().isEmpty());
            current = files[chosen], position = 0, fileOpen = true;
            break;
        }
        case 2:
            FUZZ_CHECK(!device.playFile(quilfuzz::workFile("missing.raw")));
            FUZZ_CHECK(!device.errorString().isEmpty() && device.errorCode() == -ENOENT);
            current.clear(), position = 0, fileOpen = false;
            break;
        default: {
            const int frames = input.ConsumeBool() ? input.ConsumeIntegralInRange(0, 2048)
                                                   : input.ConsumeIntegralInRange(0, INT_MAX);
            const qint64 bytes = frames * frameBytes;
            if (bytes > (1 << 20) && bytes <= (qint64{1} << 31))
                break; // valid, but too large to be cheap
            sleptUs = 0;
            const qint64 readStartNs = clock.nsecsElapsed();
            const bool read = device.read(&block, frames);
            if (rate <= 0 || bytes > (1 << 20)) {
                FUZZ_CHECK(!read && !device.errorString().isEmpty() && device.errorCode() == 0);
                break;
            }
            QByteArray expected = current.mid(position, static_cast<int>(bytes));
            expected.append(QByteArray(static_cast<int>(bytes) - expected.size(), '\0'));
            FUZZ_CHECK(read && block == expected);
            const qint64 supplied = fileOpen ? qBound<qint64>(0, current.size() - position, bytes) : bytes;
            fileOpen = fileOpen && supplied == bytes;
            const qint64 durationMs = 1000 * (frameBytes > 0 ? frames - (bytes - supplied) / frameBytes : frames) / rate;
            const qint64 sinceMs = (clock.nsecsElapsed() - timerStartNs) / 1000000;
            const qint64 minSleepMs = qMax<qint64>(0, durationMs - lagMs - sinceMs);
            lagMs = minSleepMs > 0 ? 0 : lagMs + sinceMs - durationMs;
            timerStartNs = readStartNs;
            FUZZ_CHECK(sleptUs >= uint64_t(minSleepMs) * 1000 && sleptUs <= uint64_t(durationMs) * 1000);
            position += static_cast<int>(bytes);
        }
        }
    }
    return 0;
}
