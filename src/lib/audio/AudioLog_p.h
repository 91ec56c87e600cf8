#pragma once

// Internal logging conventions shared by every source file of the library.

#include "ErrorRegistry_p.h"
#include "QuilPlatform.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <alsa/asoundlib.h>

#include <sstream>

#define QUIL_AUDIO_LOGGER_NAME "AudioLib"

// Each source file keeps its own logger, looked up once when the library loads.
#define QUIL_AUDIO_DEFINE_LOGGER()                                                                                     \
    static const log4cplus::Logger logger = log4cplus::Logger::getInstance(QUIL_AUDIO_LOGGER_NAME)

// "Enter <signature>: " followed by the streamed arguments, if any.
#define QUIL_TRACE_ENTRY(...)                                                                                          \
    LOG4CPLUS_TRACE(logger, "Enter " << dbglog_scopedFunction(LOG4CPLUS_MACRO_FUNCTION(), QUIL_AUDIO_LOGGER_NAME)      \
                                     << ": " __VA_ARGS__)

namespace quil {
namespace detail {

// Logs text at ERROR, attributed to the caller's file, line and function, and
// records it with code as the error value of owner when one is given: the
// caller then learns the same reason that the log carries.
inline void reportError(const log4cplus::Logger& log, const void* owner, long code, const std::string& text,
                        const char* file, int line, const char* function)
{
    if (log.isEnabledFor(log4cplus::ERROR_LOG_LEVEL))
        log.forcedLog(log4cplus::ERROR_LOG_LEVEL, text, file, line, function);
    if (owner)
        ErrorRegistry::record(owner, QString::fromStdString(text), static_cast<int>(code));
}

// Logs (and records) message + snd_strerror(result) + suffix when result is negative.
inline bool alsaFailed(const log4cplus::Logger& log, long result, const char* message, const char* suffix,
                       const char* file, int line, const char* function, const void* error = nullptr)
{
    if (result >= 0)
        return false;
    if (error || log.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
        std::ostringstream text;
        text << message << snd_strerror(static_cast<int>(result)) << suffix;
        reportError(log, error, result, text.str(), file, line, function);
    }
    return true;
}

// Logs (and records) message + snd_strerror(code) + ") (" + code + ")": run-time
// PCM errors carry the number too, as the text alone can be ambiguous.
inline void logRuntimeError(const log4cplus::Logger& log, long code, const char* message, const char* file, int line,
                            const char* function, const void* error = nullptr)
{
    if (error || log.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
        std::ostringstream text;
        text << message << snd_strerror(static_cast<int>(code)) << ") (" << code << ")";
        reportError(log, error, code, text.str(), file, line, function);
    }
}

} // namespace detail
} // namespace quil

// True when an ALSA call failed; the failure is then logged as
// message + snd_strerror(result).
#define QUIL_ALSA_FAILED(result, message)                                                                              \
    quil::detail::alsaFailed(logger, (result), message, "", __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION())

// The same for messages that open a parenthesis: message + snd_strerror(result) + ")".
#define QUIL_ALSA_FAILED_PAREN(result, message)                                                                        \
    quil::detail::alsaFailed(logger, (result), message, ")", __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION())

// Logs a run-time PCM error: message + snd_strerror(code) + ") (" + code + ")".
#define QUIL_LOG_ALSA_RUNTIME_ERROR(code, message)                                                                     \
    quil::detail::logRuntimeError(logger, (code), message, __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION())

// The same three, also recording the failure as the error value of the object `error`.
#define QUIL_ALSA_FAILED_TO(error, result, message)                                                                    \
    quil::detail::alsaFailed(logger, (result), message, "", __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION(), (error))
#define QUIL_ALSA_FAILED_PAREN_TO(error, result, message)                                                              \
    quil::detail::alsaFailed(logger, (result), message, ")", __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION(), (error))
#define QUIL_LOG_ALSA_RUNTIME_ERROR_TO(error, code, message)                                                           \
    quil::detail::logRuntimeError(logger, (code), message, __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION(), (error))

// LOG4CPLUS_ERROR(logger, streamed) that also records the text, with code
// (0 when the failure has none), as the error value of the object `error`.
#define QUIL_ERROR_TO(error, code, streamed)                                                                           \
    do {                                                                                                               \
        std::ostringstream quilErrorText_;                                                                             \
        quilErrorText_ << streamed; /* NOLINT(bugprone-macro-parentheses): a stream chain */                           \
        quil::detail::reportError(logger, (error), (code), quilErrorText_.str(), __FILE__, __LINE__,                   \
                                  LOG4CPLUS_MACRO_FUNCTION());                                                         \
    } while (false)
