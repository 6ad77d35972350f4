#include "Layer.h"
#include "PropertyPanel.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QTest>

Q_DECLARE_METATYPE(Layer::Kind)

// The property form on its own, with a layer standing in for the window's selection.
class tst_PropertyPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void noSelectionShowsTheHint();
    void rowsPerKind_data();
    void rowsPerKind();
    void spinBoxWritesOneSideInPercent_data();
    void spinBoxWritesOneSideInPercent();
    void sameLayerOnlyUpdatesThePosition();
    void otherKindOrLayerRebuilds();
    void alignGrid_data();
    void alignGrid();
    void alignComboFromFlags_data();
    void alignComboFromFlags();
    void alignComboWritesFlags();
    void fullScreenButton();
    void controlsWriteTheirFields();
    void nothingHappensWithoutALayer();
    void colourButtons();
    void cancelledColourChangesNothing();
    void verseReferenceIsSplitAndLookedUp();
    void imageAndVideoButtons();

private:
    void attach(Layer& target);
    static QFormLayout* form(PropertyPanel& panel);
    static QStringList rowTexts(PropertyPanel& panel);
    static QWidget* field(PropertyPanel& panel, const QString& label);
    template <class W> static W* spanning(PropertyPanel& panel, const QString& text);
    static void dropOldForms() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

    std::unique_ptr<PropertyPanel> panel;
    Layer* selected = nullptr;
    int changes = 0;
};

void tst_PropertyPanel::init()
{
    panel = std::make_unique<PropertyPanel>();
    selected = nullptr;
    changes = 0;
    panel->currentLayer = [this] { return selected; };
    panel->changed = [this] { ++changes; };
    panel->pickColour = [](const QColor&, bool) -> QColor {
        qFatal("a colour dialog would open in a test");
        return {};
    };
}

void tst_PropertyPanel::attach(Layer& target)
{
    selected = &target;
    panel->refresh(&target);
}

QFormLayout* tst_PropertyPanel::form(PropertyPanel& panel)
{
    const auto forms = panel.findChildren<QFormLayout*>();
    return forms.size() == 1 ? forms.first() : nullptr;
}

// The texts an operator reads down the form: row labels, and the widgets that span a whole row.
QStringList tst_PropertyPanel::rowTexts(PropertyPanel& panel)
{
    QStringList texts;
    QFormLayout* layout = form(panel);
    if (!layout)
        return {QStringLiteral("<no single form>")};
    for (int row = 0; row < layout->rowCount(); ++row) {
        for (auto role : {QFormLayout::LabelRole, QFormLayout::SpanningRole}) {
            QLayoutItem* item = layout->itemAt(row, role);
            QWidget* widget = item ? item->widget() : nullptr;
            if (auto* label = qobject_cast<QLabel*>(widget))
                texts << label->text();
            else if (auto* button = qobject_cast<QAbstractButton*>(widget))
                texts << button->text();
        }
    }
    return texts;
}

QWidget* tst_PropertyPanel::field(PropertyPanel& panel, const QString& label)
{
    QFormLayout* layout = form(panel);
    if (!layout)
        return nullptr;
    for (int row = 0; row < layout->rowCount(); ++row) {
        QLayoutItem* item = layout->itemAt(row, QFormLayout::LabelRole);
        auto* text = item ? qobject_cast<QLabel*>(item->widget()) : nullptr;
        if (text && text->text() == label)
            return layout->itemAt(row, QFormLayout::FieldRole)->widget();
    }
    return nullptr;
}

template <class W> W* tst_PropertyPanel::spanning(PropertyPanel& panel, const QString& text)
{
    for (W* widget : panel.findChildren<W*>()) {
        if (widget->text() == text)
            return widget;
    }
    return nullptr;
}

void tst_PropertyPanel::noSelectionShowsTheHint()
{
    panel->refresh(nullptr);
    QCOMPARE(rowTexts(*panel),
             QStringList{QStringLiteral("Selecciona una fuente en la lista o en Preparación.")});
    QVERIFY(panel->findChildren<QDoubleSpinBox*>().isEmpty());
}

void tst_PropertyPanel::rowsPerKind_data()
{
    QTest::addColumn<Layer::Kind>("kind");
    QTest::addColumn<QStringList>("rows");

    const QStringList common{QStringLiteral("Nombre"), QStringLiteral("Posición"),
                             QStringLiteral("Alinear en pantalla"), QStringLiteral("Opacidad"),
                             QStringLiteral("Ajustar a pantalla completa")};
    const QStringList textRows{QStringLiteral("Tipo de letra"),
                               QStringLiteral("Tamaño"),
                               QStringLiteral("Negrita"),
                               QStringLiteral("Color del texto"),
                               QStringLiteral("Fondo (con transparencia)"),
                               QStringLiteral("Sombra / contorno oscuro"),
                               QStringLiteral("Alineación")};
    const QString cover = QStringLiteral("Rellenar el recuadro (recorta bordes, sin franjas negras)");

    QTest::newRow("camera")
        << Layer::Kind::Camera
        << QStringList{QStringLiteral("Cámara")} + common +
               QStringList{cover, QStringLiteral("Muestra la cámara conectada en \"Fuentes y pantallas\".")};
    QTest::newRow("image") << Layer::Kind::Image
                           << QStringList{QStringLiteral("Imagen")} + common +
                                  QStringList{cover, QStringLiteral("Archivo"),
                                              QStringLiteral("Cambiar imagen...")};
    QTest::newRow("text") << Layer::Kind::Text
                          << QStringList{QStringLiteral("Texto")} + common +
                                 QStringList{QStringLiteral("Texto")} + textRows;
    QTest::newRow("video") << Layer::Kind::Video
                           << QStringList{QStringLiteral("Video")} + common +
                                  QStringList{cover,
                                              QStringLiteral("Audio del video cuando esté en Programa"),
                                              QStringLiteral("Origen"), QStringLiteral("Reiniciar video")};
    QTest::newRow("screen") << Layer::Kind::Screen
                            << QStringList{QStringLiteral("Pantalla")} + common +
                                   QStringList{cover, QStringLiteral(
                                                          "Captura la pantalla principal de este equipo.")};
    QTest::newRow("color") << Layer::Kind::Color
                           << QStringList{QStringLiteral("Color")} + common +
                                  QStringList{QStringLiteral("Color")};
    QTest::newRow("verse") << Layer::Kind::Verse
                           << QStringList{QStringLiteral("Versículo")} + common +
                                  QStringList{QStringLiteral("Cita"), QStringLiteral("Buscar versículo"),
                                              QStringLiteral("Biblia"), QStringLiteral("Texto")} +
                                  textRows;
    QTest::newRow("subtitle")
        << Layer::Kind::Subtitle
        << QStringList{QStringLiteral("Subtítulos (IA)")} + common +
               QStringList{QStringLiteral(
                   "El texto lo pone la traducción IA. Aquí eliges posición, tamaño, color y fondo.")} +
               textRows;
}

void tst_PropertyPanel::rowsPerKind()
{
    QFETCH(Layer::Kind, kind);
    QFETCH(QStringList, rows);
    Layer layer;
    layer.kind = kind;
    attach(layer);
    QCOMPARE(rowTexts(*panel), rows);

    auto* kindLabel = qobject_cast<QLabel*>(form(*panel)->itemAt(0, QFormLayout::SpanningRole)->widget());
    QVERIFY(kindLabel && kindLabel->font().bold());
    QCOMPARE(panel->findChildren<QDoubleSpinBox*>().size(), 4);
    const bool textBox = kind == Layer::Kind::Text || kind == Layer::Kind::Verse;
    QCOMPARE(panel->findChild<QPlainTextEdit*>() != nullptr, textBox);
    if (textBox)
        QVERIFY(panel->findChild<QPlainTextEdit*>()->maximumHeight() <= 64);
    QCOMPARE(changes, 0); // building writes nothing back
}

void tst_PropertyPanel::spinBoxWritesOneSideInPercent_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("percent");
    QTest::addColumn<QRectF>("expected");

    // Starting box (0.1, 0.2, 0.5, 0.4): the other sides keep their place.
    QTest::newRow("X") << QStringLiteral("X") << 25.0 << QRectF(0.25, 0.2, 0.5, 0.4);
    QTest::newRow("Y negative") << QStringLiteral("Y") << -12.5 << QRectF(0.1, -0.125, 0.5, 0.4);
    QTest::newRow("W") << QStringLiteral("W") << 60.0 << QRectF(0.1, 0.2, 0.6, 0.4);
    QTest::newRow("H large") << QStringLiteral("H") << 250.0 << QRectF(0.1, 0.2, 0.5, 2.5);
    QTest::newRow("X clamped") << QStringLiteral("X") << 200.0 << QRectF(0.95, 0.2, 0.5, 0.4);
    QTest::newRow("W clamped") << QStringLiteral("W") << 1.0 << QRectF(0.1, 0.2, 0.03, 0.4);
}

void tst_PropertyPanel::spinBoxWritesOneSideInPercent()
{
    QFETCH(QString, name);
    QFETCH(double, percent);
    QFETCH(QRectF, expected);
    Layer layer;
    layer.kind = Layer::Kind::Image;
    layer.rect = QRectF(0.1, 0.2, 0.5, 0.4);
    attach(layer);
    auto* spin = panel->findChild<QDoubleSpinBox*>(name);
    QVERIFY(spin);
    QCOMPARE(spin->suffix(), QStringLiteral("%"));
    QCOMPARE(spin->decimals(), 1);
    QVERIFY(!spin->keyboardTracking());
    QVERIFY(spin->minimumWidth() >= 78);

    spin->setValue(percent);
    QCOMPARE(layer.rect, expected);
    QCOMPARE(changes, 1);
}

// Typing in a box makes the window refresh the panel from inside the edit: that must not pull
// the box out from under the operator.
void tst_PropertyPanel::sameLayerOnlyUpdatesThePosition()
{
    Layer layer;
    layer.kind = Layer::Kind::Text;
    layer.name = QStringLiteral("Título");
    layer.rect = QRectF(0.1, 0.2, 0.5, 0.4);
    attach(layer);
    panel->changed = [&] {
        ++changes;
        panel->refresh(selected);
    };
    QPointer<QDoubleSpinBox> x = panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"));
    QPointer<QDoubleSpinBox> h = panel->findChild<QDoubleSpinBox*>(QStringLiteral("H"));
    QPointer<QLineEdit> name = qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Nombre")));
    QVERIFY(x && h && name);

    x->setValue(30.0);
    dropOldForms();
    QVERIFY(x && h && name);
    QCOMPARE(layer.rect.x(), 0.3);

    // A drag on the canvas: the box moves, the rest of the form is left as it stands.
    layer.rect = QRectF(0.05, 0.15, 0.7, 0.333);
    layer.name = QStringLiteral("Otro");
    panel->refresh(&layer);
    dropOldForms();
    QVERIFY(x && h && name);
    QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("X")), x.data());
    QCOMPARE(x->value(), 5.0);
    QCOMPARE(h->value(), 33.3);
    QCOMPARE(name->text(), QStringLiteral("Título"));
    QCOMPARE(changes, 1); // writing the boxes reported nothing back
    QCOMPARE(layer.rect.height(), 0.333);
}

void tst_PropertyPanel::otherKindOrLayerRebuilds()
{
    Layer layer;
    layer.kind = Layer::Kind::Text;
    attach(layer);
    QPointer<QDoubleSpinBox> x = panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"));

    layer.kind = Layer::Kind::Verse; // same address, other kind
    panel->refresh(&layer);
    QVERIFY(rowTexts(*panel).contains(QStringLiteral("Cita")));
    dropOldForms();
    QVERIFY(!x);

    x = panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"));
    Layer other;
    other.kind = Layer::Kind::Verse; // same kind, other layer
    other.name = QStringLiteral("Segundo");
    attach(other);
    dropOldForms();
    QVERIFY(!x);
    QCOMPARE(qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Nombre")))->text(),
             QStringLiteral("Segundo"));

    // Through the hint and back: the way to show fields changed from outside.
    other.name = QStringLiteral("Renombrado");
    panel->refresh(nullptr);
    panel->refresh(&other);
    QCOMPARE(qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Nombre")))->text(),
             QStringLiteral("Renombrado"));
    QCOMPARE(panel->findChildren<QFormLayout*>().size(), 1);
}

void tst_PropertyPanel::alignGrid_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<int>("column");
    QTest::addColumn<QPointF>("topLeft");

    // Box 0.4 wide and 0.2 high.
    QTest::newRow("top left") << 0 << 0 << QPointF(0.0, 0.0);
    QTest::newRow("top centre") << 0 << 1 << QPointF(0.3, 0.0);
    QTest::newRow("top right") << 0 << 2 << QPointF(0.6, 0.0);
    QTest::newRow("middle left") << 1 << 0 << QPointF(0.0, 0.4);
    QTest::newRow("centre") << 1 << 1 << QPointF(0.3, 0.4);
    QTest::newRow("middle right") << 1 << 2 << QPointF(0.6, 0.4);
    QTest::newRow("bottom left") << 2 << 0 << QPointF(0.0, 0.8);
    QTest::newRow("bottom centre") << 2 << 1 << QPointF(0.3, 0.8);
    QTest::newRow("bottom right") << 2 << 2 << QPointF(0.6, 0.8);
}

void tst_PropertyPanel::alignGrid()
{
    QFETCH(int, row);
    QFETCH(int, column);
    QFETCH(QPointF, topLeft);
    Layer layer;
    layer.kind = Layer::Kind::Image;
    layer.rect = QRectF(0.33, 0.5, 0.4, 0.2);
    attach(layer);

    QWidget* box = field(*panel, QStringLiteral("Alinear en pantalla"));
    QVERIFY(box);
    auto* grid = qobject_cast<QGridLayout*>(box->layout());
    QVERIFY(grid);
    QCOMPARE(grid->spacing(), 2);
    auto* button = qobject_cast<QPushButton*>(grid->itemAtPosition(row, column)->widget());
    QVERIFY(button);
    QCOMPARE(button->size(), QSize(30, 26));
    QCOMPARE(button->toolTip(), QStringLiteral("Alinear"));
    QCOMPARE(button->text() == QStringLiteral("●"), row == 1 && column == 1);

    button->click();
    QVERIFY(qAbs(layer.rect.x() - topLeft.x()) < 1e-9);
    QVERIFY(qAbs(layer.rect.y() - topLeft.y()) < 1e-9);
    QCOMPARE(layer.rect.size(), QSizeF(0.4, 0.2));
    QCOMPARE(changes, 1);
    QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"))->value(), topLeft.x() * 100.0);
    QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("Y"))->value(), topLeft.y() * 100.0);
}

void tst_PropertyPanel::alignComboFromFlags_data()
{
    QTest::addColumn<int>("align");
    QTest::addColumn<int>("index");

    QTest::newRow("left 129") << 129 << 0;
    QTest::newRow("centre 132") << 132 << 1;
    QTest::newRow("right 130") << 130 << 2;
    QTest::newRow("left top 33") << 33 << 0;
    QTest::newRow("right bottom 66") << 66 << 2;
    QTest::newRow("hcentre top 36") << 36 << 1;
    QTest::newRow("justify 8") << 8 << 1;
    QTest::newRow("none 0") << 0 << 1;
    QTest::newRow("left and right 3") << 3 << 0;
}

void tst_PropertyPanel::alignComboFromFlags()
{
    QFETCH(int, align);
    QFETCH(int, index);
    Layer layer;
    layer.kind = Layer::Kind::Subtitle;
    layer.align = align;
    attach(layer);
    auto* combo = qobject_cast<QComboBox*>(field(*panel, QStringLiteral("Alineación")));
    QVERIFY(combo);
    QCOMPARE(combo->currentIndex(), index);
    QCOMPARE(layer.align, align); // showing it does not rewrite it
    QCOMPARE(changes, 0);
}

void tst_PropertyPanel::alignComboWritesFlags()
{
    Layer layer;
    layer.kind = Layer::Kind::Text;
    layer.align = 33;
    attach(layer);
    auto* combo = qobject_cast<QComboBox*>(field(*panel, QStringLiteral("Alineación")));
    QVERIFY(combo);
    QCOMPARE(combo->count(), 3);
    QCOMPARE(combo->itemText(0), QStringLiteral("Izquierda"));
    QCOMPARE(combo->itemText(1), QStringLiteral("Centro"));
    QCOMPARE(combo->itemText(2), QStringLiteral("Derecha"));
    combo->setCurrentIndex(2);
    QCOMPARE(layer.align, 130);
    combo->setCurrentIndex(1);
    QCOMPARE(layer.align, 132);
    combo->setCurrentIndex(0);
    QCOMPARE(layer.align, 129);
    QCOMPARE(changes, 3);
}

void tst_PropertyPanel::fullScreenButton()
{
    Layer layer;
    layer.kind = Layer::Kind::Video;
    layer.rect = QRectF(0.55, 0.05, 0.4, 0.4);
    attach(layer);
    auto* button = spanning<QPushButton>(*panel, QStringLiteral("Ajustar a pantalla completa"));
    QVERIFY(button);
    button->click();
    QCOMPARE(layer.rect, QRectF(0.0, 0.0, 1.0, 1.0));
    QCOMPARE(changes, 1);
    QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"))->value(), 0.0);
    QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("W"))->value(), 100.0);
    QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("H"))->value(), 100.0);
}

void tst_PropertyPanel::controlsWriteTheirFields()
{
    Layer layer;
    layer.kind = Layer::Kind::Text;
    layer.opacity = 0.5;
    layer.size = 56;
    attach(layer);

    auto* name = qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Nombre")));
    QTest::keyClicks(name, QStringLiteral("Aviso"));
    QCOMPARE(layer.name, QStringLiteral("Aviso"));

    auto* opacity = qobject_cast<QSlider*>(field(*panel, QStringLiteral("Opacidad")));
    QCOMPARE(opacity->value(), 50);
    opacity->setValue(25);
    QCOMPARE(layer.opacity, 0.25);

    auto* text = qobject_cast<QPlainTextEdit*>(field(*panel, QStringLiteral("Texto")));
    text->setPlainText(QStringLiteral("Bienvenidos\nal culto"));
    QCOMPARE(layer.text, QStringLiteral("Bienvenidos\nal culto"));

    auto* size = qobject_cast<QSpinBox*>(field(*panel, QStringLiteral("Tamaño")));
    QCOMPARE(size->minimum(), 8);
    QCOMPARE(size->maximum(), 400);
    size->setValue(90);
    QCOMPARE(layer.size, 90);

    spanning<QCheckBox>(*panel, QStringLiteral("Negrita"))->click();
    QVERIFY(!layer.bold);
    spanning<QCheckBox>(*panel, QStringLiteral("Sombra / contorno oscuro"))->click();
    QVERIFY(!layer.shadow);
    QVERIFY(changes >= 6);

    Layer video;
    video.kind = Layer::Kind::Video;
    attach(video);
    spanning<QCheckBox>(*panel, QStringLiteral("Audio del video cuando esté en Programa"))->click();
    QVERIFY(!video.sound);
    spanning<QCheckBox>(*panel, QStringLiteral("Rellenar el recuadro (recorta bordes, sin franjas negras)"))
        ->click();
    QVERIFY(video.cover);
}

// The selection can go while the form still shows: the controls then touch nothing.
void tst_PropertyPanel::nothingHappensWithoutALayer()
{
    Layer layer;
    layer.kind = Layer::Kind::Verse;
    layer.rect = QRectF(0.1, 0.2, 0.5, 0.4);
    attach(layer);
    const QJsonObject before = layer.toJson();
    selected = nullptr;
    int asked = 0;
    panel->pickColour = [&](const QColor&, bool) {
        ++asked;
        return QColor(Qt::red);
    };
    int lookups = 0;
    panel->findVerse = [&](const QString&) { ++lookups; };

    panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"))->setValue(40.0);
    spanning<QPushButton>(*panel, QStringLiteral("Ajustar a pantalla completa"))->click();
    QWidget* box = field(*panel, QStringLiteral("Alinear en pantalla"));
    qobject_cast<QPushButton*>(qobject_cast<QGridLayout*>(box->layout())->itemAtPosition(2, 2)->widget())
        ->click();
    QTest::keyClicks(qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Nombre"))), QStringLiteral("x"));
    qobject_cast<QSlider*>(field(*panel, QStringLiteral("Opacidad")))->setValue(10);
    qobject_cast<QComboBox*>(field(*panel, QStringLiteral("Alineación")))->setCurrentIndex(0);
    qobject_cast<QPushButton*>(field(*panel, QStringLiteral("Color del texto")))->click();
    spanning<QPushButton>(*panel, QStringLiteral("Buscar versículo"))->click();

    QCOMPARE(layer.toJson(), before);
    QCOMPARE(changes, 0);
    QCOMPARE(asked, 0);
    QCOMPARE(lookups, 0);
}

void tst_PropertyPanel::colourButtons()
{
    QColor offered;
    QList<bool> alphas;
    QColor answer(10, 20, 30, 40);
    panel->pickColour = [&](const QColor& current, bool withAlpha) {
        offered = current;
        alphas << withAlpha;
        return answer;
    };

    Layer layer;
    layer.kind = Layer::Kind::Verse;
    attach(layer);
    auto* background = qobject_cast<QPushButton*>(field(*panel, QStringLiteral("Fondo (con transparencia)")));
    QVERIFY(background);
    QCOMPARE(background->styleSheet(),
             QStringLiteral("QPushButton{background:#96000000;border:1px solid #88a;}"));
    background->click();
    QCOMPARE(offered, QColor(0, 0, 0, 150));
    QCOMPARE(layer.background, answer);
    QCOMPARE(layer.background.alpha(), 40);
    QCOMPARE(background->styleSheet(),
             QStringLiteral("QPushButton{background:#280a141e;border:1px solid #88a;}"));

    answer = QColor(255, 200, 0);
    auto* text = qobject_cast<QPushButton*>(field(*panel, QStringLiteral("Color del texto")));
    QCOMPARE(text->styleSheet(), QStringLiteral("QPushButton{background:#ffffff;border:1px solid #88a;}"));
    text->click();
    QCOMPARE(offered, QColor(255, 255, 255));
    QCOMPARE(layer.color, answer);
    QCOMPARE(text->styleSheet(), QStringLiteral("QPushButton{background:#ffc800;border:1px solid #88a;}"));

    Layer colour;
    colour.kind = Layer::Kind::Color;
    attach(colour);
    answer = QColor(1, 2, 3);
    qobject_cast<QPushButton*>(field(*panel, QStringLiteral("Color")))->click();
    QCOMPARE(offered, QColor(12, 48, 88));
    QCOMPARE(colour.fill, answer);

    QCOMPARE(alphas, (QList<bool>{true, false, false}));
    QCOMPARE(changes, 3);
}

void tst_PropertyPanel::cancelledColourChangesNothing()
{
    panel->pickColour = [](const QColor&, bool) { return QColor(); };
    Layer layer;
    layer.kind = Layer::Kind::Text;
    attach(layer);
    auto* button = qobject_cast<QPushButton*>(field(*panel, QStringLiteral("Color del texto")));
    const QString style = button->styleSheet();
    button->click();
    QCOMPARE(layer.color, QColor(255, 255, 255));
    QCOMPARE(button->styleSheet(), style);
    QCOMPARE(changes, 0);
}

void tst_PropertyPanel::verseReferenceIsSplitAndLookedUp()
{
    QStringList lookups;
    panel->findVerse = [&](const QString& reference) { lookups << reference; };
    Layer layer;
    layer.kind = Layer::Kind::Verse;
    layer.reference = QStringLiteral("Juan 3:16 · RV1909");
    attach(layer);

    auto* citation = qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Cita")));
    auto* bible = qobject_cast<QLabel*>(field(*panel, QStringLiteral("Biblia")));
    QVERIFY(citation && bible);
    QCOMPARE(citation->text(), QStringLiteral("Juan 3:16"));
    QCOMPARE(citation->placeholderText(), QStringLiteral("Juan 3:16"));
    QCOMPARE(bible->text(), QStringLiteral("RV1909"));

    QTest::keyClick(citation, Qt::Key_Return);
    QCOMPARE(lookups, QStringList{QStringLiteral("Juan 3:16")});

    citation->clear();
    QTest::keyClicks(citation, QStringLiteral("Salmos 23"));
    spanning<QPushButton>(*panel, QStringLiteral("Buscar versículo"))->click();
    QCOMPARE(lookups.last(), QStringLiteral("Salmos 23"));
    QCOMPARE(layer.reference, QStringLiteral("Juan 3:16 · RV1909")); // the lookup writes it, not the field

    // A machine translation names no Bible: its label stands in the same place.
    Layer online;
    online.kind = Layer::Kind::Verse;
    online.reference = QStringLiteral("John 3:16 · traducción automática");
    attach(online);
    QCOMPARE(qobject_cast<QLabel*>(field(*panel, QStringLiteral("Biblia")))->text(),
             QStringLiteral("traducción automática"));

    Layer bare;
    bare.kind = Layer::Kind::Verse;
    bare.reference = QStringLiteral("Romanos 8:28");
    attach(bare);
    QCOMPARE(qobject_cast<QLineEdit*>(field(*panel, QStringLiteral("Cita")))->text(),
             QStringLiteral("Romanos 8:28"));
    QCOMPARE(qobject_cast<QLabel*>(field(*panel, QStringLiteral("Biblia")))->text(), QString());
}

void tst_PropertyPanel::imageAndVideoButtons()
{
    int images = 0;
    int restarts = 0;
    panel->changeImage = [&] { ++images; };
    panel->restartVideo = [&] { ++restarts; };

    Layer image;
    image.kind = Layer::Kind::Image;
    image.path = QStringLiteral("/srv/culto/fondo azul.png");
    attach(image);
    QCOMPARE(qobject_cast<QLabel*>(field(*panel, QStringLiteral("Archivo")))->text(),
             QStringLiteral("fondo azul.png"));
    spanning<QPushButton>(*panel, QStringLiteral("Cambiar imagen..."))->click();
    QCOMPARE(images, 1);

    Layer video;
    video.kind = Layer::Kind::Video;
    video.uri = QStringLiteral("rtsp://10.0.0.5/stream");
    attach(video);
    QCOMPARE(qobject_cast<QLabel*>(field(*panel, QStringLiteral("Origen")))->text(),
             QStringLiteral("rtsp://10.0.0.5/stream"));
    spanning<QPushButton>(*panel, QStringLiteral("Reiniciar video"))->click();
    QCOMPARE(restarts, 1);

    selected = nullptr;
    spanning<QPushButton>(*panel, QStringLiteral("Reiniciar video"))->click();
    QCOMPARE(restarts, 1);
}

QTEST_MAIN(tst_PropertyPanel)
#include "tst_propertypanel.moc"
