#include "StudioWindow.h"

#include "AudioCapture.h"
#include "Captions.h"
#include "SecretStore.h"
#include "i18n.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QElapsedTimer>
#include <QGridLayout>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <memory>
#include <stdexcept>

namespace {

constexpr int keyTestTimeoutMs = 15000;

// Languages offered for the screens; any other typed name goes to the model as written.
const QStringList targetLanguages{
    QStringLiteral("English"),        QStringLiteral("Spanish"),
    QStringLiteral("Portuguese"),     QStringLiteral("French"),
    QStringLiteral("German"),         QStringLiteral("Italian"),
    QStringLiteral("Korean"),         QStringLiteral("Chinese (Mandarin)"),
    QStringLiteral("Japanese"),       QStringLiteral("Russian"),
    QStringLiteral("Arabic"),         QStringLiteral("Hindi"),
    QStringLiteral("Tagalog"),        QStringLiteral("Vietnamese"),
    QStringLiteral("Haitian Creole"), QStringLiteral("Swahili"),
};

} // namespace

QWidget* StudioWindow::buildTranslationPanel()
{
    auto* panel = new QWidget;
    auto* grid = new QGridLayout(panel);
    grid->setContentsMargins(0, 0, 0, 0);
    // The panel's failures belong on the status line only: a box would stop the service's flow.
    const auto guarded = [this](QPushButton* target, auto handler) {
        connect(target, &QPushButton::clicked, this, [this, handler] {
            try {
                handler();
            } catch (const std::exception& error) {
                notify(T(error.what()));
            }
        });
    };

    aiKeyField = new QLineEdit;
    aiKeyField->setEchoMode(QLineEdit::Password);
    aiKeyField->setPlaceholderText(T("API key de OpenAI · se lee del almacén seguro al iniciar traducción"));
    grid->addWidget(aiKeyField, 0, 0, 1, 2);
    keySaveCheck = new QCheckBox(T("Guardar en almacén seguro de este equipo"));
    grid->addWidget(keySaveCheck, 0, 2, 1, 2);

    targetCombo = new QComboBox;
    targetCombo->setEditable(true);
    targetCombo->addItems(targetLanguages);
    targetCombo->setToolTip(T("Idioma de la traducción"));
    targetCombo->lineEdit()->setPlaceholderText(T("Escribe cualquier idioma..."));
    targetCombo->setEditText(
        settings.value(QStringLiteral("translation_target"), QStringLiteral("English")).toString());
    connect(targetCombo, &QComboBox::editTextChanged, this, [this](const QString& text) {
        settings.setValue(QStringLiteral("translation_target"), text.trimmed());
    });
    grid->addWidget(targetCombo, 1, 0);
    showCaptionsCheck = new QCheckBox(T("Mostrar subtítulos"));
    showCaptionsCheck->setChecked(true);
    grid->addWidget(showCaptionsCheck, 1, 1);
    voiceCheck = new QCheckBox(T("Voz sintética en transmisión/grabación"));
    grid->addWidget(voiceCheck, 1, 2, 1, 2);

    translateButton = button(T("Iniciar traducción"));
    guarded(translateButton, [this] { translatePressed(); });
    grid->addWidget(translateButton, 2, 0);
    aiStatusLabel = new QLabel(T("IA pausada · frases de 1,5 a 5 s + tiempo de API"));
    aiStatusLabel->setWordWrap(true);
    grid->addWidget(aiStatusLabel, 2, 1, 1, 3);

    QPushButton* toSpanish = button(T("Predica en INGLÉS → pantallas en español"));
    connect(toSpanish, &QPushButton::clicked, this, [this] { directionChosen(QStringLiteral("Spanish")); });
    grid->addWidget(toSpanish, 3, 0, 1, 2);
    QPushButton* toEnglish = button(T("Predica en ESPAÑOL → pantallas en inglés"));
    connect(toEnglish, &QPushButton::clicked, this, [this] { directionChosen(QStringLiteral("English")); });
    grid->addWidget(toEnglish, 3, 2, 1, 2);

    heardLabel = new QLabel(T("Escuchado (texto original que reconoce la IA): "));
    heardLabel->setStyleSheet(QStringLiteral(
        "color:#e6eef8;background:#16202e;border:1px solid #2a3a50;border-radius:6px;padding:6px;"));
    heardLabel->setWordWrap(true);
    heardLabel->setMinimumHeight(48);
    grid->addWidget(heardLabel, 4, 0, 1, 4);

    QPushButton* clear = button(T("Limpiar pantalla de subtítulos"));
    connect(clear, &QPushButton::clicked, this, &StudioWindow::clearCaptions);
    grid->addWidget(clear, 5, 0);
    liveModeCheck = new QCheckBox(T("Modo en vivo (texto mientras se habla)"));
    liveModeCheck->setChecked(settings.value(QStringLiteral("live_mode"), true).toBool());
    connect(liveModeCheck, &QCheckBox::toggled, this, [this](bool on) {
        settings.setValue(QStringLiteral("live_mode"), on);
        translation.chunkOnly = !on; // read by the next start only
    });
    grid->addWidget(liveModeCheck, 5, 1);
    separatorCombo = new QComboBox;
    separatorCombo->addItems(
        {T("Frases seguidas"), T("Cada frase en su renglón"), T("Renglón en blanco entre frases")});
    separatorCombo->setToolTip(T("Cómo se separan las frases en pantalla (cada pausa es una frase)"));
    const int separator = settings.value(QStringLiteral("caption_separator"), 1).toInt();
    separatorCombo->setCurrentIndex(separator == 1 || separator == 2 ? separator : 0);
    connect(separatorCombo, &QComboBox::currentIndexChanged, this, [this](int index) {
        settings.setValue(QStringLiteral("caption_separator"), index);
        captionText = captions.join(captionSeparator());
    });
    grid->addWidget(separatorCombo, 5, 2);
    QPushButton* keyTest = button(T("Probar API key ahora"));
    guarded(keyTest, [this] { testAiKey(); });
    grid->addWidget(keyTest, 5, 3);

    auto* note = new QLabel(
        T("Al iniciar aceptas enviar la entrada seleccionada a OpenAI. Tiene costo de API.\n"
          "La voz es sintética; no se reproduce en altavoces. Música y ruido afectan la calidad."));
    note->setWordWrap(true);
    grid->addWidget(note, 6, 0, 1, 4);
    grid->setColumnStretch(1, 1);
    grid->setColumnStretch(2, 1);
    return panel;
}

void StudioWindow::bindTranslation()
{
    translation.chunkOnly = !settings.value(QStringLiteral("live_mode"), true).toBool();
    translation.caption = [this](const QString& text) { addCaption(text); };
    translation.heard = [this](const QString& text) {
        heardLabel->setText(T("Escuchado: ") + text.right(300));
        if (!text.startsWith(QStringLiteral("… ")))
            logLine(QStringLiteral("IA escuchó: ") + text);
    };
    translation.statusChanged = [this](const QString& text) {
        aiStatusLabel->setText(text);
        logLine(QStringLiteral("IA: ") + text);
        statusLabel->setText(T("IA: ") + text);
        // A fatal reply reports while the session still runs: its captions stay until the next press.
        if (!translation.running)
            showSessionEnded();
    };
    translation.voiceAudio = [this](const QByteArray& speech) {
        // A new speech cuts off the old one, so that the voice never falls behind the captions.
        voiceAudio.clear();
        const std::vector<float> samples = captions::speechToStereo(speech);
        voiceAudio.insert(voiceAudio.end(), samples.begin(), samples.end());
    };
}

void StudioWindow::translatePressed()
{
    // The choice follows the engine, not the button's text, which a fatal reply leaves behind.
    if (translation.running) {
        stopTranslation();
        return;
    }
    if (!capture || !capture->running)
        throw std::runtime_error("Conecta una entrada de voz antes de iniciar IA");
    storeAiKey(aiKeyField->text().trimmed());
    if (aiKeyField->text().trimmed().isEmpty())
        aiKeyField->setText(readSecret(QStringLiteral("openai")));
    startTranslation(aiKeyField->text());
}

void StudioWindow::startTranslation(const QString& key)
{
    QString target = targetCombo->currentText().trimmed();
    if (target.isEmpty())
        target = QStringLiteral("English");
    translation.start(key, target, voiceCheck->isChecked(), sourceLanguage);
    translateButton->setText(T("Pausar traducción"));
}

void StudioWindow::stopTranslation()
{
    translation.stop();
    showSessionEnded();
}

void StudioWindow::showSessionEnded()
{
    translateButton->setText(T("Iniciar traducción"));
    clearCaptions();
    voiceAudio.clear();
}

QString StudioWindow::aiKey() const
{
    const QString typed = aiKeyField->text().trimmed();
    return typed.isEmpty() ? readSecret(QStringLiteral("openai")) : typed;
}

void StudioWindow::clearCaptions()
{
    captions.clear();
    captionText.clear();
}

void StudioWindow::storeAiKey(const QString& key)
{
    // An empty key deletes the stored one.
    if (keySaveCheck->isChecked() && !storeSecret(QStringLiteral("openai"), key))
        throw std::runtime_error("No se pudo guardar API en almacén seguro");
}

void StudioWindow::directionChosen(const QString& target)
{
    const int listed = targetCombo->findText(target);
    if (listed >= 0)
        targetCombo->setCurrentIndex(listed);
    else
        targetCombo->setEditText(target);
    settings.setValue(QStringLiteral("translation_target"), target);
    sourceLanguage = target == QLatin1String("Spanish")   ? QStringLiteral("en")
                     : target == QLatin1String("English") ? QStringLiteral("es")
                                                          : QString();
    settings.setValue(QStringLiteral("source_language"), sourceLanguage);
    if (translation.running) {
        try {
            stopTranslation();
            startTranslation(aiKey());
        } catch (const std::exception& error) {
            notify(T(error.what()));
        }
    }
    notify(T("Pantallas en ") + (target == QLatin1String("Spanish") ? T("español") : T("inglés")) + u'.');
}

void StudioWindow::testAiKey()
{
    const QString key = aiKey();
    if (key.isEmpty())
        throw std::runtime_error("Ingresa tu API key");
    storeAiKey(key);
    notify(T("Probando la API de OpenAI..."));

    QNetworkRequest request(QUrl(translation.endpoint() + QStringLiteral("responses")));
    request.setRawHeader("Authorization", "Bearer " + key.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(keyTestTimeoutMs);
    const QJsonObject body{{QStringLiteral("model"), QStringLiteral("gpt-4.1-mini")},
                           {QStringLiteral("input"), QStringLiteral("Responde solo: OK")},
                           {QStringLiteral("max_output_tokens"), 16},
                           {QStringLiteral("store"), false}};
    // A manager of its own, so that the test works with no session open and a start never aborts it.
    auto* network = new QNetworkAccessManager(this);
    auto elapsed = std::make_shared<QElapsedTimer>();
    elapsed->start();
    QNetworkReply* reply = network->post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    connect(reply, &QNetworkReply::finished, network, [this, reply, network, elapsed] {
        reply->deleteLater();
        network->deleteLater();
        const QByteArray answer = reply->readAll();
        if (reply->error() == QNetworkReply::NoError) {
            notify(T("API OK: respondió en ") + QString::number(elapsed->elapsed()) + T(" ms. ") +
                   T("La traducción está lista para usarse."));
            return;
        }
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        const QString message = QJsonDocument::fromJson(answer)
                                    .object()
                                    .value(QLatin1String("error"))
                                    .toObject()
                                    .value(QLatin1String("message"))
                                    .toString();
        notify(T("API con error HTTP ") + QString::number(status) + QStringLiteral(": ") + message);
    });
}

void StudioWindow::addCaption(const QString& text)
{
    const QString phrase = text.trimmed();
    if (phrase.isEmpty())
        return;
    // The box the phrases must fit: the subtitle layer on the hall screens, or the default one.
    const Layer* layer = captions::visibleSubtitle(hallProgram);
    for (const SceneDef& each : scenes[1]) {
        if (layer)
            break;
        layer = captions::visibleSubtitle(each);
    }
    const QString separator = captionSeparator();
    captions = captions::fit(captions, phrase, separator, captions::boxFor(layer, hallWidth, hallHeight));
    captionText = captions.join(separator);
    lastCaptionMs = QDateTime::currentMSecsSinceEpoch();
}

QString StudioWindow::captionSeparator() const
{
    return captions::separatorFor(settings.value(QStringLiteral("caption_separator"), 1).toInt());
}

CaptionView StudioWindow::captionView() const
{
    return {showCaptionsCheck->isChecked(), captionText, captions, captionSeparator()};
}
