#include "StudioWindow.h"

#include "Media.h"
#include "ProjectFile.h"
#include "i18n.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QSlider>
#include <stdexcept>

namespace {

// Opens what each layer shows. A failure leaves the layer in place without its picture, so it shows
// the missing box, and is named in the one warning given after the load.
void openLayerMedia(StudioWindow& window, std::vector<SceneDef>& list, int width, int height, QStringList& failures)
{
    for (SceneDef& each : list) {
        for (Layer& layer : each.layers) {
            try {
                if (layer.kind == Layer::Kind::Image && !layer.path.isEmpty())
                    layer.image = window.decodeImage(layer.path);
                else if (layer.kind == Layer::Kind::Video && !layer.uri.isEmpty())
                    layer.media = window.openMedia(layer.uri);
                else if (layer.kind == Layer::Kind::Screen)
                    layer.media = std::make_shared<Media>(width, height, nullptr, std::string(), false, true);
            } catch (const std::exception& error) {
                failures.append(layer.name + QStringLiteral(": ") + T(error.what()));
            }
        }
    }
}

} // namespace

void StudioWindow::project(bool save)
{
    if (outputsRunning())
        throw std::runtime_error("Detén salidas antes de abrir/guardar proyecto");
    const QString filter = T("Velmora (*.tavrin)");
    if (save) {
        const QString path = QFileDialog::getSaveFileName(this, T("Guardar proyecto"), projectPath, filter);
        if (path.isEmpty())
            return;
        ProjectData data;
        data.vertical = width < height;
        data.current = current[0];
        data.currentHall = current[1];
        data.scenes = scenes[0];
        data.hall = scenes[1];
        data.band = bandCheck->isChecked();
        data.title = overlayField->text();
        data.gain = gainSlider->value();
        writeProjectFile(path, writeProject(data));
        projectPath = path;
        notify(T("Proyecto guardado/abierto. Programa comienza en negro; claves no se incluyen."));
        return;
    }

    const QString path = QFileDialog::getOpenFileName(this, T("Abrir proyecto"), QString(), filter);
    if (path.isEmpty())
        return;
    openProject(path);
}

void StudioWindow::openProject(const QString& path)
{
    if (outputsRunning())
        throw std::runtime_error("Detén salidas antes de abrir/guardar proyecto");
    ProjectData data = readProject(readProjectFile(path));
    // The format is set before the scenes are read, with the format change's own reset of Program.
    formatCombo->setCurrentIndex(data.vertical ? 1 : 0);

    QStringList failures;
    openLayerMedia(*this, data.scenes, width, height, failures);
    openLayerMedia(*this, data.hall, width, height, failures);
    if (data.scenes.empty())
        data.scenes.push_back(defaultScene(0));
    if (data.hall.empty())
        data.hall.push_back(defaultScene(1));
    for (auto& busScenes : scenes)
        for (SceneDef& each : busScenes)
            retireSources(each);
    scenes[0] = std::move(data.scenes);
    scenes[1] = std::move(data.hall);
    current[0] = clampedIndex(data.current, scenes[0].size());
    current[1] = clampedIndex(data.currentHall, scenes[1].size());
    // Program may hold the last reference to a source the old scenes no longer show: that one too is
    // let go on a worker. The frozen lower third goes with it, or Program would not start black.
    retireSources(program);
    retireSources(hallProgram);
    program = {};
    hallProgram = {};
    programOverlay.clear();
    programBand = false;

    refreshSceneList();
    bandCheck->setChecked(data.band);
    overlayField->setText(data.title.left(500));
    gainSlider->setValue(data.gain);
    if (!failures.isEmpty())
        QMessageBox::warning(this, T("Abrir proyecto"), failures.join(u'\n'), QMessageBox::Ok);
    projectPath = path;
    notify(T("Proyecto guardado/abierto. Programa comienza en negro; claves no se incluyen."));
}
