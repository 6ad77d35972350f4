#include "ChildCase.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

ChildOutcome runCaseInChild(const QString& outputFolder, const char* variable, const QString& peer,
                            ChildBus bus)
{
    ChildOutcome outcome;
    const QString tag = QString::fromUtf8(QTest::currentDataTag());
    const QString caseName =
        QString::fromLatin1(QTest::currentTestFunction()) + (tag.isEmpty() ? QString() : u':' + tag);
    const QString folder =
        outputFolder + u'/' +
        QString(caseName).replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9_-]")), QStringLiteral("_"));
    QDir(folder).removeRecursively();
    const QTemporaryDir runtime; // it holds sockets, whose paths must stay short
    if (!QDir().mkpath(folder + QStringLiteral("/HOME")) || !runtime.isValid()) {
        outcome.report = QStringLiteral("no folders for ") + caseName;
        return outcome;
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
        environment.insert(QLatin1String(name), folder + u'/' + QLatin1String(name));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    environment.insert(QString::fromLatin1(variable), peer);
    // No display: nothing may fall back to an X11 bus or a graphical unlock prompt.
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
        environment.remove(QLatin1String(name));
    if (bus == ChildBus::Nowhere)
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                           QStringLiteral("unix:path=") + runtime.path() + "/no-bus");

    const QString self = QCoreApplication::applicationFilePath();
    QString program = self;
    QStringList arguments{caseName};
    if (bus == ChildBus::Keyring || bus == ChildBus::Empty) {
        for (const char* tool : {"dbus-run-session", "gnome-keyring-daemon"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty()) {
                outcome.report =
                    QStringLiteral("%1 is missing: tools/deps.sh test installs it").arg(QLatin1String(tool));
                return outcome;
            }
        program = QStringLiteral("dbus-run-session");
        arguments = {QStringLiteral("--"), self, caseName};
        if (bus == ChildBus::Keyring)
            arguments = {
                QStringLiteral("--"),
                QStringLiteral("sh"),
                QStringLiteral("-c"),
                QStringLiteral("printf %s test-password | gnome-keyring-daemon --unlock --components=secrets "
                               ">/dev/null || { echo 'gnome-keyring-daemon did not start' >&2; exit 97; }; "
                               "exec \"$0\" \"$1\""),
                self,
                caseName};
    }
    QProcess process; // a child that hangs is killed with it
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    if (!process.waitForStarted(10000) || !process.waitForFinished(60000)) {
        outcome.report = caseName + QStringLiteral(" did not start or did not finish within 60 s");
        return outcome;
    }
    outcome.errors = QString::fromUtf8(process.readAllStandardError());
    outcome.report =
        QStringLiteral("%1 under \"%2\" gave:\n%3\n%4")
            .arg(caseName, peer, QString::fromUtf8(process.readAllStandardOutput()), outcome.errors);
    outcome.passed = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return outcome;
}
