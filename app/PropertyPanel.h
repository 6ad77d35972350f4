#pragma once

#include "Layer.h"

#include <QColor>
#include <QWidget>
#include <array>
#include <functional>

class QDoubleSpinBox;
class QFormLayout;
class QPushButton;
class QVBoxLayout;

// The property form of the selected layer. The window owns the scene: every control writes to the
// layer that `currentLayer` hands out at the moment of the edit, so a panel built for a layer that
// has since gone can never write to freed memory.
class PropertyPanel : public QWidget
{
public:
    explicit PropertyPanel(QWidget* parent = nullptr);

    // Shows the rows of `layer`, or a hint when it is null. The form is rebuilt only when the layer
    // or its kind differs from the last build; otherwise only the four position boxes are written,
    // with their signals blocked, so typing and dragging on the canvas never rebuild the form.
    void refresh(Layer* layer);
    // Builds the form anew, for fields changed from outside (a looked-up verse, a new image); safe
    // even from inside one of the panel's own callbacks, since the old form is deleted later.
    void rebuild(Layer* layer);

    std::function<Layer*()> currentLayer = [] { return nullptr; };
    std::function<void()> changed = [] {};
    std::function<void(const QString& reference)> findVerse = [](const QString&) {};
    std::function<void()> changeImage = [] {};
    std::function<void()> restartVideo = [] {};
    // Asks for a colour; an invalid answer means cancelled. Replaceable so that nothing modal opens
    // where no one can answer it.
    std::function<QColor(const QColor& current, bool withAlpha)> pickColour;

private:
    void addPosition(QFormLayout* form, const Layer& layer);
    void addAlignGrid(QFormLayout* form);
    QPushButton* colourButton(const QColor& colour, bool withAlpha, QColor Layer::*field);
    QPushButton* actionButton(const QString& text);
    void showRect(const QRectF& rect);
    // Runs `apply` on the current layer and reports the change; does nothing without one.
    void edit(const std::function<void(Layer&)>& apply);

    QVBoxLayout* outer = nullptr;
    QWidget* content = nullptr;
    std::array<QDoubleSpinBox*, 4> spins{};
    bool built = false;
    Layer* lastLayer = nullptr;
    Layer::Kind lastKind = Layer::Kind::Camera;
};
