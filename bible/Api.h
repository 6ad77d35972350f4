#pragma once

#include <QList>
#include <QNetworkAccessManager>
#include <QString>

#include <functional>
#include <utility>

class QJsonObject;
class QObject;

namespace bible {

struct Ref;

// Where the two online services live. Each is the real service unless the settings store
// ("Lorvane" / "TavrinStudio") holds "apibible_endpoint" or "openai_endpoint": these let a local
// stand-in take the place of the service (tests, offline rehearsals). Always ends in "/".
QString apiBibleEndpoint();
QString aiServiceEndpoint();

// Thin asynchronous client of API.Bible, for Bibles the program does not carry. Every call
// answers once through `done` on the main thread, with a result or an error text already in the
// interface language, never both; nothing throws. The key travels only in the "api-key" header and is never logged. A reply
// still on its way when the client is destroyed is dropped without calling `done`.
class Api
{
public:
    static constexpr int defaultTimeoutMs = 15000;

    // The endpoint of the settings, or the real service.
    Api();
    // A fixed endpoint such as "http://127.0.0.1:8080/v1/".
    explicit Api(const QString& endpoint);

    Api(const Api&) = delete;
    Api& operator=(const Api&) = delete;

    QString endpoint() const { return base; }
    int timeoutMs() const { return timeout; }
    // A reply slower than this ends as "API.Bible: sin respuesta".
    void setTimeoutMs(int ms) { timeout = ms; }

    // GET of endpoint + `path`; `done` gets the body's JSON object, or an error.
    void get(const QString& path, const QString& key, std::function<void(QJsonObject, QString)> done);

    // The Bibles of one language ("spa"), in the service's order: id and "name (abbreviation)".
    void bibles(const QString& key, const QString& language,
                std::function<void(QList<std::pair<QString, QString>>, QString)> done);

    // The plain text of a chapter, a verse or a range; a range comes with its verse numbers.
    void passage(const QString& key, const QString& bibleId, const Ref& ref,
                 std::function<void(QString, QString)> done);

private:
    QNetworkAccessManager network;
    QString base;
    int timeout = defaultTimeoutMs;
};

// The passage id and query of `passage`, e.g. "JHN.3.16-JHN.3.18?content-type=text&...".
// Empty when the reference cannot be asked for ("Cita no válida").
QString passagePath(const QString& bibleId, const Ref& ref);

constexpr int translateTimeoutMs = 20000;

// Asks the AI service to translate `text` into `language` (a language name, as the operator
// wrote it). `done` gets the translation or "No se pudo traducir el versículo (revisa la API key
// de OpenAI)", exactly once, on the main thread. The request lives under `parent`.
void translateVerse(QObject* parent, const QString& apiKey, const QString& text, const QString& language,
                    std::function<void(QString, QString)> done);

} // namespace bible
