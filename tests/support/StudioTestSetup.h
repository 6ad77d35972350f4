#pragma once

#include "StudioWindow.h"

#include <QApplication>
#include <QColor>
#include <QDir>
#include <QImage>
#include <QMessageBox>
#include <QSettings>
#include <QTimer>
#include <gst/gst.h>

// What a test of the studio does first: the studio's settings names and GStreamer; and, unless the test is
// about the first run itself, the first run marked done, or the wizard's modal dialog would wait for a hand.
inline void prepareStudioTest(bool firstRunDone = true)
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    if (firstRunDone)
        QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    gst_init(nullptr, nullptr);
}

// A case that starts from nothing an earlier one left: only the finished first run in the settings, no stored
// secrets, no log.
inline void clearStudioState()
{
    QSettings settings;
    settings.clear();
    settings.setValue(QStringLiteral("onboarding_complete"), true);
    QFile::remove(QFileInfo(StudioWindow::logPath()).path() + QStringLiteral("/secrets.json"));
    QFile::remove(StudioWindow::logPath());
}

// Answers the next message box with `answer`, noting its text in `seen` when given.
inline void answerNextBox(QMessageBox::StandardButton answer, QString* seen = nullptr)
{
    QTimer::singleShot(0, qApp, [answer, seen] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            if (seen)
                *seen = box->text();
            box->button(answer)->click();
        }
    });
}

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

// The colour at the middle of a monitor's picture; invalid while the monitor has no picture yet.
inline QColor centreOf(const QImage& image)
{
    return image.isNull() ? QColor() : image.pixelColor(image.width() / 2, image.height() / 2);
}
