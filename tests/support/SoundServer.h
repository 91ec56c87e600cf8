#pragma once

#include <QProcess>
#include <QStringList>

namespace quiltest {

// The private sound server (PulseAudio or PipeWire) that a "sound_server_*"
// ctest fixture starts (scripts/lib/soundserver.sh); its tests reach it
// through PULSE_SERVER, and through ALSA's PCM and ctl soundDevice().
// runSoundServer("stop"), ("kill": a crash, the socket left behind) and
// ("start") let a test take it away and bring it back.
inline bool runProgram(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

inline bool runSoundServer(const char* verb)
{
    return runProgram(qEnvironmentVariable("QUIL_SOUND_SERVER_SCRIPT"),
                      {"--server", qEnvironmentVariable("QUIL_SOUND_SERVER"), QString::fromLatin1(verb),
                       qEnvironmentVariable("QUIL_SOUND_SERVER_DIR")});
}

// "pulse" (either server) or "pipewire" (PipeWire's own plugins).
inline QString soundDevice()
{
    return qEnvironmentVariable("QUIL_TEST_SOUND_DEVICE", QStringLiteral("pulse"));
}

inline bool hasSoundServer()
{
    return qEnvironmentVariableIsSet("QUIL_SOUND_SERVER_DIR") && runProgram(QStringLiteral("pactl"), {"info"});
}

} // namespace quiltest
