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

// What follows snd_strerror(result) in the text of an ALSA failure.
enum class AlsaTextEnd {
    Nothing,
    Paren, // ")", closing the parenthesis the message opened
    ParenAndCode, // ") (" + result + ")": run-time PCM errors, whose text alone can be ambiguous
};

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

// Logs (and records) message + snd_strerror(result) + the text `end` names
// when result is negative.
inline bool alsaFailed(const char* file, int line, const char* function, const log4cplus::Logger& log,
                       const void* owner, long result, const char* message, AlsaTextEnd end = AlsaTextEnd::Nothing)
{
    if (result >= 0)
        return false;
    if (owner || log.isEnabledFor(log4cplus::ERROR_LOG_LEVEL)) {
        std::ostringstream text;
        text << message << snd_strerror(static_cast<int>(result));
        if (end != AlsaTextEnd::Nothing)
            text << ")";
        if (end == AlsaTextEnd::ParenAndCode)
            text << " (" << result << ")";
        reportError(log, owner, result, text.str(), file, line, function);
    }
    return true;
}

} // namespace detail
} // namespace quil

// The two ways to report a failure, both attributed to the caller's file, line
// and function, both recording the text with its code as the error value of
// `owner` (nullptr: logged only).

// True when the ALSA result is negative; the failure is then reported as
// message + snd_strerror(result), followed by what the optional AlsaTextEnd names.
// As a statement it reports a run-time error code already known to be negative.
#define QUIL_ALSA_FAILED(owner, result, ...)                                                                           \
    quil::detail::alsaFailed(__FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION(), logger, (owner), (result), __VA_ARGS__)

// Reports the streamed text with code (0 when the failure has none).
#define QUIL_ERROR(owner, code, streamed)                                                                              \
    do {                                                                                                               \
        std::ostringstream quilErrorText_;                                                                             \
        quilErrorText_ << streamed; /* NOLINT(bugprone-macro-parentheses): a stream chain */                           \
        quil::detail::reportError(logger, (owner), (code), quilErrorText_.str(), __FILE__, __LINE__,                   \
                                  LOG4CPLUS_MACRO_FUNCTION());                                                         \
    } while (false)
