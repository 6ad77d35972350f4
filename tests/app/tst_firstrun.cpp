#include "ChildCase.h"
#include "SecretStore.h"
#include "StudioWindow.h"
#include "i18n.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QLineEdit>
#include <QMessageBox>
#include <QStandardPaths>
#include <QTabBar>
#include <QTest>
#include <QWizard>

using namespace Qt::Literals::StringLiterals;

namespace {

const char* const peerVariable = "VELMORA_FIRSTRUN_PEER";

// Runs `step` from the event loop after the window's start-up work, with the modal dialog open then.
bool whenStarted(const std::function<void(QWidget*)>& step)
{
    bool ran = false;
    QTimer::singleShot(0, [&] {
        step(QApplication::activeModalWidget());
        ran = true;
    });
    return QTest::qWaitFor([&] { return ran; });
}

bool onboarded() { return QSettings().value(u"onboarding_complete"_s).toBool(); }

// The Spanish keys with an English text of their own that still show in a widget or its children.
QStringList spanishIn(const QWidget* root)
{
    QStringList texts{root->windowTitle()}, found;
    for (const QWidget* widget : root->findChildren<QWidget*>()) {
        for (const char* name : {"text", "placeholderText", "title", "toolTip"})
            texts << widget->property(name).toString();
        for (const QAction* item : widget->actions())
            texts << item->text();
        if (auto* combo = qobject_cast<const QComboBox*>(widget))
            for (int index = 0; index < combo->count(); ++index)
                texts << combo->itemText(index);
        if (auto* bar = qobject_cast<const QTabBar*>(widget))
            for (int index = 0; index < bar->count(); ++index)
                texts << bar->tabText(index);
    }
    const auto& table = tavrin_i18n::english();
    for (auto row = table.cbegin(); row != table.cend(); ++row)
        if (row.key() != row.value() && !texts.filter(row.key()).isEmpty())
            found << row.key();
    return found;
}

} // namespace

class tst_FirstRun : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(u"Lorvane"_s);
        QCoreApplication::setApplicationName(u"TavrinStudio"_s);
        gst_init(nullptr, nullptr);
    }

    void wizard_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<bool>("save");
        QTest::addColumn<bool>("refused"); // no bus, and a folder where the secrets file should be

        QTest::newRow("empty key finishes, stores nothing") << "" << true << false;
        QTest::newRow("unchecked box keeps the key in memory") << "sk-memory" << false << false;
        QTest::newRow("checked box stores in file and keyring") << "sk-kept" << true << false;
        QTest::newRow("failing store keeps the wizard open") << "sk-lost" << true << true;
    }
    // Each row runs in a child process with a private D-Bus and an unlocked gnome-keyring, or no bus.
    void wizard()
    {
        QFETCH(QString, key);
        QFETCH(bool, save);
        QFETCH(bool, refused);
        const QString stored = save && !refused ? key : QString();
        if (qEnvironmentVariableIsEmpty(peerVariable)) {
            const ChildOutcome outcome = runCaseInChild(QStringLiteral(VELMORA_TEST_OUTPUT), peerVariable, "child",
                                                        refused ? ChildBus::None : ChildBus::Keyring);
            QVERIFY2(outcome.passed, qPrintable(outcome.report));
            return;
        }
        const QString secrets =
            QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + u"/secrets.json"_s;
        QVERIFY(!refused || QDir().mkpath(secrets));
        {
            StudioWindow smoke(true); // the self-test never meets the wizard
            QVERIFY(whenStarted([](QWidget* modal) { QVERIFY(!modal); }));
        }

        auto window = std::make_unique<StudioWindow>(false);
        QVERIFY(whenStarted([&](QWidget* modal) {
            auto* wizard = qobject_cast<QWizard*>(modal);
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
        }));
        QCOMPARE(window->aiKeyField->text(), key);
        QCOMPARE(onboarded(), !refused);
        QCOMPARE(readSecretFile(u"openai"_s), stored);
        QVERIFY(refused || QFile::remove(secrets) || stored.isEmpty());
        QCOMPARE(readSecret(u"openai"_s), stored); // the keyring's copy, with the file gone

        // A cancelled wizard comes back at the next start; a finished one never again.
        window.reset();
        window = std::make_unique<StudioWindow>(false);
        QVERIFY(whenStarted([&](QWidget* modal) {
            QCOMPARE(bool(qobject_cast<QWizard*>(modal)), refused);
            if (modal)
                qobject_cast<QDialog*>(modal)->reject();
        }));
        QCOMPARE(onboarded(), !refused);
    }

    // In English nothing of the window, the wizard or the credits is left in Spanish.
    void englishShellHasNoSpanish()
    {
        tavrin_i18n::language() = u"en"_s;
        QSettings().remove(u"onboarding_complete"_s);
        StudioWindow window(false);
        window.show();
        QStringList spanish;
        QVERIFY(whenStarted([&](QWidget* modal) {
            auto* wizard = qobject_cast<QWizard*>(modal);
            QVERIFY(wizard);
            spanish << spanishIn(wizard);
            QTimer::singleShot(0, [&] {
                auto* credits = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
                QVERIFY(credits);
                spanish << spanishIn(credits);
                credits->button(QMessageBox::Ok)->click();
            });
            wizard->page(0)->findChild<QPushButton*>()->click();
            wizard->reject();
        }));
        spanish << spanishIn(&window);
        tavrin_i18n::language() = u"es"_s;
        QVERIFY2(spanish.isEmpty(), qPrintable(spanish.join(u" | "_s)));
    }
};

QTEST_MAIN(tst_FirstRun)
#include "tst_firstrun.moc"
