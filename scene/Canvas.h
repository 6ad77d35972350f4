#pragma once

#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QWidget>
#include <functional>

class SceneDef;

// Shows the Preview picture that the tick hands it, with the frame of the picture box and the
// selected layer's box and handles over it, and lets the operator select, move and resize the
// layers of the scene being edited with mouse and keys.
class Canvas : public QWidget
{
public:
    explicit Canvas(QWidget* parent = nullptr);

    void select(int index);

    QImage frame;
    SceneDef* scene = nullptr; // the scene being edited, not owned
    int selected = -1;
    double aspect = 16.0 / 9.0;
    std::function<void()> changed;          // after a move, a resize or a key step
    std::function<void()> selectionChanged; // after every select, even one that changed nothing
    std::function<void()> activated;        // after a double click on a layer

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

private:
    enum Mode { Idle = 0, Moving = 1, Resizing = 2 };

    QRectF pictureBox() const;
    QRectF onScreen(const QRectF& layerRect) const;
    bool hasSelection() const;
    int layerAt(QPointF point) const;
    int cornerAt(QPointF point) const;
    void drag(QPointF point);

    int mode = Idle;
    int corner = -1;    // 0 top left, 1 top right, 2 bottom right, 3 bottom left
    QPointF pressPoint; // widget pixels
    QRectF startRect;   // the layer's rect at the press
};
