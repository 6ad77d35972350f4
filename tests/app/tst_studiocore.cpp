#include "CameraDiagnostics.h"
#include "DiagnosticLog.h"
#include "Frame.h"
#include "FrameClock.h"
#include "i18n.h"
#include "i18n_english.h"

#include <QtTest>
#include <array>
#include <cstring>

using namespace Qt::StringLiterals;

GST_DEBUG_CATEGORY_STATIC(velmoraTestCategory);

// The studio's parts that need no window: the frame clock, the translation table, the log.
class tst_StudioCore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup() { tavrin_i18n::language() = u"es"_s; }
    void frameClockStalls_data();
    void frameClockStalls();
    void cameraDiagnosticLine_data();
    void cameraDiagnosticLine();
    void translate_data();
    void translate();
    void everyTextInTheCodeHasEnglish();
    void repeatFilter_data();
    void repeatFilter();
    void linesReachTheFile();
    void unwritableFolderLosesLinesQuietly();
};

static QStringList logLines()
{
    QFile file(velmora::logFilePath());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts)
                                          : QStringList();
}

void tst_StudioCore::initTestCase()
{
    QCoreApplication::setOrganizationName(u"Lorvane"_s);
    QCoreApplication::setApplicationName(u"TavrinStudio"_s);
    gst_init(nullptr, nullptr);
    GST_DEBUG_CATEGORY_INIT(velmoraTestCategory, "velmora-test", 0, "log tests");
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    gst_debug_remove_log_function(gst_debug_log_default);
    gst_debug_add_log_function(gstLogToFile, nullptr, nullptr);
}

void tst_StudioCore::frameClockStalls_data()
{
    QTest::addColumn<int>("stallMs");
    QTest::addColumn<int>("jumps");
    QTest::addColumn<int>("catchUpRun"); // frames made on consecutive firings right after the stall
    QTest::newRow("no stall") << 0 << 0 << 1;
    QTest::newRow("one late frame") << 40 << 0 << 2;
    QTest::newRow("200 ms is caught up") << 200 << 0 << 8;
    QTest::newRow("245 ms is still caught up") << 245 << 0 << 9;
    QTest::newRow("300 ms jumps once") << 300 << 1 << 1;
}

// A 5 ms timer that stops firing for a while, as a busy GUI thread does.
void tst_StudioCore::frameClockStalls()
{
    QFETCH(int, stallMs);
    const std::int64_t startUs = 1000000, stallStartUs = startUs + 500000, resumeUs = stallStartUs + stallMs * 1000;
    FrameClock clock(startUs);
    std::vector<std::int64_t> frames, firings;
    for (std::int64_t nowUs = startUs; nowUs < startUs + 2000000; nowUs += 5000) {
        if ((nowUs < stallStartUs || nowUs >= resumeUs) && clock.due(nowUs)) {
            frames.push_back(clock.advance(nowUs));
            firings.push_back(nowUs);
        }
    }
    int jumped = 0, run = 0;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        if (frames[i] - frames[i - 1] == FrameClock::periodUs)
            continue;
        ++jumped;
        QVERIFY(frames[i] - frames[i - 1] > FrameClock::periodUs + FrameClock::slipLimitUs);
        QCOMPARE(frames[i], firings[i]); // the clock restarts at the present moment
    }
    QTEST(jumped, "jumps");
    // Right after the stall, frames come on every firing until the clock has caught up.
    for (const std::int64_t firing : firings)
        if (firing >= resumeUs && firing == resumeUs + run * 5000)
            ++run;
    QTEST(run, "catchUpRun");
    QVERIFY(clock.nextFrameUs > startUs + 2000000 - FrameClock::periodUs);
}

void tst_StudioCore::cameraDiagnosticLine_data()
{
    QTest::addColumn<int>("frameWidth"); // 0: no frame
    QTest::addColumn<QString>("expected");
    const QString line = QStringLiteral("DIAG frames=90 media=4096 capas=3 latest=%1 "
                                        "preparado.centro=10,20,30 active=1");
    QTest::newRow("no frame") << 0 << line.arg("0x0 centro=vacio nieve=0");
    // 20x10: the corner walk visits x 18 and y 9 only; the byte there is 18 + 9 = 27.
    QTest::newRow("small frame") << 20 << line.arg("20x10 centro=15,50,255 nieve=27");
}

void tst_StudioCore::cameraDiagnosticLine()
{
    QFETCH(int, frameWidth);
    tavrin::Frame frame;
    if (frameWidth > 0)
        frame = tavrin::Frame(frameWidth, 10);
    for (int y = 0; y < frame.height; ++y)
        for (int x = 0; x < frame.width; ++x)
            std::memcpy(frame.pixels.data() + (y * frame.width + x) * 4, std::array<std::uint8_t, 3>{
                std::uint8_t(x + y), 50, 255}.data(), 3);
    const CameraHealth health{.frameCount = 90, .instance = 4096, .layerCount = 3, .latest = &frame,
                              .previewCentre = QColor(10, 20, 30), .active = true};
    QTEST(diagnosticLine(health), "expected");
}

void tst_StudioCore::translate_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QByteArray>("spanish");
    QTest::addColumn<QString>("expected");
    QTest::newRow("es never consults the table") << "es" << QByteArray("AL AIRE  →") << "AL AIRE  →";
    QTest::newRow("en known key") << "en" << QByteArray("AL AIRE  →") << "ON AIR  →";
    QTest::newRow("en key with other blanks is another key") << "en" << QByteArray("AL AIRE →") << "AL AIRE →";
    QTest::newRow("en unknown text unchanged") << "en" << QByteArray("Sin traducir") << "Sin traducir";
    QTest::newRow("en lost signal keeps the source's words") << "en"
        << QByteArray("Fuente sin señal: Cámara USB [v4l2 error]") << "Source lost signal: Cámara USB [v4l2 error]";
    QTest::newRow("en prefix is case-sensitive") << "en" << QByteArray("fuente sin señal: x")
                                                 << "fuente sin señal: x";
    QTest::newRow("unset language behaves as Spanish") << "" << QByteArray("Escena 1") << "Escena 1";
}

void tst_StudioCore::translate()
{
    QFETCH(QString, language);
    QFETCH(QByteArray, spanish);
    tavrin_i18n::language() = language;
    QTEST(T(spanish.constData()), "expected");
}

// Every text that can reach the operator needs an English row, or it stays Spanish in the English
// interface without a report: literals passed to T, texts thrown and those a pipeline leaves in its
// error field (both shown through T). Adjacent literals are joined as the compiler joins them. Keys
// are unique, and none has an empty English text.
void tst_StudioCore::everyTextInTheCodeHasEnglish()
{
    QSet<QString> keys;
    for (const auto& [spanish, english] : tavrin_i18n::englishPairs()) {
        QVERIFY2(!keys.contains(QString::fromUtf8(spanish)) && *english, spanish);
        keys.insert(QString::fromUtf8(spanish));
    }
    QCOMPARE(tavrin_i18n::english().size(), keys.size());
    const QRegularExpression call(
        QStringLiteral(R"re((?:\bT|_error|\bfail|\b(?:error|reason)\s*=)\s*\(?((?:\s*"(?:[^"\\]|\\.)*")+)\s*[);+])re"));
    const QRegularExpression piece(QStringLiteral(R"re("((?:[^"\\]|\\.)*)")re"));
    QStringList missing;
    int found = 0;
    for (const char* folder : {"app", "core", "scene", "media", "translation", "bible", "credentials"}) {
        QDirIterator files(QStringLiteral(VELMORA_SOURCE_DIR "/") + QLatin1String(folder),
                           {u"*.cpp"_s, u"*.h"_s}, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            QVERIFY(file.open(QIODevice::ReadOnly));
            for (auto match = call.globalMatch(QString::fromUtf8(file.readAll())); match.hasNext(); ++found) {
                QString key;
                for (auto part = piece.globalMatch(match.next().captured(1)); part.hasNext();)
                    key += part.next().captured(1).replace(u"\\n"_s, u"\n"_s)
                               .replace(u"\\t"_s, u"\t"_s)
                               .replace(QRegularExpression(QStringLiteral(R"(\\(.))")), u"\\1"_s);
                if (!keys.contains(key) && !missing.contains(key))
                    missing.append(key);
            }
        }
    }
    QVERIFY(found > 300);
    QVERIFY2(missing.isEmpty(), qPrintable(u"no English for: "_s + missing.join(u" | "_s)));
}

void tst_StudioCore::repeatFilter_data()
{
    // Events as "call site@second". Per event: '+' written or '-' silenced, then the count of silenced
    // lines whose summary goes first, if any.
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QString>("verdicts");
    const QStringList five(5, u"a:1@1000"_s);
    QTest::newRow("sixth line and later in the window are silenced")
        << five + QStringList{"a:1@1001", "a:1@1059"} << "+++++--";
    QTest::newRow("exactly sixty seconds opens a new window with the summary")
        << five + QStringList{"a:1@1000", "a:1@1000", "a:1@1060", "a:1@1061"} << "+++++--+2+";
    QTest::newRow("a quiet window gives no summary") << QStringList{"a:1@1000", "a:1@1030", "a:1@1100"} << "+++";
    QTest::newRow("call sites are counted apart")
        << five + QStringList{"a:1@1000", "a:2@1000", "b:1@1001"} << "+++++-++";
}

void tst_StudioCore::repeatFilter()
{
    QFETCH(QStringList, events);
    velmora::RepeatFilter filter;
    QString seen;
    for (const QString& event : events) {
        const auto verdict = filter.admit(event.section(u'@', 0, 0), event.section(u'@', 1).toLongLong());
        seen += (verdict.write ? u"+"_s : u"-"_s) +
                (verdict.omitted ? QString::number(verdict.omitted) : QString());
    }
    QTEST(seen, "verdicts");
}

void tst_StudioCore::linesReachTheFile()
{
    const qsizetype before = logLines().size();
    velmora::appendLogLine(u"Cámara reabierta: v4l2src\nsegunda línea"_s);
    for (int i = 0; i < 7; ++i)
        GST_CAT_WARNING(velmoraTestCategory, "aviso %d %%1", i); // one call site, changing texts
    GST_CAT_WARNING(velmoraTestCategory, "aviso 0 %%1");        // same text, another call site
    GST_CAT_INFO(velmoraTestCategory, "below the threshold");
    const QStringList lines = logLines().mid(before);
    QCOMPARE(lines.size(), 8);
    QVERIFY2(lines[0].contains(QRegularExpression(
                 QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  Cámara reabierta: v4l2src$)"))),
             qPrintable(lines[0]));
    QCOMPARE(lines[1], u"segunda línea"_s);
    // A "%1" in a message stays as written.
    const QRegularExpression shape(QStringLiteral(
        R"(^\S+ \S+  GST 2 velmora-test \S*tst_studiocore\.cpp:\d+ \S*linesReachTheFile\S* : aviso \d %1$)"));
    for (const QString& line : lines.mid(2))
        QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
    QVERIFY(lines[6].endsWith(u"aviso 4 %1"_s));
    QVERIFY(lines[7].endsWith(u"aviso 0 %1"_s));
}

void tst_StudioCore::unwritableFolderLosesLinesQuietly()
{
    const QByteArray saved = qgetenv("XDG_DATA_HOME");
    QTemporaryFile blocker; // a file stands where the data folder would be made
    QVERIFY(blocker.open());
    qputenv("XDG_DATA_HOME", QFile::encodeName(blocker.fileName()));
    velmora::appendLogLine(u"lost"_s);
    GST_CAT_WARNING(velmoraTestCategory, "also lost");
    qputenv("XDG_DATA_HOME", saved);
    QVERIFY(!logLines().last().contains(u"lost"_s));
}

QTEST_GUILESS_MAIN(tst_StudioCore)
#include "tst_studiocore.moc"
