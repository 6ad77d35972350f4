#include "DiagnosticLog.h"
#include "FrameClock.h"
#include "Startup.h"
#include "StudioTestSetup.h"
#include "i18n.h"

#include <QtTest>
#include <QtWidgets>
#include <stdexcept>

using namespace Qt::StringLiterals;

GST_DEBUG_CATEGORY_STATIC(velmoraTestCategory);

// A call of T, a thrown text or a pipeline's error text: its adjacent literals, then each literal.
static const QRegularExpression call(QStringLiteral(
    R"re((?:\bT|_error|\bfail|\b(?:error|reason)\s*=)\s*\(?((?:\s*"(?:[^"\\]|\\.)*")+)\s*[);+])re"));
static const QRegularExpression piece(QStringLiteral(R"re("((?:[^"\\]|\\.)*)")re")), escape(u"\\\\(.)"_s);

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
    return environment;
}

// Start-up as a process: a copy of this program runs the real start-up with a stand-in window that does
// what VELMORA_PROBE asks ("report", "throw:T", "exit:N"). Also the parts that need no window.
class tst_Startup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        prepareStudioTest(false);
        GST_DEBUG_CATEGORY_INIT(velmoraTestCategory, "velmora-test", 0, "log tests");
        gst_debug_set_default_threshold(GST_LEVEL_WARNING);
        gst_debug_remove_log_function(gst_debug_log_default);
        gst_debug_add_log_function(gstLogToFile, nullptr, nullptr);
    }

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
                                "GST_PLUGIN_SCANNER=@/gstreamer/libexec/gstreamer-1.0/gst-plugin-scanner"};
        QTest::newRow("stored Spanish wins; no tree: the environment stands; exit code") << u"es"_s << "de_DE.UTF-8"
            << "exit:3" << false << 3 << QStringList{"language=es",
                                         "GST_PLUGIN_PATH_1_0=/opt/other/plugins", "GIO_MODULE_DIR=<unset>"};
        QTest::newRow("nothing stored, English, failing") << QString() << "en_GB.UTF-8"
            << u"throw:No se pudo iniciar fuente"_s << false << 1
            << QStringList{"box.title=Velmora could not start", "box.text=Source could not start"};
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
        QTRY_VERIFY_WITH_TIMEOUT(logText().contains("DIAG frames=90 "), 30000); // three seconds of pictures
        QVERIFY(logText().contains("=== Inicio Velmora 0.4.0 ===") && studio.state() == QProcess::Running);
        studio.kill();
        studio.waitForFinished();
    }

    // Late frames are caught up one a period apart while the delay stays within the slip limit; beyond it,
    // the clock jumps to the present.
    void frameClock()
    {
        constexpr std::int64_t start = 1000000, period = FrameClock::periodUs, slip = FrameClock::slipLimitUs;
        FrameClock clock(start);
        QVERIFY(!clock.due(start - 1) && clock.due(start) && clock.advance(start) == start);
        QCOMPARE(clock.advance(start + 2 * period + slip), start + period);
        const std::int64_t late = start + 3 * period + slip + 1;
        QCOMPARE(clock.advance(late), late);
        QCOMPARE(clock.nextFrameUs, late + period);
    }

    // Texts passed to T, thrown, or left in a pipeline's error field reach the operator through T.
    void everyTextInTheCodeHasEnglish()
    {
        QStringList missing;
        int found = 0;
        for (const char* folder : {"app", "core", "scene", "media", "translation", "bible", "credentials"}) {
            QDirIterator files(QStringLiteral(VELMORA_SOURCE_DIR "/") + QLatin1String(folder), QDir::Files);
            while (files.hasNext()) {
                QFile file(files.next());
                QVERIFY(file.open(QIODevice::ReadOnly));
                for (auto match = call.globalMatch(QString::fromUtf8(file.readAll())); match.hasNext(); ++found) {
                    QString key;
                    for (auto part = piece.globalMatch(match.next().captured(1)); part.hasNext();)
                        key += part.next().captured(1);
                    if (!tavrin_i18n::english().contains(key.replace(u"\\n"_s, u"\n"_s).replace(escape, u"\\1"_s)))
                        missing << key;
                }
            }
        }
        QVERIFY2(found > 300 && missing.isEmpty(), qPrintable(u"no English for: "_s + missing.join(u" | "_s)));
    }

    // Five lines per call site in a 60 s window; the next window's first line carries the count silenced.
    void repeatFilter()
    {
        velmora::RepeatFilter filter;
        QString seen;
        for (const QString& event : QStringList(5, u"a:1@1000"_s) + QStringList{"a:1@1059", "b:1@1000", "a:1@1060",
                                                                                 "a:1@1200"}) {
            const auto verdict = filter.admit(event.section(u'@', 0, 0), event.section(u'@', 1).toLongLong());
            seen += (verdict.write ? u"+"_s : u"-"_s) + (verdict.omitted ? QString::number(verdict.omitted) : u""_s);
        }
        QCOMPARE(seen, u"+++++-++1+"_s);
    }

    // GStreamer's warnings reach the log: five of one call site, then silence; a "%1" stays as written.
    void gstLinesReachTheFile()
    {
        QFile log(velmora::logFilePath());
        log.remove();
        for (int i = 0; i < 7; ++i)
            GST_CAT_WARNING(velmoraTestCategory, "aviso %d %%1", i);
        GST_CAT_INFO(velmoraTestCategory, "below the threshold");
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QStringList lines = QString::fromUtf8(log.readAll()).trimmed().split(u'\n');
        const QRegularExpression shape(u" GST 2 velmora-test \\S*startup\\.cpp:\\d+ \\S*gstLines\\S* : aviso 4 %1$"_s);
        QVERIFY2(lines.size() == 5 && lines[4].contains(shape), qPrintable(lines.join(u'\n')));
    }
};

static int probe(int argc, char** argv, const QByteArray& mode)
{
    return velmora::runStudio(argc, argv, [mode]() -> std::unique_ptr<QWidget> {
        if (mode.startsWith("throw:")) {
            QTimer::singleShot(0, [] {
                auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
                std::printf("box.title=%s\nbox.text=%s\n", qPrintable(box->windowTitle()), qPrintable(box->text()));
                std::fflush(stdout);
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
