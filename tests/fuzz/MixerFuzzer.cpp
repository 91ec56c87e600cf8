// AlsaCard and AlsaMixerElement on the scripted test mixer: element names of
// any bytes, every control with out-of-range values and NaN or infinite gains
// on either side (any int as the mode), cards dropped under held elements, and
// mixers that close themselves (a poll error or a dead backend written into
// the FIFO) under held elements, which from then on must fail without ALSA.

#include "AlsaCard.h"
#include "FuzzSupport.h"

#include <QCoreApplication>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <vector>

namespace {

const QByteArray Fifo = quilfuzz::workFile("mixer.fifo").toUtf8();
const double Gains[] = {NAN, INFINITY, -INFINITY, 0, -10.555, -50, 1e300, -1e300};
const long Volumes[] = {LONG_MIN, -1, 0, 1, 31, 100, 101, LONG_MAX};
const int Modes[] = {Playback, Capture, -1, 2, INT_MIN, INT_MAX};

using Held = std::pair<AlsaMixerElementPtr, bool>; // and whether its mixer closed itself

// A live element after a change: values within their ranges, a gain and a switch
// read back as set, any mode but 0 read as capture, the enumeration listing its items.
void checkLive(AlsaMixerElement& e, AlsaElementMode mode, double gain, int which, bool ok)
{
    long min = 0, max = 0, value = 0, capture = 0;
    double dB = NAN, wanted = std::clamp(gain, -50.0, 0.0); // the test mixer's scale: 0.5 dB steps, set in hundredths
    bool on = which != 2;
    FUZZ_CHECK(!e.getVolumeRange(&min, &max, mode) || !e.getVolume(&value, mode) || (min <= value && value <= max));
    FUZZ_CHECK(mode == Playback || (e.getVolume(&capture, Capture) == e.getVolume(&value, mode) && capture == value));
    FUZZ_CHECK(!ok || which != 0 || std::isnan(gain) || !e.hasDB(mode)
               || (e.getDB(&dB, mode) && dB < wanted + 0.01 && dB > wanted - 0.51));
    FUZZ_CHECK(!ok || which != 2 || !e.hasSwitch(mode) || (e.getSwitch(&on, mode) && on == (gain != 0)));
    const size_t items = e.getEnumSize();
    FUZZ_CHECK(items == (e.name() == "Input Source" ? 4u : 0u) && e.isEnumerated() == (items > 0));
    QString item;
    unsigned int selected = 0;
    FUZZ_CHECK(!e.getEnumItemName(unsigned(items), &item) && e.getEnum(&selected) == (items > 0));
    FUZZ_CHECK(items == 0 || (selected < items && e.getEnumItemName(unsigned(items) - 1, &item) && !item.isEmpty()));
}

// Every operation of an element whose mixer closed fails, leaves its outputs
// and tells no ALSA error.
void checkRetired(AlsaMixerElement& e, AlsaElementMode mode)
{
    double dB = 7;
    long value = 7, min = 7;
    unsigned int item = 7;
    bool on = true;
    QString name = "kept";
    FUZZ_CHECK(!e.setDB(-3, mode) && !e.getDB(&dB, mode) && !e.hasDB(mode) && !e.setVolume(1, mode)
               && !e.getVolume(&value, mode) && !e.getVolumeRange(&min, &value, mode) && !e.hasSwitch(mode)
               && !e.setSwitch(false, mode) && !e.getSwitch(&on, mode) && !e.isEnumerated() && !e.setEnum(0)
               && !e.getEnum(&item) && e.getEnumSize() == 0 && !e.getEnumItemName(0, &name));
    FUZZ_CHECK(e.errorCode() == 0 && !e.errorString().isEmpty() && dB == 7 && value == 7 && min == 7 && on && item == 7
               && name == "kept");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const QString device = "testmix:FIFO=" + QString::fromUtf8(Fifo);
    FuzzedDataProvider in(data, size);
    std::unique_ptr<AlsaCard> card(new AlsaCard(device, true));
    std::vector<Held> held;
    for (int step = 0; step < 48 && in.remaining_bytes() > 0; ++step) {
        const int op = in.ConsumeIntegralInRange(0, 5);
        if (op == 0 && card) {
            // Names of any bytes; the dictionary (fuzz_mixer.dict) holds the test mixer's.
            const std::string raw = in.ConsumeRandomLengthString(24);
            const QString name = QString::fromUtf8(raw.data(), int(raw.size()));
            QString expected; // an exact match, else the first that contains the name; never an inactive one
            for (const QString& full : card->elementNames()) {
                FUZZ_CHECK(full != "Inactive");
                if (!name.isEmpty() && full.contains(name, Qt::CaseInsensitive)
                    && (expected.isEmpty() || full.compare(name, Qt::CaseInsensitive) == 0))
                    expected = full;
            }
            const AlsaMixerElementPtr element = card->loadMixerElement(name);
            FUZZ_CHECK(element ? element->name() == expected && card->loadMixerElement(name) == element
                               : expected.isEmpty() && card->errorCode() == 0 && !card->errorString().isEmpty());
            if (element)
                held.push_back({element, false});
        } else if (op == 1 && !held.empty()) {
            const Held& h = held[in.ConsumeIntegralInRange<size_t>(0, held.size() - 1)];
            const auto mode = AlsaElementMode(in.PickValueInArray(Modes));
            if (h.second) {
                checkRetired(*h.first, mode);
                continue;
            }
            AlsaMixerElement& e = *h.first;
            const int which = in.ConsumeIntegralInRange(0, 3);
            const double gain = in.ConsumeBool() ? in.PickValueInArray(Gains) : in.ConsumeFloatingPoint<double>();
            const bool ok = which == 0   ? e.setDB(gain, mode)
                            : which == 1 ? e.setVolume(in.ConsumeBool() ? in.PickValueInArray(Volumes) : in.ConsumeIntegral<long>(), mode)
                            : which == 2 ? e.setSwitch(gain != 0, mode)
                                         : e.setEnum(in.ConsumeIntegral<unsigned int>());
            FUZZ_CHECK(ok || (e.errorCode() != 0 && !e.errorString().isEmpty()));
            checkLive(e, mode, gain, which, ok);
        } else if (op == 2) {
            card.reset(); // its elements keep their mixer open
        } else if (op == 3 && !card) {
            // Only the newest card's mixer may read the FIFO: the live elements of the others go.
            held.erase(std::remove_if(held.begin(), held.end(), [](const Held& h) { return !h.second; }), held.end());
            card.reset(new AlsaCard(device, false));
        } else if (op == 3) {
            FUZZ_CHECK(card->open() && card->isOpen() && card->errorString().isEmpty() && card->errorCode() == 0);
        } else if (op == 4 && card && card->isOpen()) {
            const QByteArray line = in.ConsumeBool() ? "pollerr\n" : "dead\n";
            const int fd = ::open(Fifo.constData(), O_WRONLY | O_NONBLOCK);
            FUZZ_CHECK(fd >= 0 && ::write(fd, line.constData(), line.size()) == line.size());
            ::close(fd);
            for (int i = 0; i < 100 && card->isOpen(); ++i)
                QCoreApplication::processEvents();
            // The reason's code is ALSA's, or 0 where ALSA gave none (a poll error).
            FUZZ_CHECK(!card->isOpen() && !card->errorString().isEmpty() && card->elementNames().isEmpty()
                       && card->errorCode() <= 0);
            for (Held& h : held)
                h.second = true;
        } else if (op == 5 && !held.empty()) {
            held.pop_back();
        }
    }
    return 0;
}
