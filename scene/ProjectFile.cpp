#include "ProjectFile.h"

#include "SceneLimits.h"
#include "i18n.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <algorithm>
#include <climits>
#include <stdexcept>

namespace {

constexpr qsizetype maxTitleLength = 500;

QJsonArray scenesToJson(const std::vector<SceneDef>& scenes)
{
    QJsonArray array;
    for (const SceneDef& scene : scenes)
        array.append(scene.toJson());
    return array;
}

std::vector<SceneDef> scenesFromJson(const QJsonValue& value)
{
    const QJsonArray array = value.toArray();
    // Checked before anything is built: a file beyond the bounds is refused whole.
    if (std::size_t(array.size()) > maxScenesPerList)
        throw std::runtime_error("Proyecto inválido");
    for (const QJsonValue& element : array) {
        if (std::size_t(element.toObject().value(QStringLiteral("layers")).toArray().size()) > maxLayersPerScene)
            throw std::runtime_error("Proyecto inválido");
    }
    std::vector<SceneDef> scenes;
    scenes.reserve(std::size_t(array.size()));
    for (const QJsonValue& element : array)
        scenes.push_back(SceneDef::fromJson(element.toObject()));
    return scenes;
}

// Version 1 stored one stream scene as a layout number plus an image and a media address.
SceneDef versionOneScene(const QJsonObject& root)
{
    const int layout = root.value(QStringLiteral("scene")).toInt(0);
    const QString image = root.value(QStringLiteral("image")).toString();
    const QString media = root.value(QStringLiteral("media")).toString();

    SceneDef scene;
    scene.name = T("Escena 1");
    if (layout == 0) {
        Layer camera;
        camera.name = T("Cámara");
        scene.layers.push_back(camera);
    }
    if (!image.isEmpty()) {
        Layer picture;
        picture.kind = Layer::Kind::Image;
        picture.path = image;
        picture.name = QFileInfo(image).fileName();
        // Layout 2 was the full-screen picture; the others showed it as a corner logo.
        picture.rect = layout == 2 ? QRectF(0.0, 0.0, 1.0, 1.0) : QRectF(0.8, 0.03, 0.17, 0.17);
        scene.layers.push_back(picture);
    }
    if (!media.isEmpty()) {
        Layer video;
        video.kind = Layer::Kind::Video;
        video.uri = media;
        video.name = T("Video");
        scene.layers.push_back(video);
    }
    return scene;
}

} // namespace

QByteArray writeProject(const ProjectData& project)
{
    const QJsonObject root{
        {QStringLiteral("version"), projectVersion},
        {QStringLiteral("vertical"), project.vertical},
        {QStringLiteral("current"), project.current},
        {QStringLiteral("currentHall"), project.currentHall},
        {QStringLiteral("scenes"), scenesToJson(project.scenes)},
        {QStringLiteral("hall"), scenesToJson(project.hall)},
        {QStringLiteral("band"), project.band},
        {QStringLiteral("title"), project.title},
        {QStringLiteral("gain"), project.gain},
    };
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

ProjectData readProject(const QByteArray& bytes)
{
    // Text that is not a JSON object reads as {} and is then refused for its missing version.
    const QJsonObject root = QJsonDocument::fromJson(bytes).object();

    const int version = root.value(QStringLiteral("version")).toInt(0);
    if (version < 1 || version > projectVersion)
        throw std::runtime_error("Versión de proyecto inválida");

    // No default gain: a file without it was not written by the studio.
    const int gain = root.value(QStringLiteral("gain")).toInt(-1);
    if (gain < 0 || gain > 200)
        throw std::runtime_error("Opciones de proyecto inválidas");

    ProjectData project;
    project.gain = gain;
    project.vertical = root.value(QStringLiteral("vertical")).toBool(false);
    if (version == 1) {
        project.scenes.push_back(versionOneScene(root));
    } else {
        project.scenes = scenesFromJson(root.value(QStringLiteral("scenes")));
        project.hall = scenesFromJson(root.value(QStringLiteral("hall")));
    }
    project.current = root.value(QStringLiteral("current")).toInt(0);
    project.currentHall = root.value(QStringLiteral("currentHall")).toInt(0);
    project.band = root.value(QStringLiteral("band")).toBool(false);
    project.title = root.value(QStringLiteral("title")).toString().left(maxTitleLength);
    return project;
}

int clampedIndex(int index, std::size_t count)
{
    if (count == 0)
        return 0;
    const qint64 last = qint64(std::min<std::size_t>(count, std::size_t(INT_MAX))) - 1;
    return int(std::clamp<qint64>(index, 0, last));
}

QByteArray readProjectFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > maxProjectFileBytes)
        throw std::runtime_error("Proyecto inválido");
    return file.readAll();
}

void writeProjectFile(const QString& path, const QByteArray& bytes)
{
    // QSaveFile writes beside the target and renames on commit, so the former file survives any
    // failure before that point.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        throw std::runtime_error("No se pudo guardar proyecto");
}
