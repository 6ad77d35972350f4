#include "Layer.h"
#include "PropertyPanel.h"

#include <QTest>
#include <QtWidgets>

Q_DECLARE_METATYPE(Layer::Kind)

namespace {

QFormLayout* form(QWidget& panel)
{
    const auto forms = panel.findChildren<QFormLayout*>();
    return forms.size() == 1 ? forms.first() : nullptr;
}

// The texts an operator reads down the form: row labels, and the widgets that span a whole row.
QStringList rowTexts(QWidget& panel)
{
    QFormLayout* layout = form(panel);
    QStringList texts;
    for (int row = 0; layout && row < layout->rowCount(); ++row) {
        for (auto role : {QFormLayout::LabelRole, QFormLayout::SpanningRole}) {
            QLayoutItem* item = layout->itemAt(row, role);
            if (auto* label = qobject_cast<QLabel*>(item ? item->widget() : nullptr))
                texts << label->text();
            else if (auto* button = qobject_cast<QAbstractButton*>(item ? item->widget() : nullptr))
                texts << button->text();
        }
    }
    return layout ? texts : QStringList{QStringLiteral("<no single form>")};
}

// The field of the row labelled `label`, or the spanning button or box that reads `label`.
template <class W = QWidget> W* field(QWidget& panel, const QString& label)
{
    QFormLayout* layout = form(panel);
    for (int row = 0; layout && row < layout->rowCount(); ++row) {
        QLayoutItem* item = layout->itemAt(row, QFormLayout::LabelRole);
        auto* text = item ? qobject_cast<QLabel*>(item->widget()) : nullptr;
        if (text && text->text() == label)
            return qobject_cast<W*>(layout->itemAt(row, QFormLayout::FieldRole)->widget());
    }
    for (auto* button : panel.findChildren<QAbstractButton*>())
        if (button->text() == label)
            return qobject_cast<W*>(button);
    return nullptr;
}

// Works the control named `name` (a position box) or labelled `name` as the operator would.
void operate(QWidget& panel, const QString& name, const QVariant& value)
{
    QWidget* control = panel.findChild<QDoubleSpinBox*>(name);
    if (!control)
        control = field(panel, name);
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

void dropOldForms() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

} // namespace

// The property form on its own, with a layer standing in for the window's selection.
class tst_PropertyPanel : public QObject
{
    Q_OBJECT
    std::unique_ptr<PropertyPanel> panel;
    Layer* selected = nullptr;
    int changes = 0;

    void attach(Layer& target) { panel->refresh(selected = &target); }

private Q_SLOTS:
    void init()
    {
        panel = std::make_unique<PropertyPanel>();
        selected = nullptr;
        changes = 0;
        panel->currentLayer = [this] { return selected; };
        panel->changed = [this] { ++changes; };
        panel->pickColour = [](const QColor&, bool) -> QColor { qFatal("no colour dialog in a test"); };
    }

    void rowsPerKind_data()
    {
        QTest::addColumn<Layer::Kind>("kind");
        QTest::addColumn<QStringList>("rows");
        const QStringList common{"Nombre", "Posición", "Alinear en pantalla", "Opacidad",
                                 "Ajustar a pantalla completa"};
        const QStringList text{"Tipo de letra", "Tamaño", "Negrita", "Color del texto", "Fondo (con transparencia)",
                               "Sombra / contorno oscuro", "Alineación"};
        const QString cover = QStringLiteral("Rellenar el recuadro (recorta bordes, sin franjas negras)");
        const auto row = [&](Layer::Kind kind, const char* title, const QStringList& own) {
            QTest::newRow(title) << kind << QStringList{QString::fromUtf8(title)} + common + own;
        };
        row(Layer::Kind::Camera, "Cámara", {cover, "Muestra la cámara conectada en \"Fuentes y pantallas\"."});
        row(Layer::Kind::Image, "Imagen", {cover, "Archivo", "Cambiar imagen..."});
        row(Layer::Kind::Text, "Texto", QStringList{"Texto"} + text);
        row(Layer::Kind::Video, "Video",
            {cover, "Audio del video cuando esté en Programa", "Origen", "Reiniciar video"});
        row(Layer::Kind::Screen, "Pantalla", {cover, "Captura la pantalla principal de este equipo."});
        row(Layer::Kind::Color, "Color", {"Color"});
        row(Layer::Kind::Verse, "Versículo", QStringList{"Cita", "Buscar versículo", "Biblia", "Texto"} + text);
        row(Layer::Kind::Subtitle, "Subtítulos (IA)",
            QStringList{"El texto lo pone la traducción IA. Aquí eliges posición, tamaño, color y fondo."} + text);
    }
    void rowsPerKind()
    {
        QFETCH(Layer::Kind, kind);
        QFETCH(QStringList, rows);
        Layer layer;
        layer.kind = kind;
        attach(layer);
        QCOMPARE(rowTexts(*panel), rows);
        QCOMPARE(changes, 0); // building writes nothing back
    }

    void controlsWriteOnlyASelectedLayer_data()
    {
        QTest::addColumn<Layer::Kind>("kind");
        QTest::addColumn<QString>("control");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QJsonObject>("written");
        const Layer::Kind image = Layer::Kind::Image, text = Layer::Kind::Text;
        const Layer::Kind video = Layer::Kind::Video, verse = Layer::Kind::Verse;
        const auto row = [](const char* name, Layer::Kind kind, const char* control, const QVariant& value,
                            const QJsonObject& written) {
            QTest::newRow(name) << kind << QString::fromUtf8(control) << value << written;
        };
        // Box (0.25, 0.5, 0.5, 0.25): only the edited side moves, within the boxes' range.
        row("X", image, "X", 40.0, {{"x", 0.4}});
        row("Y negative", image, "Y", -12.5, {{"y", -0.125}});
        row("W", image, "W", 60.0, {{"w", 0.6}});
        row("H past the edge", image, "H", 250.0, {{"h", 2.5}});
        row("X clamped", image, "X", 200.0, {{"x", 0.95}});
        row("W clamped", image, "W", 1.0, {{"w", 0.03}});
        row("full screen", video, "Ajustar a pantalla completa", {}, {{"x", 0}, {"y", 0}, {"w", 1}, {"h", 1}});
        row("align top left", image, "Alinear en pantalla", 0, {{"x", 0}, {"y", 0}});
        row("align centre", image, "Alinear en pantalla", 4, {{"x", 0.25}, {"y", 0.375}});
        row("align bottom right", verse, "Alinear en pantalla", 8, {{"x", 0.5}, {"y", 0.75}});
        row("name", text, "Nombre", "Aviso", {{"name", "Aviso"}});
        row("opacity", text, "Opacidad", 25, {{"opacity", 0.25}});
        row("text", verse, "Texto", "Bienvenidos\nal culto", {{"text", "Bienvenidos\nal culto"}});
        row("size", text, "Tamaño", 90, {{"size", 90}});
        row("bold", text, "Negrita", {}, {{"bold", false}});
        row("shadow", text, "Sombra / contorno oscuro", {}, {{"shadow", false}});
        row("text colour", verse, "Color del texto", {}, {{"color", "#ff010203"}});
        row("colour fill", Layer::Kind::Color, "Color", {}, {{"fill", "#ff010203"}});
        // The combo writes left, centre or right with the vertical bits centred.
        row("text align left", text, "Alineación", 0, {{"align", 129}});
        row("text align centre", text, "Alineación", 1, {{"align", 132}});
        row("video sound", video, "Audio del video cuando esté en Programa", {}, {{"sound", false}});
        row("cover", video, "Rellenar el recuadro (recorta bordes, sin franjas negras)", {}, {{"cover", true}});
        // These ask the window to act, which then writes the layer itself.
        row("change image", image, "Cambiar imagen...", {}, {});
        row("restart video", video, "Reiniciar video", {}, {});
        row("find verse", verse, "Buscar versículo", {}, {});
    }
    // Without a selection the controls touch nothing; with it, each writes its own field, boxes follow.
    void controlsWriteOnlyASelectedLayer()
    {
        QFETCH(Layer::Kind, kind);
        QFETCH(QString, control);
        QFETCH(QVariant, value);
        QFETCH(QJsonObject, written);
        int asked = 0;
        panel->pickColour = [&](const QColor&, bool) {
            ++asked;
            return QColor(1, 2, 3);
        };
        panel->changeImage = panel->restartVideo = [&] { ++changes; };
        panel->findVerse = [&](const QString&) { ++changes; };
        Layer layer;
        layer.kind = kind;
        layer.rect = QRectF(0.25, 0.5, 0.5, 0.25);
        layer.opacity = 0.5;
        layer.align = 66; // right, bottom
        QJsonObject expected = layer.toJson();
        panel->refresh(&layer);
        operate(*panel, control, value);
        QCOMPARE(layer.toJson(), expected);
        QCOMPARE(changes + asked, 0); // not even a colour dialog for a layer that has gone

        selected = &layer;
        panel->rebuild(&layer);
        operate(*panel, control, value);
        for (auto each = written.begin(); each != written.end(); ++each)
            expected.insert(each.key(), each.value());
        QCOMPARE(layer.toJson(), expected);
        QVERIFY(changes > 0);
        const std::array<double, 4> sides{layer.rect.x(), layer.rect.y(), layer.rect.width(), layer.rect.height()};
        for (std::size_t i = 0; i < 4; ++i)
            QCOMPARE(panel->findChild<QDoubleSpinBox*>(QString(QLatin1Char("XYWH"[i])))->value(), sides[i] * 100.0);
    }

    // A refresh from inside an edit or a drag keeps the form; another layer or kind gets a new one.
    void refreshRebuildsOnlyForAnotherLayerOrKind()
    {
        Layer layer;
        layer.kind = Layer::Kind::Text;
        layer.name = QStringLiteral("Título");
        attach(layer);
        panel->changed = [&] {
            ++changes;
            panel->refresh(selected);
        };
        const QPointer<QDoubleSpinBox> x = panel->findChild<QDoubleSpinBox*>(QStringLiteral("X"));
        const QPointer<QLineEdit> name = field<QLineEdit>(*panel, QStringLiteral("Nombre"));
        x->setValue(30.0);
        layer.rect = QRectF(0.05, 0.15, 0.7, 0.333);
        layer.name = QStringLiteral("Otro");
        panel->refresh(&layer);
        dropOldForms();
        QVERIFY(x && name);
        QCOMPARE(x->value(), 5.0);
        QCOMPARE(panel->findChild<QDoubleSpinBox*>(QStringLiteral("H"))->value(), 33.3);
        QCOMPARE(name->text(), QStringLiteral("Título"));
        QCOMPARE(changes, 1); // writing the boxes reported nothing back
        QCOMPARE(layer.rect.height(), 0.333);

        layer.kind = Layer::Kind::Verse;
        panel->refresh(&layer);
        dropOldForms();
        QVERIFY(!x && rowTexts(*panel).contains(QStringLiteral("Cita")));
        Layer other;
        other.kind = Layer::Kind::Verse;
        other.name = QStringLiteral("Segundo");
        attach(other);
        QCOMPARE(field<QLineEdit>(*panel, QStringLiteral("Nombre"))->text(), QStringLiteral("Segundo"));
        panel->refresh(nullptr);
        QCOMPARE(rowTexts(*panel), QStringList{QStringLiteral("Selecciona una fuente en la lista o en Preparación.")});
    }

    // The background is offered with its alpha, the text colour without; a cancelled dialog changes nothing.
    void colourButtons()
    {
        QStringList offered; // the colour shown, and whether its alpha is offered too
        QColor answer(10, 20, 30, 40);
        panel->pickColour = [&](const QColor& current, bool withAlpha) {
            offered << current.name(QColor::HexArgb) + (withAlpha ? QStringLiteral(" alpha") : QString());
            return answer;
        };
        Layer layer;
        layer.kind = Layer::Kind::Verse;
        attach(layer);
        auto* background = field<QPushButton>(*panel, QStringLiteral("Fondo (con transparencia)"));
        auto* text = field<QPushButton>(*panel, QStringLiteral("Color del texto"));
        QVERIFY(background->styleSheet().contains(QStringLiteral("background:#96000000;")));
        background->click();
        answer = QColor(); // cancelled
        text->click();
        QCOMPARE(offered, (QStringList{"#96000000 alpha", "#ffffffff"}));
        QCOMPARE(layer.background, QColor(10, 20, 30, 40));
        QCOMPARE(layer.color, QColor(255, 255, 255));
        QVERIFY(background->styleSheet().contains(QStringLiteral("background:#280a141e;")));
        QVERIFY(text->styleSheet().contains(QStringLiteral("background:#ffffff;")));
        QCOMPARE(changes, 1);
    }

    // What the form shows, writing nothing back: a reference is "citation · Bible or translation".
    void formShowsTheLayer()
    {
        const auto shown = [this](Layer::Kind kind, const char* row, const char* source, int align = 0) {
            Layer layer;
            layer.kind = kind;
            layer.align = align;
            (kind == Layer::Kind::Image ? layer.path : kind == Layer::Kind::Video ? layer.uri : layer.reference) =
                QString::fromUtf8(source);
            const QJsonObject before = layer.toJson();
            selected = &layer;
            panel->rebuild(&layer);
            QWidget* widget = field(*panel, QString::fromUtf8(row));
            selected = nullptr;
            if (layer.toJson() != before || changes != 0)
                return QStringLiteral("<written back>");
            if (auto* combo = qobject_cast<QComboBox*>(widget))
                return combo->currentText();
            auto* line = qobject_cast<QLineEdit*>(widget);
            return line ? line->text() : qobject_cast<QLabel*>(widget)->text();
        };
        const Layer::Kind verse = Layer::Kind::Verse, subtitle = Layer::Kind::Subtitle;
        QCOMPARE(shown(Layer::Kind::Image, "Archivo", "/srv/culto/fondo azul.png"), QStringLiteral("fondo azul.png"));
        QCOMPARE(shown(Layer::Kind::Video, "Origen", "rtsp://10.0.0.5/s"), QStringLiteral("rtsp://10.0.0.5/s"));
        QCOMPARE(shown(verse, "Cita", "Juan 3:16 · RV1909"), QStringLiteral("Juan 3:16"));
        QCOMPARE(shown(verse, "Biblia", "Juan 3:16 · RV1909"), QStringLiteral("RV1909"));
        QCOMPARE(shown(verse, "Biblia", "John 3:16 · traducción automática"), QStringLiteral("traducción automática"));
        QCOMPARE(shown(verse, "Cita", "Romanos 8:28"), QStringLiteral("Romanos 8:28"));
        QCOMPARE(shown(verse, "Biblia", "Romanos 8:28"), QString());
        // Left top, right bottom, centred top, justified, none, left and right.
        for (const auto& [align, text] : std::initializer_list<std::pair<int, const char*>>{
                 {33, "Izquierda"}, {66, "Derecha"}, {36, "Centro"}, {8, "Centro"}, {0, "Centro"}, {3, "Izquierda"}})
            QCOMPARE(shown(subtitle, "Alineación", "", align), QString::fromUtf8(text));
    }

    // Return in the citation and the button look up what was typed; the lookup, not the field, writes it.
    void verseLookupTakesTheTypedCitation()
    {
        QStringList lookups;
        panel->findVerse = [&](const QString& reference) { lookups << reference; };
        Layer layer;
        layer.kind = Layer::Kind::Verse;
        layer.reference = QStringLiteral("Juan 3:16 · RV1909");
        attach(layer);
        auto* citation = field<QLineEdit>(*panel, QStringLiteral("Cita"));
        QTest::keyClick(citation, Qt::Key_Return);
        citation->clear();
        QTest::keyClicks(citation, QStringLiteral("Salmos 23"));
        field<QPushButton>(*panel, QStringLiteral("Buscar versículo"))->click();
        QCOMPARE(lookups, (QStringList{"Juan 3:16", "Salmos 23"}));
        QCOMPARE(layer.reference, QStringLiteral("Juan 3:16 · RV1909"));
    }
};

QTEST_MAIN(tst_PropertyPanel)
#include "tst_propertypanel.moc"
