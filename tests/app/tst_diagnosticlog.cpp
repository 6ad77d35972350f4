#include "DiagnosticLog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

GST_DEBUG_CATEGORY_STATIC(velmoraTestCategory);

class tst_DiagnosticLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void repeatFilter_data();
    void repeatFilter();
    void lineFormat();
    void gstWarningsAreLimitedPerCallSite();
    void unwritableFolderLosesLinesQuietly();

private:
    QStringList logLines() const;
};

void tst_DiagnosticLog::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QFile::remove(velmora::logFilePath());
    gst_init(nullptr, nullptr);
    GST_DEBUG_CATEGORY_INIT(velmoraTestCategory, "velmora-test", 0, "log tests");
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    gst_debug_remove_log_function(gst_debug_log_default);
    gst_debug_add_log_function(gstLogToFile, nullptr, nullptr);
}

QStringList tst_DiagnosticLog::logLines() const
{
    QFile file(velmora::logFilePath());
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

struct Event
{
    const char* key;
    qint64 seconds;
    bool write;
    int omitted;
};
Q_DECLARE_METATYPE(QList<Event>)

void tst_DiagnosticLog::repeatFilter_data()
{
    QTest::addColumn<QList<Event>>("events");

    QTest::newRow("five lines then silence") << QList<Event>{
        {"a:1", 1000, true, 0}, {"a:1", 1001, true, 0}, {"a:1", 1002, true, 0},
        {"a:1", 1003, true, 0}, {"a:1", 1004, true, 0}, {"a:1", 1005, false, 0},
        {"a:1", 1059, false, 0}};
    QTest::newRow("exactly sixty seconds opens a new window with the summary") << QList<Event>{
        {"a:1", 1000, true, 0}, {"a:1", 1000, true, 0}, {"a:1", 1000, true, 0}, {"a:1", 1000, true, 0},
        {"a:1", 1000, true, 0}, {"a:1", 1000, false, 0}, {"a:1", 1000, false, 0},
        {"a:1", 1060, true, 2}, {"a:1", 1061, true, 0}};
    QTest::newRow("a quiet window gives no summary") << QList<Event>{
        {"a:1", 1000, true, 0}, {"a:1", 1030, true, 0}, {"a:1", 1100, true, 0}};
    QTest::newRow("call sites are counted apart") << QList<Event>{
        {"a:1", 1000, true, 0}, {"a:1", 1000, true, 0}, {"a:1", 1000, true, 0}, {"a:1", 1000, true, 0},
        {"a:1", 1000, true, 0}, {"a:1", 1000, false, 0}, {"a:2", 1000, true, 0}, {"b:1", 1001, true, 0}};
    QList<Event> burst;
    for (int i = 0; i < 100; ++i)
        burst.append({"f.c:9", 2000 + i / 10, i < 5, 0});
    burst.append({"f.c:9", 2075, true, 95});
    QTest::newRow("burst of a hundred") << burst;
}

void tst_DiagnosticLog::repeatFilter()
{
    QFETCH(QList<Event>, events);

    velmora::RepeatFilter filter;
    for (qsizetype i = 0; i < events.size(); ++i) {
        const Event& event = events[i];
        const auto verdict = filter.admit(QString::fromLatin1(event.key), event.seconds);
        QVERIFY2(verdict.write == event.write, qPrintable(QStringLiteral("write at event %1").arg(i)));
        QCOMPARE(verdict.omitted, event.omitted);
    }
}

void tst_DiagnosticLog::lineFormat()
{
    const qsizetype before = logLines().size();
    velmora::appendLogLine(QStringLiteral("Cámara reabierta: v4l2src\nsegunda línea"));
    const QStringList lines = logLines();
    QCOMPARE(lines.size(), before + 2);
    QVERIFY2(QRegularExpression(QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  Cámara reabierta: v4l2src$)"))
                 .match(lines[before])
                 .hasMatch(),
             qPrintable(lines[before]));
    QCOMPARE(lines[before + 1], QStringLiteral("segunda línea"));
}

void tst_DiagnosticLog::gstWarningsAreLimitedPerCallSite()
{
    const qsizetype before = logLines().size();
    for (int i = 0; i < 7; ++i)
        GST_CAT_WARNING(velmoraTestCategory, "aviso %d %%1", i); // one call site, changing texts
    GST_CAT_WARNING(velmoraTestCategory, "aviso 0 %%1");        // same text, another call site
    GST_CAT_INFO(velmoraTestCategory, "below the threshold");

    const QStringList lines = logLines().mid(before);
    QCOMPARE(lines.size(), 6);
    const QRegularExpression shape(QStringLiteral(
        R"(^\S+ \S+  GST 2 velmora-test \S*tst_diagnosticlog\.cpp:\d+ \S*gstWarningsAreLimitedPerCallSite\S* : aviso \d %1$)"));
    for (const QString& line : lines)
        QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
    QVERIFY(lines[4].endsWith(QStringLiteral("aviso 4 %1")));
    QVERIFY(lines[5].endsWith(QStringLiteral("aviso 0 %1")));
}

void tst_DiagnosticLog::unwritableFolderLosesLinesQuietly()
{
    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    QFile blocker(QDir::temp().filePath(QStringLiteral("velmora-not-a-folder")));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    qputenv("XDG_DATA_HOME", blocker.fileName().toUtf8());
    velmora::appendLogLine(QStringLiteral("lost"));
    GST_CAT_WARNING(velmoraTestCategory, "also lost");
    QVERIFY(!QFile::exists(velmora::logFilePath()));
    qputenv("XDG_DATA_HOME", saved);
    blocker.remove();
    QVERIFY(!logLines().last().contains(QStringLiteral("lost")));
}

QTEST_GUILESS_MAIN(tst_DiagnosticLog)
#include "tst_diagnosticlog.moc"
