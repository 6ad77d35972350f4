#include "StudioWindow.h"

#include "Canvas.h"
#include "Media.h"
#include "i18n.h"

#include <QImage>
#include <QUrl>
#include <cstring>
#include <stdexcept>

std::shared_ptr<Media> StudioWindow::openMedia(const QString& address)
{
    static const QStringList schemes{QStringLiteral("file"),  QStringLiteral("https"), QStringLiteral("http"),
                                     QStringLiteral("rtsp"),  QStringLiteral("rtsps"), QStringLiteral("rtmp"),
                                     QStringLiteral("rtmps")};
    const QUrl url(address, QUrl::TolerantMode);
    if (!url.isValid() || !schemes.contains(url.scheme()))
        throw std::runtime_error("URL multimedia no compatible");
    return std::make_shared<Media>(width, height, nullptr, address.toStdString(), false, false);
}

std::shared_ptr<tavrin::Frame> StudioWindow::decodeImage(const QString& path)
{
    const QImage loaded(path);
    if (loaded.isNull() || loaded.width() > 8192 || loaded.height() > 8192)
        throw std::runtime_error("Imagen inválida o demasiado grande");
    const QImage rgba = loaded.convertToFormat(QImage::Format_RGBA8888);
    auto frame = std::make_shared<tavrin::Frame>(rgba.width(), rgba.height());
    const std::size_t rowBytes = std::size_t(rgba.width()) * 4;
    for (int y = 0; y < rgba.height(); ++y)
        std::memcpy(frame->pixels.data() + std::size_t(y) * rowBytes, rgba.constScanLine(y), rowBytes);
    return frame;
}

void StudioWindow::retireSources(SceneDef& scene)
{
    for (Layer& layer : scene.layers)
        retireMedia(std::move(layer.media));
}

void StudioWindow::formatChosen(int index)
{
    width = index == 1 ? 1080 : 1920;
    height = index == 1 ? 1920 : 1080;
    retireMedia(std::exchange(camera, std::make_shared<Media>(width, height, nullptr, std::string(), true, false)));
    cameraIndex = -2;
    // The Stream program goes black until the next take, lower third included.
    retireSources(program);
    program = {};
    programOverlay.clear();
    programBand = false;
    if (editTarget == 0)
        canvas->aspect = double(width) / height;
    // Sources of the stream scenes deliver at the canvas size: each gets a new one at the new size.
    for (SceneDef& each : scenes[0]) {
        for (Layer& layer : each.layers) {
            if (!layer.media)
                continue;
            auto reopened = layer.kind == Layer::Kind::Screen
                                ? std::make_shared<Media>(width, height, nullptr, std::string(), false, true)
                                : openMedia(layer.uri);
            retireMedia(std::exchange(layer.media, std::move(reopened)));
        }
    }
    canvas->update();
    notify(T("Formato cambiado. Reconecta las fuentes para el perfil elegido."));
}
