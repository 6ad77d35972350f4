#pragma once

#include <QImage>
#include <QWidget>
#include <functional>

class SceneDef;

// Shows the Preview picture that the tick hands it, with the frame of the picture box and the
// selected layer's box and handles over it.
class Canvas : public QWidget
{
public:
    explicit Canvas(QWidget* parent = nullptr);

    void select(int index);

    QImage frame;
    SceneDef* scene = nullptr; // the scene being edited, not owned
    int selected = -1;
    double aspect = 16.0 / 9.0;
    std::function<void()> changed;
    std::function<void()> selectionChanged;
    std::function<void()> activated;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QRectF pictureBox() const;
};
