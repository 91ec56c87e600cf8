#pragma once

// What every fuzz target sets up once per process (LLVMFuzzerInitialize): the
// tests' ALSA configuration, ALSA's and the library's log quiet (a fuzzer
// calls failing paths millions of times), one QCoreApplication for the event
// loops and queued signals, and a private work directory for files. And the
// check that reports a broken invariant as a crash, with the input that broke it.

#include <QCoreApplication>
#include <QDir>

#include <alsa/asoundlib.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <sanitizer/common_interface_defs.h>

#include <cstdlib>

namespace quilfuzz {

inline void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

inline void initialize(int* argc, char*** argv)
{
    qputenv("ALSA_CONFIG_PATH", QUIL_TEST_ALSA_CONFIG_PATH);
    QDir().mkpath(QStringLiteral(QUIL_FUZZ_WORK_DIR));
    qputenv("XDG_RUNTIME_DIR", QUIL_FUZZ_WORK_DIR);
    snd_lib_error_set_handler(silentAlsaErrorHandler);
    static log4cplus::Initializer logInitializer;
    log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("AudioLib")).setLogLevel(log4cplus::OFF_LOG_LEVEL);
    static QCoreApplication app(*argc, *argv);
}

/// A file in the work directory, for the targets that hand the library a path.
inline QString workFile(const char* name) { return QStringLiteral(QUIL_FUZZ_WORK_DIR "/") + QLatin1String(name); }

} // namespace quilfuzz

#define QUIL_FUZZ_STRING(x) #x
#define QUIL_FUZZ_LINE(x) QUIL_FUZZ_STRING(x)
/// A broken invariant: abort, so that libFuzzer keeps the input as a crash.
/// The text goes through the sanitizer's report, which -close_fd_mask keeps.
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            __sanitizer_report_error_summary("FUZZ_CHECK failed: " #condition " at " __FILE__                         \
                                             ":" QUIL_FUZZ_LINE(__LINE__));                                            \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)
