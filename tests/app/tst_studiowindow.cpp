#include "StudioWindow.h"
#include "i18n.h"

#include <QTest>
#include <QtWidgets>
#include <stdexcept>

// Answers the next message box with `answer`, noting its text in `seen`.
static void answerNextBox(QMessageBox::StandardButton answer, QString* seen)
{
    QTimer::singleShot(0, qApp, [answer, seen] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            *seen = box->text();
            box->button(answer)->click();
        }
    });
}

class tst_StudioWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsSet("VELMORA_TEST_RESTARTED")) // a restart a window in here asked for
            std::exit(0);
        QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
        QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
        QSettings().setValue(QStringLiteral("onboarding_complete"), true);
        gst_init(nullptr, nullptr);
    }

    // Scene index clamping, meter bands at 70 and 90, a failing handler shown and logged.
    void shell()
    {
        tavrin_i18n::language() = QStringLiteral("en");
        StudioWindow window(false);
        for (const auto& [bus, count, current, clamped] :
             std::initializer_list<std::array<int, 4>>{{1, 0, -1, 0}, {0, 3, 7, 2}, {1, 2, -4, 0}}) {
            window.editTarget = bus;
            window.scenes[bus].assign(std::size_t(count), SceneDef{});
            window.current[bus] = current;
            QCOMPARE(&window.scene(), &window.scenes[bus][std::size_t(clamped)]);
            QCOMPARE(window.current[bus], clamped);
            QCOMPARE(window.scene().layers.size(), count ? 0u : window.defaultScene(bus).layers.size());
        }
        const QStringList colours{"#29a782", "#e3b23c", "#d6453d"};
        for (const auto& [value, shown, band] : std::initializer_list<std::array<int, 3>>{
                 {-5, 0, 0}, {69, 69, 0}, {70, 70, 1}, {89, 89, 1}, {90, 90, 2}, {150, 100, 2}}) {
            QProgressBar bar;
            window.meter(&bar, value);
            QCOMPARE(bar.value(), shown);
            QVERIFY2(bar.styleSheet().contains(colours[band]), qPrintable(QString::number(value)));
            bar.setStyleSheet(QStringLiteral("marker")); // the same band does not restyle
            window.meter(&bar, value);
            QCOMPARE(bar.styleSheet(), QStringLiteral("marker"));
        }
        QPushButton* failing = window.button(QStringLiteral("x"));
        window.action(failing, [] { throw std::runtime_error("Proyecto inválido"); });
        QFile log(StudioWindow::logPath());
        QVERIFY(log.open(QIODevice::ReadOnly) && log.seek(log.size()));
        QString boxText;
        answerNextBox(QMessageBox::Ok, &boxText);
        failing->click();
        tavrin_i18n::language() = QStringLiteral("es");
        QCOMPARE(boxText, QStringLiteral("Invalid project"));
        QCOMPARE(window.statusLabel->text(), boxText);
        QVERIFY(log.readAll().contains("  UI: Invalid project\n"));
        delete failing;
    }

    // The language is kept for the next start; the present one asks nothing, and No keeps the window open.
    void languageCombo()
    {
        StudioWindow window(false);
        window.show();
        qputenv("VELMORA_TEST_RESTARTED", "1");
        QSettings settings;
        settings.remove(QStringLiteral("language"));
        QString question;
        for (int index : {0, 1}) {
            answerNextBox(QMessageBox::No, &question);
            window.languageCombo->setCurrentIndex(index);
            QCoreApplication::processEvents();
            QCOMPARE(question.isEmpty(), index == 0);
            settings.sync();
            QCOMPARE(settings.value(QStringLiteral("language")).toString(), index ? QStringLiteral("en") : QString());
        }
        QCOMPARE(question, QStringLiteral("El idioma cambiará al volver a abrir la app. ¿Reiniciar ahora?"));
        QCOMPARE(tavrin_i18n::language(), QStringLiteral("es")); // never changed inside a running process
        QVERIFY(window.isVisible());
    }
};

QTEST_MAIN(tst_StudioWindow)
#include "tst_studiowindow.moc"
