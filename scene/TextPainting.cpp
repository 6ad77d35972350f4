#include "TextPainting.h"

#include "Compositor.h" // textPixelSize, shadowOffset
#include "Layer.h"

#include <QFont>
#include <QFontMetricsF>
#include <QPainter>
#include <QRgb>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace textpainting {

namespace {

const QColor shadowColour(0, 0, 0, 200);

void drawnForPictures(QFont& font)
{
    // Pictures go to encoders and projectors, not to an LCD's subpixels: grey edges only.
    font.setStyleStrategy(QFont::NoSubpixelAntialias);
    // Glyphs on whole pixels. Glyphs placed between pixels change how Qt's FreeType engine then draws
    // text above 64 pixels from the outlines of the same face, whose state it shares among sizes: the
    // same 100-pixel line in Liberation Sans came out up to 37 levels different at its edges depending
    // on which smaller text of that face had been drawn before (Nimbus Sans 25, DejaVu Sans 12), so
    // that no two drawings of a scene could be compared. On whole pixels it always comes out the same.
    font.setHintingPreference(QFont::PreferFullHinting);
}

QFont layerFont(const Layer& layer, int outputHeight)
{
    QFont font(layer.font);
    font.setPixelSize(textPixelSize(layer.size, outputHeight));
    font.setWeight(layer.bold ? QFont::Bold : QFont::Normal);
    drawnForPictures(font);
    return font;
}

// Qt's multiply of each channel of a premultiplied pixel by a / 255, rounded as Qt rounds it.
inline quint32 byteMul(quint32 x, quint32 a)
{
    quint64 t = ((quint64(x) | (quint64(x) << 24)) & 0x00ff00ff00ff00ffull) * a;
    t = (t + ((t >> 8) & 0x00ff00ff00ff00ffull) + 0x0080008000800080ull) >> 8;
    t &= 0x00ff00ff00ff00ffull;
    return quint32(t) | quint32(t >> 24);
}

// The colour as QPainter fills with it: premultiplied and rounded by Qt itself.
quint32 solidColour(const QColor& colour)
{
    QImage pixel(1, 1, QImage::Format_ARGB32_Premultiplied);
    pixel.fill(Qt::transparent);
    QPainter painter(&pixel);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillRect(QRect(0, 0, 1, 1), colour);
    painter.end();
    return reinterpret_cast<const quint32*>(pixel.constBits())[0];
}

// Qt caches glyphs up to 64 pixels; larger text is filled as paths, several milliseconds a line, and
// a shadowed run draws its text six times: the hall's 72-pixel subtitles took some 200 ms, 35 ms
// rasterised once. A path moved by whole pixels rasterises to nearly the same coverage moved by whole
// pixels (a level or two at a few edge pixels), so such text is rasterised once, as coverage, where
// its unmoved pass lies, which is then exactly Qt's own; each pass moved by whole pixels blends that
// coverage with the arithmetic of Qt's solid span fill; other passes are drawn as they are.
bool coverageReusable(const QPainter& painter, const std::vector<Pass>& passes)
{
    QPaintDevice* device = painter.device();
    if (passes.size() < 2 || !device || device->devType() != QInternal::Image ||
        static_cast<QImage*>(device)->format() != QImage::Format_ARGB32_Premultiplied || painter.opacity() != 1.0 ||
        painter.compositionMode() != QPainter::CompositionMode_SourceOver || !painter.transform().isIdentity() ||
        painter.hasClipping())
        return false;
    const QFont& font = painter.font();
    const qreal pixels = font.pixelSize() > 0 ? qreal(font.pixelSize()) : font.pointSizeF() * device->logicalDpiY() / 72.0;
    return pixels > 64.0;
}

// A pass is moved with the painter, not with its rectangle. Qt flattens the outlines of large text
// in floating point where they lie, so the same text a few pixels further on can come out a dozen
// levels different at its edges (Liberation Sans, moved by 4 pixels: up to 23); moved by the painter,
// the same outlines are flattened and only then moved.
void drawMoved(QPainter& painter, const QPointF& offset, const QRectF& area, int flags, const QString& text)
{
    const QTransform before = painter.transform();
    painter.translate(offset);
    painter.drawText(area, flags, text);
    painter.setTransform(before);
}

} // namespace

QFont finishingFont(int pointSize)
{
    QFont font(QStringLiteral("Sans Serif"));
    font.setPointSize(std::max(16, pointSize));
    font.setWeight(QFont::Bold);
    drawnForPictures(font);
    return font;
}

QRect paintedBounds(const QImage& image, const QRect& within)
{
    const QRect area = within & image.rect();
    if (area.isEmpty())
        return {};
    static const std::vector<uchar> zeros(8192 * 4 + 64, 0);
    const std::size_t rowBytes = std::size_t(area.width()) * 4;
    const auto rowPainted = [&](int y) {
        const uchar* row = image.constScanLine(y) + qsizetype(area.left()) * 4;
        for (std::size_t done = 0; done < rowBytes; done += zeros.size()) {
            const std::size_t part = std::min(zeros.size(), rowBytes - done);
            if (std::memcmp(row + done, zeros.data(), part) != 0)
                return true;
        }
        return false;
    };
    int top = area.top();
    while (top <= area.bottom() && !rowPainted(top))
        ++top;
    if (top > area.bottom())
        return {};
    int bottom = area.bottom();
    while (!rowPainted(bottom))
        --bottom;
    int left = area.right();
    int right = area.left();
    for (int y = top; y <= bottom; ++y) {
        const quint32* row = reinterpret_cast<const quint32*>(image.constScanLine(y));
        for (int x = area.left(); x < left; ++x)
            if (row[x]) {
                left = x;
                break;
            }
        for (int x = area.right(); x > right; --x)
            if (row[x]) {
                right = x;
                break;
            }
    }
    return QRect(QPoint(left, top), QPoint(std::max(left, right), bottom));
}

void drawPasses(QPainter& painter, const QRectF& area, int flags, const QString& text,
                const std::vector<Pass>& passes, Scratch* coverage)
{
    const auto drawEach = [&] {
        for (const Pass& pass : passes) {
            painter.setPen(pass.colour);
            drawMoved(painter, pass.offset, area, flags, text);
        }
    };
    if (!coverage || !coverageReusable(painter, passes))
        return drawEach();

    QImage& device = *static_cast<QImage*>(painter.device());
    const int width = device.width();
    const int height = device.height();
    // Opaque white on transparent leaves exactly the coverage in every channel. It is rasterised where
    // the unmoved pass lies, on a canvas of the output's size, so that this pass is exactly Qt's own.
    QImage mask = coverage->view(width, height, QImage::Format_ARGB32_Premultiplied);
    {
        QPainter maskPainter(&mask);
        maskPainter.setRenderHints(painter.renderHints());
        maskPainter.setFont(painter.font());
        maskPainter.setPen(Qt::white);
        maskPainter.drawText(area, flags, text);
    }
    const QRect bounds = paintedBounds(mask, mask.rect());
    coverage->dirty = bounds;
    if (bounds.isEmpty())
        return;
    // Text cut by the output's edge has parts beyond it that a moved pass would bring into view.
    if (bounds.left() == 0 || bounds.top() == 0 || bounds.right() == width - 1 || bounds.bottom() == height - 1)
        return drawEach();

    // The coverage as runs of covered pixels, row by row, in the device's coordinates.
    struct Span
    {
        int x;
        int y;
        int length;
        const quint32* coverage; // first pixel of the run in the mask
    };
    std::vector<Span> spans;
    for (int y = bounds.top(); y <= bounds.bottom(); ++y) {
        const quint32* row = reinterpret_cast<const quint32*>(mask.constScanLine(y));
        for (int x = bounds.left(); x <= bounds.right();) {
            if (!row[x]) {
                ++x;
                continue;
            }
            const int start = x;
            while (x <= bounds.right() && row[x])
                ++x;
            spans.push_back({start, y, x - start, row + start});
        }
    }

    uchar* bits = device.bits();
    const qsizetype bytesPerLine = device.bytesPerLine();
    for (const Pass& pass : passes) {
        const QPointF o = pass.offset;
        if (o.x() != std::round(o.x()) || o.y() != std::round(o.y())) {
            painter.setPen(pass.colour);
            drawMoved(painter, o, area, flags, text);
            continue;
        }
        const int dx = int(o.x());
        const int dy = int(o.y());
        const quint32 colour = solidColour(pass.colour);
        const bool opaque = qAlpha(colour) == 255;
        for (const Span& span : spans) {
            const int y = span.y + dy;
            if (y < 0 || y >= height)
                continue;
            const int first = std::max(0, -(span.x + dx));
            const int end = std::min(span.length, width - (span.x + dx));
            quint32* target = reinterpret_cast<quint32*>(bits + bytesPerLine * y) + span.x + dx;
            for (int i = first; i < end; ++i) {
                const quint32 alpha = qAlpha(span.coverage[i]);
                if (alpha == 255 && opaque) {
                    target[i] = colour;
                    continue;
                }
                const quint32 source = alpha == 255 ? colour : byteMul(colour, alpha);
                target[i] = source + byteMul(target[i], 255 - qAlpha(source));
            }
        }
    }
    painter.setPen(passes.back().colour);
}

namespace {

void drawRun(QPainter& painter, const QRectF& area, int flags, const QString& text, const QColor& colour,
             const Layer& layer, int outputHeight, Scratch* coverage)
{
    std::vector<Pass> passes;
    if (layer.shadow) {
        const qreal o = shadowOffset(layer.size, outputHeight);
        for (const QPointF offset : {QPointF(o, o), QPointF(-o, o), QPointF(o, -o), QPointF(-o, -o), QPointF(0, 1.5 * o)})
            passes.push_back({offset, shadowColour});
    }
    passes.push_back({QPointF(0, 0), colour});
    drawPasses(painter, area, flags | Qt::TextWordWrap, text, passes, coverage);
}

} // namespace

void drawTextLayer(QPainter& painter, const Layer& layer, const QRectF& box, int outputHeight,
                   Scratch* coverage)
{
    const bool subtitle = layer.kind == Layer::Kind::Subtitle;
    // An empty subtitle leaves no trace, not even its background.
    if (subtitle && layer.text.trimmed().isEmpty())
        return;

    const QFont font = layerFont(layer, outputHeight);
    painter.setFont(font);
    if (layer.background.alpha() > 0)
        painter.fillRect(box, layer.background);

    QString text = layer.text;
    if (layer.kind == Layer::Kind::Verse && !layer.reference.isEmpty())
        text += QLatin1Char('\n') + layer.reference;

    const QRectF inner = box.adjusted(12, 8, -12, -8);
    // Subtitles fill from the top down whatever the layer says, so lines never move as text arrives.
    const int flags = subtitle ? ((layer.align & 31) | Qt::AlignTop) : layer.align;

    if (subtitle && !layer.reference.isEmpty()) {
        // The newest phrase in full colour under the older ones, which are dimmed.
        QColor dim = layer.color;
        dim.setAlphaF(layer.color.alphaF() * 0.55f);
        qreal above = 0.0;
        if (!text.isEmpty())
            above = QFontMetricsF(font)
                        .boundingRect(QRectF(0, 0, inner.width(), 100000.0), flags | Qt::TextWordWrap, text)
                        .height();
        drawRun(painter, inner, flags, text, dim, layer, outputHeight, coverage);
        drawRun(painter, inner.adjusted(0, above, 0, 0), flags, layer.reference, layer.color, layer, outputHeight,
                coverage);
        return;
    }
    drawRun(painter, inner, flags, text, layer.color, layer, outputHeight, coverage);
}

} // namespace textpainting

int textPixelSize(int size, int outputHeight)
{
    return std::max(4, size * outputHeight / 1080);
}

int shadowOffset(int size, int outputHeight)
{
    return std::max(2, size * outputHeight / 19440);
}
