#include "LibraryLog.h"

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <alsa/asoundlib.h>

namespace quilaudio {

namespace {

void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

} // namespace

void routeLibraryLog(bool verbose)
{
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib"));
    logger.setAdditivity(false);
    logger.removeAllAppenders();
    if (verbose) {
        log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
        console->setLayout(std::unique_ptr<log4cplus::Layout>(
            new log4cplus::PatternLayout(LOG4CPLUS_TEXT("%D{%H:%M:%S.%q} %-5p %m%n"))));
        logger.addAppender(console);
        logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        snd_lib_error_set_handler(nullptr);
    } else {
        // Off rather than without appenders, which log4cplus would report.
        logger.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        snd_lib_error_set_handler(silentAlsaErrorHandler);
    }
}

} // namespace quilaudio
