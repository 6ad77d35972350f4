#include "Api.h"
#include "Reference.h"
#include "StandInHttpServer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTcpServer>
#include <QTest>

#include <memory>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;
using Done = std::function<void(QString, QString)>;

const QByteArray bibleKey = "abk-7f3e-secret", aiKey = "sk-test-4b1d-secret";
const QString rv1960 = QStringLiteral("592420522e16049f-01");
const QString failedTranslation = QStringLiteral("No se pudo traducir el versículo (revisa la API key de OpenAI)");

QStringList logged;

// Reasoning items carry no text and parts other than output_text are passed over; the first output_text wins.
const QByteArray translationReply = R"({"id":"resp_1","output":[{"type":"reasoning","summary":[]},)"
    R"({"type":"message","content":[{"type":"refusal","text":"not this"},)"
    R"({"type":"output_text","text":"  Car Dieu a tant aimé le monde\n"},{"type":"output_text","text":"nor"}]},)"
    R"({"type":"message","content":[{"type":"output_text","text":"nor this one"}]}]})";

QSettings settings() { return QSettings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio")); }

// Every answer one call gave, and whether one came inside the call itself.
struct Answer { int calls = 0; bool insideTheCall = false; QString text, error; };

// Makes one call (a passage, or a translation when `typed` is empty) and waits up to `waitMs` for an answer.
std::shared_ptr<Answer> ask(bible::Api& api, QObject* parent, const QString& typed, int waitMs = 5000)
{
    auto answer = std::make_shared<Answer>();
    Done done = [answer](const QString& text, const QString& error) {
        ++answer->calls;
        answer->text = text;
        answer->error = error;
    };
    if (typed.isEmpty())
        bible::translateVerse(parent, aiKey, QStringLiteral("Porque de tal manera amó Dios al mundo"),
                              QStringLiteral("français"), std::move(done));
    else
        api.passage(bibleKey, rv1960, bible::parse(typed), std::move(done));
    answer->insideTheCall = answer->calls > 0;
    static_cast<void>(QTest::qWaitFor([&answer] { return answer->calls > 0; }, waitMs)); // the caller checks
    return answer;
}

} // namespace

class tst_Api : public QObject
{
    Q_OBJECT
    std::unique_ptr<StandInHttpServer> standIn;

private Q_SLOTS:
    // The endpoints are steered through the settings: keep them in the test's folder even when run by hand.
    void initTestCase() { QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, VELMORA_TEST_OUTPUT "/s"); }

    void init()
    {
        standIn = std::make_unique<StandInHttpServer>();
        QVERIFY(standIn->listen());
        settings().setValue("openai_endpoint", standIn->endpoint());
        logged.clear();
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) { logged << text; });
    }

    // Whatever a test did, no key may have reached the log.
    void cleanup()
    {
        qInstallMessageHandler(nullptr);
        for (const QString& line : std::as_const(logged))
            QVERIFY2(!line.contains(QLatin1String(bibleKey)) && !line.contains(QLatin1String(aiKey)),
                     qPrintable(line));
        standIn.reset();
        settings().clear();
    }

    void answers_data();

    // Every outcome is one answer, from the event loop and never from inside the call; each key travels
    // in its own service's header alone.
    void answers()
    {
        QFETCH(QString, typed);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, request);
        standIn->answer = [status, body](const Request&) { return Response{status, body, status == 0}; };
        QTcpServer closed; // an endpoint with nothing listening on it
        QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
        const QString endpoint = status >= 0 ? standIn->endpoint()
                                             : QStringLiteral("http://127.0.0.1:%1/v1/").arg(closed.serverPort());
        closed.close();
        settings().setValue("openai_endpoint", endpoint);
        bible::Api api(endpoint);
        api.setTimeoutMs(400);
        QObject parent;
        const auto answer = ask(api, &parent, typed);
        QCOMPARE(answer->calls, 1);
        QVERIFY(!answer->insideTheCall);
        QTEST(answer->text, "text");
        QTEST(answer->error, "error");
        QTRY_COMPARE(standIn->openConnections, 0);
        QCOMPARE(standIn->requests.size(), request.isEmpty() ? 0 : 1);
        if (request.isEmpty())
            return;
        const Request& sent = standIn->requests.first();
        QCOMPARE(sent.method + ' ' + sent.target, request);
        const QByteArray own = typed.isEmpty() ? "authorization" : "api-key";
        QCOMPARE(sent.headers.value(own), typed.isEmpty() ? "Bearer " + aiKey : bibleKey);
        QVERIFY(!sent.headers.contains(typed.isEmpty() ? "api-key" : "authorization"));
        if (typed.isEmpty())
            QVERIFY(QJsonDocument::fromJson(sent.body)["instructions"].toString().contains("into français."));
    }

    // An owner destroyed with a request out (the window closing) takes the request along: no answer comes,
    // and nothing crashes later. Once for the online Bible client, once for a translation's parent.
    void ownerGone()
    {
        standIn->answer = [](const Request&) { return Response{200, {}, true}; };
        for (const QString& typed : {QStringLiteral("Juan 3:16"), QString()}) {
            auto api = std::make_unique<bible::Api>(standIn->endpoint());
            auto parent = std::make_unique<QObject>();
            const auto answer = ask(*api, parent.get(), typed, 0);
            QTRY_COMPARE(standIn->requests.size(), typed.isEmpty() ? 2 : 1);
            api.reset();
            parent.reset();
            QTRY_COMPARE(standIn->openConnections, 0);
            QCOMPARE(answer->calls, 0);
        }
    }
};

void tst_Api::answers_data()
{
    QTest::addColumn<QString>("typed"); // the passage asked for; empty: a translation
    QTest::addColumn<int>("status");    // -1: nothing listens; 0: never answers
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("request"); // what the service is sent; empty: nothing is asked
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    // A range asks for its verse numbers.
    const auto passage = [](const QByteArray& id) {
        return "GET /v1/bibles/" + rv1960.toLatin1() + "/passages/" + id +
               "?content-type=text&include-notes=false&include-titles=false&include-chapter-numbers=false"
               "&include-verse-numbers=" + (id.contains('-') ? "true" : "false") + "&include-verse-spans=false";
    };
    const QByteArray verse = R"({"data":{"content":"\n     [16] Porque de tal manera\n amó Dios\tal mundo,  \n"}})";
    const QString text = QStringLiteral("[16] Porque de tal manera amó Dios al mundo,");
    const QByteArray refused = R"({"statusCode":401,"message":"nope"})", jn316 = passage("JHN.3.16");
    const QString key = QStringLiteral("API.Bible: clave no válida o sin permiso para esa Biblia");
    QTest::newRow("one verse") << "Juan 3:16" << 200 << verse << jn316 << text << "";
    QTest::newRow("range") << "1 Co 13:4-7" << 200 << verse << passage("1CO.13.4-1CO.13.7") << text << "";
    QTest::newRow("range of one") << "Juan 3:16-16" << 200 << verse << jn316 << text << "";
    QTest::newRow("401") << "Juan 3:16" << 401 << refused << jn316 << "" << key;
    QTest::newRow("404") << "Juan 3:16" << 404 << refused << jn316 << "" << "API.Bible: sin respuesta (HTTP 404)";
    QTest::newRow("silent") << "Juan 3:16" << 0 << QByteArray() << jn316 << "" << "API.Bible: sin respuesta";
    QTest::newRow("refused") << "Juan 3:16" << -1 << QByteArray() << QByteArray() << "" << "API.Bible: sin respuesta";
    QTest::newRow("blank content") << "Juan 3:16" << 200 << QByteArray(R"({"data":{"content":" \n\t "}})")
                                   << jn316 << "" << "API.Bible no devolvió texto para esa cita";
    for (const char* invalid : {"xyz 3:16", "Rom 8:28-20"})
        QTest::newRow(invalid) << invalid << 200 << verse << QByteArray() << "" << "Cita no válida";

    const QByteArray post = "POST /v1/responses";
    const auto message = [](const QByteArray& content) {
        return R"({"output":[{"type":"message","content":[)" + content + "]}]}";
    };
    QTest::newRow("translation") << "" << 200 << translationReply << post << "Car Dieu a tant aimé le monde" << "";
    QTest::newRow("translation 401") << "" << 401 << QByteArray(R"({"error":{"message":"Incorrect API key"}})")
                                     << post << "" << failedTranslation;
    QTest::newRow("translation without output_text") << "" << 200 << message(R"({"type":"refusal","text":"no"})")
                                                     << post << "" << failedTranslation;
}

QTEST_GUILESS_MAIN(tst_Api)
#include "tst_api.moc"
