// velmora-shots draws the pictures of the user guide from the real window: the two pages of the
// first-run wizard, the credits and the main window on each of its tabs, in the language asked for.
//
//   velmora-shots <folder> <es|en>
//
// It runs in a throw-away home, so the user's settings, keys and log are never touched.
#include "Startup.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QPushButton>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <QWizard>
#include <cstdio>

namespace {

void save(QWidget* widget, const QString& path)
{
    if (!widget->grab().save(path))
        std::fprintf(stderr, "could not write %s\n", qPrintable(path));
    else
        std::printf("%s\n", qPrintable(path));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 || (qstrcmp(argv[2], "es") != 0 && qstrcmp(argv[2], "en") != 0)) {
        std::fprintf(stderr, "usage: velmora-shots <folder> <es|en>\n");
        return 2;
    }
    const QString folder = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    const QString language = QString::fromLatin1(argv[2]);
    QDir().mkpath(folder);
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + QStringLiteral("/config")).toUtf8());
    qputenv("XDG_DATA_HOME", (home.path() + QStringLiteral("/data")).toUtf8());
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    // With no stored choice the system's language decides, as on a first start.
    qputenv("LC_ALL", language == QLatin1String("es") ? "es_ES.UTF-8" : "en_US.UTF-8");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    return velmora::runStudio(1, argv, [&folder, &language] {
        auto window = std::make_unique<StudioWindow>(false);
        StudioWindow* studio = window.get();
        const QString prefix = folder + u'/' + language + u'-';
        // The wizard opens from a zero-delay shot of the constructor; this one comes after it,
        // inside the wizard's own event loop.
        QTimer::singleShot(0, studio, [studio, prefix] {
            auto* wizard = qobject_cast<QWizard*>(QApplication::activeModalWidget());
            if (!wizard)
                return;
            save(wizard, prefix + QStringLiteral("wizard-1.png"));
            QTimer::singleShot(0, studio, [prefix] {
                if (auto* credits = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                    save(credits, prefix + QStringLiteral("credits.png"));
                    credits->button(QMessageBox::Ok)->click();
                }
            });
            wizard->page(0)->findChild<QPushButton*>()->click();
            wizard->next();
            save(wizard, prefix + QStringLiteral("wizard-2.png"));
            wizard->reject();
            // A second of the test source, then the take that puts it on the Stream program.
            QTimer::singleShot(1000, studio, [studio] { studio->take(); });
            QTimer::singleShot(2000, studio, [studio, prefix] {
                auto* tabs = studio->findChild<QTabWidget*>();
                for (int index = 0; index < tabs->count(); ++index) {
                    tabs->setCurrentIndex(index);
                    save(studio, prefix + QStringLiteral("tab-%1.png").arg(index + 1));
                }
                QCoreApplication::quit();
            });
        });
        return window;
    });
}
