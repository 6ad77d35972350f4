#include "Startup.h"

#include "DiagnosticLog.h"
#include "i18n.h"

#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QSettings>
#include <QWidget>
#include <gst/gst.h>
#include <optional>
#include <stdexcept>

namespace velmora {

QString chooseLanguage(const QString& stored, QLocale::Language systemLanguage)
{
    if (stored == QLatin1String("en") || stored == QLatin1String("es"))
        return stored;
    return systemLanguage == QLocale::Spanish ? QStringLiteral("es") : QStringLiteral("en");
}

void prepareEnvironment(const QString& applicationDir)
{
#ifdef Q_OS_WIN
    // Untested on Windows here: the layout of the tree that the Windows package ships.
    constexpr char pathSeparator = ';';
    const QString scannerName = QStringLiteral("gst-plugin-scanner.exe");
#else
    constexpr char pathSeparator = ':';
    const QString scannerName = QStringLiteral("gst-plugin-scanner");
#endif
    qputenv("PATH", QFile::encodeName(QDir::toNativeSeparators(applicationDir)) + pathSeparator + qgetenv("PATH"));

    const QString gstBase = applicationDir + QStringLiteral("/gstreamer");
    const QString pluginDir = gstBase + QStringLiteral("/lib/gstreamer-1.0");
    if (!QDir(pluginDir).exists())
        return;
    qputenv("GST_PLUGIN_SYSTEM_PATH_1_0", pluginDir.toUtf8());
    // Set to empty rather than unset, so no user's or other product's plugin path leaks in.
    qputenv("GST_PLUGIN_PATH_1_0", QByteArray(""));
    qputenv("GIO_MODULE_DIR", (gstBase + QStringLiteral("/lib/gio/modules")).toUtf8());
    qputenv("GST_PLUGIN_SCANNER", (gstBase + QStringLiteral("/libexec/gstreamer-1.0/") + scannerName).toUtf8());
}

QString styleSheet()
{
    return QStringLiteral(
        "QMainWindow,QWidget{background:#0e1724;color:#eaf2fa;font-family:'Arial';font-size:13px;}"
        "QGroupBox,QTabWidget::pane{border:1px solid #31465f;border-radius:10px;}"
        "QLineEdit,QComboBox,QPlainTextEdit{background:#1a2a3d;border:1px solid #476789;border-radius:6px;"
        "padding:8px;selection-background-color:#1e72b8;}"
        "QPushButton{background:#234363;border:1px solid #426c95;border-radius:7px;padding:7px 13px;font-weight:600;}"
        "QPushButton:hover{background:#30618b;}"
        "QPushButton:disabled{color:#708196;background:#192635;}"
        "QPushButton#take{background:#bd304d;color:white;font-weight:800;}"
        "QPushButton#offair{background:#2b2f3a;color:#d9e2ee;border:1px solid #59637a;}"
        "QTabBar::tab{background:#192b40;padding:10px 20px;border-radius:4px;}"
        "QTabBar::tab:selected{background:#245b8b;}"
        "QProgressBar{border:1px solid #36516d;border-radius:5px;background:#17273a;text-align:center;}"
        "QProgressBar::chunk{background:#29a782;border-radius:4px;}"
        "QCheckBox{spacing:7px;}"
        "QSlider::groove:horizontal{height:7px;background:#304963;border-radius:3px;}"
        "QSlider::handle:horizontal{width:16px;background:#65b0ed;margin:-5px 0;border-radius:8px;}");
}

int runStudio(int argc, char** argv, const WindowFactory& makeWindow)
{
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QApplication::setApplicationVersion(QStringLiteral("0.4.0"));
    QApplication::setOrganizationName(QStringLiteral("Lorvane"));
    {
        const QSettings settings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"));
        tavrin_i18n::language() =
            chooseLanguage(settings.value(QStringLiteral("language")).toString(), QLocale::system().language());
    }
    prepareEnvironment(QCoreApplication::applicationDirPath());

    gst_init(nullptr, nullptr);
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    gst_debug_add_log_function(gstLogToFile, nullptr, nullptr);

    appendLogLine(QStringLiteral("=== Inicio Velmora 0.4.0 ==="));
    application.setStyleSheet(styleSheet());

    int exitCode = 1;
    std::optional<std::string> failure; // what() may be empty: the box shows all the same
    try {
        const std::unique_ptr<QWidget> window = makeWindow();
        window->show();
        exitCode = QApplication::exec();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    // The window is gone here: its pipelines are stopped before GStreamer is.
    if (failure) {
        QMessageBox::critical(nullptr, T("No se pudo iniciar Velmora"), T(failure->c_str()), QMessageBox::Ok);
        exitCode = 1;
    }
    gst_deinit();
    return exitCode;
}

} // namespace velmora
