#include "StudioWindow.h"

#include "i18n.h"

#include <algorithm>

SceneDef StudioWindow::defaultScene(int bus) const
{
    SceneDef made;
    made.name = T("Escena 1");
    if (bus == 0) {
        Layer camera;
        camera.name = T("Cámara");
        made.layers.push_back(camera);
        return made;
    }
    Layer background;
    background.kind = Layer::Kind::Color;
    background.name = T("Fondo");
    background.fill = QColor(8, 24, 48);
    Layer subtitles;
    subtitles.kind = Layer::Kind::Subtitle;
    subtitles.name = T("Subtítulos (IA)");
    subtitles.rect = QRectF(0.05, 0.08, 0.9, 0.84);
    subtitles.size = 72;
    subtitles.background = QColor(0, 0, 0, 0);
    subtitles.align = int(Qt::AlignLeft | Qt::AlignTop);
    subtitles.shadow = true;
    made.layers = {background, subtitles};
    return made;
}

SceneDef& StudioWindow::scene()
{
    auto& busScenes = scenes[editTarget];
    if (busScenes.empty()) {
        busScenes.push_back(defaultScene(editTarget));
        current[editTarget] = 0;
    }
    current[editTarget] = std::clamp(current[editTarget], 0, int(busScenes.size()) - 1);
    return busScenes[std::size_t(current[editTarget])];
}
