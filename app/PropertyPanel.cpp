#include "PropertyPanel.h"

#include "i18n.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileInfo>
#include <QFontComboBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>

namespace {

const QString versePartSeparator = QStringLiteral(" · ");

bool isTextKind(Layer::Kind kind)
{
    return kind == Layer::Kind::Text || kind == Layer::Kind::Verse || kind == Layer::Kind::Subtitle;
}

bool isPictureKind(Layer::Kind kind)
{
    return kind == Layer::Kind::Camera || kind == Layer::Kind::Image || kind == Layer::Kind::Video ||
           kind == Layer::Kind::Screen;
}

// The combo shows left, centre and right; the vertical bits stay centred when written.
constexpr std::array<int, 3> alignValues{Qt::AlignLeft | Qt::AlignVCenter, Qt::AlignCenter,
                                         Qt::AlignRight | Qt::AlignVCenter};

int alignIndex(int align)
{
    if (align & Qt::AlignLeft)
        return 0;
    if (align & Qt::AlignRight)
        return 2;
    return 1;
}

QString colourStyle(const QColor& colour, bool withAlpha)
{
    return QStringLiteral("QPushButton{background:%1;border:1px solid #88a;}")
        .arg(colour.name(withAlpha ? QColor::HexArgb : QColor::HexRgb));
}

QLabel* wrappedLabel(const QString& text)
{
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    return label;
}

} // namespace

PropertyPanel::PropertyPanel(QWidget* parent) : QWidget(parent)
{
    pickColour = [this](const QColor& current, bool withAlpha) {
        return QColorDialog::getColor(current, this, QString(),
                                      withAlpha ? QColorDialog::ShowAlphaChannel
                                                : QColorDialog::ColorDialogOptions());
    };
    outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    rebuild(nullptr);
}

void PropertyPanel::refresh(Layer* layer)
{
    if (built && layer == lastLayer && (!layer || layer->kind == lastKind)) {
        if (layer)
            showRect(layer->rect);
        return;
    }
    rebuild(layer);
}

void PropertyPanel::edit(const std::function<void(Layer&)>& apply)
{
    Layer* layer = currentLayer ? currentLayer() : nullptr;
    if (!layer)
        return;
    apply(*layer);
    if (changed)
        changed();
}

void PropertyPanel::showRect(const QRectF& rect)
{
    const std::array<double, 4> values{rect.x(), rect.y(), rect.width(), rect.height()};
    for (size_t i = 0; i < spins.size(); ++i) {
        if (!spins[i])
            continue;
        const QSignalBlocker blocker(spins[i]);
        spins[i]->setValue(values[i] * 100.0);
    }
}

QPushButton* PropertyPanel::actionButton(const QString& text)
{
    auto* button = new QPushButton(text);
    button->setMinimumHeight(36);
    return button;
}

QPushButton* PropertyPanel::colourButton(const QColor& colour, bool withAlpha, QColor Layer::*field)
{
    auto* button = actionButton(QString());
    button->setStyleSheet(colourStyle(colour, withAlpha));
    connect(button, &QPushButton::clicked, this, [this, button = QPointer(button), withAlpha, field] {
        const Layer* before = currentLayer ? currentLayer() : nullptr;
        if (!before || !pickColour)
            return;
        const QColor chosen = pickColour(before->*field, withAlpha);
        if (!chosen.isValid())
            return;
        // The dialog runs its own event loop: ask again for the layer rather than trust `before`.
        edit([&](Layer& layer) {
            layer.*field = chosen;
            if (button)
                button->setStyleSheet(colourStyle(chosen, withAlpha));
        });
    });
    return button;
}

void PropertyPanel::addPosition(QFormLayout* form, const Layer& layer)
{
    auto* box = new QWidget;
    auto* row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    const std::array<const char*, 4> names{"X", "Y", "W", "H"};
    for (size_t i = 0; i < spins.size(); ++i) {
        auto* spin = new QDoubleSpinBox;
        spin->setObjectName(QLatin1String(names[i]));
        spin->setPrefix(QLatin1String(names[i]) + QLatin1Char(' '));
        spin->setSuffix(QStringLiteral("%"));
        spin->setDecimals(1);
        spin->setMinimumWidth(78);
        spin->setKeyboardTracking(false);
        if (i < 2)
            spin->setRange(-95.0, 95.0);
        else
            spin->setRange(3.0, 300.0);
        row->addWidget(spin);
        spins[i] = spin;
    }
    showRect(layer.rect);
    for (size_t i = 0; i < spins.size(); ++i) {
        connect(spins[i], &QDoubleSpinBox::valueChanged, this, [this, i](double percent) {
            // Only the edited side moves: the others keep their full precision.
            edit([&](Layer& target) {
                const double value = percent / 100.0;
                switch (i) {
                case 0:
                    target.rect.moveLeft(value);
                    break;
                case 1:
                    target.rect.moveTop(value);
                    break;
                case 2:
                    target.rect.setWidth(value);
                    break;
                default:
                    target.rect.setHeight(value);
                    break;
                }
            });
        });
    }
    form->addRow(T("Posición"), box);
}

void PropertyPanel::addAlignGrid(QFormLayout* form)
{
    auto* box = new QWidget;
    auto* grid = new QGridLayout(box);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(2);
    const std::array<const char*, 9> marks{"↖", "↑", "↗", "←", "●", "→", "↙", "↓", "↘"};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            auto* button = new QPushButton(QString::fromUtf8(marks[size_t(r * 3 + c)]));
            button->setFixedSize(30, 26);
            // The studio's button padding would leave no room for the arrow in so small a button.
            button->setStyleSheet(QStringLiteral("QPushButton{padding:0px;}"));
            button->setToolTip(T("Alinear"));
            connect(button, &QPushButton::clicked, this, [this, r, c] {
                edit([&](Layer& layer) {
                    const auto place = [](int step, double size) {
                        return step == 0 ? 0.0 : step == 1 ? (1.0 - size) * 0.5 : 1.0 - size;
                    };
                    layer.rect.moveTo(place(c, layer.rect.width()), place(r, layer.rect.height()));
                    showRect(layer.rect);
                });
            });
            grid->addWidget(button, r, c);
        }
    }
    grid->setColumnStretch(3, 1);
    form->addRow(T("Alinear en pantalla"), box);
}

void PropertyPanel::rebuild(Layer* layer)
{
    // The old form may be the sender of the callback that led here: it goes away later, and out
    // of the tree at once so that nothing finds or shows it.
    if (content) {
        // A spin box losing focus would still report its typed value: to the new layer, by then.
        for (QObject* child : content->findChildren<QObject*>())
            child->blockSignals(true);
        content->hide();
        content->setParent(nullptr);
        content->deleteLater();
    }
    spins.fill(nullptr);
    content = new QWidget;
    auto* form = new QFormLayout(content);
    form->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(content);

    built = true;
    lastLayer = layer;
    if (!layer) {
        form->addRow(wrappedLabel(T("Selecciona una fuente en la lista o en Preparación.")));
        return;
    }
    lastKind = layer->kind;
    const Layer::Kind kind = layer->kind;

    auto* kindLabel = new QLabel(Layer::label(kind));
    QFont bold = kindLabel->font();
    bold.setBold(true);
    kindLabel->setFont(bold);
    form->addRow(kindLabel);

    auto* name = new QLineEdit(layer->name);
    connect(name, &QLineEdit::textEdited, this,
            [this](const QString& text) { edit([&](Layer& target) { target.name = text; }); });
    form->addRow(T("Nombre"), name);

    addPosition(form, *layer);
    addAlignGrid(form);

    auto* opacity = new QSlider(Qt::Horizontal);
    opacity->setRange(0, 100);
    opacity->setValue(qRound(layer->opacity * 100.0));
    connect(opacity, &QSlider::valueChanged, this,
            [this](int value) { edit([&](Layer& target) { target.opacity = value / 100.0; }); });
    form->addRow(T("Opacidad"), opacity);

    auto* fullScreen = actionButton(T("Ajustar a pantalla completa"));
    connect(fullScreen, &QPushButton::clicked, this, [this] {
        edit([&](Layer& target) {
            target.rect = QRectF(0.0, 0.0, 1.0, 1.0);
            showRect(target.rect);
        });
    });
    form->addRow(fullScreen);

    if (kind == Layer::Kind::Verse) {
        // `reference` holds the citation, then the name of the Bible it was read from.
        const qsizetype cut = layer->reference.indexOf(versePartSeparator);
        const QString citation = cut < 0 ? layer->reference : layer->reference.left(cut);
        const QString bible = cut < 0 ? QString() : layer->reference.mid(cut + versePartSeparator.size());
        auto* field = new QLineEdit(citation);
        field->setPlaceholderText(T("Juan 3:16"));
        auto* find = actionButton(T("Buscar versículo"));
        const auto lookUp = [this, field] {
            if (currentLayer && currentLayer() && findVerse)
                findVerse(field->text());
        };
        connect(field, &QLineEdit::returnPressed, this, lookUp);
        connect(find, &QPushButton::clicked, this, lookUp);
        form->addRow(T("Cita"), field);
        form->addRow(find);
        form->addRow(T("Biblia"), new QLabel(bible));
    }
    if (kind == Layer::Kind::Subtitle)
        form->addRow(wrappedLabel(
            T("El texto lo pone la traducción IA. Aquí eliges posición, tamaño, color y fondo.")));
    if (kind == Layer::Kind::Text || kind == Layer::Kind::Verse) {
        auto* text = new QPlainTextEdit(layer->text);
        text->setMaximumHeight(64);
        connect(text, &QPlainTextEdit::textChanged, this,
                [this, text] { edit([&](Layer& target) { target.text = text->toPlainText(); }); });
        form->addRow(T("Texto"), text);
    }
    if (isTextKind(kind)) {
        auto* font = new QFontComboBox;
        font->setCurrentFont(QFont(layer->font));
        connect(font, &QFontComboBox::currentFontChanged, this,
                [this](const QFont& chosen) { edit([&](Layer& target) { target.font = chosen.family(); }); });
        form->addRow(T("Tipo de letra"), font);

        auto* size = new QSpinBox;
        size->setRange(8, 400);
        size->setValue(layer->size);
        connect(size, &QSpinBox::valueChanged, this,
                [this](int value) { edit([&](Layer& target) { target.size = value; }); });
        form->addRow(T("Tamaño"), size);

        auto* boldBox = new QCheckBox(T("Negrita"));
        boldBox->setChecked(layer->bold);
        connect(boldBox, &QCheckBox::toggled, this,
                [this](bool on) { edit([&](Layer& target) { target.bold = on; }); });
        form->addRow(boldBox);

        form->addRow(T("Color del texto"), colourButton(layer->color, false, &Layer::color));
        form->addRow(T("Fondo (con transparencia)"),
                     colourButton(layer->background, true, &Layer::background));

        auto* shadow = new QCheckBox(T("Sombra / contorno oscuro"));
        shadow->setChecked(layer->shadow);
        connect(shadow, &QCheckBox::toggled, this,
                [this](bool on) { edit([&](Layer& target) { target.shadow = on; }); });
        form->addRow(shadow);

        auto* align = new QComboBox;
        align->addItems({T("Izquierda"), T("Centro"), T("Derecha")});
        align->setCurrentIndex(alignIndex(layer->align));
        connect(align, &QComboBox::currentIndexChanged, this, [this](int index) {
            if (index >= 0 && index < int(alignValues.size()))
                edit([&](Layer& target) { target.align = alignValues[size_t(index)]; });
        });
        form->addRow(T("Alineación"), align);
    }
    if (isPictureKind(kind)) {
        auto* cover = new QCheckBox(T("Rellenar el recuadro (recorta bordes, sin franjas negras)"));
        cover->setChecked(layer->cover);
        connect(cover, &QCheckBox::toggled, this,
                [this](bool on) { edit([&](Layer& target) { target.cover = on; }); });
        form->addRow(cover);
    }
    if (kind == Layer::Kind::Color)
        form->addRow(T("Color"), colourButton(layer->fill, false, &Layer::fill));
    if (kind == Layer::Kind::Image) {
        auto* file = new QLabel(QFileInfo(layer->path).fileName());
        file->setToolTip(layer->path);
        form->addRow(T("Archivo"), file);
        auto* change = actionButton(T("Cambiar imagen..."));
        connect(change, &QPushButton::clicked, this, [this] {
            if (currentLayer && currentLayer() && changeImage)
                changeImage();
        });
        form->addRow(change);
    }
    if (kind == Layer::Kind::Video) {
        auto* sound = new QCheckBox(T("Audio del video cuando esté en Programa"));
        sound->setChecked(layer->sound);
        connect(sound, &QCheckBox::toggled, this,
                [this](bool on) { edit([&](Layer& target) { target.sound = on; }); });
        form->addRow(sound);
        auto* origin = wrappedLabel(layer->uri);
        origin->setToolTip(layer->uri);
        origin->setTextInteractionFlags(Qt::TextSelectableByMouse);
        form->addRow(T("Origen"), origin);
        auto* restart = actionButton(T("Reiniciar video"));
        connect(restart, &QPushButton::clicked, this, [this] {
            if (currentLayer && currentLayer() && restartVideo)
                restartVideo();
        });
        form->addRow(restart);
    }
    if (kind == Layer::Kind::Camera)
        form->addRow(wrappedLabel(T("Muestra la cámara conectada en \"Fuentes y pantallas\".")));
    if (kind == Layer::Kind::Screen)
        form->addRow(wrappedLabel(T("Captura la pantalla principal de este equipo.")));
}
