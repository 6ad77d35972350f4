#pragma once

#include <QDir>

// Settings, secrets and the log of a test stay in its own folder, also when run by hand, and never reach the
// user's keyring. Called before the application object exists.
inline bool useTestHome(const QByteArray& home)
{
    QDir().mkpath(QString::fromUtf8(home));
    qputenv("HOME", home);
    qputenv("XDG_CONFIG_HOME", home + "/config");
    qputenv("XDG_DATA_HOME", home + "/data");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home + "/no-bus");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    return true;
}
