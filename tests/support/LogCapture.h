#pragma once

// Captures the ERROR messages of the "AudioLib" logger while it exists (the
// logger runs at TRACE meanwhile, so every log statement is exercised).

#include <QString>
#include <QStringList>

#include <log4cplus/callbackappender.h>
#include <log4cplus/logger.h>

#include <mutex>
#include <ostream>

inline void PrintTo(const QString& text, std::ostream* os) { *os << '"' << text.toStdString() << '"'; }

namespace quiltest {

class LogCapture
{
public:
    LogCapture() : m_appender(new log4cplus::CallbackAppender(&LogCapture::append, this))
    {
        logger().addAppender(m_appender);
        logger().setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    }
    ~LogCapture() { logger().removeAppender(m_appender); }
    QStringList errors() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_errors;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_errors.clear();
    }

private:
    static void append(void* self, const char* message, const char*, log4cplus_loglevel_t level, const char*,
                       const char*, unsigned long long, unsigned long, const char*, const char*, int)
    {
        auto* capture = static_cast<LogCapture*>(self);
        std::lock_guard<std::mutex> lock(capture->m_mutex);
        if (level == log4cplus::ERROR_LOG_LEVEL)
            capture->m_errors << QString::fromUtf8(message);
    }
    static log4cplus::Logger logger() { return log4cplus::Logger::getInstance("AudioLib"); }
    log4cplus::SharedAppenderPtr m_appender;
    mutable std::mutex m_mutex;
    QStringList m_errors;
};

} // namespace quiltest
