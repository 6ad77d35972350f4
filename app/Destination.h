#pragma once

#include <QString>
#include <memory>

class Output;
class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;

// One of the four fixed stream rows of "Transmitir y grabar".
struct Destination
{
    QCheckBox* enabled = nullptr;
    QLineEdit* server = nullptr;
    QLineEdit* key = nullptr;
    QPushButton* button = nullptr;
    QLabel* status = nullptr;
    std::unique_ptr<Output> output;
    QString name;

    Destination();
    ~Destination();
    Destination(Destination&&) noexcept;
    Destination& operator=(Destination&&) noexcept;
};
