#pragma once

#include <QByteArray>
#include <QString>

namespace quiltest {

/// Directory of this test run's generated data (under the build tree).
QString dataDirectory();

/// Writes `bytes` to `name` under dataDirectory() atomically and returns the path.
QString writeDataFile(const QString& name, const QByteArray& bytes);

/// The whole content of a file, or "<unreadable>" when it cannot be read.
QByteArray fileContent(const QString& path);

/// Bytes whose every position differs from its neighbours, so that a lost,
/// duplicated or shifted block shows in a comparison.
QByteArray patternBytes(int size, int seed = 0);

/// snd_strerror(code) as a QString, for building expected log lines.
QString alsaText(int code);

/// ms × QUIL_TEST_TIME_SCALE (set where the tests run under an emulator, which
/// is several times slower): for waiting limits and the slack above a paced
/// duration, never for the paced duration itself.
int scaledMs(int ms);

} // namespace quiltest
