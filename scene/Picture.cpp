#include "Picture.h"

#include <QCloseEvent>
#include <QKeyEvent>
#include <QPainter>

Picture::Picture(QWidget* parent) : QWidget(parent)
{
    setMinimumSize(240, 135);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void Picture::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    if (image.isNull())
        return;
    const QSize fitted = image.size().scaled(size(), Qt::KeepAspectRatio);
    const QRect target((width() - fitted.width()) / 2, (height() - fitted.height()) / 2, fitted.width(),
                       fitted.height());
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(target, image);
}

void Picture::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape || event->key() == Qt::Key_F) {
        hide();
        return;
    }
    QWidget::keyPressEvent(event);
}

void Picture::mouseDoubleClickEvent(QMouseEvent*)
{
    if (isFullScreen())
        hide();
}

void Picture::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    if (onHide)
        onHide();
}

void Picture::closeEvent(QCloseEvent* event)
{
    // The system's close command must never destroy the hall window: it only goes out of sight.
    hide();
    event->ignore();
}
