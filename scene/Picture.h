#pragma once

#include <QImage>
#include <QWidget>
#include <functional>

// Shows one picture with black bars, never stretched. Used for the two monitors in the window and
// for the full-screen hall window, which hides instead of closing.
class Picture : public QWidget
{
public:
    explicit Picture(QWidget* parent = nullptr);

    QImage image;                 // assigned by the owner, followed by update()
    std::function<void()> onHide; // called whenever the widget is hidden

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
};
