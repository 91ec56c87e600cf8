#pragma once

// Internal logging conventions shared by every source file of the library.

#include "QuilPlatform.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <alsa/asoundlib.h>

#include <sstream>

#define QUIL_AUDIO_LOGGER_NAME "AudioLib"

// Each source file keeps its own logger, looked up once when the library loads.
#define QUIL_AUDIO_DEFINE_LOGGER() \
    static const log4cplus::Logger logger = log4cplus::Logger::getInstance(QUIL_AUDIO_LOGGER_NAME)

// "Enter <signature>: " followed by the streamed arguments, if any.
#define QUIL_TRACE_ENTRY(...) \
    LOG4CPLUS_TRACE(logger, "Enter " << dbglog_scopedFunction(LOG4CPLUS_MACRO_FUNCTION(), \
                                                              QUIL_AUDIO_LOGGER_NAME) \
                                     << ": " __VA_ARGS__)

namespace quil {
namespace detail {

// Logs message + snd_strerror(result) + suffix at ERROR when result is negative,
// attributing the record to the caller's file, line and function.
inline bool alsaFailed(const log4cplus::Logger& log, long result, const char* message,
                       const char* suffix, const char* file, int line, const char* function)
{
    if (result >= 0)
        return false;
    if (log.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
        std::ostringstream text;
        text << message << snd_strerror(static_cast<int>(result)) << suffix;
        log.forcedLog(log4cplus::ERROR_LOG_LEVEL, text.str(), file, line, function);
    }
    return true;
}

// Logs message + snd_strerror(code) + ") (" + code + ")" at ERROR: run-time
// PCM errors carry the number too, as the text alone can be ambiguous.
inline void logRuntimeError(const log4cplus::Logger& log, long code, const char* message,
                            const char* file, int line, const char* function)
{
    if (log.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
        std::ostringstream text;
        text << message << snd_strerror(static_cast<int>(code)) << ") (" << code << ")";
        log.forcedLog(log4cplus::ERROR_LOG_LEVEL, text.str(), file, line, function);
    }
}

} // namespace detail
} // namespace quil

// True when an ALSA call failed; the failure is then logged as
// message + snd_strerror(result).
#define QUIL_ALSA_FAILED(result, message) \
    quil::detail::alsaFailed(logger, (result), message, "", __FILE__, __LINE__, \
                             LOG4CPLUS_MACRO_FUNCTION())

// The same for messages that open a parenthesis: message + snd_strerror(result) + ")".
#define QUIL_ALSA_FAILED_PAREN(result, message) \
    quil::detail::alsaFailed(logger, (result), message, ")", __FILE__, __LINE__, \
                             LOG4CPLUS_MACRO_FUNCTION())

// Logs a run-time PCM error: message + snd_strerror(code) + ") (" + code + ")".
#define QUIL_LOG_ALSA_RUNTIME_ERROR(code, message) \
    quil::detail::logRuntimeError(logger, (code), message, __FILE__, __LINE__, \
                                  LOG4CPLUS_MACRO_FUNCTION())
