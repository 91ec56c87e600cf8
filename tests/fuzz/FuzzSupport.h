#pragma once

// What every fuzz target shares: its work directory for files (set up with the
// rest of the process by FuzzSupport.cpp), and the check that reports a broken
// invariant as a crash, with the input that broke it.

#include <QString>

#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/common_interface_defs.h>

#include <cstdlib>

namespace quilfuzz {

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
