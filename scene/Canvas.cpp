#include "Canvas.h"

#include "SceneDef.h"

#include <QPainter>

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
    if (!scene || selected < 0 || selected >= int(scene->layers.size()))
        return;
    const QRectF r = scene->layers[std::size_t(selected)].rect;
    const QRectF onScreen(box.x() + r.x() * box.width(), box.y() + r.y() * box.height(), r.width() * box.width(),
                          r.height() * box.height());
    const QColor handle(101, 176, 237);
    painter.setPen(QPen(handle, 2.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(onScreen);
    painter.setPen(Qt::NoPen);
    painter.setBrush(handle);
    for (const QPointF corner : {onScreen.topLeft(), onScreen.topRight(), onScreen.bottomRight(), onScreen.bottomLeft()})
        painter.drawEllipse(QRectF(corner - QPointF(6, 6), QSizeF(12, 12)));
}
