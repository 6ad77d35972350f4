#include "Layer.h"
#include "PropertyPanel.h"

#include <QTest>
#include <QtWidgets>

namespace {

// The field of the last labelled form row, or the button, with that text (the title may share it).
QWidget* field(QWidget& panel, const QString& label)
{
    QWidget* found = nullptr;
    for (QLabel* text : panel.findChildren<QLabel*>())
        if (text->text() == label && text->buddy())
            found = text->buddy();
    for (QAbstractButton* button : panel.findChildren<QAbstractButton*>())
        if (button->text() == label)
            found = button;
    return found;
}

// Works the control named or labelled `name` as the operator would.
void operate(QWidget& panel, const QString& name, const QVariant& value)
{
    QWidget* control = field(panel, name);
    QVERIFY2(control, qPrintable(name));
    if (auto* grid = qobject_cast<QGridLayout*>(control->layout()))
        qobject_cast<QPushButton*>(grid->itemAtPosition(value.toInt() / 3, value.toInt() % 3)->widget())->click();
    else if (auto* button = qobject_cast<QAbstractButton*>(control))
        button->click();
    else if (qobject_cast<QLineEdit*>(control))
        QTest::keyClicks(control, value.toString());
    else
        QVERIFY(control->setProperty(control->inherits("QComboBox")        ? "currentIndex"
                                     : control->inherits("QPlainTextEdit") ? "plainText"
                                                                           : "value",
                                     value));
}

} // namespace

// The property form on its own, with a layer standing in for the window's selection.
class tst_PropertyPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Without a selection the controls touch nothing; with it, each writes its own field, the boxes follow.
    // A screen capture is a picture, so it has the cover choice.
    void controlsWriteOnlyASelectedLayer()
    {
        auto panel = std::make_unique<PropertyPanel>();
        Layer* selected = nullptr;
        int changes = 0;
        panel->currentLayer = [&] { return selected; };
        panel->changed = panel->changeImage = panel->restartVideo = [&] { ++changes; };
        panel->pickColour = [&](const QColor&, bool) { return ++changes, QColor(1, 2, 3); };
        panel->findVerse = [&](const QString&) { ++changes; };
        using Case = std::tuple<const char*, const char*, QVariant, QJsonObject>; // the kind as the project names it
        for (const auto& [kind, control, value, written] : {
                 Case{"video", "Ajustar a pantalla completa", {}, {{"x", 0}, {"y", 0}, {"w", 1}, {"h", 1}}},
                 Case{"image", "Alinear en pantalla", 4, {{"x", 0.25}, {"y", 0.375}}},
                 Case{"verse", "Nombre", "Aviso", {{"name", "Aviso"}}},
                 Case{"text", "Negrita", {}, {{"bold", false}}}, Case{"color", "Color", {}, {{"fill", "#ff010203"}}},
                 Case{"text", "Alineación", 1, {{"align", 132}}}, // centred both ways
                 Case{"screen", "Rellenar el recuadro (recorta bordes, sin franjas negras)", {}, {{"cover", true}}},
                 Case{"image", "Cambiar imagen...", {}, {}}, Case{"video", "Reiniciar video", {}, {}},
                 Case{"verse", "Buscar versículo", {}, {}}}) {
            Layer layer = Layer::fromJson({{"kind", kind}, {"x", 0.25}, {"y", 0.5}, {"w", 0.5}, {"h", 0.25},
                                           {"align", 66}});
            QJsonObject expected = layer.toJson();
            changes = 0;
            selected = nullptr;
            panel->rebuild(&layer);
            operate(*panel, QString::fromUtf8(control), value);
            QVERIFY2(layer.toJson() == expected && changes == 0, control); // not even a colour dialog
            panel->rebuild(selected = &layer);
            operate(*panel, QString::fromUtf8(control), value);
            for (auto each = written.begin(); each != written.end(); ++each)
                expected.insert(each.key(), each.value());
            QCOMPARE(layer.toJson(), expected);
            QVERIFY2(changes > 0, control);
            QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"))->value(), layer.rect.x() * 100.0);
        }
    }
};

QTEST_MAIN(tst_PropertyPanel)
#include "tst_propertypanel.moc"
