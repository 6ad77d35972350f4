#include "StudioWindow.h"

#include "Picture.h"
#include "i18n.h"

#include <QComboBox>
#include <QGuiApplication>
#include <QScreen>

void StudioWindow::hallScreensPressed()
{
    if (hallWindow->isVisible()) {
        hallWindow->hide();
        return;
    }
    const QList<QScreen*> screens = QGuiApplication::screens();
    const int index = screenCombo->currentIndex();
    // With no screens at all the combo is empty and its index -1: nothing to show on.
    if (index < 0 || index >= screens.size())
        return;
    hallWindow->setGeometry(screens[index]->geometry());
    hallWindow->setCursor(Qt::BlankCursor);
    hallWindow->showFullScreen();
    hallWindow->activateWindow();
    hallWindow->setFocus();
    hallButton->setText(T("Ocultar pantallas de sala (Esc)"));
}

void StudioWindow::screenRemoved()
{
    hallWindow->hide();
    screenCombo->clear();
    for (const QScreen* each : QGuiApplication::screens())
        screenCombo->addItem(each->name());
    notify(T("Pantalla desconectada; Programa y salidas continúan."));
}
