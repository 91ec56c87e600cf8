// AudioInputDataProvider over an in-memory device whose frames count up, driven
// through starts, stops, destruction, feeds, mute and device failures: every
// feed is one gapless stretch of the counter stream (silence where muted) that
// begins with the newest bytes of the ring, failures show in the capture
// status, and stop and destruction finish the feeds and close the device.

#include "AudioInputDataProvider.h"

#include "FuzzSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSemaphore>
#include <QThread>
#include <QtEndian>

#include <cerrno>
#include <climits>
#include <vector>

namespace {

// Frame n of the stream is n (4 bytes, little endian); 0 is silence. Each read
// waits for a permit: the worker is idle once it entered one more read than
// were permitted.
class CounterDevice : public AudioInputDevice {
public:
    bool open() override { return setErrorString(failOpen ? "open refused" : "", -ENODEV), ++opens, opened = !failOpen; }
    void close() override { opened = false; }
    bool isOpened() override { return opened; }
    bool read(QByteArray* buffer, int frames) override
    {
        ++entered, gate.acquire();
        if (failRead.exchange(false))
            return ++failures, setErrorString(QStringLiteral("read failed"), -EIO), false;
        buffer->resize(frames * 4);
        for (int i = 0; i < frames; ++i)
            qToLittleEndian<quint32>(++delivered, buffer->data() + 4 * i);
        return true;
    }
    int sampleRate() const override { return rate; }
    int bytesPerSample() const override { return 2; }
    int channelCount() const override { return 2; }
    QString name() const override { return QStringLiteral("Counter"); }
    void let(int reads) { permitted += reads, gate.release(reads); }
    bool idle() const { return entered == permitted + 1; }

    QSemaphore gate;
    std::atomic<bool> failOpen{false}, failRead{false}, opened{false};
    std::atomic<int> opens{0}, failures{0}, entered{0}, permitted{0}, rate{48000};
    quint32 delivered = 0; // read by the fuzzing thread only while the worker is idle
};

// Polls for a state the worker reaches soon; 5 s without it is a hang. Time,
// not a count of polls: a loaded machine may keep the worker waiting long.
template <class Condition> void settle(Condition condition)
{
    QElapsedTimer waited;
    waited.start();
    while (!condition()) {
        FUZZ_CHECK(waited.elapsed() < 5000);
        QThread::usleep(10);
    }
}

// A feed and where the blocks it receives are kept until checked.
struct Feed {
    CMDataTransfer transfer;
    CMBufferedDataTransfer kept;
    quint32 previous = 0, last = 0, frames = 0;

    // Whether the bytes continue the feed: each counter frame follows the one
    // before; silence only before the provider's first frame, or anywhere once
    // muted (a muted block may be of any length: docs/reliability.md).
    bool continuedBy(const QByteArray& bytes, bool mutedEver, quint32 firstFrame)
    {
        for (int i = 0; i + 4 <= bytes.size(); i += 4, ++frames) {
            const quint32 f = qFromLittleEndian<quint32>(bytes.constData() + i);
            if (f == 0 ? !mutedEver && last != 0 : previous != 0 ? f != previous + 1 : mutedEver ? f <= last : frames > 0 && f != firstFrame)
                return false;
            previous = f, last = f ? f : last;
        }
        return bytes.size() % 4 == 0;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using State = quil::CaptureState;
    FuzzedDataProvider input(data, size);
    CounterDevice device;
    device.rate = input.ConsumeIntegralInRange(1, 192000);
    const int readFrames = input.ConsumeIntegralInRange(1, 2048);
    const int minRingMs = (readFrames * 1000 + device.rate - 1) / device.rate; // holds one read
    const int ringMs = input.ConsumeBool() ? 0 : minRingMs + input.ConsumeIntegralInRange(0, 300);
    const auto msToBytes = [&](qint64 ms) { return qBound<qint64>(0, ms * 4 * device.rate / 1000, INT_MAX) / 4 * 4; };
    std::unique_ptr<AudioInputDataProvider> provider;
    std::vector<Feed> feeds;
    bool mutedEver = false;
    quint32 firstFrame = 0;
    const auto state = [&] { return provider->captureStatus().state; };
    // A run in progress ends after its current read, finishing every feed and closing the device.
    const auto end = [&](bool destroy) {
        const bool ran = state() != State::Stopped;
        if (!destroy)
            provider->stop();
        device.let(1 << 20);
        destroy ? provider.reset() : settle([&] { return state() == State::Stopped; });
        QCoreApplication::sendPostedEvents(); // the worker's thread object goes through this thread's loop
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        for (const auto& feed : feeds)
            FUZZ_CHECK((feed.transfer.isFinished() || !ran) && !device.opened);
        device.gate.acquire(device.gate.available());
        device.permitted = device.entered.load();
    };
    const auto create = [&] {
        provider = std::make_unique<AudioInputDataProvider>(&device, ringMs, readFrames);
        device.failures = 0, mutedEver = false, firstFrame = device.delivered + 1;
        CMBufferedDataTransfer kept;
        provider->liveFeed().onDataAvailable([kept](const QByteArray& block) mutable { kept.dataAvailable(block); });
        feeds = {Feed{provider->liveFeed(), kept}};
    };
    create();
    for (int step = 0; step < 48 && input.remaining_bytes() > 0; ++step) {
        const int opens = device.opens;
        switch (input.ConsumeIntegralInRange(0, 7)) {
        case 0: // not while running: a second run would wait behind the first
            if (state() == State::Running)
                break;
            device.failOpen = input.ConsumeIntegralInRange(0, 3) == 0;
            provider->start();
            settle([&] { return device.opens > opens && (state() == State::Stopped) == device.failOpen && (state() != State::Running || device.idle()); });
            break;
        case 1:
            end(false);
            break;
        case 2:
        case 3: {
            // Reads while a feed is requested, or a feed of the idle worker:
            // the newest bytes of the ring (which muting may have grown to
            // the process-wide silence block), ending with the newest frame.
            device.let(input.ConsumeIntegralInRange(0, 8));
            const bool racing = !device.idle() && state() == State::Running;
            const int offsetMs = input.ConsumeBool() ? input.ConsumeIntegral<int>() : input.ConsumeIntegralInRange(-10, ringMs + 50);
            CMBufferedDataTransfer feed = provider->liveFeedWithOffset(offsetMs);
            feeds.push_back(Feed{feed, feed});
            const qint64 prefill = ringMs > 0 ? qMin(msToBytes(offsetMs), msToBytes(ringMs)) : 0;
            const QByteArray bytes = feed.readAll();
            const bool newest = prefill == 0 || (bytes.size() >= prefill && qFromLittleEndian<quint32>(bytes.constData() + prefill - 4) == (device.delivered < firstFrame ? 0 : device.delivered));
            FUZZ_CHECK(mutedEver ? racing || bytes.size() <= msToBytes(offsetMs) : bytes.size() >= prefill && (racing || (bytes.size() == prefill && newest)));
            FUZZ_CHECK(feeds.back().continuedBy(bytes, mutedEver, firstFrame));
            settle([&] { return device.idle() || state() != State::Running; });
            break;
        }
        case 4:
            feeds[input.ConsumeIntegralInRange<size_t>(0, feeds.size() - 1)].transfer.finish(CMError());
            break;
        case 5:
            provider->setMuteState(input.ConsumeBool());
            mutedEver |= provider->isMuted();
            break;
        case 6:
            device.failRead = true;
            break;
        default:
            end(true);
            create();
        }
        const quil::CaptureStatus now = provider->captureStatus();
        const char* reason = now.state == State::Restarting ? "read failed" : now.state == State::Running || now.errorString.isEmpty() ? "" : "open refused";
        FUZZ_CHECK(now.restartCount == device.failures && now.errorString == reason && now.errorCode == (*reason ? now.state == State::Stopped ? -ENODEV : -EIO : 0));
        for (Feed& feed : feeds) {
            const QByteArray bytes = feed.kept.readAll(); // the live feed's, all captured while muted or not
            FUZZ_CHECK(feed.continuedBy(bytes, mutedEver, firstFrame));
            FUZZ_CHECK(&feed != &feeds[0] || !provider->isMuted() || bytes.count('\0') == bytes.size());
        }
    }
    end(true);
    return 0;
}
