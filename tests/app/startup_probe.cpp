// Runs the studio's real start-up with a stand-in window chosen by VELMORA_PROBE:
//   report  - prints the language and the environment GStreamer was started with, exits 0
//   throw:T - the window's constructor fails with the text T, which may be empty; prints the critical
//             box it gets, then closes it
//   exit:N  - the event loop ends with code N
#include "Startup.h"
#include "i18n.h"

#include <QApplication>
#include <QMessageBox>
#include <QTimer>
#include <QWidget>
#include <cstdio>
#include <stdexcept>

namespace {

void printVariable(const char* name)
{
    std::printf("%s=%s\n", name, qEnvironmentVariableIsSet(name) ? qgetenv(name).constData() : "<unset>");
}

void reportModalBoxLater()
{
    QTimer::singleShot(0, [] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) {
            std::printf("box=<none>\n");
            return;
        }
        std::printf("box.title=%s\nbox.text=%s\n", qPrintable(box->windowTitle()), qPrintable(box->text()));
        std::fflush(stdout);
        box->accept();
    });
}

} // namespace

int main(int argc, char** argv)
{
    const QByteArray mode = qgetenv("VELMORA_PROBE");
    return velmora::runStudio(argc, argv, [mode]() -> std::unique_ptr<QWidget> {
        if (mode.startsWith("throw:")) {
            reportModalBoxLater();
            throw std::runtime_error(mode.mid(6).toStdString());
        }
        if (mode.startsWith("exit:")) {
            const int code = mode.mid(5).toInt();
            QTimer::singleShot(0, [code] { QCoreApplication::exit(code); });
            return std::make_unique<QWidget>();
        }
        std::printf("language=%s\n", qPrintable(tavrin_i18n::language()));
        for (const char* name : {"PATH", "GST_PLUGIN_SYSTEM_PATH_1_0", "GST_PLUGIN_PATH_1_0", "GIO_MODULE_DIR",
                                 "GST_PLUGIN_SCANNER"})
            printVariable(name);
        std::fflush(stdout);
        QTimer::singleShot(0, [] { QCoreApplication::quit(); });
        return std::make_unique<QWidget>();
    });
}
