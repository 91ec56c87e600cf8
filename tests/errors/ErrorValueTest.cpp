// Every kind of failure hands its reason to the caller: errorString() is the
// ERROR line the library logged for it, errorCode() the ALSA or system code,
// and the next success clears both.

#include "AlsaCard.h"
#include "AlsaFaults.h"
#include "AlsaInputDevice.h"
#include "AlsaOutputDevice.h"
#include "FileInputDevice.h"
#include "FileOutputDevice.h"
#include "LogCapture.h"
#include "TestEnvironment.h"

#include <QDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <tuple>

using namespace quiltest;
namespace faults = quiltest::faults;

namespace {

// What a caller sees after one operation: its result, errorString(), errorCode().
using Outcome = std::tuple<bool, QString, int>;

template <class T>
Outcome outcome(bool ok, const T& object)
{
    return {ok, object.errorString(), object.errorCode()};
}

} // namespace

TEST(ErrorValueTest, EachFailureGivesItsLoggedTextAndCodeAndASuccessClearsThem)
{
    AlsaInputDevice capture(QStringLiteral("null"), 48000, 2, SND_PCM_FORMAT_S16_LE, 10, 100);
    AlsaOutputDevice playback(QStringLiteral("null"), 48000, 2, SND_PCM_FORMAT_S16_LE, 10, 100);
    FileInputDevice fileInput(48000, 2, SND_PCM_FORMAT_S16_LE);
    const QString missing = dataDirectory() + "/no-such.raw";
    const QString outputDir = dataDirectory() + "/errors-out";
    QByteArray block;
    // The fault to inject (none: the failing call's own argument fails), the
    // call (failing, then succeeding), and what the caller must then see.
    const struct
    {
        const char* fault;
        long result;
        std::function<Outcome(bool failing)> call;
        QString text;
        int code;
    } cases[] = {
        {"snd_pcm_hw_params_set_rate", -EINVAL, [&](bool) { capture.close(); return outcome(capture.open(), capture); },
         "Cannot set sample rate: " + alsaText(-EINVAL), -EINVAL},
        {"snd_pcm_prepare", -EBADFD, [&](bool failing) {
             capture.open();
             if (failing)
                 faults::arm("snd_pcm_readi", -EIO);
             return outcome(capture.read(&block, 64), capture);
         }, "AlsaInputDevice: Cannot prepare audio interface for use: " + alsaText(-EBADFD), -EBADFD},
        {"snd_pcm_hw_params", -EBUSY, [&](bool) { playback.close(AudioOutputDevice::Immediate); return outcome(playback.open(), playback); },
         "Cannot set device parameters: " + alsaText(-EBUSY), -EBUSY},
        {"snd_pcm_writei", -EIO, [&](bool) {
             playback.open();
             return outcome(playback.write(QByteArray(256, '\0')) == AudioOutputDevice::Written, playback);
         }, "AlsaOutputDevice: error while writing: (" + alsaText(-EIO) + ") (-5)", -EIO},
        {nullptr, 0, [&](bool failing) {
             return outcome(fileInput.playFile(failing ? missing : writeDataFile("errors.raw", "1234")), fileInput);
         }, "Cannot open file: " + missing, -ENOENT},
        {nullptr, 0, [&](bool failing) {   // this device logs nothing, but still says why
             QDir(outputDir).removeRecursively();
             QDir().mkpath(failing ? dataDirectory() : outputDir);
             FileOutputDevice device(outputDir + "/out.raw", 48000, 2, SND_PCM_FORMAT_S16_LE);
             return outcome(device.open(), device);
         }, "Cannot open file: " + outputDir + "/out.raw (No such file or directory)", -ENOENT},
        {"snd_mixer_load", -EIO, [](bool) { AlsaCard card("testmix", false); return outcome(card.open(), card); },
         "Mixer testmix load error: " + alsaText(-EIO), -EIO},
        {nullptr, 0, [](bool failing) {
             AlsaCard card("testmix", true);
             return outcome(!card.loadMixerElement(failing ? "No Such" : "Master").isNull(), card);
         }, "Element 'No Such' ('') not found", 0},
        {"snd_mixer_selem_set_playback_volume_all", -EIO, [](bool) {
             AlsaCard card("testmix", true);
             const AlsaMixerElementPtr element = card.loadMixerElement("Master");
             return outcome(element->setVolume(50, Playback), *element);
         }, "Set volume on: Master to: 50 failed: " + alsaText(-EIO), -EIO},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.toStdString());
        faults::reset();
        LogCapture log;
        if (c.fault)
            faults::arm(c.fault, c.result);
        EXPECT_EQ(c.call(true), Outcome(false, c.text, c.code));
        const QStringList errors = log.messages(log4cplus::ERROR_LOG_LEVEL);
        if (!c.text.contains("errors-out"))   // the file output device logs nothing
            EXPECT_EQ(errors.value(errors.size() - 1), c.text);
        EXPECT_EQ(c.call(false), Outcome(true, QString(), 0));
    }
    faults::reset();
}
