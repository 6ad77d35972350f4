#include "StudioTestSetup.h"
#include "StudioWindow.h"
#include "i18n.h"

#include <QTest>
#include <QtWidgets>
#include <stdexcept>

class tst_StudioWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsSet("VELMORA_TEST_RESTARTED")) // a restart a window in here asked for
            std::exit(0);
        prepareStudioTest();
    }

    // The language is kept for the next start; the present one asks nothing, and No keeps the window open.
    // A failing handler is shown in the language of the moment and logged.
    void languageAndFailures()
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

        tavrin_i18n::language() = QStringLiteral("en");
        QPushButton* failing = window.button(QStringLiteral("x"));
        window.action(failing, [] { throw std::runtime_error("Proyecto inválido"); });
        QFile log(StudioWindow::logPath());
        const qint64 logged = log.size(); // 0 on a first run, before any line was written
        QString boxText;
        answerNextBox(QMessageBox::Ok, &boxText);
        failing->click();
        QVERIFY(boxText == "Invalid project" && window.statusLabel->text() == boxText);
        QVERIFY(log.open(QIODevice::ReadOnly) && log.seek(logged));
        QVERIFY(log.readAll().contains("  UI: Invalid project\n"));
    }
};

QTEST_MAIN(tst_StudioWindow)
#include "tst_studiowindow.moc"
