#include "TranslationText.h"

#include <QDataStream>
#include <QIODevice>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace translation_text {

namespace {

QJsonObject errorObject(const QByteArray& body)
{
    return QJsonDocument::fromJson(body).object().value(QLatin1String("error")).toObject();
}

bool outOfQuota(int status, const QByteArray& body)
{
    return status == 429 && errorObject(body).value(QLatin1String("code")).toString() == QLatin1String("insufficient_quota");
}

} // namespace

QByteArray wavFile(const std::vector<std::int16_t>& samples)
{
    const auto dataBytes = quint32(samples.size() * 2);
    QByteArray wav;
    QDataStream out(&wav, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + dataBytes);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(1) << quint32(16000) << quint32(32000) << quint16(2)
        << quint16(16);
    out.writeRawData("data", 4);
    out << dataBytes;
    for (const std::int16_t sample : samples)
        out << qint16(sample);
    return wav;
}

QString repetitionKey(const QString& text)
{
    static const QRegularExpression notWordOrBlank(QStringLiteral("[^\\p{L}\\p{N} ]"));
    return text.toLower().remove(notWordOrBlank).simplified();
}

QString interpreterInstructions(const QString& targetLanguage)
{
    return QStringLiteral("You are the live interpreter of a Christian church service (preaching, prayer, "
                          "announcements). Translate the NEW text into natural, fluent ") +
           targetLanguage +
           QStringLiteral(" as a human interpreter would (meaning over literal words; keep Bible references and "
                          "names; 'sala' is the church hall, not a courtroom). The audio was cut into short pieces, "
                          "so the new text may start or end mid-sentence: translate it so it reads well after the "
                          "previous translation, but translate ONLY the words actually said: never complete, extend "
                          "or guess an unfinished sentence (if it ends mid-sentence, your translation ends "
                          "mid-sentence too). Never repeat or re-translate anything already present in the previous "
                          "translation. Output ONLY the translation of the new text, nothing else. If the new text "
                          "is noise, a meaningless fragment, or a repetition, output nothing.");
}

QString keepLast(const QString& text, qsizetype limit)
{
    return text.size() > limit ? text.right(limit) : text;
}

QString translationContext(const QString& previousOriginal, const QString& previousTranslation)
{
    if (previousOriginal.isEmpty())
        return {};
    return QStringLiteral("Previous original: ") + keepLast(previousOriginal, 400) +
           QStringLiteral("\nPrevious translation: ") + keepLast(previousTranslation, 400) + u'\n';
}

QString transcriptionPrompt(const QString& sourceLanguage)
{
    if (sourceLanguage == QLatin1String("en"))
        return QStringLiteral("Christian sermon in a church, hall screens, livestream to YouTube and Facebook.");
    if (sourceLanguage == QLatin1String("es"))
        return QStringLiteral(
            "Sermón cristiano en una iglesia, pantallas de sala, transmisión en vivo a YouTube y Facebook.");
    return QStringLiteral("Church sermon.");
}

QString liveTranscriptionPrompt(const QString& sourceLanguage)
{
    if (sourceLanguage == QLatin1String("en"))
        return QStringLiteral("Christian sermon in a church.");
    if (sourceLanguage == QLatin1String("es"))
        return QStringLiteral("Sermón cristiano en una iglesia.");
    return QStringLiteral("Church sermon.");
}

QString responseText(const QByteArray& body)
{
    QString result;
    const QJsonArray output = QJsonDocument::fromJson(body).object().value(QLatin1String("output")).toArray();
    for (const QJsonValue& item : output) {
        const QJsonArray content = item.toObject().value(QLatin1String("content")).toArray();
        for (const QJsonValue& part : content) {
            const QJsonObject piece = part.toObject();
            if (piece.value(QLatin1String("type")).toString() == QLatin1String("output_text"))
                result += piece.value(QLatin1String("text")).toString();
        }
    }
    return result;
}

QString failureMessage(int status, const QByteArray& body)
{
    if (outOfQuota(status, body))
        return QStringLiteral("Sin cuota/saldo disponible en el proyecto API. Revisa Facturación del proyecto.");
    if (status == 429)
        return QStringLiteral("Limite temporal de la API; se reintenta con el siguiente segmento.");
    if (status == 401 || status == 403)
        return QStringLiteral("API key o permisos no validos.");
    return QStringLiteral("No se pudo completar la solicitud. HTTP ") + QString::number(status) +
           QStringLiteral(". Revisa conexion y acceso al modelo.");
}

bool isFatalFailure(int status, const QByteArray& body)
{
    return status == 401 || status == 403 || outOfQuota(status, body);
}

} // namespace translation_text
