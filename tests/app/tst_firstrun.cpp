#include "Processes.h"
#include "SecretStore.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>

using namespace Qt::Literals::StringLiterals;

class tst_FirstRun : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        prepareStudioTest(false);
    }
    void wizard_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<bool>("save");
        QTest::addColumn<bool>("refused"); // no bus, a folder in the secrets file's place
        QTest::newRow("key kept in memory") << "sk-memory" << false << false;
        QTest::newRow("key in file and keyring") << "sk-kept" << true << false;
        QTest::newRow("failing store keeps the wizard") << "sk-lost" << true << true;
    }
    // Each row runs in a child with a private D-Bus and an unlocked gnome-keyring, or no bus.
    void wizard()
    {
        QFETCH(QString, key);
        QFETCH(bool, save);
        QFETCH(bool, refused);
        const QString stored = save && !refused ? key : QString();
        if (qEnvironmentVariableIsEmpty("VELMORA_FIRSTRUN_PEER")) {
            const ChildOutcome outcome = runCaseInChild(QStringLiteral(VELMORA_TEST_OUTPUT), "VELMORA_FIRSTRUN_PEER",
                                                        "child", refused ? ChildBus::None : ChildBus::Keyring);
            QVERIFY2(outcome.passed, qPrintable(outcome.report));
            return;
        }
        const QString secrets = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + "/secrets.json";
        QVERIFY(!refused || QDir().mkpath(secrets));
        auto window = std::make_unique<StudioWindow>(false);
        bool ran = false;
        QTimer::singleShot(0, [&] { // from the event loop after the window's start-up work: in its wizard
            ran = true;
            auto* wizard = qobject_cast<QWizard*>(QApplication::activeModalWidget());
            QVERIFY(wizard);
            wizard->next();
            wizard->currentPage()->findChild<QLineEdit*>()->setText(key);
            wizard->currentPage()->findChild<QCheckBox*>()->setChecked(save);
            QTimer::singleShot(0, [refused] { // the warning of a failed store
                auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
                QCOMPARE(bool(box), refused);
                if (box)
                    box->accept();
            });
            wizard->button(QWizard::FinishButton)->click();
            QCOMPARE(wizard->isVisible() ? wizard->currentId() : -1, refused ? 1 : -1);
            if (wizard->isVisible())
                wizard->reject();
        });
        QVERIFY(QTest::qWaitFor([&] { return ran; }));
        QCOMPARE(window->aiKeyField->text(), key);
        QCOMPARE(readSecretFile(u"openai"_s), stored);
        QVERIFY(refused || QFile::remove(secrets) || stored.isEmpty());
        QCOMPARE(readSecret(u"openai"_s), stored); // the keyring's copy, with the file gone
        QCOMPARE(QSettings().value(u"onboarding_complete"_s).toBool(), !refused); // else the wizard comes back
    }
};

QTEST_MAIN(tst_FirstRun)
#include "tst_firstrun.moc"
