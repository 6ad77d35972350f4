#pragma once

#include <QPointF>
#include <QRectF>

// The box arithmetic of the Preview canvas, in fractions of the output, kept apart from the
// events so that it can be checked on its own.
namespace canvasgeometry {

// Moves the box so that at least 5 % of the output stays reachable on each side: x and y each
// lie between 0.05 minus the box's size and 0.95. The size is left alone.
QRectF clampPosition(QRectF box);

// The box after its `corner` (0 top left, 1 top right, 2 bottom right, 3 bottom left) was dragged
// by `delta` from `start`, with the opposite corner fixed. With `keepAspect` the proportion of
// `start` holds, the larger of the two sizes winning. Each size is at least 0.03, and dragging past
// the fixed corner flips the box. The result is not clamped; an unknown corner gives `start`.
QRectF resize(const QRectF& start, int corner, QPointF delta, bool keepAspect);

} // namespace canvasgeometry
