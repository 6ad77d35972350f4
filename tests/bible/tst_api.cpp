#include "Api.h"
#include "Reference.h"
#include "StandInHttpServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTcpServer>
#include <QTest>

#include <memory>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;

constexpr auto json = &StandInHttpServer::json;

Response passageReply(const QString& content)
{
    return {200, json({{QStringLiteral("data"), QJsonObject{{QStringLiteral("id"), QStringLiteral("JHN.3.16")},
                                                             {QStringLiteral("content"), content}}}}),
            false};
}

Response aiReply(const QJsonArray& output)
{
    return {200, json({{QStringLiteral("id"), QStringLiteral("resp_1")}, {QStringLiteral("output"), output}}), false};
}

QJsonObject message(const QJsonArray& content)
{
    return {{QStringLiteral("type"), QStringLiteral("message")}, {QStringLiteral("role"), QStringLiteral("assistant")},
            {QStringLiteral("content"), content}};
}

QJsonObject part(const QString& type, const QString& text)
{
    return {{QStringLiteral("type"), type}, {QStringLiteral("text"), text}};
}

// A port with nothing listening on it.
quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

// What one call of a client gave back, and how many times it answered.
struct Answer
{
    int calls = 0;
    QString text;
    QString error;
};

const QByteArray bibleKey = "abk-7f3e-secret";
const QByteArray aiKey = "sk-test-4b1d-secret";
const QString rv1960 = QStringLiteral("592420522e16049f-01");

QStringList logged;

void keepMessages(QtMsgType, const QMessageLogContext&, const QString& text)
{
    logged << text;
}

bible::Ref refOf(const char* text)
{
    return bible::parse(QString::fromUtf8(text));
}

} // namespace

class tst_Api : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void passageIdAndQuery_data();
    void passageIdAndQuery();
    void passageTextIsSimplified();
    void invalidReferenceAsksNothing_data();
    void invalidReferenceAsksNothing();
    void httpErrors_data();
    void httpErrors();
    void connectionRefused();
    void emptyContent_data();
    void emptyContent();
    void malformedJson();
    void silenceEndsAsFailure();
    void defaultTimeout();
    void biblesKeepOrder();
    void biblesError();
    void endpoints();
    void defaultClientUsesTheSetting();
    void clientGoneBeforeTheReply();

    void translateRequest();
    void translateTakesFirstOutputText();
    void translateFailures_data();
    void translateFailures();
    void translateRefused();
    void translateParentGone();

private:
    void passageAnswer(bible::Api& api, const bible::Ref& ref, Answer& answer);
    void translateAnswer(QObject* parent, Answer& answer);

    std::unique_ptr<StandInHttpServer> standIn;
};

void tst_Api::initTestCase()
{
    QVERIFY(QDir().mkpath(QStringLiteral(VELMORA_TEST_OUTPUT)));
    // The endpoints are steered through the settings store: keep it in the test's folder even when
    // the test is run by hand, outside its private HOME.
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral(VELMORA_TEST_OUTPUT "/settings"));
}

void tst_Api::init()
{
    standIn = std::make_unique<StandInHttpServer>();
    standIn->answer = [](const Request&) { return Response{}; }; // an empty success unless a test says otherwise
    QVERIFY(standIn->listen());
    QSettings settings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"));
    settings.remove(QStringLiteral("apibible_endpoint"));
    settings.setValue(QStringLiteral("openai_endpoint"), standIn->endpoint());
    logged.clear();
    qInstallMessageHandler(keepMessages);
}

// Whatever a test did, no key may have reached the log.
void tst_Api::cleanup()
{
    qInstallMessageHandler(nullptr);
    for (const QString& line : std::as_const(logged)) {
        QVERIFY2(!line.contains(QString::fromLatin1(bibleKey)) && !line.contains(QString::fromLatin1(aiKey)),
                 qPrintable(line));
    }
    standIn.reset();
    QSettings settings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"));
    settings.remove(QStringLiteral("apibible_endpoint"));
    settings.remove(QStringLiteral("openai_endpoint"));
}

void tst_Api::passageAnswer(bible::Api& api, const bible::Ref& ref, Answer& answer)
{
    api.passage(QString::fromLatin1(bibleKey), rv1960, ref, [&answer](const QString& text, const QString& error) {
        ++answer.calls;
        answer.text = text;
        answer.error = error;
    });
}

void tst_Api::translateAnswer(QObject* parent, Answer& answer)
{
    bible::translateVerse(parent, QString::fromLatin1(aiKey), QStringLiteral("Porque de tal manera amó Dios al mundo"),
                          QStringLiteral("français"), [&answer](const QString& text, const QString& error) {
                              ++answer.calls;
                              answer.text = text;
                              answer.error = error;
                          });
}

void tst_Api::passageIdAndQuery_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QByteArray>("id");
    QTest::addColumn<QByteArray>("verseNumbers");

    QTest::newRow("whole chapter") << "Juan 3" << QByteArray("JHN.3") << QByteArray("false");
    QTest::newRow("one verse") << "Juan 3:16" << QByteArray("JHN.3.16") << QByteArray("false");
    QTest::newRow("range") << "Juan 3:16-18" << QByteArray("JHN.3.16-JHN.3.18") << QByteArray("true");
    QTest::newRow("range of one") << "Juan 3:16-16" << QByteArray("JHN.3.16") << QByteArray("false");
    QTest::newRow("numbered book") << "1 Co 13:4-7" << QByteArray("1CO.13.4-1CO.13.7") << QByteArray("true");
    QTest::newRow("whole psalm") << "Salmos 23" << QByteArray("PSA.23") << QByteArray("false");
}

void tst_Api::passageIdAndQuery()
{
    QFETCH(QString, typed);
    QFETCH(QByteArray, id);
    QFETCH(QByteArray, verseNumbers);

    standIn->answer = [](const Request&) { return passageReply(QStringLiteral("Porque de tal manera amó Dios al mundo")); };
    bible::Api api(standIn->endpoint());
    Answer answer;
    passageAnswer(api, bible::parse(typed), answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QString());
    QCOMPARE(answer.text, QStringLiteral("Porque de tal manera amó Dios al mundo"));

    QCOMPARE(standIn->requests.size(), 1);
    const Request& request = standIn->requests.first();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.target, "/v1/bibles/" + rv1960.toLatin1() + "/passages/" + id +
                                 "?content-type=text&include-notes=false&include-titles=false"
                                 "&include-chapter-numbers=false&include-verse-numbers=" + verseNumbers +
                                 "&include-verse-spans=false");
    QCOMPARE(request.headers.value("api-key"), bibleKey);
    QVERIFY(!request.headers.contains("authorization"));
    QVERIFY(!request.target.contains(bibleKey));
}

void tst_Api::passageTextIsSimplified()
{
    standIn->answer = [](const Request&) {
        return passageReply(QStringLiteral("\n     [16] Porque de tal manera\n amó Dios\tal mundo,  \n"));
    };
    bible::Api api(standIn->endpoint());
    Answer answer;
    passageAnswer(api, refOf("Juan 3:16"), answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.text, QStringLiteral("[16] Porque de tal manera amó Dios al mundo,"));
    QCOMPARE(answer.error, QString());
}

void tst_Api::invalidReferenceAsksNothing_data()
{
    QTest::addColumn<int>("book");
    QTest::addColumn<int>("chapter");
    QTest::addColumn<int>("verse");
    QTest::addColumn<int>("endVerse");

    QTest::newRow("no book") << -1 << 3 << 16 << 16;
    QTest::newRow("chapter 0") << 42 << 0 << 16 << 16;
    QTest::newRow("range backwards") << 44 << 8 << 28 << 20;
    QTest::newRow("book past the table") << 66 << 1 << 1 << 1;
    QTest::newRow("no book, whole chapter") << -1 << 3 << 0 << 0;
}

void tst_Api::invalidReferenceAsksNothing()
{
    QFETCH(int, book);
    QFETCH(int, chapter);
    QFETCH(int, verse);
    QFETCH(int, endVerse);

    bible::Api api(standIn->endpoint());
    Answer answer;
    passageAnswer(api, bible::Ref{book, chapter, verse, endVerse}, answer);
    QCOMPARE(answer.calls, 0); // answered from the event loop, not inside the call
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QStringLiteral("Cita no válida"));
    QCOMPARE(answer.text, QString());
    QVERIFY(standIn->requests.isEmpty());
}

void tst_Api::httpErrors_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error");

    const QString key = QStringLiteral("API.Bible: clave no válida o sin permiso para esa Biblia");
    QTest::newRow("401") << 401 << key;
    QTest::newRow("403") << 403 << key;
    QTest::newRow("404") << 404 << "API.Bible: sin respuesta (HTTP 404)";
    QTest::newRow("500") << 500 << "API.Bible: sin respuesta (HTTP 500)";
}

void tst_Api::httpErrors()
{
    QFETCH(int, status);
    QFETCH(QString, error);

    // The service explains itself in the body; the operator gets the fixed text.
    standIn->answer = [status](const Request&) {
        return Response{status, R"({"statusCode":)" + QByteArray::number(status) + R"(,"message":"nope"})", false};
    };
    bible::Api api(standIn->endpoint());

    Answer passage;
    passageAnswer(api, refOf("Juan 3:16"), passage);
    QTRY_COMPARE(passage.calls, 1);
    QCOMPARE(passage.error, error);
    QCOMPARE(passage.text, QString());

    int calls = 0;
    QString getError;
    QJsonObject getReply{{QStringLiteral("stale"), true}};
    api.get(QStringLiteral("bibles"), QString::fromLatin1(bibleKey), [&](const QJsonObject& reply, const QString& e) {
        ++calls;
        getReply = reply;
        getError = e;
    });
    QTRY_COMPARE(calls, 1);
    QCOMPARE(getError, error);
    QVERIFY(getReply.isEmpty());
}

void tst_Api::connectionRefused()
{
    bible::Api api(QStringLiteral("http://127.0.0.1:%1/v1/").arg(closedPort()));
    Answer answer;
    passageAnswer(api, refOf("Juan 3:16"), answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QStringLiteral("API.Bible: sin respuesta"));
    QCOMPARE(answer.text, QString());
}

void tst_Api::emptyContent_data()
{
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("empty content") << json({{QStringLiteral("data"), QJsonObject{{QStringLiteral("content"), QString()}}}});
    QTest::newRow("blank content") << json({{QStringLiteral("data"), QJsonObject{{QStringLiteral("content"), QStringLiteral(" \n\t ")}}}});
    QTest::newRow("no content") << json({{QStringLiteral("data"), QJsonObject{{QStringLiteral("id"), QStringLiteral("JHN.3.16")}}}});
    QTest::newRow("no data") << QByteArray("{}");
    QTest::newRow("content not text") << QByteArray(R"({"data":{"content":[{"text":"Porque"}]}})");
}

void tst_Api::emptyContent()
{
    QFETCH(QByteArray, body);
    standIn->answer = [body](const Request&) { return Response{200, body, false}; };
    bible::Api api(standIn->endpoint());
    Answer answer;
    passageAnswer(api, refOf("Juan 3:16"), answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QStringLiteral("API.Bible no devolvió texto para esa cita"));
    QCOMPARE(answer.text, QString());
}

// A body that is no JSON object reads as an empty object: no passage, no Bibles, no crash.
void tst_Api::malformedJson()
{
    standIn->answer = [](const Request&) { return Response{200, QByteArray(R"({"data":{"content":"Porque de)"), false}; };
    bible::Api api(standIn->endpoint());

    Answer passage;
    passageAnswer(api, refOf("Juan 3:16"), passage);
    QTRY_COMPARE(passage.calls, 1);
    QCOMPARE(passage.error, QStringLiteral("API.Bible no devolvió texto para esa cita"));

    int calls = 0;
    QList<std::pair<QString, QString>> list{{QStringLiteral("stale"), QStringLiteral("stale")}};
    QString error = QStringLiteral("stale");
    api.bibles(QString::fromLatin1(bibleKey), QStringLiteral("spa"), [&](const auto& bibles, const QString& e) {
        ++calls;
        list = bibles;
        error = e;
    });
    QTRY_COMPARE(calls, 1);
    QVERIFY(list.isEmpty());
    QCOMPARE(error, QString());

    standIn->answer = [](const Request&) { return Response{200, QByteArray("[1, 2, 3]"), false}; };
    int getCalls = 0;
    QJsonObject reply{{QStringLiteral("stale"), true}};
    api.get(QStringLiteral("bibles"), QString::fromLatin1(bibleKey), [&](const QJsonObject& r, const QString& e) {
        ++getCalls;
        reply = r;
        error = e;
    });
    QTRY_COMPARE(getCalls, 1);
    QVERIFY(reply.isEmpty());
    QCOMPARE(error, QString());
}

// A service that takes the request and never answers ends as a failure after the time-out, and
// the one answer stays the only one.
void tst_Api::silenceEndsAsFailure()
{
    standIn->answer = [](const Request&) { return Response{200, {}, true}; };
    bible::Api api(standIn->endpoint());
    api.setTimeoutMs(400);

    Answer answer;
    QElapsedTimer clock;
    clock.start();
    passageAnswer(api, refOf("Juan 3:16"), answer);
    QTRY_COMPARE_WITH_TIMEOUT(answer.calls, 1, 10000);
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(standIn->requests.size(), 1); // the request did arrive: it is the answer that is missing
    QCOMPARE(answer.error, QStringLiteral("API.Bible: sin respuesta"));
    QCOMPARE(answer.text, QString());
    QVERIFY2(elapsed >= 350, qPrintable(QString::number(elapsed)));

    // The client drops the connection; nothing more comes back through `done`.
    QTRY_COMPARE(standIn->openConnections, 0);
    QCOMPARE(answer.calls, 1);
}

void tst_Api::defaultTimeout()
{
    QCOMPARE(bible::Api(standIn->endpoint()).timeoutMs(), 15000);
    QCOMPARE(bible::Api().timeoutMs(), 15000);
}

void tst_Api::biblesKeepOrder()
{
    const QJsonArray data{
        QJsonObject{{QStringLiteral("id"), rv1960}, {QStringLiteral("abbreviation"), QStringLiteral("RVR60")},
                    {QStringLiteral("abbreviationLocal"), QStringLiteral("RVR60")},
                    {QStringLiteral("name"), QStringLiteral("Reina Valera 1960")},
                    {QStringLiteral("language"), QJsonObject{{QStringLiteral("id"), QStringLiteral("spa")}}}},
        QJsonObject{{QStringLiteral("id"), QStringLiteral("b32b9d1b64b4ef29-01")},
                    {QStringLiteral("abbreviation"), QStringLiteral("BLP")},
                    {QStringLiteral("name"), QStringLiteral("La Biblia de la Palabra")}},
        QJsonObject{{QStringLiteral("id"), QStringLiteral("48acedcf8595c754-01")},
                    {QStringLiteral("abbreviation"), QStringLiteral("PDPT")},
                    {QStringLiteral("name"), QStringLiteral("Biblia Dios habla hoy")}},
    };
    standIn->answer = [data](const Request&) { return Response{200, json({{QStringLiteral("data"), data}}), false}; };
    bible::Api api(standIn->endpoint());

    int calls = 0;
    QList<std::pair<QString, QString>> list;
    QString error = QStringLiteral("stale");
    api.bibles(QString::fromLatin1(bibleKey), QStringLiteral("spa"), [&](const auto& bibles, const QString& e) {
        ++calls;
        list = bibles;
        error = e;
    });
    QTRY_COMPARE(calls, 1);
    QCOMPARE(error, QString());
    const QList<std::pair<QString, QString>> expected{
        {rv1960, QStringLiteral("Reina Valera 1960 (RVR60)")},
        {QStringLiteral("b32b9d1b64b4ef29-01"), QStringLiteral("La Biblia de la Palabra (BLP)")},
        {QStringLiteral("48acedcf8595c754-01"), QStringLiteral("Biblia Dios habla hoy (PDPT)")},
    };
    QCOMPARE(list, expected);

    QCOMPARE(standIn->requests.size(), 1);
    QCOMPARE(standIn->requests.first().method, QByteArray("GET"));
    QCOMPARE(standIn->requests.first().target, QByteArray("/v1/bibles?language=spa"));
    QCOMPARE(standIn->requests.first().headers.value("api-key"), bibleKey);
}

void tst_Api::biblesError()
{
    standIn->answer = [](const Request&) { return Response{401, R"({"message":"Unauthorized"})", false}; };
    bible::Api api(standIn->endpoint());
    int calls = 0;
    QList<std::pair<QString, QString>> list{{QStringLiteral("stale"), QStringLiteral("stale")}};
    QString error;
    api.bibles(QStringLiteral("wrong"), QStringLiteral("spa"), [&](const auto& bibles, const QString& e) {
        ++calls;
        list = bibles;
        error = e;
    });
    QTRY_COMPARE(calls, 1);
    QVERIFY(list.isEmpty());
    QCOMPARE(error, QStringLiteral("API.Bible: clave no válida o sin permiso para esa Biblia"));
}

void tst_Api::endpoints()
{
    QSettings settings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"));
    settings.remove(QStringLiteral("openai_endpoint"));
    settings.sync();
    QCOMPARE(bible::apiBibleEndpoint(), QStringLiteral("https://api.scripture.api.bible/v1/"));
    QCOMPARE(bible::aiServiceEndpoint(), QStringLiteral("https://api.openai.com/v1/"));
    QCOMPARE(bible::Api().endpoint(), QStringLiteral("https://api.scripture.api.bible/v1/"));

    // A stand-in written without the final slash still gets its paths under /v1/.
    settings.setValue(QStringLiteral("apibible_endpoint"), QStringLiteral("http://127.0.0.1:9/v1"));
    settings.setValue(QStringLiteral("openai_endpoint"), QStringLiteral("http://127.0.0.1:9/v1/"));
    settings.sync();
    QCOMPARE(bible::apiBibleEndpoint(), QStringLiteral("http://127.0.0.1:9/v1/"));
    QCOMPARE(bible::aiServiceEndpoint(), QStringLiteral("http://127.0.0.1:9/v1/"));
    QCOMPARE(bible::Api(QStringLiteral("http://127.0.0.1:9/v1")).endpoint(), QStringLiteral("http://127.0.0.1:9/v1/"));
}

void tst_Api::defaultClientUsesTheSetting()
{
    QString endpoint = standIn->endpoint();
    endpoint.chop(1);
    QSettings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"))
        .setValue(QStringLiteral("apibible_endpoint"), endpoint);
    standIn->answer = [](const Request&) { return passageReply(QStringLiteral("Porque de tal manera")); };

    bible::Api api;
    Answer answer;
    passageAnswer(api, refOf("Juan 3:16"), answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.text, QStringLiteral("Porque de tal manera"));
    QCOMPARE(standIn->requests.size(), 1);
    QVERIFY(standIn->requests.first().target.startsWith("/v1/bibles/" + rv1960.toLatin1() + "/passages/JHN.3.16?"));
}

// A client destroyed with a request out (the window closing) neither answers nor crashes later.
void tst_Api::clientGoneBeforeTheReply()
{
    standIn->answer = [](const Request&) { return Response{200, {}, true}; };
    Answer answer;
    {
        bible::Api api(standIn->endpoint());
        passageAnswer(api, refOf("Juan 3:16"), answer);
        QTRY_COMPARE(standIn->requests.size(), 1);
    }
    QTRY_COMPARE(standIn->openConnections, 0);
    QCOMPARE(answer.calls, 0);
}

void tst_Api::translateRequest()
{
    standIn->answer = [](const Request&) {
        return aiReply({message({part(QStringLiteral("output_text"), QStringLiteral("Car Dieu a tant aimé le monde"))})});
    };
    QObject parent;
    Answer answer;
    translateAnswer(&parent, answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QString());
    QCOMPARE(answer.text, QStringLiteral("Car Dieu a tant aimé le monde"));

    QCOMPARE(standIn->requests.size(), 1);
    const Request& request = standIn->requests.first();
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.target, QByteArray("/v1/responses"));
    QCOMPARE(request.headers.value("authorization"), "Bearer " + aiKey);
    QCOMPARE(request.headers.value("content-type"), QByteArray("application/json"));
    QVERIFY(!request.headers.contains("api-key"));

    QJsonParseError parseError;
    const QJsonObject body = QJsonDocument::fromJson(request.body, &parseError).object();
    QCOMPARE(parseError.error, QJsonParseError::NoError);
    const QJsonObject expected{
        {QStringLiteral("model"), QStringLiteral("gpt-4.1-mini")},
        {QStringLiteral("instructions"), QStringLiteral("Translate this Bible passage faithfully into français. "
                                                        "Return only the translated passage, no commentary.")},
        {QStringLiteral("input"), QStringLiteral("Porque de tal manera amó Dios al mundo")},
        {QStringLiteral("max_output_tokens"), 800},
        {QStringLiteral("store"), false},
    };
    QCOMPARE(body, expected);
    QVERIFY(body.value(QStringLiteral("store")).isBool());
    QVERIFY(!request.body.contains(aiKey));
}

// Reasoning items come before the message and carry no text; parts other than output_text are
// passed over; the first output_text wins.
void tst_Api::translateTakesFirstOutputText()
{
    standIn->answer = [](const Request&) {
        const QJsonObject reasoning{{QStringLiteral("type"), QStringLiteral("reasoning")},
                                    {QStringLiteral("summary"), QJsonArray()}};
        return aiReply({reasoning,
                        message({part(QStringLiteral("refusal"), QStringLiteral("not this")),
                                 part(QStringLiteral("output_text"), QStringLiteral("  Car Dieu a tant aimé le monde\n")),
                                 part(QStringLiteral("output_text"), QStringLiteral("nor this"))}),
                        message({part(QStringLiteral("output_text"), QStringLiteral("nor this one"))})});
    };
    QObject parent;
    Answer answer;
    translateAnswer(&parent, answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QString());
    QCOMPARE(answer.text, QStringLiteral("Car Dieu a tant aimé le monde"));
}

void tst_Api::translateFailures_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");

    const QByteArray invalidKey = R"({"error":{"message":"Incorrect API key provided","type":"invalid_request_error"}})";
    QTest::newRow("401") << 401 << invalidKey;
    QTest::newRow("500") << 500 << QByteArray(R"({"error":{"message":"server error"}})");
    QTest::newRow("empty text") << 200 << json({{QStringLiteral("output"),
        QJsonArray{message({part(QStringLiteral("output_text"), QString())})}}});
    QTest::newRow("blank text") << 200 << json({{QStringLiteral("output"),
        QJsonArray{message({part(QStringLiteral("output_text"), QStringLiteral(" \n "))})}}});
    QTest::newRow("no output_text") << 200 << json({{QStringLiteral("output"),
        QJsonArray{message({part(QStringLiteral("refusal"), QStringLiteral("I can't"))})}}});
    QTest::newRow("empty output") << 200 << QByteArray(R"({"output":[]})");
    QTest::newRow("malformed") << 200 << QByteArray(R"({"output":[{"type":"message","content":[{"type":"output_te)");
}

void tst_Api::translateFailures()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    standIn->answer = [status, body](const Request&) { return Response{status, body, false}; };
    QObject parent;
    Answer answer;
    translateAnswer(&parent, answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QStringLiteral("No se pudo traducir el versículo (revisa la API key de OpenAI)"));
    QCOMPARE(answer.text, QString());
}

void tst_Api::translateRefused()
{
    QSettings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"))
        .setValue(QStringLiteral("openai_endpoint"), QStringLiteral("http://127.0.0.1:%1/v1/").arg(closedPort()));
    QObject parent;
    Answer answer;
    translateAnswer(&parent, answer);
    QTRY_COMPARE(answer.calls, 1);
    QCOMPARE(answer.error, QStringLiteral("No se pudo traducir el versículo (revisa la API key de OpenAI)"));
    QVERIFY(standIn->requests.isEmpty());
}

// The request lives under its parent: when the parent goes first, the request goes with it.
void tst_Api::translateParentGone()
{
    standIn->answer = [](const Request&) { return Response{200, {}, true}; };
    auto parent = std::make_unique<QObject>();
    Answer answer;
    translateAnswer(parent.get(), answer);
    QTRY_COMPARE(standIn->requests.size(), 1);
    parent.reset();
    QTRY_COMPARE(standIn->openConnections, 0);
    QCOMPARE(answer.calls, 0);
}

QTEST_GUILESS_MAIN(tst_Api)
#include "tst_api.moc"
