// Entry point of the benchmarks: one QCoreApplication (the capture worker is
// driven through this thread's event loop), the tests' ALSA configuration,
// and the library's logger set up as a product would run it: warnings and
// errors only, so that entry and progress lines cost a level check.

#include <QCoreApplication>

#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

static void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

int main(int argc, char** argv)
{
    if (!qEnvironmentVariableIsSet("ALSA_CONFIG_PATH"))
        qputenv("ALSA_CONFIG_PATH", QUIL_BENCH_ALSA_CONFIG_PATH);
    snd_lib_error_set_handler(silentAlsaErrorHandler);

    log4cplus::Initializer initializer;
    log4cplus::Logger logger = log4cplus::Logger::getInstance("AudioLib");
    logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QCoreApplication app(argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
