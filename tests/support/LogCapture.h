#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include "QtPrinters.h"

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <mutex>

namespace quiltest {

struct LogRecord
{
    log4cplus::LogLevel level;
    QString message;
    QString file;
    int line;
    QString function;
};

// Captures every record of the "AudioLib" logger (TRACE and up) while it exists.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QList<LogRecord> records() const;
    /// Messages of exactly this level, in order.
    QStringList messages(log4cplus::LogLevel level) const;
    /// How many records of this level carry exactly this message.
    int count(log4cplus::LogLevel level, const QString& message) const;
    /// Messages of this level that start with the prefix.
    QStringList startingWith(log4cplus::LogLevel level, const QString& prefix) const;
    void clear();

private:
    class Appender;
    log4cplus::SharedAppenderPtr m_appender;
    log4cplus::LogLevel m_previousLevel;
};

} // namespace quiltest
