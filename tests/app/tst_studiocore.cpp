#include "CameraDiagnostics.h"
#include "DiagnosticLog.h"
#include "Frame.h"
#include "FrameClock.h"
#include "i18n.h"
#include "i18n_english.h"

#include <QtTest>
#include <cstring>

using namespace Qt::StringLiterals;

GST_DEBUG_CATEGORY_STATIC(velmoraTestCategory);

static QStringList logLines()
{
    QFile file(velmora::logFilePath());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts)
                                          : QStringList();
}

// A call of T, a thrown text or a pipeline's error text: its adjacent literals, then each literal.
static const QRegularExpression call(QStringLiteral(
    R"re((?:\bT|_error|\bfail|\b(?:error|reason)\s*=)\s*\(?((?:\s*"(?:[^"\\]|\\.)*")+)\s*[);+])re"));
static const QRegularExpression piece(QStringLiteral(R"re("((?:[^"\\]|\\.)*)")re")), escape(u"\\\\(.)"_s);

// The studio's parts that need no window: the frame clock, the translation table, the log.
class tst_StudioCore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(u"Lorvane"_s);
        QCoreApplication::setApplicationName(u"TavrinStudio"_s);
        gst_init(nullptr, nullptr);
        GST_DEBUG_CATEGORY_INIT(velmoraTestCategory, "velmora-test", 0, "log tests");
        gst_debug_set_default_threshold(GST_LEVEL_WARNING);
        gst_debug_remove_log_function(gst_debug_log_default);
        gst_debug_add_log_function(gstLogToFile, nullptr, nullptr);
    }

    void frameClockStalls_data()
    {
        QTest::addColumn<int>("stallMs");
        QTest::addColumn<int>("jumps");
        QTest::addColumn<int>("catchUpRun"); // frames made on consecutive firings right after the stall
        QTest::newRow("one late frame") << 40 << 0 << 2;
        QTest::newRow("245 ms is still caught up") << 245 << 0 << 9;
        QTest::newRow("300 ms jumps once") << 300 << 1 << 1;
    }

    // A 5 ms timer that stops firing for a while, as a busy GUI thread does.
    void frameClockStalls()
    {
        QFETCH(int, stallMs);
        const std::int64_t startUs = 1000000, stallUs = startUs + 500000, resumeUs = stallUs + stallMs * 1000;
        FrameClock clock(startUs);
        std::int64_t last = 0;
        int jumped = 0, run = 0;
        for (std::int64_t nowUs = startUs; nowUs < startUs + 2000000; nowUs += 5000) {
            if ((nowUs >= stallUs && nowUs < resumeUs) || !clock.due(nowUs))
                continue;
            const std::int64_t frame = clock.advance(nowUs);
            if (last && frame - last != FrameClock::periodUs) {
                ++jumped; // the clock restarts at the present moment
                QVERIFY(frame - last > FrameClock::periodUs + FrameClock::slipLimitUs && frame == nowUs);
            }
            run += nowUs == resumeUs + run * 5000;
            last = frame;
        }
        QTEST(jumped, "jumps");
        QTEST(run, "catchUpRun");
        QVERIFY(clock.nextFrameUs > startUs + 2000000 - FrameClock::periodUs);
    }

    void cameraDiagnosticLine_data()
    {
        QTest::addColumn<int>("frameWidth"); // 0: no frame
        QTest::addColumn<QString>("shown");
        QTest::newRow("no frame") << 0 << "0x0 centro=vacio nieve=0";
        // 20x10: the corner walk visits x 18 and y 9 only; the byte there is 18 + 9 = 27.
        QTest::newRow("small frame") << 20 << "20x10 centro=15,50,255 nieve=27";
    }

    void cameraDiagnosticLine()
    {
        QFETCH(int, frameWidth);
        tavrin::Frame frame = frameWidth ? tavrin::Frame(frameWidth, 10) : tavrin::Frame();
        for (int at = 0; at < frame.width * frame.height; ++at) {
            const std::uint8_t pixel[3] = {std::uint8_t(at % frame.width + at / frame.width), 50, 255};
            std::memcpy(frame.pixels.data() + at * 4, pixel, 3);
        }
        const CameraHealth health{.frameCount = 90, .instance = 4096, .layerCount = 3, .latest = &frame,
                                  .previewCentre = QColor(10, 20, 30), .active = true};
        QFETCH(QString, shown);
        QCOMPARE(diagnosticLine(health),
                 u"DIAG frames=90 media=4096 capas=3 latest=%1 preparado.centro=10,20,30 active=1"_s.arg(shown));
    }

    void translate_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("spanish");
        QTest::addColumn<QString>("expected");
        QTest::newRow("es never consults the table") << "es" << "AL AIRE  →" << "AL AIRE  →";
        QTest::newRow("en known key") << "en" << "AL AIRE  →" << "ON AIR  →";
        QTest::newRow("en unknown text unchanged") << "en" << "AL AIRE →" << "AL AIRE →";
        QTest::newRow("en lost signal keeps the source's words") << "en" << "Fuente sin señal: Cámara [v4l2]"
                                                                 << "Source lost signal: Cámara [v4l2]";
    }

    void translate()
    {
        QFETCH(QString, language);
        QFETCH(QString, spanish);
        tavrin_i18n::language() = language;
        QTEST(T(spanish.toUtf8().constData()), "expected");
        tavrin_i18n::language() = u"es"_s;
    }

    // Every text that can reach the operator needs an English row, or it stays Spanish in the English
    // interface without a report: literals passed to T, texts thrown and those a pipeline leaves in its
    // error field (both shown through T), adjacent literals joined. Keys are unique, none without English.
    void everyTextInTheCodeHasEnglish()
    {
        const auto& english = tavrin_i18n::english();
        QCOMPARE(std::size_t(english.size()), tavrin_i18n::englishPairs().size());
        QVERIFY(!english.values().contains(QString()));
        QStringList missing;
        int found = 0;
        for (const char* folder : {"app", "core", "scene", "media", "translation", "bible", "credentials"}) {
            QDirIterator files(QStringLiteral(VELMORA_SOURCE_DIR "/") + QLatin1String(folder), {u"*.cpp"_s, u"*.h"_s},
                               QDir::Files, QDirIterator::Subdirectories);
            while (files.hasNext()) {
                QFile file(files.next());
                QVERIFY(file.open(QIODevice::ReadOnly));
                for (auto match = call.globalMatch(QString::fromUtf8(file.readAll())); match.hasNext(); ++found) {
                    QString key;
                    for (auto part = piece.globalMatch(match.next().captured(1)); part.hasNext();)
                        key += part.next().captured(1);
                    key.replace(u"\\n"_s, u"\n"_s).replace(u"\\t"_s, u"\t"_s).replace(escape, u"\\1"_s);
                    if (!english.contains(key))
                        missing << key;
                }
            }
        }
        QVERIFY(found > 300);
        QVERIFY2(missing.isEmpty(), qPrintable(u"no English for: "_s + missing.join(u" | "_s)));
    }

    void repeatFilter_data()
    {
        // Events as "call site@second". Per event: '+' written or '-' silenced, then the count of silenced
        // lines whose summary goes first, if any.
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QString>("verdicts");
        const QStringList five(5, u"a:1@1000"_s);
        QTest::newRow("sixth line and later in the window are silenced") << five + QStringList{"a:1@1059"} << "+++++-";
        QTest::newRow("sixty seconds on, a new window and the summary")
            << five + QStringList{"a:1@1000", "a:1@1000", "a:1@1060", "a:1@1061"} << "+++++--+2+";
        QTest::newRow("a quiet window gives no summary") << QStringList{"a:1@1000", "a:1@1100"} << "++";
        QTest::newRow("call sites are counted apart") << five + QStringList{"a:2@1000", "b:1@1001"} << "+++++++";
    }

    void repeatFilter()
    {
        QFETCH(QStringList, events);
        velmora::RepeatFilter filter;
        QString seen;
        for (const QString& event : events) {
            const auto verdict = filter.admit(event.section(u'@', 0, 0), event.section(u'@', 1).toLongLong());
            seen += (verdict.write ? u"+"_s : u"-"_s) + (verdict.omitted ? QString::number(verdict.omitted) : u""_s);
        }
        QTEST(seen, "verdicts");
    }

    void linesReachTheFile()
    {
        const qsizetype before = logLines().size();
        velmora::appendLogLine(u"Cámara reabierta: v4l2src\nsegunda línea"_s);
        for (int i = 0; i < 7; ++i)
            GST_CAT_WARNING(velmoraTestCategory, "aviso %d %%1", i); // one call site, changing texts
        GST_CAT_WARNING(velmoraTestCategory, "aviso 0 %%1");        // same text, another call site
        GST_CAT_INFO(velmoraTestCategory, "below the threshold");
        const QStringList lines = logLines().mid(before);
        QCOMPARE(lines.size(), 8);
        const QRegularExpression stamped(u"^\\d{4}-\\d\\d-\\d\\d [\\d:]{8}\\.\\d{3}  Cámara reabierta: v4l2src$"_s);
        QVERIFY2(stamped.match(lines[0]).hasMatch(), qPrintable(lines[0]));
        QCOMPARE(lines[1], u"segunda línea"_s);
        // A "%1" in a message stays as written.
        const QRegularExpression shape(
            u"^\\S+ \\S+  GST 2 velmora-test \\S*tst_studiocore\\.cpp:\\d+ \\S*linesReach\\S* : aviso \\d %1$"_s);
        for (const QString& line : lines.mid(2))
            QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
        QVERIFY(lines[6].endsWith(u"aviso 4 %1"_s) && lines[7].endsWith(u"aviso 0 %1"_s));
        // Where no data folder can be made, lines are lost without a word.
        const QByteArray saved = qgetenv("XDG_DATA_HOME");
        QTemporaryFile blocker;
        QVERIFY(blocker.open());
        qputenv("XDG_DATA_HOME", QFile::encodeName(blocker.fileName()));
        velmora::appendLogLine(u"lost"_s);
        GST_CAT_WARNING(velmoraTestCategory, "also lost");
        qputenv("XDG_DATA_HOME", saved);
        QCOMPARE(logLines().size(), before + 8);
    }
};

QTEST_GUILESS_MAIN(tst_StudioCore)
#include "tst_studiocore.moc"
