#include "ChildCase.h"
#include "SecretStore.h"
#include "StudioWindow.h"
#include "i18n.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QStandardPaths>
#include <QTabBar>
#include <QTest>
#include <QTimer>
#include <QWizard>
#include <gst/gst.h>

// Each row runs in a child process under the secret store it needs: a private D-Bus session with
// an unlocked gnome-keyring, or no bus at all. The child runs the same row.
class tst_FirstRun : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void wizard_data();
    void wizard();
    void englishShellHasNoSpanish();
};

namespace {

const char* const peerVariable = "VELMORA_FIRSTRUN_PEER";
const QString keyring = QStringLiteral("keyring");
const QString noBus = QStringLiteral("none");

void runChild(const QString& peer)
{
    const ChildOutcome outcome = runCaseInChild(QStringLiteral(VELMORA_TEST_OUTPUT), peerVariable, peer,
                                                peer == keyring ? ChildBus::Keyring : ChildBus::None);
    QVERIFY2(outcome.passed, qPrintable(outcome.report));
}

// Runs `step` from the event loop after the window's start-up work, with the modal dialog that is
// open at that moment (or none), and returns once it ran.
bool whenStarted(const std::function<void(QWidget*)>& step)
{
    bool ran = false;
    QTimer::singleShot(0, [&] {
        step(QApplication::activeModalWidget());
        ran = true;
    });
    return QTest::qWaitFor([&] { return ran; });
}

bool onboarded()
{
    return QSettings().value(QStringLiteral("onboarding_complete")).toBool();
}

// Every text that a widget and its children show, menus included.
QStringList shownTexts(const QWidget* root)
{
    QStringList texts{root->windowTitle()};
    for (const QWidget* widget : root->findChildren<QWidget*>()) {
        texts << widget->toolTip();
        if (auto* button = qobject_cast<const QAbstractButton*>(widget))
            texts << button->text();
        else if (auto* label = qobject_cast<const QLabel*>(widget))
            texts << label->text();
        else if (auto* field = qobject_cast<const QLineEdit*>(widget))
            texts << field->placeholderText();
        else if (auto* page = qobject_cast<const QWizardPage*>(widget))
            texts << page->title();
        else if (auto* menu = qobject_cast<const QMenu*>(widget))
            for (const QAction* item : menu->actions())
                texts << item->text();
        else if (auto* combo = qobject_cast<const QComboBox*>(widget))
            for (int index = 0; index < combo->count(); ++index)
                texts << combo->itemText(index);
        else if (auto* bar = qobject_cast<const QTabBar*>(widget))
            for (int index = 0; index < bar->count(); ++index)
                texts << bar->tabText(index);
    }
    return texts;
}

// The Spanish keys, with an English text of their own, that still show inside the given texts.
QStringList spanishIn(const QStringList& texts)
{
    QStringList found;
    const auto& table = tavrin_i18n::english();
    for (const QString& text : texts)
        for (auto row = table.cbegin(); row != table.cend(); ++row)
            if (row.key() != row.value() && text.contains(row.key()) && !found.contains(row.key()))
                found << row.key();
    return found;
}

} // namespace

void tst_FirstRun::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
}

void tst_FirstRun::wizard_data()
{
    QTest::addColumn<QString>("peer");
    QTest::addColumn<QString>("key");
    QTest::addColumn<bool>("save");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<bool>("refused");

    QTest::newRow("empty key finishes and stores nothing") << keyring << "" << true << "" << false;
    QTest::newRow("unchecked box keeps the key in memory only") << keyring << "sk-memory" << false << "" << false;
    QTest::newRow("checked box stores the key in file and keyring") << keyring << "sk-kept" << true << "sk-kept" << false;
    QTest::newRow("failing store keeps the wizard on its page") << noBus << "sk-lost" << true << "" << true;
}

void tst_FirstRun::wizard()
{
    QFETCH(QString, peer);
    QFETCH(QString, key);
    QFETCH(bool, save);
    QFETCH(QString, stored);
    QFETCH(bool, refused);
    if (qEnvironmentVariableIsEmpty(peerVariable))
        return runChild(peer);

    const QString secrets = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/secrets.json");
    if (refused) // a folder where the file should be: not even root can write it as a file
        QVERIFY(QDir().mkpath(secrets));

    // The self-test never meets the wizard.
    {
        StudioWindow smoke(true);
        QVERIFY(whenStarted([](QWidget* modal) { QVERIFY(!modal); }));
    }

    auto window = std::make_unique<StudioWindow>(false);
    QString warning;
    int pageAfterFinish = -1;
    QVERIFY(whenStarted([&](QWidget* modal) {
        auto* wizard = qobject_cast<QWizard*>(modal);
        QVERIFY(wizard);
        QCOMPARE(wizard->windowTitle(), QStringLiteral("Bienvenido a Velmora"));
        wizard->next();
        wizard->currentPage()->findChild<QLineEdit*>()->setText(key);
        wizard->currentPage()->findChild<QCheckBox*>()->setChecked(save);
        QTimer::singleShot(0, [&] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                warning = box->text();
                box->accept();
            }
        });
        wizard->button(QWizard::FinishButton)->click();
        pageAfterFinish = wizard->isVisible() ? wizard->currentId() : -1;
        if (wizard->isVisible())
            wizard->reject();
    }));
    QCOMPARE(pageAfterFinish, refused ? 1 : -1);
    QCOMPARE(warning.isEmpty(), !refused);
    QCOMPARE(window->aiKeyField->text(), key);
    QCOMPARE(onboarded(), !refused);
    QCOMPARE(readSecretFile(QStringLiteral("openai")), stored);
    if (!refused)
        QVERIFY(QFile::remove(secrets) || stored.isEmpty());
    QCOMPARE(readSecret(QStringLiteral("openai")), stored); // the keyring's copy, with the file gone

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

// After a change to English and a restart, nothing of the window, the wizard or the credits is
// left in Spanish.
void tst_FirstRun::englishShellHasNoSpanish()
{
    tavrin_i18n::language() = QStringLiteral("en");
    QSettings().remove(QStringLiteral("onboarding_complete"));
    StudioWindow window(false);
    window.show();
    QStringList spanish;
    QVERIFY(whenStarted([&](QWidget* modal) {
        auto* wizard = qobject_cast<QWizard*>(modal);
        QVERIFY(wizard);
        spanish << spanishIn(shownTexts(wizard));
        QTimer::singleShot(0, [&] {
            auto* credits = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            QVERIFY(credits);
            spanish << spanishIn(shownTexts(credits));
            credits->button(QMessageBox::Ok)->click();
        });
        wizard->page(0)->findChild<QPushButton*>()->click();
        wizard->reject();
    }));
    spanish << spanishIn(shownTexts(&window));
    tavrin_i18n::language() = QStringLiteral("es");
    QVERIFY2(spanish.isEmpty(), qPrintable(spanish.join(QStringLiteral(" | "))));
}

QTEST_MAIN(tst_FirstRun)
#include "tst_firstrun.moc"
