#include "QuilPlatform.h"

#include <QByteArray>

#include <pthread.h>

void quilSetThreadName(const QString& name)
{
    // The kernel keeps 15 bytes and a terminator; longer names are refused, not cut.
    QByteArray bytes = name.toUtf8().left(15);
    pthread_setname_np(pthread_self(), bytes.constData());
}

std::string dbglog_scopedFunction(const std::string& function, const std::string& /*loggerName*/) { return function; }

std::ostream& operator<<(std::ostream& stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    return stream.write(bytes.constData(), bytes.size());
}
