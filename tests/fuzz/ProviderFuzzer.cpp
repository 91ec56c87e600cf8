// AudioInputDataProvider over the scripted counter device, its reads gated, driven
// through starts, stops, destruction, feeds, mute and device failures: every
// feed is one gapless stretch of the counter stream (silence where muted) that
// begins with the newest bytes of the ring, failures show in the capture
// status, and stop and destruction finish the feeds and close the device.

#include "AudioInputDataProvider.h"

#include "FuzzSupport.h"
#include "ProviderTestSupport.h"

#include <climits>
#include <vector>

using quiltest::ScriptedInputDevice;

namespace {

// A state the worker reaches soon; 5 s without it is a hang.
#define SETTLE(condition) FUZZ_CHECK(quiltest::waitUntil([&] { return condition; }))

// A feed and where the blocks it receives are kept until checked.
struct Feed {
    CMDataTransfer transfer;
    CMBufferedDataTransfer kept;
    quint32 previous = 0, last = 0, frames = 0;
    bool finished = false; // by its consumer

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
    ScriptedInputDevice device;
    device.gated = true;
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
        device.permit(1 << 20);
        if (destroy)
            provider.reset();
        else
            SETTLE(state() == State::Stopped);
        quiltest::deleteFinishedThreadObjects();
        for (const auto& feed : feeds)
            FUZZ_CHECK((feed.transfer.isFinished() || !ran) && !device.isOpened());
        device.withdrawPermits();
    };
    const auto create = [&] {
        provider = std::make_unique<AudioInputDataProvider>(&device, ringMs, readFrames);
        device.failures = 0, mutedEver = false, firstFrame = device.deliveredFrames + 1;
        device.framesAtOpen = device.deliveredFrames.load();
        CMBufferedDataTransfer kept;
        provider->liveFeed().onDataAvailable([kept](const QByteArray& block) mutable { kept.dataAvailable(block); });
        feeds = {Feed{provider->liveFeed(), kept}};
    };
    create();
    for (int step = 0; step < 48 && input.remaining_bytes() > 0; ++step) {
        const int opens = device.opens, reads = device.reads;
        switch (input.ConsumeIntegralInRange(0, 7)) {
        case 0: // not while running: a second run would wait behind the first
            if (state() == State::Running)
                break;
            device.failOpen = input.ConsumeIntegralInRange(0, 3) == 0;
            provider->start();
            // A read entered means the run reset its count: a Restarting left by the last run no longer shows.
            SETTLE(device.opens > opens && (state() == State::Stopped) == device.failOpen && (device.failOpen || device.reads > reads) && (state() != State::Running || device.idle()));
            break;
        case 1:
            end(false);
            break;
        case 2:
        case 3: {
            // Reads while a feed is requested, or a feed of the idle worker:
            // the newest bytes of the ring (which muting may have grown to
            // the process-wide silence block), ending with the newest frame.
            device.permit(input.ConsumeIntegralInRange(0, 8));
            const bool racing = !device.idle() && state() == State::Running;
            const int offsetMs = input.ConsumeBool() ? input.ConsumeIntegral<int>() : input.ConsumeIntegralInRange(-10, ringMs + 50);
            CMBufferedDataTransfer feed = provider->liveFeedWithOffset(offsetMs);
            feeds.push_back(Feed{feed, feed});
            const qint64 prefill = ringMs > 0 ? qMin(msToBytes(offsetMs), msToBytes(ringMs)) : 0;
            const QByteArray bytes = feed.readAll();
            const bool newest = prefill == 0 || (bytes.size() >= prefill && qFromLittleEndian<quint32>(bytes.constData() + prefill - 4) == quint32(device.deliveredFrames < int(firstFrame) ? 0 : device.deliveredFrames.load()));
            FUZZ_CHECK(mutedEver ? racing || bytes.size() <= msToBytes(offsetMs) : bytes.size() >= prefill && (racing || (bytes.size() == prefill && newest)));
            FUZZ_CHECK(feeds.back().continuedBy(bytes, mutedEver, firstFrame));
            SETTLE(device.idle() || state() != State::Running);
            break;
        }
        case 4: { // a consumer done with its feed is told so at once, however late it asks, and gets nothing more
            Feed& feed = feeds[input.ConsumeIntegralInRange<size_t>(0, feeds.size() - 1)];
            feed.transfer.finish(CMError());
            bool told = false;
            feed.transfer.onFinished([&told](const CMError&) { told = true; });
            FUZZ_CHECK(told && feed.transfer.isFinished());
            feed.finished = true;
            break;
        }
        case 5:
            provider->setMuteState(input.ConsumeBool());
            mutedEver |= provider->isMuted();
            break;
        case 6:
            device.failNextRead = true;
            break;
        default:
            end(true);
            create();
        }
        const quil::CaptureStatus now = provider->captureStatus();
        const char* reason = now.state == State::Restarting ? "Scripted read failure" : now.state == State::Running || now.errorString.isEmpty() ? "" : "Scripted open failure";
        // The unbroken part of the ring: what was read since the last open (a muted block may be longer).
        FUZZ_CHECK(mutedEver || provider->framesSinceResume() == device.deliveredFrames - device.framesAtOpen);
        FUZZ_CHECK(now.restartCount == device.failures && now.errorString == reason && now.errorCode == (*reason ? now.state == State::Stopped ? -ENODEV : -EIO : 0));
        for (Feed& feed : feeds) {
            const QByteArray bytes = feed.kept.readAll(); // the live feed's, all captured while muted or not
            FUZZ_CHECK(feed.continuedBy(bytes, mutedEver, firstFrame) && (!feed.finished || bytes.isEmpty()));
            FUZZ_CHECK(&feed != &feeds[0] || !provider->isMuted() || bytes.count('\0') == bytes.size());
        }
    }
    end(true);
    return 0;
}
