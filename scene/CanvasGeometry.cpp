#include "CanvasGeometry.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace canvasgeometry {

namespace {
constexpr double edge = 0.05;
constexpr double smallest = 0.03;
} // namespace

QRectF clampPosition(QRectF box)
{
    // max after min: a box wider than the whole range still ends at its lower limit.
    box.moveLeft(std::max(edge - box.width(), std::min(box.x(), 1.0 - edge)));
    box.moveTop(std::max(edge - box.height(), std::min(box.y(), 1.0 - edge)));
    return box;
}

QRectF resize(const QRectF& start, int corner, QPointF delta, bool keepAspect)
{
    if (corner < 0 || corner > 3)
        return start;
    const std::array<QPointF, 4> corners{start.topLeft(), start.topRight(), start.bottomRight(),
                                         start.bottomLeft()};
    const QPointF anchor = corners[std::size_t((corner + 2) % 4)];
    const QPointF moved = corners[std::size_t(corner)] + delta;
    double w = std::abs(moved.x() - anchor.x());
    double h = std::abs(moved.y() - anchor.y());
    // A box without width has no proportion to keep: dividing by it would give an endless height.
    if (keepAspect && start.height() > 0.0 && start.width() > 0.0) {
        const double aspect = start.width() / start.height();
        if (w / aspect > h)
            h = w / aspect;
        else
            w = aspect * h;
    }
    w = std::max(w, smallest);
    h = std::max(h, smallest);
    const double x = moved.x() < anchor.x() ? anchor.x() - w : anchor.x();
    const double y = moved.y() < anchor.y() ? anchor.y() - h : anchor.y();
    return {x, y, w, h};
}

} // namespace canvasgeometry
