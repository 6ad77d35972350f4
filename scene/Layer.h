#pragma once

#include <QColor>
#include <QJsonObject>
#include <QRectF>
#include <QString>
#include <memory>

class Media;
namespace tavrin {
struct Frame;
}

// One item of a scene. A plain value: the fields of every kind stand side by side, and copies share
// the decoded picture and the running source, so Preview, Program and duplicates cost no new pipeline.
class Layer
{
public:
    enum class Kind : qint32 { Camera, Image, Text, Video, Screen, Color, Verse, Subtitle };

    Kind kind = Kind::Camera;
    QString name;
    bool visible = true;
    double opacity = 1.0;
    QRectF rect{0.0, 0.0, 1.0, 1.0}; // fractions of the output, origin top left
    QString path;
    std::shared_ptr<tavrin::Frame> image;
    QString text;
    QString reference;
    QString font = QStringLiteral("Arial");
    qint32 size = 56; // pixels of a 1080-pixel-high output
    bool bold = true;
    QColor color{255, 255, 255};
    QColor background{0, 0, 0, 150};
    qint32 align = Qt::AlignCenter;
    bool shadow = true;
    QString uri;
    std::shared_ptr<Media> media;
    bool sound = true;
    bool cover = false;
    QColor fill{12, 48, 88};

    static QString label(Kind kind);
    QJsonObject toJson() const;
    static Layer fromJson(const QJsonObject& object);
};
