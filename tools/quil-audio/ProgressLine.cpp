#include "ProgressLine.h"

#include <cstdio>

namespace quilaudio {

void ProgressLine::show(const QString& text)
{
    if (!m_enabled)
        return;
    std::fprintf(stderr, "\r%s\033[K", text.toLocal8Bit().constData());
    std::fflush(stderr);
    m_drawn = true;
}

void ProgressLine::finish()
{
    if (m_drawn)
        std::fputs("\n", stderr);
    m_drawn = false;
}

QString secondsText(qint64 frames, unsigned int rate)
{
    return QStringLiteral("%1 s").arg(rate ? double(frames) / rate : 0.0, 0, 'f', 3);
}

} // namespace quilaudio
