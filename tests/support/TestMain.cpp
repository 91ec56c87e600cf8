// Entry point of every test executable: one QCoreApplication and one log4cplus
// initializer for the whole process, a private runtime directory so that
// libpulse leaves nothing behind, and ALSA's own stderr chatter silenced.

#include <QCoreApplication>
#include <QTemporaryDir>

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <log4cplus/initializer.h>

#include <cstdarg>
#include <cstdlib>

static void silentAlsaErrorHandler(const char*, int, const char*, int, const char*, ...) {}

int main(int argc, char** argv)
{
    QTemporaryDir runtimeDir;
    if (!qEnvironmentVariableIsSet("QUIL_TEST_KEEP_RUNTIME_DIR")) {
        QFile::setPermissions(runtimeDir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("XDG_RUNTIME_DIR", runtimeDir.path().toUtf8());
    }
    if (!qEnvironmentVariableIsSet("ALSA_CONFIG_PATH"))
        qputenv("ALSA_CONFIG_PATH", QUIL_TEST_ALSA_CONFIG_PATH);
    snd_lib_error_set_handler(silentAlsaErrorHandler);

    log4cplus::Initializer initializer;
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
