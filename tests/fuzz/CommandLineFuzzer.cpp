// Arbitrary argument vectors for each quil-audio command, read by the
// command's own parser and checks: every outcome is a usage error or a command
// that would run (--help included), never a crash, and the same words always
// get the same answer.

#include "FuzzSupport.h"

#include "CommandLine.h"
#include "Commands.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const quilaudio::Subcommand& command =
        quilaudio::Subcommands[input.ConsumeIntegralInRange<size_t>(0, quilaudio::Subcommands.size() - 1)];
    QStringList arguments{QStringLiteral("quil-audio ") + QLatin1String(command.name)};
    while (input.remaining_bytes() > 0 && arguments.size() < 32)
        arguments << QString::fromUtf8(input.ConsumeRandomLengthString(64).c_str());
    const int status = command.checkCommandLine(arguments);
    FUZZ_CHECK(status == quilaudio::ExitOk || status == quilaudio::ExitUsage);
    FUZZ_CHECK(command.checkCommandLine(arguments) == status);
    return 0;
}
