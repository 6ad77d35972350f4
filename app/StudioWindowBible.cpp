#include "StudioWindow.h"

#include "Api.h"
#include "Canvas.h"
#include "Local.h"
#include "Passage.h"
#include "Reference.h"
#include "SecretStore.h"
#include "i18n.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <stdexcept>

namespace {

struct BibleChoice
{
    const char* label;
    const char* setting;
};

constexpr BibleChoice bibleChoices[] = {
    {"Automática según idioma de subtítulos", "auto"},
    {"Español · Reina-Valera 1909 (incluida)", "es"},
    {"Inglés · King James Version (incluida)", "en"},
    {"API.Bible (p. ej. Reina-Valera 1960, con tu clave)", "api"},
};

} // namespace

QWidget* StudioWindow::buildTranslationTab()
{
    auto* tab = new QWidget;
    auto* grid = new QGridLayout(tab);
    grid->addWidget(buildTranslationPanel(), 0, 0, 1, 3);

    grid->addWidget(new QLabel(T("Biblia para versículos")), 1, 0);
    bibleCombo = new QComboBox;
    const QString choice = settings.value(QStringLiteral("bible_choice"), QStringLiteral("auto")).toString();
    for (const BibleChoice& each : bibleChoices) {
        bibleCombo->addItem(T(each.label), QString::fromLatin1(each.setting));
        if (choice == QLatin1String(each.setting))
            bibleCombo->setCurrentIndex(bibleCombo->count() - 1);
    }
    connect(bibleCombo, &QComboBox::currentIndexChanged, this, [this] {
        settings.setValue(QStringLiteral("bible_choice"), bibleCombo->currentData().toString());
    });
    grid->addWidget(bibleCombo, 1, 1, 1, 2);

    grid->addWidget(new QLabel(T("Clave de API.Bible")), 2, 0);
    apiBibleKeyField = new QLineEdit;
    apiBibleKeyField->setEchoMode(QLineEdit::Password);
    grid->addWidget(apiBibleKeyField, 2, 1);
    QPushButton* listBibles = button(T("Buscar Biblias en español"));
    action(listBibles, [this] { listOnlineBibles(); });
    grid->addWidget(listBibles, 2, 2);
    onlineBibleCombo = new QComboBox;
    const QString storedName = settings.value(QStringLiteral("apibible_name")).toString();
    if (!storedName.isEmpty())
        onlineBibleCombo->addItem(storedName, settings.value(QStringLiteral("apibible_id")));
    connect(onlineBibleCombo, &QComboBox::activated, this, [this](int index) {
        settings.setValue(QStringLiteral("apibible_id"), onlineBibleCombo->itemData(index).toString());
        settings.setValue(QStringLiteral("apibible_name"), onlineBibleCombo->itemText(index));
    });
    grid->addWidget(onlineBibleCombo, 3, 1, 1, 2);
    grid->setColumnStretch(1, 1);
    grid->setRowStretch(4, 1);
    return tab;
}

QString StudioWindow::verseLanguage()
{
    const QString choice = settings.value(QStringLiteral("bible_choice"), QStringLiteral("auto")).toString();
    return bible::verseLanguageFor(choice,
                                   settings.value(QStringLiteral("translation_target"), QStringLiteral("English")).toString());
}

void StudioWindow::lookupVerse(int layerIndex, const QString& text)
{
    SceneDef& edited = scene();
    if (layerIndex < 0 || layerIndex >= int(edited.layers.size()))
        return;
    const bible::Ref ref = bible::parse(text);
    const QString lang = verseLanguage();
    const QString textLanguage = lang == QLatin1String("en") ? QStringLiteral("en") : QStringLiteral("es");
    const bible::Local& local = textLanguage == QLatin1String("en") ? bible::english() : bible::spanish();
    const bible::Passage passage = bible::passageText(ref, local, textLanguage);

    // The built-in text is always on the layer first: a network failure can never leave it empty.
    Layer& layer = edited.layers[std::size_t(layerIndex)];
    layer.text = passage.text;
    layer.reference = passage.reference;
    layer.name = passage.name;
    refreshLayerList();

    const QString citation = bible::formatRef(ref, textLanguage);
    if (lang == QLatin1String("es") || lang == QLatin1String("en")) {
        notify(T("Versículo listo: ") + citation);
        return;
    }
    // A late reply applies to the layer index of the scene then current, if it is still a verse; for a
    // layer that has gone, the reply, good or bad, is passed over.
    const auto stillVerse = [this, layerIndex] {
        const SceneDef& now = scene();
        return layerIndex < int(now.layers.size()) && now.layers[std::size_t(layerIndex)].kind == Layer::Kind::Verse;
    };
    const auto applyReply = [this, layerIndex](const QString& replyText, const QString& label, const QString& shown) {
        Layer& target = scene().layers[std::size_t(layerIndex)];
        target.text = replyText;
        target.reference = shown + QStringLiteral(" · ") + label;
        refreshLayerList();
        notify(T("Versículo listo: ") + shown);
    };
    if (lang == QLatin1String("api")) {
        QString key = apiBibleKeyField->text().trimmed();
        if (key.isEmpty())
            key = readSecret(QStringLiteral("apibible"));
        const QString bibleId = settings.value(QStringLiteral("apibible_id")).toString();
        if (key.isEmpty() || bibleId.isEmpty()) {
            notify(T("Versículo mostrado con RV1909: configura la clave y la Biblia de API.Bible en la pestaña Traducción IA y Biblia."));
            return;
        }
        notify(T("Consultando API.Bible..."));
        bibleApi.passage(key, bibleId, ref, [this, stillVerse, applyReply, citation](const QString& reply, const QString& error) {
            if (!stillVerse())
                return;
            if (!error.isEmpty()) {
                notify(error + QStringLiteral(" · ") + T("se mantiene RV1909"));
                return;
            }
            QString label = T("API.Bible");
            if (onlineBibleCombo->currentIndex() >= 0) {
                const QString shown = onlineBibleCombo->currentText();
                const qsizetype bracket = shown.indexOf(QStringLiteral(" ("));
                label = bracket >= 0 ? shown.left(bracket) : shown;
            }
            applyReply(reply, label, citation);
        });
        return;
    }
    const QString target = lang.mid(int(qstrlen("other:")));
    const QString aiKey = readSecret(QStringLiteral("openai"));
    if (aiKey.isEmpty()) {
        notify(T("Versículo en español; para traducirlo a otro idioma añade la API key de OpenAI."));
        return;
    }
    notify(T("Traduciendo versículo..."));
    bible::translateVerse(this, aiKey, passage.text, target, [this, stillVerse, applyReply, citation](const QString& reply, const QString& error) {
        if (!stillVerse())
            return;
        if (!error.isEmpty()) {
            notify(error);
            return;
        }
        applyReply(reply, T("traducción automática"), citation);
    });
}

void StudioWindow::showQuickVerse()
{
    const QString text = quickVerseField->text().trimmed();
    if (text.isEmpty())
        return;
    SceneDef& edited = scene();
    int index = -1;
    for (int each = int(edited.layers.size()) - 1; each >= 0; --each) {
        if (edited.layers[std::size_t(each)].kind == Layer::Kind::Verse) {
            index = each;
            break;
        }
    }
    if (index < 0) {
        addLayer(layerOfKind(Layer::Kind::Verse));
        index = int(scene().layers.size()) - 1;
    }
    canvas->select(index);
    lookupVerse(index, text);
}

void StudioWindow::listOnlineBibles()
{
    QString key = apiBibleKeyField->text().trimmed();
    if (key.isEmpty())
        key = readSecret(QStringLiteral("apibible"));
    if (key.isEmpty()) {
        notify(T("Escribe tu clave de API.Bible"));
        return;
    }
    if (keySaveCheck->isChecked() && !storeSecret(QStringLiteral("apibible"), key))
        throw std::runtime_error("No se pudo guardar en el almacén seguro del sistema");
    notify(T("Consultando API.Bible..."));
    // API.Bible names languages by their ISO 639-3 code.
    bibleApi.bibles(key, QStringLiteral("spa"), [this](const QList<std::pair<QString, QString>>& found, const QString& error) {
        if (!error.isEmpty()) {
            notify(error);
            return;
        }
        onlineBibleCombo->clear();
        int preferred = -1;
        for (const auto& [id, name] : found) {
            onlineBibleCombo->addItem(name, id);
            if (preferred < 0 && name.contains(QStringLiteral("1960")))
                preferred = onlineBibleCombo->count() - 1;
        }
        // Without a 1960 entry nothing is chosen for the operator: the stored choice stays as it was.
        onlineBibleCombo->setCurrentIndex(preferred);
        if (preferred >= 0) {
            settings.setValue(QStringLiteral("apibible_id"), onlineBibleCombo->itemData(preferred).toString());
            settings.setValue(QStringLiteral("apibible_name"), onlineBibleCombo->itemText(preferred));
        }
        notify(T("Biblias disponibles: ") + QString::number(found.size()));
    });
}
