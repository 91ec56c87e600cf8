// quil-audio: the library's own command-line client, for bringing audio up on
// a board before its host program exists. Each subcommand is one source file.

#include "CommandLine.h"
#include "Commands.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <log4cplus/initializer.h>

#include <cstdio>

namespace {

QString usage()
{
    QString text =
        QStringLiteral("Captures, plays and controls audio through libquil_audio.\nCommands (each has --help):");
    for (const quilaudio::Subcommand& command : quilaudio::Subcommands)
        text += QStringLiteral("\n  %1 %2").arg(QLatin1String(command.name), -8).arg(QLatin1String(command.summary));
    return text;
}

QString commandNames()
{
    QStringList names;
    for (const quilaudio::Subcommand& command : quilaudio::Subcommands)
        names << QLatin1String(command.name);
    return names.mid(0, names.size() - 1).join(QStringLiteral(", ")) + QStringLiteral(" or ") + names.last();
}

} // namespace

int main(int argc, char** argv)
{
    log4cplus::Initializer logInitializer;
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("quil-audio"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUIL_AUDIO_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(usage());
    parser.addHelpOption();
    // -v means --verbose in every command, so the version has the long form only.
    const QCommandLineOption version(QStringLiteral("version"), QStringLiteral("Displays version information."));
    parser.addOption(version);
    // The manual page's script reads the commands from here.
    const QCommandLineOption list(QStringLiteral("commands"), QStringLiteral("Lists the commands, one a line."));
    parser.addOption(list);
    parser.addPositionalArgument(QStringLiteral("command"), commandNames() + QLatin1Char('.'));
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
    if (parser.isSet(list)) {
        for (const quilaudio::Subcommand& command : quilaudio::Subcommands)
            std::printf("%s\n", command.name);
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
    for (const quilaudio::Subcommand& entry : quilaudio::Subcommands) {
        if (command == QLatin1String(entry.name))
            return entry.run(arguments);
    }
    std::fprintf(stderr, "quil-audio: unknown command '%s' (%s)\n", qPrintable(command), qPrintable(commandNames()));
    return quilaudio::ExitUsage;
}
