// Every fuzz target's process set-up, once before the first input: the tests'
// ALSA configuration, ALSA's and the library's log quiet (a fuzzer calls
// failing paths millions of times), one QCoreApplication for the event loops
// and queued signals, and a private work directory.

#include "FuzzSupport.h"

#include <QCoreApplication>
#include <QDir>

#include <alsa/asoundlib.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

static void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    qputenv("ALSA_CONFIG_PATH", QUIL_TEST_ALSA_CONFIG_PATH);
    QDir().mkpath(QStringLiteral(QUIL_FUZZ_WORK_DIR));
    qputenv("XDG_RUNTIME_DIR", QUIL_FUZZ_WORK_DIR);
    snd_lib_error_set_handler(silentAlsaErrorHandler);
    static log4cplus::Initializer logInitializer;
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::OFF_LOG_LEVEL);
    static QCoreApplication app(*argc, *argv);
    return 0;
}
