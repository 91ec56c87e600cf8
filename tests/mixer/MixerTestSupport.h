#pragma once

// Helpers shared by the mixer suites: running the event loop that delivers
// mixer events, and measuring whether the process stays idle meanwhile.

#include "AlsaFaults.h"
#include "AlsaMixerElement.h"
#include "LogCapture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <time.h>

namespace quiltest {

/// Runs the event loop for ms milliseconds.
inline void runEventLoop(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

/// Runs the event loop until done() holds or timeoutMs passed; done()'s last value.
inline bool runEventLoopUntil(const std::function<bool()>& done, int timeoutMs = 3000)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < timeoutMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    return done();
}

/// CPU seconds this process used while running the event loop for ms milliseconds.
inline double cpuSecondsOverEventLoop(int ms)
{
    timespec before{}, after{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    runEventLoop(ms);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    return double(after.tv_sec - before.tv_sec) + double(after.tv_nsec - before.tv_nsec) / 1e9;
}

/// Every operation of an element whose mixer or ALSA element is gone fails
/// with its failure value, leaves its outputs alone and never calls ALSA's
/// mixer; the eleven that log say why.
inline void expectRetired(AlsaMixerElement& element, const LogCapture& log)
{
    const int mixerCalls = faults::callsStartingWith("snd_mixer_");
    const int errors = log.messages(log4cplus::ERROR_LOG_LEVEL).size();
    double dB = 1;
    long volume = 2, min = 3, max = 4;
    bool on = true;
    unsigned int item = 5;
    QString itemName = QStringLiteral("kept");
    EXPECT_FALSE(element.setDB(-1, Playback));
    EXPECT_FALSE(element.getDB(&dB, Capture));
    EXPECT_FALSE(element.hasDB(Playback));
    EXPECT_FALSE(element.setVolume(1, Playback));
    EXPECT_FALSE(element.getVolume(&volume, Playback));
    EXPECT_FALSE(element.getVolumeRange(&min, &max, Playback));
    EXPECT_FALSE(element.hasSwitch(Playback));
    EXPECT_FALSE(element.setSwitch(false, Playback));
    EXPECT_FALSE(element.getSwitch(&on, Playback));
    EXPECT_FALSE(element.isEnumerated());
    EXPECT_FALSE(element.setEnum(0));
    EXPECT_FALSE(element.getEnum(&item));
    EXPECT_EQ(element.getEnumSize(), 0u);
    EXPECT_FALSE(element.getEnumItemName(0, &itemName));
    EXPECT_TRUE(dB == 1 && volume == 2 && min == 3 && max == 4 && on && item == 5 && itemName == "kept");
    EXPECT_EQ(faults::callsStartingWith("snd_mixer_"), mixerCalls);
    const QString why = "Mixer element " + element.name() + " is no longer available";
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, why), 11);
    EXPECT_EQ(log.messages(log4cplus::ERROR_LOG_LEVEL).size(), errors + 11);
}

} // namespace quiltest
