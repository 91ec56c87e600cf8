#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <alsa/asoundlib.h>

namespace quiltest {

QString dataDirectory()
{
    const QString dir = QStringLiteral(QUIL_TEST_DATA_DIR);
    QDir().mkpath(dir);
    return dir;
}

QString writeDataFile(const QString& name, const QByteArray& bytes)
{
    const QString path = dataDirectory() + QLatin1Char('/') + name;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return QString();
    return path;
}

QByteArray fileContent(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

QByteArray patternBytes(int size, int seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    quint32 state = 0x9e3779b9u ^ static_cast<quint32>(seed);
    for (int i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes[i] = static_cast<char>(state >> 24);
    }
    return bytes;
}

QString alsaText(int code)
{
    return QString::fromUtf8(snd_strerror(code));
}

int scaledMs(int ms)
{
    static const int scale = qMax(1, qEnvironmentVariableIntValue("QUIL_TEST_TIME_SCALE"));
    return ms * scale;
}

} // namespace quiltest
