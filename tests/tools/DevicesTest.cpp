// `quil-audio devices` against the test ALSA configuration, whose PCM hints
// and scripted mixer (11 elements, EXTRA=N adds N) are known.

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

namespace {

struct Case
{
    QStringList args;
    int status;
    QString stdoutLine;
    QString stderrText;
};

TEST(DevicesCommand, PrintsHintedPcmsAndMixerCountsOrOneLineErrors)
{
    const QList<Case> cases{
        {{"--mixer", "testmix:EXTRA=3"}, 0, "  only44k_plug  playback           Playback at 44100 Hz only", ""},
        {{"--mixer", "testmix:EXTRA=3"}, 0, "  testmix:EXTRA=3: 10 mixer elements", ""},
        {{"--json", "-m", "testmix"}, 0, "", ""},
        {{"--mixer", "nosuch"}, 1, "", "quil-audio devices: cannot open mixer 'nosuch'\n"},
        {{"stray"}, 2, "", "quil-audio devices: takes no arguments, not 'stray'\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        QProcess tool;
        tool.start(QStringLiteral(QUIL_AUDIO_TOOL), QStringList{"devices"} + c.args);
        ASSERT_TRUE(tool.waitForFinished(15000));
        EXPECT_EQ(tool.exitCode(), c.status);
        EXPECT_EQ(QString::fromLocal8Bit(tool.readAllStandardError()), c.stderrText);
        const QByteArray out = tool.readAllStandardOutput();
        EXPECT_TRUE(QString::fromLocal8Bit(out).split('\n').contains(c.stdoutLine) || c.stdoutLine.isEmpty()) << out.constData();
        if (!c.args.contains("--json"))
            continue;
        const QJsonObject all = QJsonDocument::fromJson(out).object();
        EXPECT_EQ(all["mixers"].toArray().at(0)["mixerElements"].toInt(), 7);
        QMap<QString, QByteArray> pcms;
        for (const QJsonValue& pcm : all["pcms"].toArray())
            pcms[pcm["name"].toString()] = QJsonDocument(pcm.toObject()).toJson(QJsonDocument::Compact);
        EXPECT_EQ(pcms["mono_only"].toStdString(),
                  R"({"capture":true,"description":"One channel only","name":"mono_only","playback":true})");
        EXPECT_EQ(pcms["only44k_plug"].toStdString(),
                  R"({"capture":false,"description":"Playback at 44100 Hz only","name":"only44k_plug","playback":true})");
    }
}

} // namespace
