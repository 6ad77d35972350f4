#pragma once

#include <QCoreApplication>
#include <QSettings>
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
