#include "StudioWindow.h"

#include "Canvas.h"
#include "Media.h"
#include "i18n.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPlainTextEdit>

void StudioWindow::take()
{
    SceneDef& s = scene();
    // A file video starts from its beginning at every take; network sources, cameras and screens
    // keep running. A failure here leaves both Programs as they were.
    try {
        for (Layer& layer : s.layers) {
            if (layer.kind != Layer::Kind::Video || !layer.uri.startsWith(QLatin1String("file:")))
                continue;
            auto restarted = openMedia(layer.uri);
            retireMedia(std::exchange(layer.media, std::move(restarted)));
        }
    } catch (const std::exception& error) {
        notify(T(error.what()));
        return;
    }

    if (editTarget == 1) {
        retireSources(hallProgram);
        hallProgram.name = s.name;
        hallProgram.layers = s.layers;
        notify(T("Escena enviada a las pantallas de sala."));
        return;
    }
    fadeFrom = compose(program, programOverlay, programBand, width, height, false, false);
    retireSources(program);
    program.name = s.name;
    program.layers = s.layers;
    programOverlay = overlayField->text();
    programBand = bandCheck->isChecked();
    fadeStartUs = g_get_monotonic_time();
    fadeProgress = fadeEnabled ? 0.0 : 1.0;
}

void StudioWindow::offAir()
{
    if (editTarget == 1) {
        retireSources(hallProgram);
        hallProgram = {};
        notify(T("Pantallas de sala en negro."));
        return;
    }
    fadeFrom = compose(program, programOverlay, programBand, width, height, false, false);
    retireSources(program);
    program = {};
    if (!programOverlay.isEmpty())
        programOverlay.clear();
    programBand = false;
    fadeStartUs = g_get_monotonic_time();
    fadeProgress = fadeEnabled ? 0.0 : 1.0;
    notify(T("Programa en negro (fuera del aire)."));
}

void StudioWindow::busChosen(int bus)
{
    editTarget = bus;
    for (int each = 0; each < 2; ++each)
        busButtons[each]->setChecked(each == bus);
    canvas->aspect = bus == 1 ? double(hallWidth) / hallHeight : double(width) / height;
    canvas->scene = &scene();
    canvas->select(-1);
    refreshSceneList();
    takeButton->setText(bus == 1 ? T("A PANTALLAS  →") : T("AL AIRE  →"));
    notify(bus == 1 ? T("Editando las escenas de las pantallas de sala.") : T("Editando las escenas de Redes."));
}

void StudioWindow::sceneChosen(int index)
{
    if (index < 0 || index >= int(scenes[editTarget].size()))
        return;
    current[editTarget] = index;
    refreshSceneList(); // the combo of the take row and the list of the scene tab show the same choice
}

void StudioWindow::spacePressed()
{
    // Space types a blank wherever text is being written; elsewhere it takes.
    const QWidget* focused = QApplication::focusWidget();
    if (qobject_cast<const QLineEdit*>(focused) || qobject_cast<const QPlainTextEdit*>(focused))
        return;
    take();
}
