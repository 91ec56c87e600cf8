#pragma once

// Captures every message of the "AudioLib" logger (TRACE and up) while it
// exists; messages(level) gives those of one level, in order.

#include <QString>
#include <QStringList>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <mutex>
#include <ostream>

inline void PrintTo(const QString& text, std::ostream* os)
{
    *os << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QStringList& list, std::ostream* os)
{
    *os << '{' << list.join("\", \"").toStdString() << '}';
}

namespace quiltest {

class LogCapture
{
public:
    LogCapture() : m_appender(new Appender) { logger().addAppender(m_appender), logger().setLogLevel(log4cplus::TRACE_LOG_LEVEL); }
    ~LogCapture() { logger().removeAppender(m_appender); }
    QStringList messages(log4cplus::LogLevel level) const { return appender().messages(level); }
    void clear() { appender().clear(); }

private:
    class Appender : public log4cplus::Appender
    {
    public:
        ~Appender() override { destructorImpl(); }
        void close() override {}
        QStringList messages(log4cplus::LogLevel level)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            QStringList result;
            for (const auto& record : m_records)
                if (record.first == level)
                    result << record.second;
            return result;
        }
        void clear()
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_records.clear();
        }

    protected:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_records.append({event.getLogLevel(), QString::fromStdString(event.getMessage())});
        }

    private:
        std::mutex m_mutex;
        QList<QPair<log4cplus::LogLevel, QString>> m_records;
    };
    static log4cplus::Logger logger() { return log4cplus::Logger::getInstance("AudioLib"); }
    Appender& appender() const { return *static_cast<Appender*>(m_appender.get()); }
    log4cplus::SharedAppenderPtr m_appender;
};

} // namespace quiltest
