#include "StudioWindow.h"
#include "i18n.h"

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QSettings>
#include <QTest>
#include <stdexcept>

class tst_StudioWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void sceneIsNeverMissing_data();
    void sceneIsNeverMissing();
    void meterBands_data();
    void meterBands();
    void failingHandlerIsReportedNotThrown();
    void languageCombo();

private:
    // Answers the next modal box with the given button and returns its text through `seen`.
    void answerNextBox(QMessageBox::StandardButton answer, QString* seen)
    {
        QTimer::singleShot(0, this, [answer, seen] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                *seen = box->text();
                box->button(answer)->click();
            }
        });
    }
};

void tst_StudioWindow::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    gst_init(nullptr, nullptr);
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
    window.scenes[bus].assign(std::size_t(sceneCount), SceneDef{});
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
    QTest::addColumn<QString>("colour");
    QTest::newRow("below range") << -5 << 0 << "#29a782";
    QTest::newRow("sixty-nine") << 69 << 69 << "#29a782";
    QTest::newRow("seventy") << 70 << 70 << "#e3b23c";
    QTest::newRow("eighty-nine") << 89 << 89 << "#e3b23c";
    QTest::newRow("ninety") << 90 << 90 << "#d6453d";
    QTest::newRow("above range") << 150 << 100 << "#d6453d";
}

void tst_StudioWindow::meterBands()
{
    QFETCH(int, value);
    QFETCH(int, shown);
    QFETCH(QString, colour);
    StudioWindow window(false);
    QProgressBar bar;
    window.meter(&bar, value);
    QCOMPARE(bar.value(), shown);
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