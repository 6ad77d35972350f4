#include "SceneDef.h"

#include <QJsonArray>

QJsonObject SceneDef::toJson() const
{
    QJsonArray array;
    for (const Layer& layer : layers)
        array.append(layer.toJson());
    return {{QStringLiteral("name"), name}, {QStringLiteral("layers"), array}};
}

SceneDef SceneDef::fromJson(const QJsonObject& object)
{
    SceneDef scene;
    scene.name = object.value(QStringLiteral("name")).toString();
    const QJsonArray array = object.value(QStringLiteral("layers")).toArray();
    scene.layers.reserve(std::size_t(array.size()));
    for (const QJsonValue& value : array)
        scene.layers.push_back(Layer::fromJson(value.toObject()));
    return scene;
}
