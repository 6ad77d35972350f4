#include "Canvas.h"
#include "Local.h"
#include "Peers.h"
#include "PropertyPanel.h"
#include "SecretStore.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"
#include "i18n.h"

#include <QTest>
#include <QtWidgets>

using namespace Qt::Literals::StringLiterals;
using Response = StandInHttpServer::Response;

namespace {
const bool testHome = useTestHome(VELMORA_TEST_OUTPUT "/home");
const QString bibleKey = u"abk-verse-7f3e-secret"_s, rv1960 = u"592420522e16049f-01"_s;
const QString keyRefused = u"API.Bible: clave no válida o sin permiso para esa Biblia"_s;
QString john316() { return bible::spanish().books.at(42).toArray().at(2).toArray().at(15).toString(); }
// Runs `act`, accepting the modal box it opens; returns the box's text, empty without one.
QString boxDuring(const std::function<void()>& act)
{
    auto text = std::make_shared<QString>();
    QTimer::singleShot(0, [text] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            *text = box->text(), box->accept();
    });
    act();
    QCoreApplication::processEvents(); // no stale check is left for a later box
    return *text;
}
struct Online // settings, key typed, stored secret, the answer (code 0: not asked), source named, status
{
    QVariantMap settings;
    QString typedKey, secret;
    int code;
    QByteArray body;
    QString label, message;
};
} // namespace
Q_DECLARE_METATYPE(Online)

// The verse lookup of a real window, with API.Bible and the AI service stood in for on loopback.
class tst_VerseLookup : public QObject
{
    Q_OBJECT
    std::unique_ptr<StandInHttpServer> standIn;
    std::unique_ptr<StudioWindow> window;

    void open(const QVariantMap& settings = {}) // the clients read their endpoints when the window is made
    {
        for (auto each = settings.begin(); each != settings.end(); ++each)
            QSettings().setValue(each.key(), each.value());
        tavrin_i18n::language() = settings.value(u"language"_s, u"es"_s).toString();
        window = std::make_unique<StudioWindow>(false);
        window->tickTimer.stop();
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
        window->tabs->setCurrentIndex(1);
    }
    QString type(QLineEdit* field, const QString& text, bool enter = true) // the box Return opened, if any
    {
        field->clear();
        QTest::keyClicks(field, text);
        return enter ? boxDuring([field] { QTest::keyClick(field, Qt::Key_Return); }) : QString();
    }
    QString click(QWidget* parent, const QString& text) // the box it opened, if any
    {
        for (QPushButton* each : parent->findChildren<QPushButton*>())
            if (each->text() == text)
                return boxDuring([each] { QTest::mouseClick(each, Qt::LeftButton); });
        return u"no button "_s + text;
    }
    QLineEdit* citationField() // the verse panel's, after forms replaced by a refresh are gone
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        for (QLineEdit* each : window->propertyPanel->findChildren<QLineEdit*>())
            if (each->placeholderText() == u"Juan 3:16"_s)
                return each;
        return nullptr;
    }
    Layer& layer(int index) { return window->scene().layers[std::size_t(index)]; }
    QString status() const { return window->statusLabel->text(); }

private Q_SLOTS:
    void init()
    {
        prepareStudioTest();
        standIn = std::make_unique<StandInHttpServer>();
        QVERIFY(testHome && standIn->listen());
        clearStudioState();
        QSettings().setValue(u"apibible_endpoint"_s, standIn->endpoint());
        QSettings().setValue(u"openai_endpoint"_s, standIn->endpoint());
    }
    void cleanup() // whatever a case did, no key reached the log
    {
        window.reset();
        QFile log(StudioWindow::logPath());
        QVERIFY(!log.open(QIODevice::ReadOnly) || !log.readAll().contains("-secret"));
    }

    // The quick box fills the frontmost verse layer, the panel the selected one; a bad citation changes nothing.
    // A listing picks the first of two 1960 Bibles; a failure keeps the old one; the key is stored when asked.
    void lookupsAndListing()
    {
        open({{u"apibible_id"_s, u"old-id"_s}, {u"apibible_name"_s, u"Una Biblia vieja (UBV)"_s}});
        QCOMPARE(window->verseLanguage(), u"en"_s); // automatic: following the English subtitles
        QTest::keyClick(window->bibleCombo, Qt::Key_Down); // to the Spanish Bible
        window->addLayer(Layer::fromJson({{"kind", "verse"}}));
        window->addLayer(Layer::fromJson({{"kind", "text"}})); // a text layer in front is passed over
        window->canvas->select(0);
        type(window->quickVerseField, u"Juan 3:16"_s);
        QCOMPARE(window->canvas->selected, 1);
        QCOMPARE(layer(1).text, john316());
        window->addLayer(Layer::fromJson({{"kind", "verse"}}));
        window->canvas->select(1);
        type(citationField(), u"Juan 1:1"_s, false);
        QCOMPARE(click(window->propertyPanel, u"Buscar versículo"_s), QString());
        QCOMPARE(layer(1).reference, u"Juan 1:1 · RV1909"_s);
        const QString missing = u"Esa cita no existe en la Biblia"_s;
        for (const auto& [typed, where, message] :
             {std::tuple{u"Juan 99:1"_s, "Return"_L1, missing}, {u"Judas 2"_s, "panel"_L1, missing},
              {u"Juan"_s, "button"_L1, u"Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23"_s}}) {
            QLineEdit* field = where == "panel"_L1 ? citationField() : window->quickVerseField;
            const QString box = where != "button"_L1
                                    ? type(field, typed)
                                    : (type(field, typed, false), click(window.get(), u"Mostrar versículo"_s));
            QCOMPARE(box, where == "Return"_L1 ? QString() : message);
            QCOMPARE(status(), message);
            QVERIFY(layer(1).reference == u"Juan 1:1 · RV1909"_s && layer(3).text.isEmpty() && field->text() == typed);
        }
        QVERIFY(standIn->requests.isEmpty());

        int code = 401;
        standIn->answer = [&code](const auto&) {
            return Response{code, code != 200 ? R"({"message":"Unauthorized"})" : R"({"data":[
                {"id":"592420522e16049f-01","abbreviation":"RVR60","name":"Reina Valera 1960"},
                {"id":"7c4e1a2b3d5f6071-01","abbreviation":"BTX60","name":"Biblia Textual 1960"}]})"};
        };
        const auto list = [this](const QString& typed, bool save, const QString& message, int asked) {
            type(window->apiBibleKeyField, typed, false);
            window->keySaveCheck->setChecked(save);
            QCOMPARE(click(window.get(), u"Buscar Biblias en español"_s), QString());
            QTRY_COMPARE(status(), message);
            QCOMPARE(standIn->requests.size(), asked);
        };
        const auto stored = [] { return QSettings().value(u"apibible_id"_s).toString(); };
        list(u"   "_s, false, u"Escribe tu clave de API.Bible"_s, 0);
        list(bibleKey, false, keyRefused, 1);
        QCOMPARE(window->onlineBibleCombo->currentText(), u"Una Biblia vieja (UBV)"_s);
        QVERIFY(stored() == u"old-id"_s && readSecretFile(u"apibible"_s).isEmpty());
        code = 200;
        list(u" "_s + bibleKey + u" "_s, true, u"Biblias disponibles: 2"_s, 2);
        QCOMPARE(window->onlineBibleCombo->currentIndex(), 0);
        QVERIFY(stored() == rv1960 && readSecretFile(u"apibible"_s) == bibleKey);
        list(QString(), false, u"Biblias disponibles: 2"_s, 3); // from the secret store
        for (const auto& request : std::as_const(standIn->requests)) // trimmed, and from the store
            QCOMPARE(request.headers.value("api-key"), bibleKey.toLatin1());
        QTest::keyClick(window->onlineBibleCombo, Qt::Key_Down); // the operator picks another
        QCOMPARE(stored(), u"7c4e1a2b3d5f6071-01"_s);
    }

    void onlineText_data()
    {
        QTest::addColumn<Online>("row");
        QVariantMap api{{"bible_choice", "api"}, {"apibible_id", rv1960}}, french{{"translation_target", "Français"}};
        const QString ready = u"Versículo listo: Juan 3:16"_s;
        const QString notSet = u"Versículo mostrado con RV1909: configura la clave y la Biblia de API.Bible "
                               u"en la pestaña Traducción IA y Biblia."_s;
        const QByteArray passage = R"({"data":{"content":"\n  Porque de tal manera amó Dios\n"}})";
        const QByteArray refused = R"({"error":{"message":"Incorrect API key provided"}})";
        QTest::newRow("no AI key") << Online{french, "", "", 0, {}, "RV1909", "Versículo en español; para traducirlo "
                                             "a otro idioma añade la API key de OpenAI."};
        QTest::newRow("translated") << Online{french, "", "openai", 200,
                                              R"({"output":[{"content":[{"type":"output_text","text":"Car"}]}]})",
                                              "traducción automática", ready};
        QTest::newRow("AI key refused") << Online{french, "", "openai", 401, refused, "RV1909",
                                                  "No se pudo traducir el versículo (revisa la API key de OpenAI)"};
        api.insert(u"apibible_name"_s, u"Reina Valera 1960 (RVR60)"_s);
        QTest::newRow("stored key") << Online{api, "", "apibible", 200, passage, "Reina Valera 1960", ready};
        QTest::newRow("no key") << Online{api, "", "", 0, {}, "RV1909", notSet};
        api.insert(u"language"_s, u"en"_s); // failures made in Spanish by the clients reach English translated
        QTest::newRow("failing, English")
            << Online{api, bibleKey, "", 502, {}, "RV1909", "API.Bible: no response (HTTP 502) · RV1909 is kept"};
    }
    void onlineText()
    {
        QFETCH(Online, row);
        const bool translating = row.settings.contains(u"translation_target"_s);
        const QString key = translating ? u"sk-verse-4b1d-secret"_s : bibleKey;
        QVERIFY(row.secret.isEmpty() || storeSecret(row.secret, key));
        standIn->answer = [&row](const auto&) { return Response{row.code, row.body}; };
        standIn->holding = true;
        open(row.settings);
        QTest::keyClicks(window->apiBibleKeyField, row.typedKey);
        type(window->quickVerseField, u"Juan 3:16"_s);
        QCOMPARE(layer(1).text, john316());
        QTRY_COMPARE(standIn->requests.size(), row.code ? 1 : 0);
        if (row.code) {
            const StandInHttpServer::Request& sent = standIn->requests.first();
            QVERIFY(QByteArrayList(sent.headers.values()).join().contains(key.toUtf8()));
            QVERIFY(translating ? sent.body.contains(" into français.") && sent.body.contains(john316().toUtf8())
                                : sent.target.startsWith("/v1/bibles/" + rv1960.toLatin1() + "/passages/JHN.3.16?"));
            standIn->release();
        }
        QTRY_COMPARE(status(), row.message);
        QCOMPARE(layer(1).reference, u"Juan 3:16 · "_s + row.label);
        const QString online = translating ? u"Car"_s : u"Porque de tal manera amó Dios"_s;
        QCOMPARE(layer(1).text, row.label == "RV1909"_L1 ? john316() : online);
    }
};

QTEST_MAIN(tst_VerseLookup)
#include "tst_verselookup.moc"
