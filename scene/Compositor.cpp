#include "Compositor.h"

#include "Frame.h"
#include "Media.h"
#include "TextPainting.h"
#include "i18n.h"

#include <QHash>
#include <QRgba64>

#include <algorithm>
#include <cmath>
#include <functional>
#include <new>
#include <vector>

using textpainting::drawPasses;
using textpainting::drawTextLayer;
using textpainting::finishingFont;
using textpainting::paintedBounds;
using textpainting::Scratch;

// The literal way (drawLayer and Mode::Literal) is the reference: it wraps every frame and lays out
// every text on each call. Mode::Fast must give the same pixels, so it never draws differently; it
// only draws less often. Sources are premultiplied once per new frame; scaled pictures, text layers
// and the finishing text are kept as premultiplied sprites of what the literal way paints, blended
// in with one unscaled blit, QPainter's fastest path; output buffers are reused once the caller has
// let go of them. Compared with the literal way the pixels differ by rounding only (at most 2 per
// channel, checked by tst_compositor).

namespace {

// Entries not used by this many compositions (three a frame) are dropped.
constexpr quint64 keepCompositions = 6;

const QColor missingColour(0, 0, 0, 200);

QImage wrap(const tavrin::Frame& frame)
{
    return QImage(frame.pixels.data(), frame.width, frame.height, qsizetype(frame.width) * 4,
                  QImage::Format_RGBA8888);
}

// A frame whose buffer is shorter than its sides claim counts as no picture rather than being read
// past its end.
bool usable(const tavrin::Frame* frame)
{
    return frame && !frame->empty() &&
           frame->pixels.size() >= std::size_t(frame->width) * std::size_t(frame->height) * 4;
}

const tavrin::Frame* mediaFrame(const Layer& layer)
{
    return layer.media ? &layer.media->latest : nullptr;
}

QRectF boxOf(const Layer& layer, int width, int height)
{
    return QRectF(layer.rect.x() * width, layer.rect.y() * height, layer.rect.width() * width,
                  layer.rect.height() * height);
}

// Where a picture of `frameSize` lands in `box`, and which part of it is shown.
struct Placement
{
    QRectF target;
    QRectF source;
};

Placement place(const QSizeF& frameSize, const QRectF& box, bool cover)
{
    const QSizeF boxSize = box.size();
    if (cover) {
        // The box's shape cut out of the middle of the frame, stretched over the whole box.
        const QSizeF shown = boxSize.scaled(frameSize, Qt::KeepAspectRatio);
        const QPointF corner((frameSize.width() - shown.width()) * 0.5, (frameSize.height() - shown.height()) * 0.5);
        return {box, QRectF(corner, shown)};
    }
    // The whole frame, as large as fits, centred; the rest of the box stays open.
    const QSizeF shown = frameSize.scaled(boxSize, Qt::KeepAspectRatio);
    const QPointF corner = box.topLeft() + QPointF((boxSize.width() - shown.width()) * 0.5,
                                                   (boxSize.height() - shown.height()) * 0.5);
    return {QRectF(corner, shown), QRectF(QPointF(0, 0), frameSize)};
}

void drawPicture(QPainter& painter, const QImage& picture, const QRectF& box, bool cover)
{
    const Placement placement = place(QSizeF(picture.size()), box, cover);
    painter.drawImage(placement.target, picture, placement.source);
}

// The text drawn over every layer at the end: the hall's own subtitles when its scene has no
// subtitle layer, or the lower third.
struct Finishing
{
    enum class Path { None, Hall, Band };
    Path path = Path::None;
    QString text;
};

Finishing finishingFor(const QString& title, bool band, bool hall, bool hasSubtitle, const CaptionView& captions)
{
    if (hall) {
        if (hasSubtitle || !captions.show || captions.text.isEmpty())
            return {};
        return {Finishing::Path::Hall, captions.text.left(700)};
    }
    if (!band && title.isEmpty())
        return {};
    return {Finishing::Path::Band, title.left(500)};
}

void drawFinishing(QPainter& painter, const Finishing& finishing, int width, int height, Scratch* coverage = nullptr)
{
    if (finishing.path == Finishing::Path::Hall) {
        const QRect area(width / 20, height / 8, width * 18 / 20, height * 3 / 4);
        painter.setFont(finishingFont(height / 16));
        drawPasses(painter, area, Qt::AlignCenter | Qt::TextWordWrap, finishing.text,
                   {{QPointF(4, 4), QColor(0, 0, 0, 200)}, {QPointF(0, 0), QColor(Qt::white)}}, coverage);
    } else if (finishing.path == Finishing::Path::Band) {
        const QRect band(width / 25, height * 78 / 100, width * 23 / 25, height * 15 / 100);
        painter.fillRect(band, QColor(12, 48, 88, 235));
        painter.setFont(finishingFont(width / 45));
        painter.setPen(Qt::white);
        painter.drawText(band.adjusted(24, 8, -24, -8), Qt::AlignVCenter | Qt::TextWordWrap, finishing.text);
    }
}

// Writes the captions into the scene's subtitle layers; tells whether it has any.
bool passSubtitles(SceneDef& scene, const CaptionView& captions, bool preview)
{
    bool any = false;
    for (Layer& layer : scene.layers) {
        if (layer.kind != Layer::Kind::Subtitle)
            continue;
        any = true;
        layer.text = captions.show ? captions.text : QString();
        layer.reference.clear();
        if (captions.show && captions.phrases.size() >= 2 && captions.separator != QLatin1String(" ")) {
            layer.text = captions.phrases.mid(0, captions.phrases.size() - 1).join(captions.separator);
            layer.reference = (captions.separator == QLatin1String("\n\n") ? QStringLiteral("\n") : QString()) +
                              captions.phrases.last();
        }
        if (preview && layer.text.isEmpty())
            layer.text = T("Aquí aparecerá la traducción en vivo: se escribe de izquierda a derecha y hacia abajo, "
                           "sin moverse; al llenarse salen las frases de arriba y la nueva queda resaltada.");
    }
    return any;
}

void prepareLayerPainter(QPainter& painter)
{
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, true);
    painter.setRenderHint(QPainter::TextAntialiasing, true);
}

// Everything that decides the pixels of a text layer.
struct TextKey
{
    Layer::Kind kind;
    QString text;
    QString reference;
    QString font;
    int size;
    bool bold;
    bool shadow;
    int align;
    quint64 colour;
    quint64 background;
    bool colourValid;
    bool backgroundValid;
    double opacity;
    double x, y, w, h;
    int outputWidth;
    int outputHeight;

    bool operator==(const TextKey&) const = default;
};

size_t qHash(const TextKey& key, size_t seed = 0)
{
    return qHashMulti(seed, int(key.kind), key.text, key.reference, key.font, key.size, key.bold, key.shadow,
                      key.align, key.colour, key.background, key.opacity, key.x, key.y, key.w, key.h,
                      key.outputWidth, key.outputHeight);
}

TextKey textKey(const Layer& layer, const QRectF& box, int width, int height)
{
    return {layer.kind,
            layer.text,
            layer.reference,
            layer.font,
            layer.size,
            layer.bold,
            layer.shadow,
            layer.align,
            layer.color.rgba64(),
            layer.background.rgba64(),
            layer.color.isValid(),
            layer.background.isValid(),
            layer.opacity,
            box.x(),
            box.y(),
            box.width(),
            box.height(),
            width,
            height};
}

struct FinishingKey
{
    Finishing::Path path;
    QString text;
    int width;
    int height;

    bool operator==(const FinishingKey&) const = default;
};

size_t qHash(const FinishingKey& key, size_t seed = 0)
{
    return qHashMulti(seed, int(key.path), key.text, key.width, key.height);
}

// A scaled picture as it lands on the output, before opacity.
struct ScaledKey
{
    quint64 version; // names the source's frame
    double tx, ty, tw, th;
    double sx, sy, sw, sh;
    int outputWidth;
    int outputHeight;

    bool operator==(const ScaledKey&) const = default;
};

size_t qHash(const ScaledKey& key, size_t seed = 0)
{
    return qHashMulti(seed, key.version, key.tx, key.ty, key.tw, key.th, key.sx, key.sy, key.sw, key.sh,
                      key.outputWidth, key.outputHeight);
}

// Output pictures are handed to the caller, who shows them for a frame and may keep one as the fade's
// still. Their buffers come back here when the last copy is gone, so that a frame reuses memory that
// is already mapped instead of faulting in 8 MB per picture. Drawing is on the main thread only.
struct BufferPool
{
    struct Lease
    {
        std::weak_ptr<BufferPool> pool;
        uchar* data;
        qsizetype bytes;
    };

    static constexpr std::size_t keepFree = 4;
    std::vector<std::pair<qsizetype, uchar*>> spare;

    ~BufferPool()
    {
        for (auto& [bytes, data] : spare)
            ::operator delete[](data, std::align_val_t(64));
    }

    static void giveBack(void* info)
    {
        auto* lease = static_cast<Lease*>(info);
        auto pool = lease->pool.lock();
        if (pool && pool->spare.size() < keepFree)
            pool->spare.emplace_back(lease->bytes, lease->data);
        else
            ::operator delete[](lease->data, std::align_val_t(64));
        delete lease;
    }
};

} // namespace

void drawLayer(QPainter& painter, const Layer& layer, const QRectF& box, int outputHeight,
               const tavrin::Frame* cameraFrame)
{
    switch (layer.kind) {
    case Layer::Kind::Camera:
        // No camera picture leaves the layers below visible: no placeholder on purpose.
        if (usable(cameraFrame))
            drawPicture(painter, wrap(*cameraFrame), box, layer.cover);
        return;
    case Layer::Kind::Image:
        if (usable(layer.image.get()))
            drawPicture(painter, wrap(*layer.image), box, layer.cover);
        else
            painter.fillRect(box, missingColour);
        return;
    case Layer::Kind::Video:
    case Layer::Kind::Screen:
        if (usable(mediaFrame(layer)))
            drawPicture(painter, wrap(layer.media->latest), box, layer.cover);
        else
            painter.fillRect(box, missingColour);
        return;
    case Layer::Kind::Color:
        painter.fillRect(box, layer.fill);
        return;
    case Layer::Kind::Text:
    case Layer::Kind::Verse:
    case Layer::Kind::Subtitle:
        drawTextLayer(painter, layer, box, outputHeight);
        return;
    }
    painter.fillRect(box, missingColour);
}

struct Compositor::Caches
{
    // One picture source: a camera, a Media or a decoded image, with what was made from its
    // present frame.
    struct Source
    {
        const void* id = nullptr;
        std::weak_ptr<const void> owner; // layer sources: a freed object can't pass for a new one
        bool owned = false;
        quint64 serial = 0;
        const uchar* data = nullptr;
        int width = 0;
        int height = 0;
        quint64 version = 0;  // new for every new frame; names the frame in ScaledKey
        QImage premultiplied; // made when first drawn unscaled
        quint64 lastUsed = 0;
    };

    struct Sprite
    {
        QImage image; // premultiplied; null when nothing is painted
        QPoint origin;
        quint64 lastUsed = 0;
    };

    quint64 composition = 0;
    quint64 nextVersion = 1;
    std::vector<Source> sources;
    QHash<TextKey, Sprite> texts;
    QHash<FinishingKey, Sprite> finishings;
    QHash<ScaledKey, Sprite> scaled;
    Scratch textCanvas;     // premultiplied, as the output: text is drawn the same on both
    Scratch pictureCanvas;  // RGBA8888, as the literal output: Qt scales into it with the same arithmetic
    Scratch coverageCanvas; // large text rasterised once for all its passes
    std::shared_ptr<BufferPool> pool = std::make_shared<BufferPool>();

    Source& source(const tavrin::Frame& frame, const void* id, const std::shared_ptr<const void>* owner,
                   quint64 serial)
    {
        auto found = std::find_if(sources.begin(), sources.end(), [&](const Source& s) { return s.id == id; });
        if (found == sources.end())
            found = sources.insert(sources.end(), Source{});
        Source& entry = *found;
        const bool sameOwner = !owner || (entry.owned && !entry.owner.expired() && !entry.owner.owner_before(*owner) &&
                                          !owner->owner_before(entry.owner));
        if (!sameOwner || entry.version == 0 || entry.serial != serial || entry.data != frame.pixels.data() ||
            entry.width != frame.width || entry.height != frame.height) {
            entry.id = id;
            entry.owned = owner != nullptr;
            entry.owner = owner ? std::weak_ptr<const void>(*owner) : std::weak_ptr<const void>();
            entry.serial = serial;
            entry.data = frame.pixels.data();
            entry.width = frame.width;
            entry.height = frame.height;
            entry.version = nextVersion++;
            entry.premultiplied = QImage();
        }
        entry.lastUsed = composition;
        return entry;
    }

    // The frame premultiplied, converted at most once per frame for all compositions. Qt's own
    // conversion is threaded and beat converting into a kept buffer by ~0.8 ms a frame.
    static const QImage& premultiplied(Source& entry, const tavrin::Frame& frame)
    {
        if (entry.premultiplied.isNull())
            entry.premultiplied = wrap(frame).convertToFormat(QImage::Format_ARGB32_Premultiplied);
        return entry.premultiplied;
    }

    // Paints with `paint` on a transparent canvas of the output's size and keeps only the painted
    // part, premultiplied.
    static Sprite render(Scratch& scratch, QImage::Format format, int width, int height,
                         const std::function<void(QPainter&)>& paint)
    {
        // A view of exactly the output's size, so that it clips just as the output does.
        QImage canvas = scratch.view(width, height, format);
        {
            QPainter painter(&canvas);
            prepareLayerPainter(painter);
            paint(painter);
        }
        const QRect bounds = paintedBounds(canvas, canvas.rect());
        scratch.dirty = bounds;
        Sprite sprite;
        if (!bounds.isEmpty()) {
            sprite.image = canvas.copy(bounds).convertToFormat(QImage::Format_ARGB32_Premultiplied);
            sprite.origin = bounds.topLeft();
        }
        return sprite;
    }

    QImage output(int width, int height)
    {
        const qsizetype bytes = qsizetype(width) * height * 4;
        uchar* data = nullptr;
        auto spare = std::find_if(pool->spare.begin(), pool->spare.end(), [&](auto& s) { return s.first == bytes; });
        if (spare != pool->spare.end()) {
            data = spare->second;
            pool->spare.erase(spare);
        } else {
            data = static_cast<uchar*>(::operator new[](std::size_t(bytes), std::align_val_t(64)));
        }
        auto* lease = new BufferPool::Lease{pool, data, bytes};
        QImage image(data, width, height, qsizetype(width) * 4, QImage::Format_ARGB32_Premultiplied,
                     &BufferPool::giveBack, lease);
        image.fill(Qt::black);
        return image;
    }

    void evict()
    {
        const auto stale = [this](quint64 lastUsed) { return lastUsed + keepCompositions < composition; };
        std::erase_if(sources, [&](const Source& s) { return stale(s.lastUsed); });
        texts.removeIf([&](QHash<TextKey, Sprite>::iterator it) { return stale(it->lastUsed); });
        finishings.removeIf([&](QHash<FinishingKey, Sprite>::iterator it) { return stale(it->lastUsed); });
        scaled.removeIf([&](QHash<ScaledKey, Sprite>::iterator it) { return stale(it->lastUsed); });
    }
};

Compositor::Compositor(Mode mode) : mode(mode), caches(std::make_unique<Caches>()) {}

Compositor::~Compositor() = default;

QImage Compositor::compose(SceneDef scene, const QString& title, bool band, int width, int height, bool hall,
                           bool preview, const CaptionView& captions, const Media* camera)
{
    return compose(std::move(scene), title, band, width, height, hall, preview, captions,
                   camera ? &camera->latest : nullptr, camera ? camera->frameCount : 0);
}

QImage Compositor::compose(SceneDef scene, const QString& title, bool band, int width, int height, bool hall,
                           bool preview, const CaptionView& captions, const tavrin::Frame* cameraFrame,
                           quint64 cameraSerial)
{
    if (width <= 0 || height <= 0)
        return QImage();
    const bool hasSubtitle = passSubtitles(scene, captions, preview);
    const Finishing finishing = finishingFor(title, band, hall, hasSubtitle, captions);

    if (mode == Mode::Literal) {
        QImage image(width, height, QImage::Format_RGBA8888);
        image.fill(Qt::black);
        {
            QPainter painter(&image);
            prepareLayerPainter(painter);
            for (const Layer& layer : scene.layers) {
                if (!layer.visible || !(layer.opacity > 0.0))
                    continue;
                painter.setOpacity(layer.opacity);
                drawLayer(painter, layer, boxOf(layer, width, height), height, cameraFrame);
            }
            painter.setOpacity(1.0);
        }
        if (finishing.path != Finishing::Path::None) {
            QPainter painter(&image);
            painter.setRenderHint(QPainter::TextAntialiasing, true);
            drawFinishing(painter, finishing, width, height);
        }
        return image;
    }

    Caches& c = *caches;
    ++c.composition;
    QImage image = c.output(width, height);
    {
        QPainter painter(&image);
        prepareLayerPainter(painter);

        const auto blit = [&](const Caches::Sprite& sprite) {
            if (!sprite.image.isNull())
                painter.drawImage(sprite.origin, sprite.image);
        };
        const auto picture = [&](const tavrin::Frame& frame, Caches::Source& source, const Layer& layer,
                                 const QRectF& box) {
            const Placement placement = place(QSizeF(frame.width, frame.height), box, layer.cover);
            const QRectF& s = placement.source;
            const QRectF& t = placement.target;
            painter.setOpacity(layer.opacity);
            if (t.size() == s.size() && s.x() == std::floor(s.x()) && s.y() == std::floor(s.y())) {
                painter.drawImage(t, Caches::premultiplied(source, frame), s);
                return;
            }
            // Scaling is the costly part, and its rounding depends on the target's format: it is
            // done as the literal way does it, from the RGBA frame onto RGBA, once per frame and
            // place. Preview and Program often show the same picture in the same place, and still
            // images stay put for a whole scene.
            const ScaledKey key{source.version, t.x(), t.y(), t.width(), t.height(), s.x(), s.y(), s.width(),
                                s.height(), width, height};
            auto found = c.scaled.find(key);
            if (found == c.scaled.end())
                found = c.scaled.insert(key, Caches::render(c.pictureCanvas, QImage::Format_RGBA8888, width, height,
                                                            [&](QPainter& p) { p.drawImage(t, wrap(frame), s); }));
            found->lastUsed = c.composition;
            blit(*found);
        };

        for (const Layer& layer : scene.layers) {
            if (!layer.visible || !(layer.opacity > 0.0))
                continue;
            const QRectF box = boxOf(layer, width, height);
            switch (layer.kind) {
            case Layer::Kind::Camera:
                if (usable(cameraFrame))
                    picture(*cameraFrame, c.source(*cameraFrame, cameraFrame, nullptr, cameraSerial), layer, box);
                continue;
            case Layer::Kind::Image:
                if (usable(layer.image.get())) {
                    const std::shared_ptr<const void> owner = layer.image;
                    picture(*layer.image, c.source(*layer.image, layer.image.get(), &owner, 0), layer, box);
                    continue;
                }
                break;
            case Layer::Kind::Video:
            case Layer::Kind::Screen:
                if (usable(mediaFrame(layer))) {
                    const std::shared_ptr<const void> owner = layer.media;
                    picture(layer.media->latest,
                            c.source(layer.media->latest, layer.media.get(), &owner, layer.media->frameCount), layer,
                            box);
                    continue;
                }
                break;
            case Layer::Kind::Color:
                painter.setOpacity(layer.opacity);
                painter.fillRect(box, layer.fill);
                continue;
            case Layer::Kind::Text:
            case Layer::Kind::Verse:
            case Layer::Kind::Subtitle: {
                if (layer.kind == Layer::Kind::Subtitle && layer.text.trimmed().isEmpty())
                    continue;
                // Opacity is drawn into the sprite, stroke by stroke as the literal way does: the
                // shadow's five passes and the text over its background blend with each other.
                const TextKey key = textKey(layer, box, width, height);
                auto found = c.texts.find(key);
                if (found == c.texts.end())
                    found = c.texts.insert(key, Caches::render(c.textCanvas, QImage::Format_ARGB32_Premultiplied, width,
                                                               height, [&](QPainter& p) {
                        p.setOpacity(layer.opacity);
                        drawTextLayer(p, layer, box, height, &c.coverageCanvas);
                    }));
                found->lastUsed = c.composition;
                painter.setOpacity(1.0);
                blit(*found);
                continue;
            }
            }
            painter.setOpacity(layer.opacity);
            painter.fillRect(box, missingColour);
        }
        painter.setOpacity(1.0);

        if (finishing.path != Finishing::Path::None) {
            const FinishingKey key{finishing.path, finishing.text, width, height};
            auto found = c.finishings.find(key);
            if (found == c.finishings.end())
                found = c.finishings.insert(key, Caches::render(c.textCanvas, QImage::Format_ARGB32_Premultiplied,
                                                                width, height, [&](QPainter& p) {
                    drawFinishing(p, finishing, width, height, &c.coverageCanvas);
                }));
            found->lastUsed = c.composition;
            blit(*found);
        }
    }
    c.evict();
    return image;
}
