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

#include <algorithm>
#include <functional>
#include <iterator>
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
inline void expectRetired(AlsaMixerElement& e, const LogCapture& log)
{
    const int mixerCalls = faults::callsStartingWith("snd_mixer_");
    const QStringList errorsBefore = log.messages(log4cplus::ERROR_LOG_LEVEL);
    double dB = 1;
    long volume = 2, min = 3, max = 4;
    bool on = true;
    unsigned int item = 5;
    QString itemName = QStringLiteral("kept");
    const bool anySucceeded[] = {
        e.setDB(-1, Playback), e.getDB(&dB, Capture), e.hasDB(Playback), e.setVolume(1, Playback),
        e.getVolume(&volume, Playback), e.getVolumeRange(&min, &max, Playback), e.hasSwitch(Playback),
        e.setSwitch(false, Playback), e.getSwitch(&on, Playback), e.isEnumerated(), e.setEnum(0),
        e.getEnum(&item), e.getEnumSize() != 0, e.getEnumItemName(0, &itemName)};
    EXPECT_EQ(std::count(std::begin(anySucceeded), std::end(anySucceeded), true), 0);
    EXPECT_TRUE(dB == 1 && volume == 2 && min == 3 && max == 4 && on && item == 5 && itemName == "kept");
    EXPECT_EQ(faults::callsStartingWith("snd_mixer_"), mixerCalls);
    const QString why = "Mixer element " + e.name() + " is no longer available";
    EXPECT_EQ(log.messages(log4cplus::ERROR_LOG_LEVEL), errorsBefore + QVector<QString>(11, why).toList());
}

} // namespace quiltest
