#include "Layer.h"
#include "PropertyPanel.h"

#include <QTest>
#include <QtWidgets>

namespace {

// The form's row labels and whole-row buttons, top to bottom; with `find`, the field of that row or button.
QStringList rowTexts(QWidget& panel, const QString& find = {}, QWidget** found = nullptr)
{
    const auto forms = panel.findChildren<QFormLayout*>();
    QStringList texts;
    for (int row = 0; forms.size() == 1 && row < forms[0]->rowCount(); ++row)
        for (auto role : {QFormLayout::LabelRole, QFormLayout::SpanningRole}) {
            QWidget* widget = forms[0]->itemAt(row, role) ? forms[0]->itemAt(row, role)->widget() : nullptr;
            auto* label = qobject_cast<QLabel*>(widget);
            auto* button = qobject_cast<QAbstractButton*>(widget);
            texts << (label ? label->text() : button ? button->text() : QString());
            if (found && !find.isEmpty() && texts.last() == find)
                *found = button ? widget : forms[0]->itemAt(row, QFormLayout::FieldRole)->widget();
        }
    texts.removeAll(QString());
    return texts;
}

template <class W = QWidget> W* field(QWidget& panel, const QString& label)
{
    QWidget* found = panel.findChild<QDoubleSpinBox*>(label);
    if (!found)
        rowTexts(panel, label, &found);
    return qobject_cast<W*>(found);
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
    std::unique_ptr<PropertyPanel> panel;
    Layer* selected = nullptr;
    int changes = 0;

    void attach(Layer& target, Layer::Kind kind) { target.kind = kind; panel->refresh(selected = &target); }

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

    // Each kind's title and first own rows, after the five every kind has; building writes nothing back.
    void rowsPerKind()
    {
        const QString cover = QStringLiteral("Rellenar el recuadro (recorta bordes, sin franjas negras)");
        for (const auto& [kind, own] : std::initializer_list<std::pair<Layer::Kind, QStringList>>{
                 {Layer::Kind::Camera, {"Cámara", cover, "Muestra la cámara conectada en \"Fuentes y pantallas\"."}},
                 {Layer::Kind::Image, {"Imagen", cover, "Archivo", "Cambiar imagen..."}},
                 {Layer::Kind::Text, {"Texto", "Texto", "Tipo de letra"}},
                 {Layer::Kind::Video, {"Video", cover, "Audio del video cuando esté en Programa"}},
                 {Layer::Kind::Screen, {"Pantalla", cover, "Captura la pantalla principal de este equipo."}},
                 {Layer::Kind::Color, {"Color", "Color"}}, {Layer::Kind::Verse, {"Versículo", "Cita"}},
                 {Layer::Kind::Subtitle, {"Subtítulos (IA)", "El texto lo pone la traducción IA. Aquí eliges "
                                                             "posición, tamaño, color y fondo."}}}) {
            Layer layer;
            attach(layer, kind);
            const QStringList rows = rowTexts(*panel);
            QCOMPARE(QStringList{rows.first()} + rows.mid(6, own.size() - 1), own);
        }
        QCOMPARE(changes, 0);
    }

    // Without a selection the controls touch nothing; with it, each writes its own field, the boxes follow.
    void controlsWriteOnlyASelectedLayer()
    {
        panel->pickColour = [&](const QColor&, bool) {
            ++changes;
            return QColor(1, 2, 3);
        };
        panel->changeImage = panel->restartVideo = [&] { ++changes; };
        panel->findVerse = [&](const QString&) { ++changes; };
        using K = Layer::Kind;
        using Case = std::tuple<K, const char*, QVariant, QJsonObject>;
        for (const auto& [kind, control, value, written] : {
                 Case{K::Image, "Y", -12.5, {{"y", -0.125}}},
                 Case{K::Video, "Ajustar a pantalla completa", {}, {{"x", 0}, {"y", 0}, {"w", 1}, {"h", 1}}},
                 Case{K::Image, "Alinear en pantalla", 4, {{"x", 0.25}, {"y", 0.375}}},
                 Case{K::Verse, "Nombre", "Aviso", {{"name", "Aviso"}}},
                 Case{K::Text, "Opacidad", 25, {{"opacity", 0.25}}},
                 Case{K::Verse, "Texto", "Bienvenidos\nal culto", {{"text", "Bienvenidos\nal culto"}}},
                 Case{K::Text, "Tamaño", 90, {{"size", 90}}}, Case{K::Text, "Negrita", {}, {{"bold", false}}},
                 Case{K::Text, "Sombra / contorno oscuro", {}, {{"shadow", false}}},
                 Case{K::Verse, "Color del texto", {}, {{"color", "#ff010203"}}},
                 Case{K::Color, "Color", {}, {{"fill", "#ff010203"}}},
                 Case{K::Text, "Alineación", 1, {{"align", 132}}}, // centred both ways
                 Case{K::Video, "Audio del video cuando esté en Programa", {}, {{"sound", false}}},
                 Case{K::Video, "Rellenar el recuadro (recorta bordes, sin franjas negras)", {}, {{"cover", true}}},
                 Case{K::Image, "Cambiar imagen...", {}, {}}, Case{K::Video, "Reiniciar video", {}, {}},
                 Case{K::Verse, "Buscar versículo", {}, {}}}) {
            Layer layer;
            layer.kind = kind;
            layer.rect = QRectF(0.25, 0.5, 0.5, 0.25);
            layer.align = 66;
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
            QCOMPARE(field<QDoubleSpinBox>(*panel, QStringLiteral("X"))->value(), layer.rect.x() * 100.0);
        }
    }

    // A refresh from inside an edit keeps the form; another layer or kind gets a new one; none, a hint.
    void refreshRebuildsOnlyForAnotherLayerOrKind()
    {
        Layer layer, other;
        layer.name = QStringLiteral("Título");
        attach(layer, Layer::Kind::Text);
        panel->changed = [&] { panel->refresh(selected); };
        const QPointer<QDoubleSpinBox> x = field<QDoubleSpinBox>(*panel, QStringLiteral("X"));
        x->setValue(30.0);
        layer.rect = QRectF(0.05, 0.15, 0.7, 0.333);
        layer.name = QStringLiteral("Otro");
        panel->refresh(&layer);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(x);
        QCOMPARE(x->value(), 5.0);
        QCOMPARE(field<QLineEdit>(*panel, QStringLiteral("Nombre"))->text(), QStringLiteral("Título"));
        QCOMPARE(layer.rect.height(), 0.333); // writing the boxes did not echo back
        attach(layer, Layer::Kind::Verse);
        other.name = QStringLiteral("Segundo");
        attach(other, Layer::Kind::Verse);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!x);
        QCOMPARE(field<QLineEdit>(*panel, QStringLiteral("Nombre"))->text(), QStringLiteral("Segundo"));
        panel->refresh(nullptr);
        QCOMPARE(rowTexts(*panel), QStringList{QStringLiteral("Selecciona una fuente en la lista o en Preparación.")});
    }

    // Colours (background with alpha, a cancel changes nothing), the typed citation's lookup, subtitle alignment.
    void verseAndSubtitleForms()
    {
        QStringList offered, lookups;
        QColor answer(10, 20, 30, 40);
        panel->pickColour = [&](const QColor& current, bool withAlpha) {
            offered << current.name(QColor::HexArgb) + (withAlpha ? QStringLiteral(" alpha") : QString());
            return answer;
        };
        panel->findVerse = [&](const QString& reference) { lookups << reference; };
        Layer layer, subtitle;
        subtitle.kind = Layer::Kind::Subtitle;
        layer.reference = QStringLiteral("Juan 3:16 · RV1909");
        attach(layer, Layer::Kind::Verse);
        QCOMPARE(field<QLabel>(*panel, QStringLiteral("Biblia"))->text(), QStringLiteral("RV1909"));
        field<QPushButton>(*panel, QStringLiteral("Fondo (con transparencia)"))->click();
        answer = QColor(); // cancelled
        field<QPushButton>(*panel, QStringLiteral("Color del texto"))->click();
        QCOMPARE(offered, (QStringList{"#96000000 alpha", "#ffffffff"}));
        QVERIFY(layer.background == QColor(10, 20, 30, 40) && layer.color == QColor(255, 255, 255));
        QCOMPARE(changes, 1);
        auto* citation = field<QLineEdit>(*panel, QStringLiteral("Cita"));
        QTest::keyClick(citation, Qt::Key_Return);
        citation->clear();
        QTest::keyClicks(citation, QStringLiteral("Salmos 23"));
        field<QPushButton>(*panel, QStringLiteral("Buscar versículo"))->click();
        QCOMPARE(lookups, (QStringList{"Juan 3:16", "Salmos 23"}));
        QCOMPARE(layer.reference, QStringLiteral("Juan 3:16 · RV1909"));
        for (const auto& [align, shown] : {std::pair{33, "Izquierda"}, {66, "Derecha"}, {36, "Centro"}}) {
            subtitle.align = align;
            panel->rebuild(&subtitle);
            QCOMPARE(field<QComboBox>(*panel, QStringLiteral("Alineación"))->currentText(), QString::fromUtf8(shown));
        }
    }
};

QTEST_MAIN(tst_PropertyPanel)
#include "tst_propertypanel.moc"
