#include "Layer.h"

#include "i18n.h"

#include <QJsonValue>
#include <algorithm>
#include <array>

namespace {

constexpr std::array<const char*, 8> kindWords{"camera", "image", "text",  "video",
                                              "screen", "color", "verse", "subtitle"};

bool isTextKind(Layer::Kind kind)
{
    return kind == Layer::Kind::Text || kind == Layer::Kind::Verse || kind == Layer::Kind::Subtitle;
}

QString colorName(const QColor& color)
{
    return color.name(QColor::HexArgb);
}

} // namespace

QString Layer::label(Kind kind)
{
    switch (kind) {
    case Kind::Camera:
        return T("Cámara");
    case Kind::Image:
        return T("Imagen");
    case Kind::Text:
        return T("Texto");
    case Kind::Video:
        return T("Video");
    case Kind::Screen:
        return T("Pantalla");
    case Kind::Color:
        return T("Color");
    case Kind::Verse:
        return T("Versículo");
    case Kind::Subtitle:
        return T("Subtítulos (IA)");
    }
    return {};
}

QJsonObject Layer::toJson() const
{
    const auto index = std::size_t(kind);
    QJsonObject object{
        {QStringLiteral("kind"), QString::fromLatin1(index < kindWords.size() ? kindWords[index] : kindWords[0])},
        {QStringLiteral("name"), name},
        {QStringLiteral("visible"), visible},
        {QStringLiteral("opacity"), opacity},
        {QStringLiteral("x"), rect.x()},
        {QStringLiteral("y"), rect.y()},
        {QStringLiteral("w"), rect.width()},
        {QStringLiteral("h"), rect.height()},
        {QStringLiteral("cover"), cover},
    };
    if (kind == Kind::Image)
        object.insert(QStringLiteral("path"), path);
    if (isTextKind(kind)) {
        object.insert(QStringLiteral("text"), text);
        object.insert(QStringLiteral("reference"), reference);
        object.insert(QStringLiteral("font"), font);
        object.insert(QStringLiteral("size"), size);
        object.insert(QStringLiteral("bold"), bold);
        object.insert(QStringLiteral("color"), colorName(color));
        object.insert(QStringLiteral("background"), colorName(background));
        object.insert(QStringLiteral("align"), align);
        object.insert(QStringLiteral("shadow"), shadow);
    }
    if (kind == Kind::Video) {
        object.insert(QStringLiteral("uri"), uri);
        object.insert(QStringLiteral("sound"), sound);
    }
    if (kind == Kind::Color)
        object.insert(QStringLiteral("fill"), colorName(fill));
    return object;
}

Layer Layer::fromJson(const QJsonObject& object)
{
    Layer layer;
    const QString word = object.value(QStringLiteral("kind")).toString();
    for (std::size_t index = 0; index < kindWords.size(); ++index) {
        if (word == QLatin1String(kindWords[index])) {
            layer.kind = Kind(index);
            break;
        }
    }
    layer.name = object.value(QStringLiteral("name")).toString();
    layer.visible = object.value(QStringLiteral("visible")).toBool(true);
    // Written so that anything that does not compare as a positive number ends at 0.
    const double opacity = object.value(QStringLiteral("opacity")).toDouble(1.0);
    layer.opacity = opacity > 0.0 ? std::min(opacity, 1.0) : 0.0;

    const double h = object.value(QStringLiteral("h")).toDouble(1.0);
    const double w = object.value(QStringLiteral("w")).toDouble(1.0);
    const double y = object.value(QStringLiteral("y")).toDouble(0.0);
    const double x = object.value(QStringLiteral("x")).toDouble(0.0);
    // A box too thin to see or grab is a damaged one: it comes back full.
    layer.rect = (w <= 0.01 || h <= 0.01) ? QRectF(0.0, 0.0, 1.0, 1.0) : QRectF(x, y, w, h);

    layer.path = object.value(QStringLiteral("path")).toString();
    layer.text = object.value(QStringLiteral("text")).toString();
    layer.reference = object.value(QStringLiteral("reference")).toString();
    if (object.contains(QStringLiteral("font")))
        layer.font = object.value(QStringLiteral("font")).toString();
    layer.size = std::clamp(object.value(QStringLiteral("size")).toInt(56), 8, 400);
    layer.bold = object.value(QStringLiteral("bold")).toBool(true);
    // A bad colour text stays an invalid colour on purpose: it shows that the file was damaged.
    if (object.contains(QStringLiteral("color")))
        layer.color = QColor::fromString(object.value(QStringLiteral("color")).toString());
    if (object.contains(QStringLiteral("background")))
        layer.background = QColor::fromString(object.value(QStringLiteral("background")).toString());
    layer.align = object.value(QStringLiteral("align")).toInt(Qt::AlignCenter);
    layer.shadow = object.value(QStringLiteral("shadow")).toBool(true);
    layer.uri = object.value(QStringLiteral("uri")).toString();
    layer.sound = object.value(QStringLiteral("sound")).toBool(true);
    layer.cover = object.value(QStringLiteral("cover")).toBool(false);
    if (object.contains(QStringLiteral("fill")))
        layer.fill = QColor::fromString(object.value(QStringLiteral("fill")).toString());
    return layer;
}
