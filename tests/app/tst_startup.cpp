#include "Startup.h"
#include "i18n.h"

#include <QtTest>
#include <QtWidgets>
#include <stdexcept>

using namespace Qt::StringLiterals;

static QProcessEnvironment freshEnvironment(const QString& home, const QString& locale)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString folder : {"config", "data", "cache"})
        environment.insert(u"XDG_%1_HOME"_s.arg(folder.toUpper()), home + '/' + folder);
    for (const auto& [name, value] : {std::pair{"HOME", home}, {"LC_ALL", locale}, {"LANG", locale},
                                      {"QT_QPA_PLATFORM", u"offscreen"_s}, {"PATH", u"/usr/bin:/bin"_s},
                                      {"GST_PLUGIN_PATH_1_0", u"/opt/other/plugins"_s}})
        environment.insert(QString::fromLatin1(name), value);
    environment.remove(u"GIO_MODULE_DIR"_s);
    environment.remove(u"GST_PLUGIN_SCANNER"_s);
    environment.insert(u"GST_PLUGIN_SYSTEM_PATH_1_0"_s, u"/usr/lib/x86_64-linux-gnu/gstreamer-1.0"_s);
    return environment;
}

// Start-up is tested as a process, as the operator starts it: a fresh settings folder, a chosen
// locale and environment, and the exit code and output that come back. A copy of this program runs
// the real start-up with a stand-in window, as VELMORA_PROBE asks: "report" prints the language and
// GStreamer's environment, "throw:T" fails with the text T and prints the box it gets, "exit:N" ends
// the event loop with N.
class tst_Startup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void start_data()
    {
        QTest::addColumn<QString>("stored"); // the language setting; null: none
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("probe");
        QTest::addColumn<bool>("gstreamerTree"); // a GStreamer tree beside the executable
        QTest::addColumn<int>("code");
        QTest::addColumn<QStringList>("printed"); // "@" is the executable's folder
        const QString es = u"es_ES.UTF-8"_s;
        QTest::newRow("stored English wins; GStreamer tree: its plug-ins only") << u"en"_s << es << "report" << true
            << 0 << QStringList{"language=en", "PATH=@:/usr/bin:/bin", "GST_PLUGIN_PATH_1_0=",
                                "GST_PLUGIN_SYSTEM_PATH_1_0=@/gstreamer/lib/gstreamer-1.0",
                                "GIO_MODULE_DIR=@/gstreamer/lib/gio/modules",
                                "GST_PLUGIN_SCANNER=@/gstreamer/libexec/gstreamer-1.0/gst-plugin-scanner"};
        QTest::newRow("stored Spanish wins; no tree: the environment stands") << u"es"_s << "de_DE.UTF-8" << "report"
            << false << 0 << QStringList{"language=es", "PATH=@:/usr/bin:/bin", "GIO_MODULE_DIR=<unset>",
                                         "GST_PLUGIN_SYSTEM_PATH_1_0=/usr/lib/x86_64-linux-gnu/gstreamer-1.0",
                                         "GST_PLUGIN_PATH_1_0=/opt/other/plugins", "GST_PLUGIN_SCANNER=<unset>"};
        QTest::newRow("EN is no choice") << u"EN"_s << es << "report" << false << 0 << QStringList{"language=es"};
        QTest::newRow("nothing stored, English system") << QString() << "en_US.UTF-8" << "report" << false << 0
                                                        << QStringList{"language=en"};
        const QString failing = u"throw:No se pudo iniciar fuente"_s;
        QTest::newRow("failing window, Spanish") << QString() << es << failing << false << 1
            << QStringList{"box.title=No se pudo iniciar Velmora", "box.text=No se pudo iniciar fuente"};
        QTest::newRow("failing window, English") << QString() << "en_GB.UTF-8" << failing << false << 1
            << QStringList{"box.title=Velmora could not start", "box.text=Source could not start"};
        QTest::newRow("the event loop's code") << QString() << es << "exit:3" << false << 3 << QStringList();
    }

    void start()
    {
        QFETCH(QString, stored);
        QFETCH(QString, locale);
        QFETCH(QString, probe);
        QFETCH(bool, gstreamerTree);
        QTemporaryDir home, install;
        if (!stored.isNull())
            QSettings(home.filePath(u"config/Lorvane/TavrinStudio.conf"_s), QSettings::IniFormat)
                .setValue(u"language"_s, stored);
        const QString program = install.filePath(u"velmora-probe"_s);
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), program));
        QVERIFY(!gstreamerTree || QDir().mkpath(install.filePath(u"gstreamer/lib/gstreamer-1.0"_s)));
        QProcessEnvironment environment = freshEnvironment(home.path(), locale);
        environment.insert(u"VELMORA_PROBE"_s, probe);
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(program, {});
        QVERIFY(process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit);
        QTEST(process.exitCode(), "code");
        const QStringList output = QString::fromLocal8Bit(process.readAllStandardOutput()).split(u'\n');
        QFETCH(QStringList, printed);
        for (const QString& line : printed)
            QVERIFY2(output.contains(QString(line).replace(u'@', install.path())), qPrintable(output.join(u'\n')));
    }

    void studioStaysUpAndLogsItsStart()
    {
        QTemporaryDir home;
        QProcess studio;
        studio.setProcessEnvironment(freshEnvironment(home.path(), u"es_ES.UTF-8"_s));
        studio.start(QStringLiteral(VELMORA_BINARY), {});
        const auto logText = [&home] {
            QFile log(home.filePath(u"data/Lorvane/TavrinStudio/Velmora.log"_s));
            return log.open(QIODevice::ReadOnly) ? log.readAll() : QByteArray();
        };
        // The camera's 90th picture is logged three seconds into a running window.
        QTRY_VERIFY_WITH_TIMEOUT(logText().contains("DIAG frames=90 "), 30000);
        QVERIFY(logText().contains("=== Inicio Velmora 0.4.0 ===") && studio.state() == QProcess::Running);
        studio.kill();
        studio.waitForFinished();
    }
};

static int probe(int argc, char** argv, const QByteArray& mode)
{
    return velmora::runStudio(argc, argv, [mode]() -> std::unique_ptr<QWidget> {
        if (mode.startsWith("throw:")) {
            QTimer::singleShot(0, [] {
                auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
                std::printf("box.title=%s\nbox.text=%s\n", box ? qPrintable(box->windowTitle()) : "<none>",
                            box ? qPrintable(box->text()) : "");
                std::fflush(stdout);
                if (box)
                    box->accept();
            });
            throw std::runtime_error(mode.mid(6).toStdString());
        }
        const int code = mode.startsWith("exit:") ? mode.mid(5).toInt() : 0;
        std::printf("language=%s\n", qPrintable(tavrin_i18n::language()));
        for (const char* name : {"PATH", "GST_PLUGIN_SYSTEM_PATH_1_0", "GST_PLUGIN_PATH_1_0", "GIO_MODULE_DIR",
                                 "GST_PLUGIN_SCANNER"})
            std::printf("%s=%s\n", name, qEnvironmentVariableIsSet(name) ? qgetenv(name).constData() : "<unset>");
        std::fflush(stdout);
        QTimer::singleShot(0, [code] { QCoreApplication::exit(code); });
        return std::make_unique<QWidget>();
    });
}

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("VELMORA_PROBE"))
        return probe(argc, argv, qgetenv("VELMORA_PROBE"));
    QCoreApplication app(argc, argv);
    tst_Startup test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
