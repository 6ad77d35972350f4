#pragma once

#include <QColor>
#include <QImage>
#include <QPointF>
#include <QRect>

#include <algorithm>
#include <cstring>
#include <vector>

class Layer;
class QFont;
class QPainter;
class QRectF;
class QString;

// How the compositions paint text: text layers with their shadow, and the passes and font of the
// finishing text. Only the scene library uses this; the rest of the studio goes through Compositor.h.
namespace textpainting {

QFont finishingFont(int pointSize);

// Smallest rectangle holding every pixel that is not fully transparent (all four bytes zero).
QRect paintedBounds(const QImage& image, const QRect& within);

// A transparent canvas kept from one use to the next and cleared only where it was painted.
struct Scratch
{
    QImage image;
    QRect dirty; // where the last user painted; set by that user

    // A cleared, transparent view of width x height at the top left of the kept image.
    QImage view(int width, int height, QImage::Format format)
    {
        if (image.format() != format || image.width() < width || image.height() < height) {
            image = QImage(std::max(width, image.width()), std::max(height, image.height()), format);
            image.fill(Qt::transparent);
            dirty = QRect();
        }
        const QRect stale = dirty & image.rect();
        for (int y = stale.top(); y <= stale.bottom(); ++y)
            std::memset(image.scanLine(y) + qsizetype(stale.left()) * 4, 0, qsizetype(stale.width()) * 4);
        dirty = QRect();
        return QImage(image.bits(), width, height, image.bytesPerLine(), format);
    }
};

// One drawing of a text: moved by `offset`, in `colour`.
struct Pass
{
    QPointF offset;
    QColor colour;
};

void drawPasses(QPainter& painter, const QRectF& area, int flags, const QString& text,
                const std::vector<Pass>& passes, Scratch* coverage);

// `coverage`, when given, lets large text be rasterised once for all its passes.
void drawTextLayer(QPainter& painter, const Layer& layer, const QRectF& box, int outputHeight,
                   Scratch* coverage = nullptr);

} // namespace textpainting
