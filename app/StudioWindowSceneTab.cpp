#include "StudioWindow.h"

#include "Canvas.h"
#include "Frame.h"
#include "Media.h"
#include "PropertyPanel.h"
#include "SceneLimits.h"
#include "i18n.h"

#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QUrl>
#include <QVBoxLayout>
#include <stdexcept>

namespace {

// Each kind starts in its own box; addLayer never moves what it is given.
QRectF startingBox(Layer::Kind kind)
{
    switch (kind) {
    case Layer::Kind::Camera:
    case Layer::Kind::Screen:
    case Layer::Kind::Color:
        return {0.0, 0.0, 1.0, 1.0};
    case Layer::Kind::Text:
        return {0.08, 0.72, 0.84, 0.2};
    case Layer::Kind::Verse:
        return {0.08, 0.62, 0.84, 0.3};
    default:
        return {0.55, 0.05, 0.4, 0.4};
    }
}

} // namespace

Layer StudioWindow::layerOfKind(Layer::Kind kind)
{
    Layer layer;
    layer.kind = kind;
    layer.rect = startingBox(kind);
    return layer;
}

QString StudioWindow::chooseImageFile()
{
    return QFileDialog::getOpenFileName(this, T("Imagen"), QString(), T("Imágenes (*.png *.jpg *.jpeg *.bmp *.webp)"));
}

void StudioWindow::askImageLayer()
{
    const QString path = chooseImageFile();
    if (!path.isEmpty())
        addImageLayer(path);
}

void StudioWindow::askVideoLayer()
{
    const QString path =
        QFileDialog::getOpenFileName(this, T("Video"), QString(), T("Videos (*.webm *.mp4 *.mov *.mkv)"));
    if (!path.isEmpty())
        addVideoLayer(QUrl::fromLocalFile(path).toString());
}

QWidget* StudioWindow::buildSceneTab()
{
    auto* tab = new QWidget;
    auto* row = new QHBoxLayout(tab);

    auto* scenesColumn = new QVBoxLayout;
    scenesColumn->addWidget(new QLabel(T("Escenas")));
    sceneList = new QListWidget;
    connect(sceneList, &QListWidget::currentRowChanged, this, &StudioWindow::sceneChosen);
    scenesColumn->addWidget(sceneList, 1);
    auto* sceneButtons = new QHBoxLayout;
    QPushButton* newScene = button(T("+ Escena"));
    action(newScene, [this] { newSceneRequested(); });
    QPushButton* rename = button(T("Renombrar"));
    action(rename, [this] { renameSceneRequested(); });
    QPushButton* duplicate = button(T("Duplicar"));
    action(duplicate, [this] { duplicateScene(); });
    QPushButton* remove = button(T("Eliminar escena"));
    action(remove, [this] { deleteSceneRequested(); });
    for (QPushButton* each : {newScene, rename, duplicate, remove})
        sceneButtons->addWidget(each);
    scenesColumn->addLayout(sceneButtons);
    row->addLayout(scenesColumn, 2);

    auto* layersColumn = new QVBoxLayout;
    layersColumn->addWidget(new QLabel(T("Fuentes de la escena (arriba = encima)")));
    layerList = new QListWidget;
    connect(layerList, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* item) {
        if (item)
            canvas->select(item->data(Qt::UserRole).toInt());
    });
    connect(layerList, &QListWidget::itemChanged, this, [this](QListWidgetItem* item) {
        const int index = item->data(Qt::UserRole).toInt();
        SceneDef& edited = scene();
        if (index >= 0 && index < int(edited.layers.size()))
            edited.layers[std::size_t(index)].visible = item->checkState() == Qt::Checked;
    });
    layersColumn->addWidget(layerList, 1);
    auto* layerButtons = new QHBoxLayout;
    QPushButton* addSource = button(T("+ Fuente"));
    addSource->setMenu(buildSourceMenu(addSource));
    QPushButton* up = button(QStringLiteral("▲"));
    connect(up, &QPushButton::clicked, this, [this] { moveSelectedLayer(+1); });
    QPushButton* down = button(QStringLiteral("▼"));
    connect(down, &QPushButton::clicked, this, [this] { moveSelectedLayer(-1); });
    QPushButton* removeLayer = button(T("Eliminar"));
    connect(removeLayer, &QPushButton::clicked, this, &StudioWindow::removeSelectedLayer);
    for (QPushButton* each : {addSource, up, down, removeLayer})
        layerButtons->addWidget(each);
    layersColumn->addLayout(layerButtons);
    auto* quickRow = new QHBoxLayout;
    quickVerseField = new QLineEdit;
    quickVerseField->setPlaceholderText(T("Cita bíblica rápida: Juan 3:16, Salmos 23, 1 Co 13:4-7  ⏎"));
    connect(quickVerseField, &QLineEdit::returnPressed, this, [this] {
        try {
            showQuickVerse();
        } catch (const std::exception& error) {
            notify(T(error.what()));
        }
    });
    quickRow->addWidget(quickVerseField, 1);
    QPushButton* showVerse = button(T("Mostrar versículo"));
    action(showVerse, [this] { showQuickVerse(); });
    quickRow->addWidget(showVerse);
    layersColumn->addLayout(quickRow);
    row->addLayout(layersColumn, 3);

    propertyPanel = new PropertyPanel;
    propertyPanel->currentLayer = [this]() -> Layer* {
        scene();
        return selectedLayer();
    };
    propertyPanel->changed = [this] {
        refreshLayerNames();
        canvas->update();
    };
    propertyPanel->findVerse = [this](const QString& reference) {
        runGuarded([this, reference] { lookupVerse(canvas->selected, reference); });
    };
    propertyPanel->changeImage = [this] { runGuarded([this] { changeSelectedImage(); }); };
    propertyPanel->restartVideo = [this] { runGuarded([this] { restartSelectedVideo(); }); };
    auto* propertyScroll = new QScrollArea;
    propertyScroll->setFrameShape(QFrame::NoFrame);
    propertyScroll->setWidgetResizable(true);
    propertyScroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    propertyScroll->setWidget(propertyPanel);
    row->addWidget(propertyScroll, 5);
    return tab;
}

QMenu* StudioWindow::buildSourceMenu(QWidget* parent)
{
    auto* menu = new QMenu(parent);
    const auto entry = [this, menu](const QString& text, std::function<void()> handler) {
        connect(menu->addAction(text), &QAction::triggered, this, [this, handler] { runGuarded(handler); });
    };
    entry(T("Cámara / capturadora"), [this] { addLayer(layerOfKind(Layer::Kind::Camera)); });
    entry(T("Imagen..."), [this] { askImageLayer(); });
    entry(T("Texto"), [this] {
        Layer text = layerOfKind(Layer::Kind::Text);
        text.text = T("Texto nuevo");
        text.size = 56;
        addLayer(text);
    });
    entry(T("Video..."), [this] { askVideoLayer(); });
    entry(T("Fuente de red..."), [this] { askNetworkSource(); });
    entry(T("Captura de pantalla"), [this] { addScreenLayer(); });
    entry(T("Color sólido"), [this] { addLayer(layerOfKind(Layer::Kind::Color)); });
    entry(T("Subtítulos (IA): posición y estilo"), [this] {
        for (const Layer& each : scene().layers)
            if (each.kind == Layer::Kind::Subtitle)
                throw std::runtime_error("Esta escena ya tiene una fuente de subtítulos.");
        Layer subtitles = layerOfKind(Layer::Kind::Subtitle);
        subtitles.rect = QRectF(0.04, 0.78, 0.92, 0.16);
        addLayer(subtitles);
    });
    entry(T("Versículo bíblico"), [this] {
        Layer verse = layerOfKind(Layer::Kind::Verse);
        verse.size = 48;
        verse.text = T("Escribe la cita en Propiedades, p. ej. Juan 3:16");
        addLayer(verse);
    });
    return menu;
}

void StudioWindow::askNetworkSource()
{
    bool accepted = false;
    const QString address = QInputDialog::getText(this, T("Fuente de red"), T("URL HTTP(S) / RTSP / RTMP"),
                                                  QLineEdit::Normal, QString(), &accepted);
    if (accepted && !address.trimmed().isEmpty())
        addVideoLayer(address.trimmed());
}

Layer* StudioWindow::selectedLayer()
{
    SceneDef& edited = scene();
    const int index = canvas->selected;
    return index >= 0 && index < int(edited.layers.size()) ? &edited.layers[std::size_t(index)] : nullptr;
}

void StudioWindow::addLayer(Layer layer)
{
    SceneDef& target = scene();
    requireLayerRoom(target);
    if (layer.name.isEmpty())
        layer.name = Layer::label(layer.kind) + u' ' + QString::number(target.layers.size() + 1);
    target.layers.push_back(std::move(layer));
    canvas->scene = &target;
    canvas->select(int(target.layers.size()) - 1);
}

void StudioWindow::addImageLayer(const QString& path)
{
    Layer picture = layerOfKind(Layer::Kind::Image);
    picture.image = decodeImage(path);
    picture.path = path;
    picture.name = QFileInfo(path).fileName();
    const double aspect = double(picture.image->width) / picture.image->height;
    const int outputWidth = editTarget == 1 ? hallWidth : width;
    const int outputHeight = editTarget == 1 ? hallHeight : height;
    if (aspect > 0.0) {
        double w = 0.4;
        double h = 0.4 * outputWidth / (aspect * outputHeight);
        if (h > 0.9) {
            h = 0.9;
            w = aspect * 0.9 * outputHeight / outputWidth;
        }
        picture.rect = QRectF(0.55, 0.05, w, h);
    }
    addLayer(picture);
}

void StudioWindow::addVideoLayer(const QString& address)
{
    requireLayerRoom(scene());
    Layer video = layerOfKind(Layer::Kind::Video);
    video.media = openMedia(address);
    video.uri = address;
    addLayer(video);
    notify(T("Video/red preparado en Preparación; pulsa AL AIRE para enviarlo. El audio sale solo en Programa."));
}

void StudioWindow::addScreenLayer()
{
    requireLayerRoom(scene());
    Layer screen = layerOfKind(Layer::Kind::Screen);
    screen.media = std::make_shared<Media>(width, height, nullptr, std::string(), false, true);
    addLayer(screen);
    notify(T("Captura de pantalla añadida. macOS puede pedir permiso de Grabación de pantalla."));
}

void StudioWindow::moveSelectedLayer(int step)
{
    SceneDef& edited = scene();
    const int from = canvas->selected;
    const int to = from + step;
    if (from < 0 || to < 0 || to >= int(edited.layers.size()))
        return;
    std::swap(edited.layers[std::size_t(from)], edited.layers[std::size_t(to)]);
    canvas->select(to);
}

void StudioWindow::removeSelectedLayer()
{
    SceneDef& edited = scene();
    const int index = canvas->selected;
    if (index < 0 || index >= int(edited.layers.size()))
        return;
    retireMedia(std::move(edited.layers[std::size_t(index)].media));
    edited.layers.erase(edited.layers.begin() + index);
    canvas->select(-1);
}

void StudioWindow::changeSelectedImage()
{
    Layer* layer = selectedLayer();
    if (!layer)
        return;
    const QString path = chooseImageFile();
    if (path.isEmpty())
        return;
    auto decoded = decodeImage(path);
    if ((layer = selectedLayer())) {
        layer->image = std::move(decoded);
        layer->path = path;
        refreshLayerList();
    }
}

void StudioWindow::restartSelectedVideo()
{
    Layer* layer = selectedLayer();
    if (!layer || layer->kind != Layer::Kind::Video)
        return;
    retireMedia(std::exchange(layer->media, openMedia(layer->uri)));
}

void StudioWindow::newSceneRequested()
{
    auto& busScenes = scenes[editTarget];
    requireSceneRoom(busScenes);
    const QString name = QInputDialog::getText(this, T("Nueva escena"), T("Nombre"), QLineEdit::Normal,
                                               T("Escena") + u' ' + QString::number(busScenes.size() + 1));
    if (name.isEmpty())
        return;
    SceneDef made = defaultScene(editTarget);
    made.name = name;
    busScenes.push_back(std::move(made));
    current[editTarget] = int(busScenes.size()) - 1;
    refreshSceneList();
}

void StudioWindow::renameSceneRequested()
{
    SceneDef& edited = scene();
    const QString name = QInputDialog::getText(this, T("Renombrar"), T("Nombre"), QLineEdit::Normal, edited.name);
    if (name.isEmpty())
        return;
    edited.name = name;
    refreshSceneList();
}

void StudioWindow::duplicateScene()
{
    auto& busScenes = scenes[editTarget];
    requireSceneRoom(busScenes);
    SceneDef copy = scene();
    copy.name += u' ' + T("copia");
    busScenes.insert(busScenes.begin() + current[editTarget] + 1, std::move(copy));
    ++current[editTarget];
    refreshSceneList();
}

void StudioWindow::deleteSceneRequested()
{
    auto& busScenes = scenes[editTarget];
    if (busScenes.size() <= 1)
        throw std::runtime_error("Debe quedar al menos una escena");
    const SceneDef& doomed = scene();
    if (QMessageBox::question(this, T("Eliminar escena"), T("¿Eliminar la escena") + u' ' + doomed.name + u'?') !=
        QMessageBox::Yes)
        return;
    const auto at = busScenes.begin() + current[editTarget];
    retireSources(*at);
    busScenes.erase(at);
    refreshSceneList();
}

void StudioWindow::refreshSceneList()
{
    SceneDef& shown = scene();
    {
        const QSignalBlocker comboBlocker(sceneCombo);
        const QSignalBlocker listBlocker(sceneList);
        sceneCombo->clear();
        sceneList->clear();
        for (const SceneDef& each : scenes[editTarget]) {
            sceneCombo->addItem(each.name);
            sceneList->addItem(each.name);
        }
        sceneCombo->setCurrentIndex(current[editTarget]);
        sceneList->setCurrentRow(current[editTarget]);
    }
    canvas->scene = &shown;
    canvas->select(-1);
}

void StudioWindow::refreshLayerList()
{
    SceneDef& shown = scene();
    canvas->scene = &shown;
    if (canvas->selected >= int(shown.layers.size()))
        canvas->selected = -1;
    {
        const QSignalBlocker blocker(layerList);
        layerList->clear();
        for (int index = int(shown.layers.size()) - 1; index >= 0; --index) {
            const Layer& layer = shown.layers[std::size_t(index)];
            auto* item = new QListWidgetItem(layer.name, layerList);
            item->setData(Qt::UserRole, index);
            item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
            item->setCheckState(layer.visible ? Qt::Checked : Qt::Unchecked);
            item->setToolTip(T("Marca para mostrar, desmarca para ocultar"));
            if (index == canvas->selected)
                layerList->setCurrentItem(item);
        }
    }
    canvas->update();
    // A new selection, or new contents written from outside the panel (a verse, a picture): rebuild.
    if (propertyPanel)
        propertyPanel->rebuild(selectedLayer());
}

void StudioWindow::refreshLayerNames()
{
    const SceneDef& shown = scene();
    const QSignalBlocker blocker(layerList);
    for (int row = 0; row < layerList->count(); ++row) {
        QListWidgetItem* item = layerList->item(row);
        const int index = item->data(Qt::UserRole).toInt();
        if (index >= 0 && index < int(shown.layers.size()))
            item->setText(shown.layers[std::size_t(index)].name);
    }
}

void StudioWindow::refreshProps()
{
    if (propertyPanel)
        propertyPanel->refresh(selectedLayer());
}
