#include "Translation.h"

#include "TranslationText.h"
#include "i18n.h"

#include <QHttpMultiPart>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {

constexpr int requestTimeoutMs = 12000;
constexpr int audioRequestTimeoutMs = 20000;
constexpr int speechTimeoutMs = 30000;
constexpr qsizetype contextLimit = 1200;
constexpr qsizetype recentTexts = 6;

QHttpPart formField(const QByteArray& disposition, const QByteArray& body)
{
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentDispositionHeader, disposition);
    part.setBody(body);
    return part;
}

} // namespace

QNetworkRequest Translation::serviceRequest(const QString& path, int timeoutMs) const
{
    QNetworkRequest request(QUrl(base + path));
    request.setRawHeader("Authorization", "Bearer " + apiKey.toUtf8());
    request.setTransferTimeout(timeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::SameOriginRedirectPolicy);
    return request;
}

void Translation::json(const QString& path, const QJsonObject& body, int timeoutMs, const QString& label,
                       std::function<void(QByteArray)> onOk, std::function<void(int)> onFail)
{
    QNetworkRequest request = serviceRequest(path, timeoutMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply* reply = net.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    const std::int32_t sent = generation;
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, sent, label, onOk = std::move(onOk), onFail = std::move(onFail)] {
                reply->deleteLater();
                if (sent != generation || !running)
                    return;
                const QByteArray answer = reply->readAll();
                if (reply->error() == QNetworkReply::NoError) {
                    onOk(answer);
                    return;
                }
                const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
                describe(reply, answer, label);
                if (onFail)
                    onFail(status);
            });
}

QString Translation::describe(QNetworkReply* reply, const QByteArray& body, const QString& label)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    QString suffix;
    if (reply->hasRawHeader("x-request-id"))
        suffix = QStringLiteral(" ID: ") + QString::fromLatin1(reply->rawHeader("x-request-id"));
    const QString message = translation_text::failureMessage(status, body);
    // Only the last sentence carries the status, so the table holds its two fixed halves.
    const QString shown = status == 429 || status == 401 || status == 403
                              ? T(message.toUtf8().constData())
                              : T("No se pudo completar la solicitud. HTTP ") + QString::number(status) +
                                    T(". Revisa conexion y acceso al modelo.");
    const QString result = T(label.toUtf8().constData()) + QStringLiteral(": ") + shown + suffix;
    statusChanged(result);
    if (translation_text::isFatalFailure(status, body))
        running = false;
    return result;
}

void Translation::request(const Segment& segment)
{
    if (!audioRoute) {
        transcribeThenTranslate(segment);
        return;
    }
    const QJsonObject audio{{QStringLiteral("data"), QString::fromLatin1(segment.wav.toBase64())},
                            {QStringLiteral("format"), QStringLiteral("wav")}};
    const QJsonObject userPart{{QStringLiteral("type"), QStringLiteral("input_audio")},
                               {QStringLiteral("input_audio"), audio}};
    const QJsonObject system{
        {QStringLiteral("role"), QStringLiteral("system")},
        {QStringLiteral("content"),
         QStringLiteral("You receive a few seconds of live church preaching. Output ONLY the faithful translation "
                        "into ") +
             targetLanguage +
             QStringLiteral(" of what is said, as plain text. No commentary, no quotes, no speaker labels. If there "
                            "is no speech, output nothing.")}};
    const QJsonObject user{{QStringLiteral("role"), QStringLiteral("user")},
                           {QStringLiteral("content"), QJsonArray{userPart}}};
    const QJsonObject body{{QStringLiteral("model"), QStringLiteral("gpt-4o-mini-audio-preview")},
                           {QStringLiteral("modalities"), QJsonArray{QStringLiteral("text")}},
                           {QStringLiteral("max_tokens"), 400},
                           {QStringLiteral("messages"), QJsonArray{system, user}}};
    const int id = segment.id;
    json(
        QStringLiteral("chat/completions"), body, audioRequestTimeoutMs, QStringLiteral("Traduccion"),
        [this, id](const QByteArray& answer) {
            --inFlight;
            const QJsonObject message = QJsonDocument::fromJson(answer)
                                            .object()
                                            .value(QLatin1String("choices"))
                                            .toArray()
                                            .at(0)
                                            .toObject()
                                            .value(QLatin1String("message"))
                                            .toObject();
            finishNumber(id, message.value(QLatin1String("content")).toString());
        },
        [this, segment](int status) {
            --inFlight;
            if (status == 400 || status == 404) {
                audioRoute = false;
                statusChanged(T("Modelo de audio no disponible; se usa transcripción + traducción."));
                ++inFlight;
                transcribeThenTranslate(segment);
                return;
            }
            finishNumber(segment.id, QString());
        });
}

void Translation::transcribeThenTranslate(const Segment& segment)
{
    auto* form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    form->append(formField("form-data; name=\"model\"", "gpt-4o-transcribe"));
    if (!sourceLanguage.isEmpty())
        form->append(formField("form-data; name=\"language\"", sourceLanguage.toUtf8()));
    form->append(formField("form-data; name=\"prompt\"", translation_text::transcriptionPrompt(sourceLanguage).toUtf8()));
    form->append(formField("form-data; name=\"response_format\"", "json"));
    QHttpPart file = formField("form-data; name=\"file\"; filename=\"church.wav\"", segment.wav);
    file.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("audio/wav"));
    form->append(file);

    QNetworkReply* reply = net.post(serviceRequest(QStringLiteral("audio/transcriptions"), requestTimeoutMs), form);
    form->setParent(reply);
    const std::int32_t sent = generation;
    const int id = segment.id;
    connect(reply, &QNetworkReply::finished, this, [this, reply, sent, id] {
        reply->deleteLater();
        if (sent != generation || !running)
            return;
        const QByteArray answer = reply->readAll();
        if (reply->error() == QNetworkReply::NoError) {
            translate(id, QJsonDocument::fromJson(answer).object().value(QLatin1String("text")).toString());
            return;
        }
        --inFlight;
        describe(reply, answer, QStringLiteral("Transcripcion"));
        finishNumber(id, QString());
    });
}

void Translation::translate(int id, const QString& text)
{
    const QString key = translation_text::repetitionKey(text);
    bool repeated = false;
    if (!key.isEmpty()) {
        repeated = recent.contains(key);
        recent.append(key);
        while (recent.size() > recentTexts)
            recent.removeFirst();
        if (repeated)
            heard(QStringLiteral("(repetido, descartado) ") + text);
    }
    if (text.trimmed().isEmpty() || repeated) {
        --inFlight;
        finishNumber(id, QString());
        return;
    }
    heard(text);
    const QString context = translation_text::translationContext(previousOriginal, previousTranslation);
    previousOriginal = translation_text::keepLast(previousOriginal + u' ' + text, contextLimit);
    const QJsonObject body{{QStringLiteral("model"), QStringLiteral("gpt-4.1-mini")},
                           {QStringLiteral("instructions"), translation_text::interpreterInstructions(targetLanguage)},
                           {QStringLiteral("input"), context + QStringLiteral("New text: ") + text},
                           {QStringLiteral("max_output_tokens"), 400},
                           {QStringLiteral("store"), false}};
    json(
        QStringLiteral("responses"), body, requestTimeoutMs, QStringLiteral("Traduccion"),
        [this, id](const QByteArray& answer) {
            --inFlight;
            const QString result = translation_text::responseText(answer);
            previousTranslation = translation_text::keepLast(previousTranslation + u' ' + result, contextLimit);
            finishNumber(id, result);
        },
        [this, id](int) {
            --inFlight;
            finishNumber(id, QString());
        });
}

// Every end of a number's road leaves a text in `ready`, empty for nothing to show, so that
// delivery never waits on a failure.
void Translation::finishNumber(int id, const QString& text)
{
    ready[id] = text;
    flush();
    pump();
}

void Translation::speak(const QString& text)
{
    const QJsonObject body{{QStringLiteral("model"), QStringLiteral("gpt-4o-mini-tts")},
                           {QStringLiteral("voice"), QStringLiteral("coral")},
                           {QStringLiteral("input"), text},
                           {QStringLiteral("response_format"), QStringLiteral("pcm")}};
    json(
        QStringLiteral("audio/speech"), body, speechTimeoutMs, QStringLiteral("Voz"),
        [this](const QByteArray& speech) {
            if (speech.size() <= maxSpeechBytes)
                voiceAudio(speech);
        },
        {});
}
