#include "StudioWindow.h"
#include "DiagnosticLog.h"
#include "i18n.h"
#include "Picture.h"

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QSettings>
#include <QTabWidget>
#include <QTest>
#include <QTimer>
#include <stdexcept>

class tst_StudioWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void frame();
    void defaultScenes();
    void sceneIsNeverMissing_data();
    void sceneIsNeverMissing();
    void meterBands_data();
    void meterBands();
    void failingHandlerIsReportedNotThrown();
    void languageCombo();

private:
    // Answers the next modal box with the given button and returns its text through `seen`.
    void answerNextBox(QMessageBox::StandardButton answer, QString* seen);
};

void tst_StudioWindow::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
}

void tst_StudioWindow::answerNextBox(QMessageBox::StandardButton answer, QString* seen)
{
    QTimer::singleShot(0, this, [answer, seen] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box)
            return;
        *seen = box->text();
        box->button(answer)->click();
    });
}

void tst_StudioWindow::frame()
{
    StudioWindow window(false);
    QCOMPARE(window.windowTitle(), QStringLiteral("Velmora · Lorvane"));
    QCOMPARE(window.size(), QSize(1320, 920));
    const QStringList expectedTabs{"Fuentes y pantallas", "Escena y fuentes", "Audio", "Transmitir y grabar",
                                   "Traducción IA y Biblia"};
    QStringList tabs;
    for (int i = 0; i < window.tabs->count(); ++i)
        tabs << window.tabs->tabText(i);
    QCOMPARE(tabs, expectedTabs);
    QCOMPARE(window.statusLabel->text(),
             QStringLiteral("Elige cámara y audio, pulsa Conectar fuentes y luego AL AIRE."));
    QVERIFY(!window.hallWindow->parent());
    QVERIFY(!window.hallWindow->isVisible());
    QVERIFY(window.program.layers.empty());
}

void tst_StudioWindow::defaultScenes()
{
    StudioWindow window(false);
    const SceneDef stream = window.defaultScene(0);
    QCOMPARE(stream.name, QStringLiteral("Escena 1"));
    QCOMPARE(stream.layers.size(), std::size_t(1));
    QCOMPARE(stream.layers[0].kind, Layer::Kind::Camera);
    QCOMPARE(stream.layers[0].name, QStringLiteral("Cámara"));
    QCOMPARE(stream.layers[0].rect, QRectF(0, 0, 1, 1));

    const SceneDef hall = window.defaultScene(1);
    QCOMPARE(hall.layers.size(), std::size_t(2));
    QCOMPARE(hall.layers[0].kind, Layer::Kind::Color);
    QCOMPARE(hall.layers[0].fill, QColor(8, 24, 48));
    const Layer& subtitles = hall.layers[1];
    QCOMPARE(subtitles.kind, Layer::Kind::Subtitle);
    QCOMPARE(subtitles.rect, QRectF(0.05, 0.08, 0.9, 0.84));
    QCOMPARE(subtitles.size, 72);
    QCOMPARE(subtitles.background.alpha(), 0);
    QCOMPARE(subtitles.align, 33);

    QCOMPARE(window.hallProgram.layers.size(), std::size_t(2));
    QCOMPARE(window.scenes[0].size(), std::size_t(1));
    QCOMPARE(window.scenes[1].size(), std::size_t(1));
}

void tst_StudioWindow::sceneIsNeverMissing_data()
{
    QTest::addColumn<int>("bus");
    QTest::addColumn<int>("sceneCount");
    QTest::addColumn<int>("current");
    QTest::addColumn<int>("expectedCurrent");

    QTest::newRow("empty stream bus gets its default") << 0 << 0 << 5 << 0;
    QTest::newRow("empty hall bus gets its default") << 1 << 0 << -1 << 0;
    QTest::newRow("index past the end is clamped") << 0 << 3 << 7 << 2;
    QTest::newRow("negative index is clamped") << 1 << 2 << -4 << 0;
}

void tst_StudioWindow::sceneIsNeverMissing()
{
    QFETCH(int, bus);
    QFETCH(int, sceneCount);
    QFETCH(int, current);
    QFETCH(int, expectedCurrent);

    StudioWindow window(false);
    window.editTarget = bus;
    window.scenes[bus].clear();
    for (int i = 0; i < sceneCount; ++i) {
        SceneDef named;
        named.name = QString::number(i);
        window.scenes[bus].push_back(named);
    }
    window.current[bus] = current;
    SceneDef& scene = window.scene();
    QCOMPARE(window.current[bus], expectedCurrent);
    QCOMPARE(&scene, &window.scenes[bus][std::size_t(expectedCurrent)]);
    if (sceneCount == 0)
        QCOMPARE(scene.layers.size(), window.defaultScene(bus).layers.size());
}

void tst_StudioWindow::meterBands_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<int>("shown");
    QTest::addColumn<int>("band");
    QTest::addColumn<QString>("colour");

    QTest::newRow("quiet") << 12 << 12 << 0 << "#29a782";
    QTest::newRow("below seventy") << 69 << 69 << 0 << "#29a782";
    QTest::newRow("seventy") << 70 << 70 << 1 << "#e3b23c";
    QTest::newRow("eighty-nine") << 89 << 89 << 1 << "#e3b23c";
    QTest::newRow("exactly ninety") << 90 << 90 << 2 << "#d6453d";
    QTest::newRow("above range") << 150 << 100 << 2 << "#d6453d";
    QTest::newRow("below range") << -5 << 0 << 0 << "#29a782";
}

void tst_StudioWindow::meterBands()
{
    QFETCH(int, value);
    QFETCH(int, shown);
    QFETCH(int, band);
    QFETCH(QString, colour);

    StudioWindow window(false);
    QProgressBar bar;
    window.meter(&bar, value);
    QCOMPARE(bar.value(), shown);
    QCOMPARE(bar.property("band").toInt(), band);
    QVERIFY(bar.styleSheet().contains(colour));
    // Within the same band the stylesheet is left alone, however often the level changes.
    bar.setStyleSheet(QStringLiteral("marker"));
    window.meter(&bar, value);
    QCOMPARE(bar.styleSheet(), QStringLiteral("marker"));
}

void tst_StudioWindow::failingHandlerIsReportedNotThrown()
{
    tavrin_i18n::language() = QStringLiteral("en");
    StudioWindow window(false);
    QPushButton* failing = window.button(QStringLiteral("x"));
    window.action(failing, [] { throw std::runtime_error("Proyecto inválido"); });
    QString boxText;
    answerNextBox(QMessageBox::Ok, &boxText);
    failing->click();
    tavrin_i18n::language() = QStringLiteral("es");
    QCOMPARE(boxText, QStringLiteral("Invalid project"));
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Invalid project"));
    QFile log(StudioWindow::logPath());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().trimmed().endsWith("  UI: Invalid project"));
    delete failing;
}

void tst_StudioWindow::languageCombo()
{
    StudioWindow window(false);
    QSettings settings;
    settings.remove(QStringLiteral("language"));

    QString question;
    answerNextBox(QMessageBox::No, &question);
    window.languageCombo->setCurrentIndex(0); // the present language: no question at all
    QCoreApplication::processEvents();
    QVERIFY(question.isEmpty());
    settings.sync();
    QVERIFY(!settings.contains(QStringLiteral("language")));

    answerNextBox(QMessageBox::No, &question);
    window.languageCombo->setCurrentIndex(1);
    QCOMPARE(question, QStringLiteral("El idioma cambiará al volver a abrir la app. ¿Reiniciar ahora?"));
    settings.sync();
    QCOMPARE(settings.value(QStringLiteral("language")).toString(), QStringLiteral("en"));
    QCOMPARE(tavrin_i18n::language(), QStringLiteral("es")); // never changed inside a running process
}

QTEST_MAIN(tst_StudioWindow)
#include "tst_studiowindow.moc"
