#include "Api.h"

#include "Books.h"
#include "Reference.h"
#include "i18n.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSettings>
#include <QTimer>
#include <QUrl>

namespace bible {

namespace {

// Paths are appended to the endpoint as text, so it must end in "/".
QString withSlash(QString endpoint)
{
    if (!endpoint.endsWith(u'/'))
        endpoint += u'/';
    return endpoint;
}

QString endpointSetting(const char* key, const char* fallback)
{
    const QSettings settings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"));
    const QString endpoint = settings.value(QLatin1String(key)).toString().trimmed();
    return withSlash(endpoint.isEmpty() ? QString::fromLatin1(fallback) : endpoint);
}

} // namespace

QString apiBibleEndpoint()
{
    return endpointSetting("apibible_endpoint", "https://api.scripture.api.bible/v1/");
}

QString aiServiceEndpoint()
{
    return endpointSetting("openai_endpoint", "https://api.openai.com/v1/");
}

Api::Api() : base(apiBibleEndpoint()) {}

Api::Api(const QString& endpoint) : base(withSlash(endpoint)) {}

void Api::get(const QString& path, const QString& key, std::function<void(QJsonObject, QString)> done)
{
    QNetworkRequest request(QUrl(base + path));
    request.setRawHeader("api-key", key.toUtf8());
    request.setTransferTimeout(timeout);
    QNetworkReply* reply = network.get(request);
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, done = std::move(done)] {
        reply->deleteLater();
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        const QByteArray body = reply->readAll();
        if (!done)
            return;
        if (reply->error() != QNetworkReply::NoError) {
            const int code = status.toInt();
            if (code == 401 || code == 403)
                done({}, T("API.Bible: clave no válida o sin permiso para esa Biblia"));
            else if (status.isValid())
                done({}, T("API.Bible: sin respuesta (HTTP %1)").arg(code));
            else
                done({}, T("API.Bible: sin respuesta"));
            return;
        }
        // A body that is not a JSON object reads as an empty one: the callers then find no data.
        done(QJsonDocument::fromJson(body).object(), QString());
    });
}

void Api::bibles(const QString& key, const QString& language,
                 std::function<void(QList<std::pair<QString, QString>>, QString)> done)
{
    const QString path = QStringLiteral("bibles?language=") + QString::fromLatin1(QUrl::toPercentEncoding(language));
    get(path, key, [done = std::move(done)](const QJsonObject& reply, const QString& error) {
        if (!done)
            return;
        QList<std::pair<QString, QString>> list;
        if (!error.isEmpty()) {
            done(list, error);
            return;
        }
        for (const QJsonValue& entry : reply.value(QLatin1String("data")).toArray()) {
            const QJsonObject bible = entry.toObject();
            list.append({bible.value(QLatin1String("id")).toString(),
                         bible.value(QLatin1String("name")).toString() + QStringLiteral(" (") +
                             bible.value(QLatin1String("abbreviation")).toString() + u')'});
        }
        done(list, QString());
    });
}

QString passagePath(const QString& bibleId, const Ref& ref)
{
    // The book is checked in every case, as the id cannot be written without its code.
    if (ref.book < 0 || ref.book >= qint32(books().size()))
        return {};
    if (ref.verse != 0 && (ref.chapter < 1 || ref.endVerse < ref.verse))
        return {};

    const QString code = QString::fromLatin1(books()[std::size_t(ref.book)].code);
    QString id;
    if (ref.verse == 0) {
        id = QStringLiteral("%1.%2").arg(code).arg(ref.chapter);
    } else {
        id = QStringLiteral("%1.%2.%3").arg(code).arg(ref.chapter).arg(ref.verse);
        if (ref.endVerse > ref.verse)
            id += QStringLiteral("-%1.%2.%3").arg(code).arg(ref.chapter).arg(ref.endVerse);
    }
    const bool range = ref.endVerse > ref.verse;
    return QStringLiteral("bibles/") + bibleId + QStringLiteral("/passages/") + id +
           QStringLiteral("?content-type=text&include-notes=false&include-titles=false"
                          "&include-chapter-numbers=false&include-verse-numbers=") +
           (range ? QStringLiteral("true") : QStringLiteral("false")) + QStringLiteral("&include-verse-spans=false");
}

void Api::passage(const QString& key, const QString& bibleId, const Ref& ref, std::function<void(QString, QString)> done)
{
    const QString path = passagePath(bibleId, ref);
    if (path.isEmpty()) {
        // Answered from the event loop like every other outcome, never inside the call.
        QTimer::singleShot(0, &network, [done = std::move(done)] {
            if (done)
                done(QString(), T("Cita no válida"));
        });
        return;
    }
    get(path, key, [done = std::move(done)](const QJsonObject& reply, const QString& error) {
        if (!done)
            return;
        if (!error.isEmpty()) {
            done(QString(), error);
            return;
        }
        const QString text =
            reply.value(QLatin1String("data")).toObject().value(QLatin1String("content")).toString().simplified();
        if (text.isEmpty())
            done(QString(), T("API.Bible no devolvió texto para esa cita"));
        else
            done(text, QString());
    });
}

void translateVerse(QObject* parent, const QString& apiKey, const QString& text, const QString& language,
                    std::function<void(QString, QString)> done)
{
    const QJsonObject body{
        {QStringLiteral("model"), QStringLiteral("gpt-4.1-mini")},
        {QStringLiteral("instructions"), QStringLiteral("Translate this Bible passage faithfully into ") + language +
                                             QStringLiteral(". Return only the translated passage, no commentary.")},
        {QStringLiteral("input"), text},
        {QStringLiteral("max_output_tokens"), 800},
        {QStringLiteral("store"), false},
    };
    QNetworkRequest request(QUrl(aiServiceEndpoint() + QStringLiteral("responses")));
    request.setRawHeader("Authorization", "Bearer " + apiKey.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(translateTimeoutMs);

    // One manager per request, gone with its reply: a verse is translated now and then, and the
    // request dies with `parent` if that goes first.
    auto* network = new QNetworkAccessManager(parent);
    QNetworkReply* reply = network->post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, network, done = std::move(done)] {
        reply->deleteLater();
        network->deleteLater();
        QString translated;
        if (reply->error() == QNetworkReply::NoError) {
            // Items without "content" (reasoning, tool calls) are passed over; the first text part
            // found is the answer.
            const QJsonObject answer = QJsonDocument::fromJson(reply->readAll()).object();
            bool found = false;
            for (const QJsonValue& item : answer.value(QLatin1String("output")).toArray()) {
                for (const QJsonValue& part : item.toObject().value(QLatin1String("content")).toArray()) {
                    const QJsonObject piece = part.toObject();
                    if (piece.value(QLatin1String("type")).toString() == QLatin1String("output_text")) {
                        translated = piece.value(QLatin1String("text")).toString().trimmed();
                        found = true;
                        break;
                    }
                }
                if (found)
                    break;
            }
        }
        if (!done)
            return;
        if (translated.isEmpty())
            done(QString(), T("No se pudo traducir el versículo (revisa la API key de OpenAI)"));
        else
            done(translated, QString());
    });
}

} // namespace bible
