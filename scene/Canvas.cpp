#include "Canvas.h"

#include "CanvasGeometry.h"
#include "SceneDef.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

#include <array>
#include <cmath>

namespace {

constexpr double handleReach = 10.0; // pixels from a corner that still grab it

// Pictures are not stretched, so their boxes keep the proportion they had when the drag began.
bool keepsAspect(Layer::Kind kind)
{
    return kind == Layer::Kind::Camera || kind == Layer::Kind::Image || kind == Layer::Kind::Video ||
           kind == Layer::Kind::Screen;
}

std::array<QPointF, 4> cornersOf(const QRectF& r)
{
    return {r.topLeft(), r.topRight(), r.bottomRight(), r.bottomLeft()};
}

} // namespace

Canvas::Canvas(QWidget* parent) : QWidget(parent)
{
    setMinimumSize(240, 135);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setMouseTracking(true);
    setFocusPolicy(Qt::ClickFocus);
}

QRectF Canvas::pictureBox() const
{
    const QSizeF box = QSizeF(aspect, 1.0).scaled(QSizeF(size()), Qt::KeepAspectRatio);
    const QPointF offset((width() - box.width()) * 0.5, (height() - box.height()) * 0.5);
    return {offset, box};
}

QRectF Canvas::onScreen(const QRectF& r) const
{
    const QRectF box = pictureBox();
    return {box.x() + r.x() * box.width(), box.y() + r.y() * box.height(), r.width() * box.width(),
            r.height() * box.height()};
}

bool Canvas::hasSelection() const
{
    return scene && selected >= 0 && selected < int(scene->layers.size());
}

int Canvas::layerAt(QPointF point) const
{
    if (!scene)
        return -1;
    // From the front: the last layer is painted over the others. Transparent parts count too.
    for (int i = int(scene->layers.size()) - 1; i >= 0; --i) {
        const Layer& layer = scene->layers[std::size_t(i)];
        if (layer.visible && onScreen(layer.rect).contains(point))
            return i;
    }
    return -1;
}

int Canvas::cornerAt(QPointF point) const
{
    if (!hasSelection())
        return -1;
    const auto corners = cornersOf(onScreen(scene->layers[std::size_t(selected)].rect));
    for (int i = 0; i < 4; ++i) {
        const QPointF d = point - corners[std::size_t(i)];
        if (std::hypot(d.x(), d.y()) <= handleReach)
            return i;
    }
    return -1;
}

void Canvas::select(int index)
{
    selected = (scene && index >= 0 && index < int(scene->layers.size())) ? index : -1;
    update();
    if (selectionChanged)
        selectionChanged();
}

void Canvas::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), QColor(8, 12, 20));
    const QRectF box = pictureBox();
    if (!frame.isNull()) {
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(box, frame);
    }
    painter.setPen(QPen(QColor(90, 110, 140), 1.0, Qt::SolidLine, Qt::SquareCap, Qt::BevelJoin));
    painter.drawRect(box.adjusted(0, 0, -1, -1));
    if (!hasSelection())
        return;
    const QRectF r = onScreen(scene->layers[std::size_t(selected)].rect);
    const QColor handle(101, 176, 237);
    painter.setPen(QPen(handle, 2.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(r);
    painter.setPen(Qt::NoPen);
    painter.setBrush(handle);
    for (const QPointF c : cornersOf(r))
        painter.drawEllipse(QRectF(c - QPointF(6, 6), QSizeF(12, 12)));
}

void Canvas::keyPressEvent(QKeyEvent* event)
{
    const int key = event->key();
    const bool arrow =
        key == Qt::Key_Left || key == Qt::Key_Right || key == Qt::Key_Up || key == Qt::Key_Down;
    if (!arrow || !hasSelection()) {
        QWidget::keyPressEvent(event);
        return;
    }
    const double step = (event->modifiers() & Qt::ShiftModifier) ? 0.05 : 0.005;
    QRectF& r = scene->layers[std::size_t(selected)].rect;
    QPointF by;
    switch (key) {
    case Qt::Key_Left:
        by.setX(-step);
        break;
    case Qt::Key_Right:
        by.setX(step);
        break;
    case Qt::Key_Up:
        by.setY(-step);
        break;
    default: // Qt::Key_Down, the last arrow
        by.setY(step);
        break;
    }
    r = canvasgeometry::clampPosition(r.translated(by));
    update();
    if (changed)
        changed();
}

void Canvas::mousePressEvent(QMouseEvent* event)
{
    if (!scene || event->button() != Qt::LeftButton)
        return;
    const QPointF point = event->position();
    // Handles first, so a selected layer lying under others can still be resized.
    const int hitCorner = cornerAt(point);
    if (hitCorner >= 0) {
        mode = Resizing;
        corner = hitCorner;
        pressPoint = point;
        startRect = scene->layers[std::size_t(selected)].rect;
        return;
    }
    const int hit = layerAt(point);
    if (hit >= 0) {
        if (hit != selected)
            select(hit);
        mode = Moving;
        pressPoint = point;
        startRect = scene->layers[std::size_t(hit)].rect;
        return;
    }
    if (selected != -1)
        select(-1);
    mode = Idle;
}

void Canvas::mouseMoveEvent(QMouseEvent* event)
{
    const QPointF point = event->position();
    if (mode != Idle) {
        drag(point);
        return;
    }
    if (!scene)
        return;
    if (cornerAt(point) >= 0)
        setCursor(Qt::SizeFDiagCursor);
    else if (layerAt(point) >= 0)
        setCursor(Qt::OpenHandCursor);
    else
        setCursor(Qt::ArrowCursor);
}

void Canvas::drag(QPointF point)
{
    const QRectF box = pictureBox();
    // The scene may have been replaced under a running drag.
    if (box.isEmpty() || !hasSelection())
        return;
    const QPointF delta((point.x() - pressPoint.x()) / box.width(),
                        (point.y() - pressPoint.y()) / box.height());
    Layer& layer = scene->layers[std::size_t(selected)];
    const QRectF next = mode == Resizing
                            ? canvasgeometry::resize(startRect, corner, delta, keepsAspect(layer.kind))
                            : startRect.translated(delta);
    layer.rect = canvasgeometry::clampPosition(next);
    update();
    if (changed)
        changed();
}

void Canvas::mouseReleaseEvent(QMouseEvent*)
{
    mode = Idle;
}

void Canvas::mouseDoubleClickEvent(QMouseEvent* event)
{
    // Any button: the double click only brings the layer's properties into view.
    const int hit = layerAt(event->position());
    if (hit < 0)
        return;
    selected = hit;
    update();
    if (selectionChanged)
        selectionChanged();
    if (activated)
        activated();
}
