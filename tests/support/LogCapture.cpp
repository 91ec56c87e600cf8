#include "LogCapture.h"

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace quiltest {

class LogCapture::Appender : public log4cplus::Appender
{
public:
    ~Appender() override { destructorImpl(); }
    void close() override {}

    QList<LogRecord> records() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        LogRecord record{event.getLogLevel(), QString::fromStdString(event.getMessage()),
                         QString::fromStdString(event.getFile()), event.getLine(),
                         QString::fromStdString(event.getFunction())};
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.append(record);
    }

private:
    mutable std::mutex m_mutex;
    QList<LogRecord> m_records;
};

static log4cplus::Logger audioLogger()
{
    return log4cplus::Logger::getInstance("AudioLib");
}

LogCapture::LogCapture()
    : m_appender(new Appender)
    , m_previousLevel(audioLogger().getLogLevel())
{
    audioLogger().addAppender(m_appender);
    audioLogger().setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

LogCapture::~LogCapture()
{
    audioLogger().removeAppender(m_appender);
    audioLogger().setLogLevel(m_previousLevel);
}

QList<LogRecord> LogCapture::records() const
{
    return static_cast<Appender*>(m_appender.get())->records();
}

QStringList LogCapture::messages(log4cplus::LogLevel level) const
{
    QStringList result;
    for (const LogRecord& record : records())
        if (record.level == level)
            result.append(record.message);
    return result;
}

int LogCapture::count(log4cplus::LogLevel level, const QString& message) const
{
    return messages(level).count(message);
}

QStringList LogCapture::startingWith(log4cplus::LogLevel level, const QString& prefix) const
{
    QStringList result;
    for (const QString& message : messages(level))
        if (message.startsWith(prefix))
            result.append(message);
    return result;
}

void LogCapture::clear()
{
    static_cast<Appender*>(m_appender.get())->clear();
}

} // namespace quiltest
