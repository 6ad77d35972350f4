#include "Api.h"
#include "Local.h"
#include "Passage.h"
#include "Peers.h"
#include "Reference.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>
#include <QTcpServer>
#include <QTest>

#include <memory>
#include <stdexcept>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;

const QByteArray bibleKey = "abk-7f3e-secret", aiKey = "sk-test-4b1d-secret";
const QString rv1960 = QStringLiteral("592420522e16049f-01");
const QString failedTranslation = QStringLiteral("No se pudo traducir el versículo (revisa la API key de OpenAI)");

// Reasoning items carry no text and parts other than output_text are passed over; the first output_text wins.
const QByteArray translationReply = R"({"id":"resp_1","output":[{"type":"reasoning","summary":[]},)"
    R"({"type":"message","content":[{"type":"refusal","text":"not this"},)"
    R"({"type":"output_text","text":"  Car Dieu a tant aimé le monde\n"},{"type":"output_text","text":"nor"}]},)"
    R"({"type":"message","content":[{"type":"output_text","text":"nor this one"}]}]})";

QSettings settings() { return QSettings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio")); }

struct Answer { int calls = 0; bool insideTheCall = false; QString text, error; };

// One call (a translation when `typed` is empty), waiting up to `waitMs` for an answer.
std::shared_ptr<Answer> ask(bible::Api& api, QObject* parent, const QString& typed, int waitMs = 5000)
{
    auto answer = std::make_shared<Answer>();
    auto done = [answer](const QString& text, const QString& error) {
        *answer = {answer->calls + 1, false, text, error};
    };
    if (typed.isEmpty())
        bible::translateVerse(parent, aiKey, QStringLiteral("Porque de tal manera amó Dios al mundo"),
                              QStringLiteral("français"), std::move(done));
    else
        api.passage(bibleKey, rv1960, bible::parse(typed), std::move(done));
    answer->insideTheCall = answer->calls > 0;
    static_cast<void>(QTest::qWaitFor([&answer] { return answer->calls > 0; }, waitMs));
    return answer;
}

enum : int { Genesis = 0, Judges = 6, Psalms = 18, John = 42, Hebrews = 57, John3 = 63 };

const bible::Local& bibleFor(const QString& language)
{
    static const bible::Local absent(QStringLiteral(":/bible-xx-none.qz"));
    return language == "none" ? absent : language == "en" ? bible::english() : bible::spanish();
}

} // namespace

class tst_Bible : public QObject
{
    Q_OBJECT
    std::unique_ptr<StandInHttpServer> standIn;

private Q_SLOTS:
    void initTestCase() { QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, VELMORA_TEST_OUTPUT "/s"); }

    void init()
    {
        standIn = std::make_unique<StandInHttpServer>();
        QVERIFY(standIn->listen());
    }

    void answers_data();

    // One answer, from the event loop; each key travels in its own service's header alone.
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

    // An owner destroyed with a request out (the window closing) takes the request along: no answer, no crash.
    void ownerGone()
    {
        standIn->answer = [](const Request&) { return Response{200, {}, true}; };
        settings().setValue("openai_endpoint", standIn->endpoint());
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

    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QList<int>>("ref"); // book, chapter, verse, end verse
        QTest::newRow("iii juan, whole chapter") << "iii juan 1" << QList<int>{John3, 1, 0, 0};
        QTest::newRow("en dash range") << QStringLiteral("Salmos 23:1\u20133") << QList<int>{Psalms, 23, 1, 3};
        QTest::newRow("upper case, dot, blanks, glued") << "\tGÉNESIS1 . 28 - 30 " << QList<int>{Genesis, 1, 28, 30};
        QTest::newRow("chapter overflows an int") << "Juan 99999999999:1" << QList<int>{John, 0, 1, 1};
        QTest::newRow("ju resolves by the longest candidate") << "ju 1:1" << QList<int>{Judges, 1, 1, 1};
        QTest::newRow("he exact beats the earlier hechos") << "he 11:1" << QList<int>{Hebrews, 11, 1, 1};
        for (const char* bad : {"j 3:16", "Genesis", "Romanos 8:28-", "Juan 3:16:17", "iiii juan 1:1"})
            QTest::newRow(bad) << bad << QList<int>{-1, 0, 0, 0};
    }
    void parse()
    {
        QFETCH(QString, text);
        const bible::Ref ref = bible::parse(text);
        QTEST((QList<int>{ref.book, ref.chapter, ref.verse, ref.endVerse}), "ref");
    }

    void lookup_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("language"); // of the Bible: "es", "en", or "none" for one that did not load
        QTest::addColumn<int>("first");        // the verses shown, of the chapter named; 0 for an error
        QTest::addColumn<int>("last");
        QTest::addColumn<QString>("outcome"); // the reference shown, or the error message
        QTest::newRow("whole chapter") << "Juan 3" << "es" << 1 << 36 << "Juan 3 · RV1909";
        QTest::newRow("one verse comes bare") << "Juan 3:16" << "es" << 16 << 16 << "Juan 3:16 · RV1909";
        QTest::newRow("range stops at chapter end") << "Juan 3:16-999" << "es" << 16 << 36 << "Juan 3:16-999 · RV1909";
        QTest::newRow("Spanish name, English Bible") << "Juan 3:16-18" << "en" << 16 << 18 << "John 3:16-18 · KJV";
        const QString unknown = QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
        const QString missing = QStringLiteral("Esa cita no existe en la Biblia");
        QTest::newRow("book without chapter") << "Genesis" << "en" << 0 << 0 << unknown;
        QTest::newRow("chapter 0") << "Juan 0:1" << "es" << 0 << 0 << unknown;
        QTest::newRow("no such chapter") << "Juan 22" << "es" << 0 << 0 << missing;
        QTest::newRow("verse past the end") << "Juan 3:37-40" << "es" << 0 << 0 << missing;
        QTest::newRow("Bible did not load") << "Juan 3:16" << "none" << 0 << 0 << "Biblia incluida no disponible";
        // The operator's typing mistake is named even when the Bible is missing too.
        QTest::newRow("bad reference, no Bible") << "xyz" << "none" << 0 << 0 << unknown;
    }

    // A range or a chapter numbers each verse, single blanks between; one verse comes without its number.
    void lookup()
    {
        QFETCH(QString, typed);
        QFETCH(QString, language);
        QFETCH(int, first);
        QFETCH(int, last);
        QFETCH(QString, outcome);
        const bible::Ref ref = bible::parse(typed);
        bible::Passage passage;
        try {
            passage = bible::passageText(ref, bibleFor(language), language);
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), outcome);
            QCOMPARE(first, 0);
            return;
        }
        const QJsonArray chapter = bibleFor(language).books.at(ref.book).toArray().at(ref.chapter - 1).toArray();
        QStringList expected;
        for (int n = first; n <= last; ++n)
            expected << (first == last ? QString() : QString::number(n) + u' ') + chapter.at(n - 1).toString();
        QVERIFY(first > 0);
        QCOMPARE(passage.text, expected.join(u' '));
        QCOMPARE(passage.reference, outcome);
        QCOMPARE(passage.name, outcome.section(QStringLiteral(" · "), 0, 0));
    }

    // Verses shown in one language and named in another; the online Bible starts from the Spanish text.
    void naming()
    {
        const auto shown = [](const char* choice, const char* translation) {
            const QString language = bible::verseLanguageFor(choice, translation);
            return language + ' ' + bible::builtInPassage(bible::parse(QStringLiteral("jn 3:16")), language).reference;
        };
        QCOMPARE(shown("auto", "  Inglés (US) "), QStringLiteral("en John 3:16 · KJV"));
        QCOMPARE(shown("auto", "Français"), QStringLiteral("other:français Juan 3:16 · RV1909"));
        QCOMPARE(shown("", "Spanish"), QStringLiteral("es Juan 3:16 · RV1909"));
        QCOMPARE(shown("en", "Español"), QStringLiteral("en John 3:16 · KJV"));
        const auto formatted = [](const char* typed, const char* language = "es") {
            return bible::formatRef(bible::parse(typed), language);
        };
        QCOMPARE(formatted("1 Co 13:4\u20137"), "1 Corintios 13:4-7"); // an en dash written as a hyphen
        QCOMPARE(formatted("Rom 8:28-20"), "Romanos 8:28"); // a reversed end is dropped
        QCOMPARE(formatted("Juan 3:16", "ES"), "John 3:16");  // only exactly "es" is Spanish
        QCOMPARE(formatted("Genesis"), "");
    }
};

void tst_Bible::answers_data()
{
    QTest::addColumn<QString>("typed"); // the passage asked for; empty: a translation
    QTest::addColumn<int>("status");    // -1: nothing listens; 0: never answers
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("request"); // what the service is sent; empty: nothing is asked
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    const auto passage = [](const QByteArray& id) {
        return "GET /v1/bibles/" + rv1960.toLatin1() + "/passages/" + id +
               "?content-type=text&include-notes=false&include-titles=false&include-chapter-numbers=false"
               "&include-verse-numbers=" + (id.contains('-') ? "true" : "false") + "&include-verse-spans=false";
    };
    const QByteArray verse = R"({"data":{"content":"\n     [16] Porque de tal manera\n amó Dios\tal mundo,  \n"}})";
    const QString text = QStringLiteral("[16] Porque de tal manera amó Dios al mundo,");
    const QByteArray refused = R"({"statusCode":401,"message":"nope"})", jn316 = passage("JHN.3.16");
    QTest::newRow("one verse") << "Juan 3:16" << 200 << verse << jn316 << text << "";
    QTest::newRow("range") << "1 Co 13:4-7" << 200 << verse << passage("1CO.13.4-1CO.13.7") << text << "";
    QTest::newRow("401") << "Juan 3:16" << 401 << refused << jn316 << ""
                         << "API.Bible: clave no válida o sin permiso para esa Biblia";
    QTest::newRow("404") << "Juan 3:16" << 404 << refused << jn316 << "" << "API.Bible: sin respuesta (HTTP 404)";
    QTest::newRow("silent") << "Juan 3:16" << 0 << QByteArray() << jn316 << "" << "API.Bible: sin respuesta";
    QTest::newRow("refused") << "Juan 3:16" << -1 << QByteArray() << QByteArray() << "" << "API.Bible: sin respuesta";
    QTest::newRow("blank content") << "Juan 3:16" << 200 << QByteArray(R"({"data":{"content":" \n\t "}})")
                                   << jn316 << "" << "API.Bible no devolvió texto para esa cita";
    for (const char* invalid : {"xyz 3:16", "Rom 8:28-20"})
        QTest::newRow(invalid) << invalid << 200 << verse << QByteArray() << "" << "Cita no válida";

    const QByteArray post = "POST /v1/responses";
    QTest::newRow("translation") << "" << 200 << translationReply << post << "Car Dieu a tant aimé le monde" << "";
    QTest::newRow("translation 401") << "" << 401 << QByteArray(R"({"error":{"message":"Incorrect API key"}})")
                                     << post << "" << failedTranslation;
    QTest::newRow("translation without output_text")
        << "" << 200 << QByteArray(R"({"output":[{"type":"message","content":[{"type":"refusal"}]}]})") << post << ""
        << failedTranslation;
}

QTEST_GUILESS_MAIN(tst_Bible)
#include "tst_bible.moc"
