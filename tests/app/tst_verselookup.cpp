#include "Canvas.h"
#include "Local.h"
#include "PropertyPanel.h"
#include "SecretStore.h"
#include "StandInHttpServer.h"
#include "StudioWindow.h"
#include "TestHome.h"
#include "i18n.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QSettings>
#include <QTest>
#include <QTimer>

#include <gst/gst.h>
#include <memory>

namespace {

// API.Bible and the AI service stand in on one loopback server. While it holds its answers the
// operator sees the built-in text, or deletes the layer the answer is for.
using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;

const QByteArray fourBibles = R"({"data":[
    {"id":"b32b9d1b64b4ef29-01","abbreviation":"BLP","name":"La Biblia de la Palabra"},
    {"id":"592420522e16049f-01","abbreviation":"RVR60","name":"Reina Valera 1960"},
    {"id":"7c4e1a2b3d5f6071-01","abbreviation":"BTX60","name":"Biblia Textual 1960"},
    {"id":"482ddd53705278cc-02","abbreviation":"VBL","name":"Versión Biblia Libre"}]})";

// Answers every modal box that opens while it lives and keeps its text: a box left open would hold
// the test inside the handler that opened it, so a box that should not be there is caught too.
class BoxWatcher
{
public:
    BoxWatcher()
    {
        timer.setInterval(10);
        QObject::connect(&timer, &QTimer::timeout, &timer, [this] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (!box)
                return;
            seen << box->text();
            if (QAbstractButton* ok = box->button(QMessageBox::Ok))
                ok->click();
            else
                box->reject();
        });
        timer.start();
    }

    QStringList seen;

private:
    QTimer timer;
};

const QString bibleKey = QStringLiteral("abk-verse-7f3e-secret");
const QString aiKey = QStringLiteral("sk-verse-4b1d-secret");
const QString rv1960 = QStringLiteral("592420522e16049f-01");
const QString keyRefused = QStringLiteral("API.Bible: clave no válida o sin permiso para esa Biblia");

// The verses of one chapter of a built-in Bible, numbered as a span of several verses is shown.
QString numbered(const bible::Local& bible, int book, int chapter, int first, int last)
{
    const QJsonArray verses = bible.books.at(book).toArray().at(chapter - 1).toArray();
    QStringList parts;
    for (int verse = first; verse <= last; ++verse)
        parts << QString::number(verse) + u' ' + verses.at(verse - 1).toString();
    return parts.join(u' ');
}

// Juan 3:16 of the Spanish Bible, as one verse is shown: without its number.
QString juan316()
{
    return bible::spanish().books.at(42).toArray().at(2).toArray().at(15).toString();
}

} // namespace

// The verse lookup on a real window: the quick box, the verse layer's own panel and the Bible
// settings of the translation tab, with stand-ins for API.Bible and the AI service on loopback.
class tst_VerseLookup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void lookupsFillTheRightVerseLayer();
    void badReferenceLeavesTheLayer_data();
    void badReferenceLeavesTheLayer();
    void onlineText_data();
    void onlineText();
    void lateReplyForAGoneLayerIsPassedOver_data();
    void lateReplyForAGoneLayerIsPassedOver();
    void listing_data();
    void listing();

private:
    // Writes the settings, then builds the window: the API.Bible client reads its endpoint when the
    // window is made.
    void open(const QVariantMap& settings = {});
    void typeQuickVerse(const QString& text)
    {
        window->quickVerseField->clear();
        QTest::keyClicks(window->quickVerseField, text);
        QTest::keyClick(window->quickVerseField, Qt::Key_Return);
    }
    void addLayer(Layer::Kind kind, const QString& text)
    {
        Layer added;
        added.kind = kind;
        added.text = text;
        window->addLayer(added);
    }
    void click(QWidget* parent, const QString& text);
    QLineEdit* citationField();
    Layer& layer(int index) { return window->scene().layers[std::size_t(index)]; }
    int layerCount() { return int(window->scene().layers.size()); }
    QString status() const { return window->statusLabel->text(); }

    std::unique_ptr<StandInHttpServer> standIn;
    std::unique_ptr<StudioWindow> window;
};

void tst_VerseLookup::init()
{
    standIn = std::make_unique<StandInHttpServer>();
    QVERIFY(standIn->listen());
    QSettings settings;
    settings.clear();
    settings.setValue(QStringLiteral("onboarding_complete"), true);
    settings.setValue(QStringLiteral("apibible_endpoint"), standIn->endpoint());
    settings.setValue(QStringLiteral("openai_endpoint"), standIn->endpoint());
    settings.sync();
    // Each case starts without secrets, and with a log of its own to be read for keys.
    QFile::remove(QFileInfo(StudioWindow::logPath()).path() + QStringLiteral("/secrets.json"));
    QFile::remove(StudioWindow::logPath());
}

// Whatever a case did, no key reached the log.
void tst_VerseLookup::cleanup()
{
    window.reset();
    standIn.reset();
    QFile log(StudioWindow::logPath());
    if (!log.open(QIODevice::ReadOnly))
        return;
    const QString lines = QString::fromUtf8(log.readAll());
    QVERIFY2(!lines.contains(bibleKey), "the API.Bible key reached the log");
    QVERIFY2(!lines.contains(aiKey), "the OpenAI key reached the log");
}

void tst_VerseLookup::open(const QVariantMap& settings)
{
    QSettings store;
    for (auto each = settings.begin(); each != settings.end(); ++each)
        store.setValue(each.key(), each.value());
    store.sync();
    // The stored language, taken as start-up takes it.
    tavrin_i18n::language() = settings.value(QStringLiteral("language"), QStringLiteral("es")).toString();
    window = std::make_unique<StudioWindow>(false);
    // The tick composes three 1080p pictures 30 times a second; nothing here depends on it.
    window->tickTimer.stop();
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    window->tabs->setCurrentIndex(1);
}

void tst_VerseLookup::click(QWidget* parent, const QString& text)
{
    for (QPushButton* each : parent->findChildren<QPushButton*>()) {
        if (each->text() == text)
            return QTest::mouseClick(each, Qt::LeftButton);
    }
    QFAIL(qPrintable(QStringLiteral("no button ") + text));
}

// The "Cita" row of the verse layer's panel; forms replaced by a refresh go first.
QLineEdit* tst_VerseLookup::citationField()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    for (QLineEdit* each : window->propertyPanel->findChildren<QLineEdit*>())
        if (each->placeholderText() == QStringLiteral("Juan 3:16"))
            return each;
    return nullptr;
}

// The quick box makes a verse layer, then fills the verse layer in front; the panel fills the
// selected one.
void tst_VerseLookup::lookupsFillTheRightVerseLayer()
{
    open();
    // Nothing chosen: automatic, following the English subtitles. The operator picks the Spanish Bible.
    QCOMPARE(window->verseLanguage(), QStringLiteral("en"));
    const QStringList values{"auto", "es", "en", "api"};
    for (int i = 0; i < values.size(); ++i)
        QCOMPARE(window->bibleCombo->itemData(i).toString(), values[i]);
    QTest::keyClick(window->bibleCombo, Qt::Key_Down);
    QCOMPARE(QSettings().value(QStringLiteral("bible_choice")).toString(), QStringLiteral("es"));
    typeQuickVerse(QStringLiteral("Salmos 23"));

    QCOMPARE(layerCount(), 2);
    QCOMPARE(layer(1).kind, Layer::Kind::Verse);
    QCOMPARE(layer(1).rect, QRectF(0.08, 0.62, 0.84, 0.3));
    QCOMPARE(layer(1).name, QStringLiteral("Salmos 23"));
    QCOMPARE(layer(1).reference, QStringLiteral("Salmos 23 · RV1909"));
    QCOMPARE(layer(1).text, numbered(bible::spanish(), 18, 23, 1, 6));
    QCOMPARE(window->canvas->selected, 1);
    QCOMPARE(window->layerList->currentItem()->text(), QStringLiteral("Salmos 23"));
    QCOMPARE(status(), QStringLiteral("Versículo listo: Salmos 23"));
    QVERIFY(standIn->requests.isEmpty());

    // A text layer in front is not a verse layer: the verse behind it is used.
    addLayer(Layer::Kind::Text, QStringLiteral("Bienvenidos"));
    QCOMPARE(window->canvas->selected, 2);
    typeQuickVerse(QStringLiteral("Juan 3:16"));
    QCOMPARE(layerCount(), 3);
    QCOMPARE(window->canvas->selected, 1);
    QCOMPARE(layer(1).text, juan316());
    QCOMPARE(layer(2).text, QStringLiteral("Bienvenidos"));

    // With two verse layers, the one in front.
    addLayer(Layer::Kind::Verse, QString());
    window->canvas->select(0);
    typeQuickVerse(QStringLiteral("Salmos 23"));
    QCOMPARE(layerCount(), 4);
    QCOMPARE(window->canvas->selected, 3);
    QCOMPARE(layer(3).name, QStringLiteral("Salmos 23"));
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16"));

    window->canvas->select(1);
    QLineEdit* field = citationField();
    QVERIFY(field);
    field->clear();
    QTest::keyClicks(field, QStringLiteral("Juan 1:1"));
    BoxWatcher boxes;
    click(window->propertyPanel, QStringLiteral("Buscar versículo"));
    QCOMPARE(boxes.seen, QStringList());
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 1:1 · RV1909"));
    QCOMPARE(layer(3).name, QStringLiteral("Salmos 23"));
    QCOMPARE(status(), QStringLiteral("Versículo listo: Juan 1:1"));
    QCOMPARE(window->canvas->selected, 1);
    field = citationField(); // the panel is rebuilt
    QVERIFY(field);
    QCOMPARE(field->text(), QStringLiteral("Juan 1:1"));
}

void tst_VerseLookup::badReferenceLeavesTheLayer_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("where"); // the quick box's Return or button, or the verse layer's panel
    QTest::addColumn<QString>("message");

    const QString missing = QStringLiteral("Esa cita no existe en la Biblia");
    const QString unknown = QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
    QTest::newRow("no such chapter, Return") << "Juan 99:1" << "Return" << missing;
    QTest::newRow("one-chapter book, button") << "Judas 2" << "button" << missing;
    QTest::newRow("garbage, Return") << "hola mundo" << "Return" << unknown;
    QTest::newRow("book without chapter, button") << "Juan" << "button" << unknown;
    QTest::newRow("no such chapter, panel") << "Juan 99:1" << "panel" << missing;
}

// A failure comes before the layer changes. Return in the quick box reports on the status line
// alone; the button and the panel also open a warning box. The field keeps what was typed.
void tst_VerseLookup::badReferenceLeavesTheLayer()
{
    QFETCH(QString, typed);
    QFETCH(QString, where);
    QFETCH(QString, message);

    open({{QStringLiteral("bible_choice"), QStringLiteral("es")}});
    typeQuickVerse(QStringLiteral("Salmos 23"));
    const QString text = layer(1).text;
    QLineEdit* field = where == QLatin1String("panel") ? citationField() : window->quickVerseField;
    QVERIFY(field);
    field->clear();
    QTest::keyClicks(field, typed);
    BoxWatcher boxes;
    if (where == QLatin1String("button"))
        click(window.get(), QStringLiteral("Mostrar versículo"));
    else
        QTest::keyClick(field, Qt::Key_Return);

    QCOMPARE(boxes.seen, where == QLatin1String("Return") ? QStringList() : QStringList{message});
    QCOMPARE(status(), message);
    QCOMPARE(layerCount(), 2);
    QCOMPARE(layer(1).text, text);
    QCOMPARE(layer(1).reference, QStringLiteral("Salmos 23 · RV1909"));
    QCOMPARE(field->text(), typed);
}

void tst_VerseLookup::onlineText_data()
{
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<QString>("typedKey"); // into the API.Bible key field
    QTest::addColumn<QString>("secret");   // the name the key is in the secret store under, if any
    QTest::addColumn<int>("httpStatus");   // 0: the service is not asked
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("label"); // the source the reference names in the end
    QTest::addColumn<QString>("message");

    const QVariantMap rvr60{{"bible_choice", "api"}, {"apibible_id", rv1960}, {"apibible_name", "Reina Valera 1960 (RVR60)"}};
    const QVariantMap french{{"bible_choice", "auto"}, {"translation_target", "Français"}};
    const QString ready = QStringLiteral("Versículo listo: Juan 3:16");
    const QString notSet = QStringLiteral("Versículo mostrado con RV1909: configura la clave y la Biblia de API.Bible "
                                          "en la pestaña Traducción IA y Biblia.");
    const QString noTranslation = QStringLiteral("No se pudo traducir el versículo (revisa la API key de OpenAI)");
    const QByteArray passage = R"({"data":{"content":"\n  Porque de tal manera amó Dios al mundo, que ha dado a su Hijo\n"}})";
    const QByteArray translation =
        R"({"output":[{"type":"message","content":[{"type":"output_text","text":"Car Dieu a tant aimé le monde"}]}]})";
    const QByteArray unauthorized = R"({"error":{"message":"Incorrect API key provided"}})";

    QTest::newRow("Bible's name without abbreviation") << rvr60 << bibleKey << "" << 200 << passage
                                                       << "Reina Valera 1960" << ready;
    QTest::newRow("no entry in the combo") << QVariantMap{{"bible_choice", "api"}, {"apibible_id", rv1960}} << bibleKey
                                           << "" << 200 << passage << "API.Bible" << ready;
    QTest::newRow("API.Bible key from the secret store") << rvr60 << "" << "apibible" << 200 << passage
                                                         << "Reina Valera 1960" << ready;
    QTest::newRow("no API.Bible key") << rvr60 << "" << "" << 0 << QByteArray() << "RV1909" << notSet;
    QTest::newRow("no online Bible") << QVariantMap{{"bible_choice", "api"}} << bibleKey << "" << 0 << QByteArray()
                                     << "RV1909" << notSet;
    QTest::newRow("API.Bible key refused") << rvr60 << bibleKey << "" << 401 << unauthorized << "RV1909"
                                           << keyRefused + QStringLiteral(" · se mantiene RV1909");
    QTest::newRow("no AI key") << french << "" << "" << 0 << QByteArray() << "RV1909"
                               << "Versículo en español; para traducirlo a otro idioma añade la API key de OpenAI.";
    QTest::newRow("translated") << french << "" << "openai" << 200 << translation << "traducción automática" << ready;
    QTest::newRow("AI key refused") << french << "" << "openai" << 401 << unauthorized << "RV1909" << noTranslation;
    // Failures made in Spanish by the clients reach the English interface translated.
    QVariantMap english = rvr60;
    english.insert(QStringLiteral("language"), QStringLiteral("en"));
    QTest::newRow("API.Bible key refused, in English")
        << english << bibleKey << "" << 401 << unauthorized << "RV1909"
        << "API.Bible: invalid key or no permission for that Bible · RV1909 is kept";
    QTest::newRow("API.Bible failing, in English") << english << bibleKey << "" << 502 << QByteArray() << "RV1909"
                                                   << "API.Bible: no response (HTTP 502) · RV1909 is kept";
    english = french;
    english.insert(QStringLiteral("language"), QStringLiteral("en"));
    QTest::newRow("AI key refused, in English") << english << "" << "openai" << 401 << unauthorized << "RV1909"
                                                << "The verse could not be translated (check the OpenAI API key)";
}

// An online Bible, or subtitles in a language of no built-in Bible, which gets the Spanish text
// translated: the built-in text is on the layer while the service is asked, and stays when it fails.
void tst_VerseLookup::onlineText()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QString, typedKey);
    QFETCH(QString, secret);
    QFETCH(int, httpStatus);
    QFETCH(QByteArray, body);
    QFETCH(QString, label);
    QFETCH(QString, message);

    const bool translating = settings.contains(QStringLiteral("translation_target"));
    if (!secret.isEmpty())
        QVERIFY(storeSecret(secret, translating ? aiKey : bibleKey));
    standIn->answer = [&](const Request&) { return Response{httpStatus, body}; };
    standIn->holding = true;
    open(settings);
    QTest::keyClicks(window->apiBibleKeyField, typedKey);
    typeQuickVerse(QStringLiteral("Juan 3:16"));

    QCOMPARE(layer(1).text, juan316());
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · RV1909"));
    if (httpStatus == 0) {
        QCOMPARE(status(), message);
        QVERIFY(standIn->requests.isEmpty());
        return;
    }
    QCOMPARE(status(), translating ? T("Traduciendo versículo...") : T("Consultando API.Bible..."));
    QTRY_COMPARE(standIn->requests.size(), 1);
    const Request& request = standIn->requests.first();
    if (translating) {
        QCOMPARE(request.target, QByteArray("/v1/responses"));
        QCOMPARE(request.headers.value("authorization"), "Bearer " + aiKey.toLatin1());
        const QJsonObject sent = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(sent.value(QStringLiteral("input")).toString(), juan316());
        QVERIFY(sent.value(QStringLiteral("instructions")).toString().contains(QStringLiteral(" into français.")));
    } else {
        QVERIFY2(request.target.startsWith("/v1/bibles/" + rv1960.toLatin1() + "/passages/JHN.3.16?"), request.target.data());
        QCOMPARE(request.headers.value("api-key"), bibleKey.toLatin1());
    }

    standIn->release();
    QTRY_COMPARE(status(), message);
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · ") + label);
    const QString online = translating ? QStringLiteral("Car Dieu a tant aimé le monde")
                                       : QStringLiteral("Porque de tal manera amó Dios al mundo, que ha dado a su Hijo");
    QCOMPARE(layer(1).text, label == QLatin1String("RV1909") ? juan316() : online);
    QCOMPARE(window->layerList->currentItem()->text(), QStringLiteral("Juan 3:16"));
}

void tst_VerseLookup::lateReplyForAGoneLayerIsPassedOver_data()
{
    QTest::addColumn<bool>("textInItsPlace");

    QTest::newRow("layer deleted") << false;
    QTest::newRow("a text layer in its place") << true;
}

void tst_VerseLookup::lateReplyForAGoneLayerIsPassedOver()
{
    QFETCH(bool, textInItsPlace);

    standIn->answer = [](const Request& request) {
        if (request.target.startsWith("/v1/bibles?"))
            return Response{200, R"({"data":[{"id":"b32b9d1b64b4ef29-01","abbreviation":"BLP","name":"BLP"}]})"};
        return Response{200, R"({"data":{"content":"texto que llega tarde"}})"};
    };
    standIn->holding = true;
    open({{QStringLiteral("bible_choice"), QStringLiteral("api")}, {QStringLiteral("apibible_id"), rv1960}});
    QTest::keyClicks(window->apiBibleKeyField, bibleKey);
    typeQuickVerse(QStringLiteral("Juan 3:16"));
    QTRY_COMPARE(standIn->requests.size(), 1);

    QCOMPARE(window->canvas->selected, 1);
    window->removeSelectedLayer();
    if (textInItsPlace)
        addLayer(Layer::Kind::Text, QStringLiteral("Bienvenidos"));

    standIn->release();
    QTRY_COMPARE(standIn->answered, 1);
    // A later answer through the same client: once it is in, the first has been handled too.
    click(window.get(), QStringLiteral("Buscar Biblias en español"));
    QTRY_COMPARE(status(), QStringLiteral("Biblias disponibles: 1"));

    QCOMPARE(layerCount(), textInItsPlace ? 2 : 1);
    QCOMPARE(layer(0).kind, Layer::Kind::Camera);
    if (textInItsPlace) {
        QCOMPARE(layer(1).text, QStringLiteral("Bienvenidos"));
        QCOMPARE(layer(1).reference, QString());
    }
}

void tst_VerseLookup::listing_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<bool>("keyInStore");
    QTest::addColumn<bool>("save");
    QTest::addColumn<int>("httpStatus");
    QTest::addColumn<QString>("message");

    const QString listed = QStringLiteral("Biblias disponibles: 4");
    QTest::newRow("no key") << "   " << false << false << 200 << "Escribe tu clave de API.Bible";
    QTest::newRow("typed, saved") << " " + bibleKey + " " << false << true << 200 << listed;
    QTest::newRow("typed, not saved") << bibleKey << false << false << 200 << listed;
    QTest::newRow("from the secret store") << "" << true << false << 200 << listed;
    QTest::newRow("key refused") << bibleKey << false << false << 401 << keyRefused;
}

// The list replaces an entry from an earlier listing and picks the first 1960 Bible; a failure
// keeps the old entry. The key is kept in the secret store only when asked to.
void tst_VerseLookup::listing()
{
    QFETCH(QString, typed);
    QFETCH(bool, keyInStore);
    QFETCH(bool, save);
    QFETCH(int, httpStatus);
    QFETCH(QString, message);

    standIn->answer = [&](const Request&) {
        return httpStatus == 200 ? Response{200, fourBibles} : Response{httpStatus, R"({"message":"Unauthorized"})"};
    };
    open({{QStringLiteral("apibible_id"), QStringLiteral("old-id")},
          {QStringLiteral("apibible_name"), QStringLiteral("Una Biblia vieja (UBV)")}});
    QComboBox* combo = window->onlineBibleCombo;
    if (keyInStore)
        QVERIFY(storeSecret(QStringLiteral("apibible"), bibleKey));
    QTest::keyClicks(window->apiBibleKeyField, typed);
    window->keySaveCheck->setChecked(save);
    BoxWatcher boxes;
    click(window.get(), QStringLiteral("Buscar Biblias en español"));
    QTRY_COMPARE(status(), message);
    QCOMPARE(boxes.seen, QStringList());
    QCOMPARE(readSecretFile(QStringLiteral("apibible")), save || keyInStore ? bibleKey : QString());

    if (message != QLatin1String("Biblias disponibles: 4")) {
        QCOMPARE(standIn->requests.size(), httpStatus == 200 ? 0 : 1);
        QCOMPARE(combo->count(), 1);
        QCOMPARE(combo->currentText(), QStringLiteral("Una Biblia vieja (UBV)"));
        QCOMPARE(QSettings().value(QStringLiteral("apibible_id")).toString(), QStringLiteral("old-id"));
        return;
    }
    QCOMPARE(standIn->requests.size(), 1);
    QCOMPARE(standIn->requests.first().target, QByteArray("/v1/bibles?language=spa"));
    QCOMPARE(standIn->requests.first().headers.value("api-key"), bibleKey.toLatin1());
    const QStringList names{"La Biblia de la Palabra (BLP)", "Reina Valera 1960 (RVR60)", "Biblia Textual 1960 (BTX60)",
                            "Versión Biblia Libre (VBL)"};
    QCOMPARE(combo->count(), 4);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(combo->itemText(i), names[i]);
    QCOMPARE(combo->currentIndex(), 1);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_id")).toString(), rv1960);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_name")).toString(), names[1]);

    // The operator picks another entry.
    QTest::keyClick(combo, Qt::Key_Down);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_id")).toString(), QStringLiteral("7c4e1a2b3d5f6071-01"));
    QCOMPARE(QSettings().value(QStringLiteral("apibible_name")).toString(), names[2]);
}

int main(int argc, char** argv)
{
    useTestHome(VELMORA_TEST_OUTPUT "/home");
    QApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
    tst_VerseLookup test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_verselookup.moc"
