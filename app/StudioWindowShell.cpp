#include "StudioWindow.h"

#include "DiagnosticLog.h"
#include "i18n.h"

#include <QCoreApplication>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QProcess>
#include <QProgressBar>
#include <QSignalBlocker>
#include <algorithm>
#include <stdexcept>

void StudioWindow::notify(const QString& text)
{
    statusLabel->setText(text);
    logLine(QStringLiteral("UI: ") + text);
}

void StudioWindow::logLine(const QString& text)
{
    velmora::appendLogLine(text);
}

QString StudioWindow::logPath()
{
    return velmora::logFilePath();
}

QPushButton* StudioWindow::button(const QString& text)
{
    auto* made = new QPushButton(text);
    made->setMinimumHeight(36);
    made->setMinimumWidth(made->sizeHint().width());
    return made;
}

void StudioWindow::runGuarded(const std::function<void()>& handler)
{
    try {
        handler();
    } catch (const std::exception& error) {
        notify(T(error.what()));
        QMessageBox::warning(this, T("Velmora"), T(error.what()), QMessageBox::Ok);
    }
}

void StudioWindow::meter(QProgressBar* bar, int value)
{
    bar->setValue(std::clamp(value, 0, 100));
    const int band = value >= 90 ? 2 : value >= 70 ? 1 : 0;
    // Restyling 30 times a second is costly: the stylesheet changes only when the colour band does.
    const QVariant shown = bar->property("band");
    if (shown.isValid() && shown.toInt() == band)
        return;
    bar->setProperty("band", band);
    static const char* const colours[] = {"#29a782", "#e3b23c", "#d6453d"};
    bar->setStyleSheet(QStringLiteral("QProgressBar::chunk{background:%1;border-radius:4px;}")
                           .arg(QLatin1String(colours[band])));
}

void StudioWindow::languageChosen(int index)
{
    const QString chosen = index == 1 ? QStringLiteral("en") : QStringLiteral("es");
    if (chosen == tavrin_i18n::language())
        return;
    if (outputsRunning()) {
        notify(T("Detén las salidas antes de cambiar el idioma."));
        const QSignalBlocker blocker(languageCombo);
        languageCombo->setCurrentIndex(tavrin_i18n::language() == QLatin1String("en") ? 1 : 0);
        return;
    }
    settings.setValue(QStringLiteral("language"), chosen);
    settings.sync();
    const auto answer = QMessageBox::question(this, T("Idioma"),
                                              T("El idioma cambiará al volver a abrir la app. ¿Reiniciar ahora?"),
                                              QMessageBox::Yes | QMessageBox::No);
    if (answer != QMessageBox::Yes)
        return;
    QProcess::startDetached(QCoreApplication::applicationFilePath(), {});
    close();
}
