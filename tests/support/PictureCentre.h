#pragma once

#include <QColor>
#include <QImage>

// The colour at the middle of a monitor's picture; invalid while the monitor has no picture yet.
inline QColor centreOf(const QImage& image)
{
    return image.isNull() ? QColor() : image.pixelColor(image.width() / 2, image.height() / 2);
}
