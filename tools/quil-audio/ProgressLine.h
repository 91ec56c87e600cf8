#pragma once

#include <QString>

#include <unistd.h>

namespace quilaudio {

/// How often a progress line is redrawn.
constexpr int ProgressIntervalMs = 100;

/// A status line redrawn in place on stderr, shown only when stderr is a terminal.
class ProgressLine {
public:
    bool isShown() const { return m_enabled; }
    void show(const QString& text);
    /// Ends the line so that following output starts on a new one.
    void finish();

private:
    bool m_enabled = ::isatty(STDERR_FILENO) == 1;
    bool m_drawn = false;
};

/// "3.250 s" style seconds for frames at rate.
QString secondsText(qint64 frames, unsigned int rate);

} // namespace quilaudio
