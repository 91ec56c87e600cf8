// FileInputDevice over arbitrary file contents, formats, rates and read sizes:
// every block is the current file's next bytes, zero-filled past its end,
// whatever files are switched in between reads; the documented failures fail
// as documented and leave the position alone.

#include "FileInputDevice.h"

#include "FuzzSupport.h"

#include <QFile>

#include <cerrno>
#include <climits>
#include <unistd.h>

// Pacing sleeps are recorded instead of slept: an input costs no media time,
// and no block may be paced longer than it lasts.
static useconds_t lastSleepUs = 0;
extern "C" int usleep(useconds_t us) { return lastSleepUs = us, 0; }

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
    QByteArray block;
    for (int step = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
        switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0: // close() does nothing: the file stays where it was
            if (input.ConsumeBool())
                device.close();
            FUZZ_CHECK(device.open() && device.isOpened() && device.errorString().isEmpty());
            break;
        case 1: {
            const int chosen = input.ConsumeBool();
            FUZZ_CHECK(device.playFile(quilfuzz::workFile(chosen == 0 ? "a.raw" : "b.raw")) && device.errorCode() == 0
                       && device.errorString().isEmpty());
            current = files[chosen], position = 0;
            break;
        }
        case 2:
            FUZZ_CHECK(!device.playFile(quilfuzz::workFile("missing.raw")));
            FUZZ_CHECK(!device.errorString().isEmpty() && device.errorCode() == -ENOENT);
            current.clear(), position = 0;
            break;
        default: {
            const int frames = input.ConsumeBool() ? input.ConsumeIntegralInRange(0, 2048)
                                                   : input.ConsumeIntegralInRange(0, INT_MAX);
            const qint64 bytes = frames * frameBytes;
            if (bytes > (1 << 20) && bytes <= (qint64{1} << 31))
                break; // valid, but too large to be cheap
            lastSleepUs = 0;
            const bool read = device.read(&block, frames);
            if (rate <= 0 || bytes > (1 << 20)) {
                FUZZ_CHECK(!read && !device.errorString().isEmpty() && device.errorCode() == 0);
                break;
            }
            QByteArray expected = current.mid(position, static_cast<int>(bytes));
            expected.append(QByteArray(static_cast<int>(bytes) - expected.size(), '\0'));
            FUZZ_CHECK(read && block == expected);
            FUZZ_CHECK(lastSleepUs <= 1e6 * frames / rate);
            position += static_cast<int>(bytes);
        }
        }
    }
    return 0;
}
