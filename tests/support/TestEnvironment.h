#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QString>

#include <alsa/asoundlib.h>

namespace quiltest {

/// Directory of this test run's generated data (under the build tree).
inline QString dataDirectory()
{
    QDir().mkpath(QStringLiteral(QUIL_TEST_DATA_DIR));
    return QStringLiteral(QUIL_TEST_DATA_DIR);
}

/// Writes `bytes` to `name` under dataDirectory() atomically and returns the path.
inline QString writeDataFile(const QString& name, const QByteArray& bytes)
{
    const QString path = dataDirectory() + QLatin1Char('/') + name;
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit() ? path : QString();
}

/// The whole content of a file, or "<unreadable>" when it cannot be read.
inline QByteArray fileContent(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

/// Pseudo-random bytes (the seed picks the sequence), so that a lost,
/// duplicated or shifted block shows in a comparison.
inline QByteArray patternBytes(int size, int seed = 0)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 state = 0x9e3779b9u ^ static_cast<quint32>(seed);
    for (int i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes[i] = static_cast<char>(state >> 24);
    }
    return bytes;
}

/// snd_strerror(code) as a QString, for building expected log lines.
inline QString alsaText(int code) { return QString::fromUtf8(snd_strerror(code)); }

/// ms × QUIL_TEST_TIME_SCALE (set where the tests run under an emulator, which
/// is several times slower): for waiting limits and the slack above a paced
/// duration, never for the paced duration itself.
inline int scaledMs(int ms)
{
    static const int scale = qMax(1, qEnvironmentVariableIntValue("QUIL_TEST_TIME_SCALE"));
    return ms * scale;
}

} // namespace quiltest
