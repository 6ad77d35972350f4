#pragma once

#include "Layer.h"

#include <QJsonObject>
#include <QString>
#include <vector>

// A named list of layers; index 0 is painted first, so the last layer is in front.
class SceneDef
{
public:
    QString name;
    std::vector<Layer> layers;

    QJsonObject toJson() const;
    static SceneDef fromJson(const QJsonObject& object);
};
