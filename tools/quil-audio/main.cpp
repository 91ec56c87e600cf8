// quil-audio: the library's own command-line client, for bringing audio up on
// a board before its host program exists. Each subcommand is one source file.

#include "CommandLine.h"
#include "Commands.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QMap>

#include <log4cplus/initializer.h>

#include <cstdio>

namespace {

const char* const Usage = "Captures, plays and controls audio through libquil_audio.\n"
                          "Commands (each has --help):\n"
                          "  record   capture from an ALSA PCM or a raw file into an audio file or stdout\n"
                          "  play     play an audio file, raw PCM on stdin or a tone to an ALSA PCM or a raw file\n"
                          "  mixer    list, get, set and watch mixer elements\n"
                          "  devices  list the PCMs and the sound cards with their mixer elements";

} // namespace

int main(int argc, char** argv)
{
    log4cplus::Initializer logInitializer;
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("quil-audio"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUIL_AUDIO_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(Usage));
    parser.addHelpOption();
    // -v means --verbose in every command, so the version has the long form only.
    const QCommandLineOption version(QStringLiteral("version"), QStringLiteral("Displays version information."));
    parser.addOption(version);
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("record, play, mixer or devices."));
    // Everything after the command belongs to the command's own parser.
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!parser.parse(QCoreApplication::arguments())) {
        std::fprintf(stderr, "quil-audio: %s\n", qPrintable(parser.errorText()));
        return quilaudio::ExitUsage;
    }
    if (parser.isSet(version)) {
        std::printf("quil-audio %s\n", QUIL_AUDIO_VERSION);
        return quilaudio::ExitOk;
    }
    const QStringList positional = parser.positionalArguments();
    const bool helpAsked = parser.isSet(QStringLiteral("help"));
    if (helpAsked || positional.isEmpty()) {
        quilaudio::printHelp(parser, QStringLiteral("quil-audio"), helpAsked ? stdout : stderr);
        return helpAsked ? quilaudio::ExitOk : quilaudio::ExitUsage;
    }

    const QString& command = positional.first();
    const QStringList arguments = QStringList{QStringLiteral("quil-audio ") + command} + positional.mid(1);
    const QMap<QString, int (*)(const QStringList&)> commands{
        {QStringLiteral("record"), quilaudio::runRecordCommand},
        {QStringLiteral("play"), quilaudio::runPlayCommand},
        {QStringLiteral("mixer"), quilaudio::runMixerCommand},
        {QStringLiteral("devices"), quilaudio::runDevicesCommand}};
    if (commands.contains(command))
        return commands[command](arguments);
    std::fprintf(stderr, "quil-audio: unknown command '%s' (record, play, mixer or devices)\n", qPrintable(command));
    return quilaudio::ExitUsage;
}
