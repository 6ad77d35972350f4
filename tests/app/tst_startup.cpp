#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// Start-up is tested as a process, as the operator starts it: a fresh settings folder, a chosen
// locale and environment, and the exit code and output that come back.
class tst_Startup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void language_data();
    void language();
    void environment_data();
    void environment();
    void failingWindowGivesExitCodeOne_data();
    void failingWindowGivesExitCodeOne();
    void exitCodePassesThrough();
    void studioStaysUpAndLogsItsStart();

private:
    struct Run
    {
        int exitCode = -1;
        QMap<QString, QString> values;
    };
    Run runProbe(const QString& program, const QProcessEnvironment& environment);
    QProcessEnvironment freshEnvironment(const QString& home, const QString& locale) const;
};

QProcessEnvironment tst_Startup::freshEnvironment(const QString& home, const QString& locale) const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), home);
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/config"));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/data"));
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), home + QStringLiteral("/cache"));
    environment.insert(QStringLiteral("LC_ALL"), locale);
    environment.insert(QStringLiteral("LANG"), locale);
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("VELMORA_PROBE"), QStringLiteral("report"));
    return environment;
}

tst_Startup::Run tst_Startup::runProbe(const QString& program, const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, {});
    Run run;
    if (!process.waitForFinished(60000)) {
        process.kill();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    for (const QString& line : QString::fromLocal8Bit(process.readAllStandardOutput()).split(u'\n')) {
        const qsizetype equals = line.indexOf(u'=');
        if (equals > 0)
            run.values.insert(line.left(equals), line.mid(equals + 1));
    }
    return run;
}

static void writeStoredLanguage(const QString& home, const QString& value)
{
    if (value.isNull())
        return;
    QDir().mkpath(home + QStringLiteral("/config/Lorvane"));
    QFile file(home + QStringLiteral("/config/Lorvane/TavrinStudio.conf"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[General]\nlanguage=" + value.toUtf8() + "\n");
}

void tst_Startup::language_data()
{
    QTest::addColumn<QString>("stored");
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("expected");

    QTest::newRow("nothing stored, Spanish system") << QString() << "es_MX.UTF-8" << "es";
    QTest::newRow("nothing stored, English system") << QString() << "en_US.UTF-8" << "en";
    QTest::newRow("foreign value, Spanish system") << "fr" << "es_ES.UTF-8" << "es";
    QTest::newRow("foreign value, German system") << "fr" << "de_DE.UTF-8" << "en";
    QTest::newRow("upper case is not a choice") << "EN" << "es_ES.UTF-8" << "es";
    QTest::newRow("stored English wins") << "en" << "es_ES.UTF-8" << "en";
    QTest::newRow("stored Spanish wins") << "es" << "de_DE.UTF-8" << "es";
}

void tst_Startup::language()
{
    QFETCH(QString, stored);
    QFETCH(QString, locale);
    QFETCH(QString, expected);

    QTemporaryDir home;
    writeStoredLanguage(home.path(), stored);
    const Run run = runProbe(QStringLiteral(STARTUP_PROBE), freshEnvironment(home.path(), locale));
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.values.value(QStringLiteral("language")), expected);
}

void tst_Startup::environment_data()
{
    QTest::addColumn<bool>("pluginFolder");
    QTest::newRow("no GStreamer tree beside the executable") << false;
    QTest::newRow("GStreamer tree beside the executable") << true;
}

void tst_Startup::environment()
{
    QFETCH(bool, pluginFolder);

    QTemporaryDir home;
    QTemporaryDir install;
    const QString program = install.filePath(QStringLiteral("velmora-probe"));
    QVERIFY(QFile::copy(QStringLiteral(STARTUP_PROBE), program));
    if (pluginFolder)
        QVERIFY(QDir().mkpath(install.filePath(QStringLiteral("gstreamer/lib/gstreamer-1.0"))));

    QProcessEnvironment environment = freshEnvironment(home.path(), QStringLiteral("es_ES.UTF-8"));
    environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
    environment.insert(QStringLiteral("GST_PLUGIN_SYSTEM_PATH_1_0"), QStringLiteral("/usr/lib/x86_64-linux-gnu/gstreamer-1.0"));
    environment.insert(QStringLiteral("GST_PLUGIN_PATH_1_0"), QStringLiteral("/opt/other/plugins"));
    environment.remove(QStringLiteral("GIO_MODULE_DIR"));
    environment.remove(QStringLiteral("GST_PLUGIN_SCANNER"));
    const Run run = runProbe(program, environment);
    QCOMPARE(run.exitCode, 0);

    const QString base = install.path() + QStringLiteral("/gstreamer");
    QCOMPARE(run.values.value(QStringLiteral("PATH")), install.path() + QStringLiteral(":/usr/bin:/bin"));
    if (pluginFolder) {
        QCOMPARE(run.values.value(QStringLiteral("GST_PLUGIN_SYSTEM_PATH_1_0")), base + QStringLiteral("/lib/gstreamer-1.0"));
        QCOMPARE(run.values.value(QStringLiteral("GST_PLUGIN_PATH_1_0")), QString());
        QCOMPARE(run.values.value(QStringLiteral("GIO_MODULE_DIR")), base + QStringLiteral("/lib/gio/modules"));
        QCOMPARE(run.values.value(QStringLiteral("GST_PLUGIN_SCANNER")),
                 base + QStringLiteral("/libexec/gstreamer-1.0/gst-plugin-scanner"));
    } else {
        QCOMPARE(run.values.value(QStringLiteral("GST_PLUGIN_SYSTEM_PATH_1_0")),
                 QStringLiteral("/usr/lib/x86_64-linux-gnu/gstreamer-1.0"));
        QCOMPARE(run.values.value(QStringLiteral("GST_PLUGIN_PATH_1_0")), QStringLiteral("/opt/other/plugins"));
        QCOMPARE(run.values.value(QStringLiteral("GIO_MODULE_DIR")), QStringLiteral("<unset>"));
        QCOMPARE(run.values.value(QStringLiteral("GST_PLUGIN_SCANNER")), QStringLiteral("<unset>"));
    }
}

void tst_Startup::failingWindowGivesExitCodeOne_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");

    QTest::newRow("Spanish") << "es_ES.UTF-8" << "No se pudo iniciar Velmora" << "No se pudo iniciar fuente";
    QTest::newRow("English") << "en_GB.UTF-8" << "Velmora could not start" << "Source could not start";
}

void tst_Startup::failingWindowGivesExitCodeOne()
{
    QFETCH(QString, locale);
    QFETCH(QString, title);
    QFETCH(QString, text);

    QTemporaryDir home;
    QProcessEnvironment environment = freshEnvironment(home.path(), locale);
    environment.insert(QStringLiteral("VELMORA_PROBE"), QStringLiteral("throw"));
    const Run run = runProbe(QStringLiteral(STARTUP_PROBE), environment);
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.values.value(QStringLiteral("box.title")), title);
    QCOMPARE(run.values.value(QStringLiteral("box.text")), text);
}

void tst_Startup::exitCodePassesThrough()
{
    QTemporaryDir home;
    QProcessEnvironment environment = freshEnvironment(home.path(), QStringLiteral("es_ES.UTF-8"));
    environment.insert(QStringLiteral("VELMORA_PROBE"), QStringLiteral("exit:3"));
    QCOMPARE(runProbe(QStringLiteral(STARTUP_PROBE), environment).exitCode, 3);
}

void tst_Startup::studioStaysUpAndLogsItsStart()
{
    QTemporaryDir home;
    QProcess studio;
    studio.setProcessEnvironment(freshEnvironment(home.path(), QStringLiteral("es_ES.UTF-8")));
    studio.start(QStringLiteral(VELMORA_BINARY), {});
    QVERIFY(studio.waitForStarted());
    const auto logText = [&home] {
        QFile log(home.path() + QStringLiteral("/data/Lorvane/TavrinStudio/Velmora.log"));
        return log.open(QIODevice::ReadOnly) ? log.readAll() : QByteArray();
    };
    QTRY_VERIFY_WITH_TIMEOUT(logText().contains("=== Inicio Velmora 0.4.0 ==="), 20000);
    // Up with its window: it must not have ended by itself a moment later.
    QVERIFY(!studio.waitForFinished(1500));
    QCOMPARE(studio.state(), QProcess::Running);
    studio.kill();
    studio.waitForFinished();
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
