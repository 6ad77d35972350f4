#include "DiagnosticLog.h"

#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryFile>
#include <QTest>

GST_DEBUG_CATEGORY_STATIC(velmoraTestCategory);

class tst_DiagnosticLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void repeatFilter_data();
    void repeatFilter();
    void linesReachTheFile();
    void unwritableFolderLosesLinesQuietly();
};

static QStringList logLines()
{
    QFile file(velmora::logFilePath());
    return file.open(QIODevice::ReadOnly | QIODevice::Text)
               ? QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts)
               : QStringList();
}

void tst_DiagnosticLog::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
    GST_DEBUG_CATEGORY_INIT(velmoraTestCategory, "velmora-test", 0, "log tests");
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    gst_debug_remove_log_function(gst_debug_log_default);
    gst_debug_add_log_function(gstLogToFile, nullptr, nullptr);
}

void tst_DiagnosticLog::repeatFilter_data()
{
    // Events as "call site@second". Per event: '+' written or '-' silenced, then the count of silenced
    // lines whose summary goes first, if any.
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QString>("verdicts");

    const QStringList five(5, QStringLiteral("a:1@1000"));
    QTest::newRow("sixth line and later in the window are silenced")
        << five + QStringList{"a:1@1001", "a:1@1059"} << "+++++--";
    QTest::newRow("exactly sixty seconds opens a new window with the summary")
        << five + QStringList{"a:1@1000", "a:1@1000", "a:1@1060", "a:1@1061"} << "+++++--+2+";
    QTest::newRow("a quiet window gives no summary") << QStringList{"a:1@1000", "a:1@1030", "a:1@1100"} << "+++";
    QTest::newRow("call sites are counted apart")
        << five + QStringList{"a:1@1000", "a:2@1000", "b:1@1001"} << "+++++-++";
}

void tst_DiagnosticLog::repeatFilter()
{
    QFETCH(QStringList, events);
    QFETCH(QString, verdicts);

    velmora::RepeatFilter filter;
    QString seen;
    for (const QString& event : events) {
        const auto verdict = filter.admit(event.section(u'@', 0, 0), event.section(u'@', 1).toLongLong());
        seen += verdict.write ? u'+' : u'-';
        if (verdict.omitted != 0)
            seen += QString::number(verdict.omitted);
    }
    QCOMPARE(seen, verdicts);
}

void tst_DiagnosticLog::linesReachTheFile()
{
    const qsizetype before = logLines().size();
    velmora::appendLogLine(QStringLiteral("Cámara reabierta: v4l2src\nsegunda línea"));
    for (int i = 0; i < 7; ++i)
        GST_CAT_WARNING(velmoraTestCategory, "aviso %d %%1", i); // one call site, changing texts
    GST_CAT_WARNING(velmoraTestCategory, "aviso 0 %%1");        // same text, another call site
    GST_CAT_INFO(velmoraTestCategory, "below the threshold");

    const QStringList lines = logLines().mid(before);
    QCOMPARE(lines.size(), 8);
    QVERIFY2(lines[0].contains(QRegularExpression(
                 QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  Cámara reabierta: v4l2src$)"))),
             qPrintable(lines[0]));
    QCOMPARE(lines[1], QStringLiteral("segunda línea"));
    // A "%1" in a message stays as written.
    const QRegularExpression shape(QStringLiteral(
        R"(^\S+ \S+  GST 2 velmora-test \S*tst_diagnosticlog\.cpp:\d+ \S*linesReachTheFile\S* : aviso \d %1$)"));
    for (const QString& line : lines.mid(2))
        QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
    QVERIFY(lines[6].endsWith(QStringLiteral("aviso 4 %1")));
    QVERIFY(lines[7].endsWith(QStringLiteral("aviso 0 %1")));
}

void tst_DiagnosticLog::unwritableFolderLosesLinesQuietly()
{
    // A file stands where the data folder would be made.
    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    QTemporaryFile blocker;
    QVERIFY(blocker.open());
    qputenv("XDG_DATA_HOME", QFile::encodeName(blocker.fileName()));
    velmora::appendLogLine(QStringLiteral("lost"));
    GST_CAT_WARNING(velmoraTestCategory, "also lost");
    qputenv("XDG_DATA_HOME", saved);
    QVERIFY(!logLines().last().contains(QStringLiteral("lost")));
}

QTEST_GUILESS_MAIN(tst_DiagnosticLog)
#include "tst_diagnosticlog.moc"
