#include "Canvas.h"
#include "Local.h"
#include "PropertyPanel.h"
#include "SecretStore.h"
#include "StandInHttpServer.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
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

constexpr auto json = &StandInHttpServer::json;

Response passageReply(const QString& content)
{
    return {200, json({{QStringLiteral("data"), QJsonObject{{QStringLiteral("content"), content}}}})};
}

Response translationReply(const QString& text)
{
    const QJsonObject part{{QStringLiteral("type"), QStringLiteral("output_text")}, {QStringLiteral("text"), text}};
    const QJsonObject message{{QStringLiteral("type"), QStringLiteral("message")},
                              {QStringLiteral("content"), QJsonArray{part}}};
    return {200, json({{QStringLiteral("output"), QJsonArray{message}}})};
}

Response biblesReply(const QList<std::array<const char*, 3>>& bibles)
{
    QJsonArray data;
    for (const auto& [id, abbreviation, name] : bibles)
        data.append(QJsonObject{{QStringLiteral("id"), QString::fromUtf8(id)},
                                {QStringLiteral("abbreviation"), QString::fromUtf8(abbreviation)},
                                {QStringLiteral("name"), QString::fromUtf8(name)}});
    return {200, json({{QStringLiteral("data"), data}})};
}

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
constexpr int psalms = 18;
constexpr int john = 42;

// The verses of one chapter of a built-in Bible, numbered as a span of several verses is shown.
QString numbered(const bible::Local& bible, int book, int chapter, int first, int last)
{
    const QJsonArray verses = bible.books.at(book).toArray().at(chapter - 1).toArray();
    QStringList parts;
    for (int verse = first; verse <= last; ++verse)
        parts << QString::number(verse) + u' ' + verses.at(verse - 1).toString();
    return parts.join(u' ');
}

QString verseOf(const bible::Local& bible, int book, int chapter, int verse)
{
    return bible.books.at(book).toArray().at(chapter - 1).toArray().at(verse - 1).toString();
}

} // namespace

// The verse lookup on a real window: the quick box, the verse layer's own panel and the Bible
// settings of the translation tab, with stand-ins for API.Bible and the AI service on loopback.
class tst_VerseLookup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void quickBoxFillsANewVerseLayer_data();
    void quickBoxFillsANewVerseLayer();
    void bibleComboWritesTheChoice();
    void laterLookupsReuseTheFrontVerseLayer();
    void rangeStopsAtTheChapterEnd();
    void badReferenceLeavesTheLayer_data();
    void badReferenceLeavesTheLayer();
    void onlineBibleWithoutSettingsKeepsBuiltIn_data();
    void onlineBibleWithoutSettingsKeepsBuiltIn();
    void onlineBibleReplacesBuiltInText_data();
    void onlineBibleReplacesBuiltInText();
    void onlineBibleFailureKeepsBuiltInText_data();
    void onlineBibleFailureKeepsBuiltInText();
    void lateReplyForAGoneLayerIsPassedOver_data();
    void lateReplyForAGoneLayerIsPassedOver();
    void otherLanguageWithoutAiKey();
    void otherLanguageIsTranslated_data();
    void otherLanguageIsTranslated();
    void listingNeedsAKey();
    void listingFillsTheOnlineCombo_data();
    void listingFillsTheOnlineCombo();
    void listingError();
    void verseLayerPanelLooksUpTheSelectedLayer_data();
    void verseLayerPanelLooksUpTheSelectedLayer();

private:
    // Builds the window after the test has written its settings: the API.Bible client reads its
    // endpoint when the window is made.
    void open();
    void setting(const QString& key, const QVariant& value);
    void typeQuickVerse(const QString& text);
    QPushButton* buttonNamed(QWidget* parent, const QString& text);
    QLineEdit* citationField();
    Layer& layer(int index) { return window->scene().layers[std::size_t(index)]; }
    int layerCount() { return int(window->scene().layers.size()); }
    QString status() const { return window->statusLabel->text(); }

    std::unique_ptr<StandInHttpServer> standIn;
    std::unique_ptr<StudioWindow> window;
};

void tst_VerseLookup::initTestCase()
{
    QVERIFY(bible::spanish().valid);
    QVERIFY(bible::english().valid);
}

void tst_VerseLookup::init()
{
    standIn = std::make_unique<StandInHttpServer>();
    QVERIFY(standIn->listen());
    QSettings settings;
    settings.clear();
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

void tst_VerseLookup::open()
{
    window = std::make_unique<StudioWindow>(false);
    // The tick composes three 1080p pictures 30 times a second; nothing here depends on it.
    window->tickTimer.stop();
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    window->tabs->setCurrentIndex(1);
}

void tst_VerseLookup::setting(const QString& key, const QVariant& value)
{
    QSettings settings;
    settings.setValue(key, value);
    settings.sync();
}

void tst_VerseLookup::typeQuickVerse(const QString& text)
{
    window->quickVerseField->clear();
    QTest::keyClicks(window->quickVerseField, text);
    QTest::keyClick(window->quickVerseField, Qt::Key_Return);
}

QPushButton* tst_VerseLookup::buttonNamed(QWidget* parent, const QString& text)
{
    for (QPushButton* each : parent->findChildren<QPushButton*>())
        if (each->text() == text)
            return each;
    return nullptr;
}

// The "Cita" row of the verse layer's panel; forms replaced by a refresh go first.
QLineEdit* tst_VerseLookup::citationField()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const auto fields = window->propertyPanel->findChildren<QLineEdit*>();
    for (QLineEdit* each : fields)
        if (each->placeholderText() == QStringLiteral("Juan 3:16"))
            return each;
    return nullptr;
}

void tst_VerseLookup::quickBoxFillsANewVerseLayer_data()
{
    QTest::addColumn<QString>("choice"); // empty: not written, so the defaults count
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("english");

    QTest::newRow("es") << "es" << "English" << false;
    QTest::newRow("en") << "en" << "Spanish" << true;
    QTest::newRow("auto, English") << "auto" << "English" << true;
    QTest::newRow("auto, Spanish") << "auto" << "Spanish" << false;
    QTest::newRow("auto, Español") << "auto" << "Español" << false;
    QTest::newRow("auto, Inglés") << "auto" << "Inglés" << true;
    QTest::newRow("nothing chosen: English") << "" << "" << true;
}

void tst_VerseLookup::quickBoxFillsANewVerseLayer()
{
    QFETCH(QString, choice);
    QFETCH(QString, target);
    QFETCH(bool, english);

    if (!choice.isEmpty())
        setting(QStringLiteral("bible_choice"), choice);
    if (!target.isEmpty())
        setting(QStringLiteral("translation_target"), target);
    open();
    QCOMPARE(layerCount(), 1);

    typeQuickVerse(QStringLiteral("Salmos 23"));

    QCOMPARE(layerCount(), 2);
    const Layer& verse = layer(1);
    QCOMPARE(verse.kind, Layer::Kind::Verse);
    QCOMPARE(verse.rect, QRectF(0.08, 0.62, 0.84, 0.3));
    const QString name = english ? QStringLiteral("Psalms 23") : QStringLiteral("Salmos 23");
    QCOMPARE(verse.name, name);
    QCOMPARE(verse.reference, name + (english ? QStringLiteral(" · KJV") : QStringLiteral(" · RV1909")));
    QCOMPARE(verse.text, numbered(english ? bible::english() : bible::spanish(), psalms, 23, 1, 6));
    QVERIFY2(verse.text.startsWith(english ? QStringLiteral("1 The LORD is my shepherd; I shall not want. 2 He maketh")
                                           : QStringLiteral("1 JEHOVÁ es mi pastor; nada me faltará. 2 En lugares")),
             qPrintable(verse.text));
    QVERIFY(verse.text.contains(QStringLiteral(" 6 ")));

    QCOMPARE(window->canvas->selected, 1);
    QCOMPARE(window->layerList->currentItem()->text(), name);
    QLineEdit* citation = citationField();
    QVERIFY(citation);
    QCOMPARE(citation->text(), name);
    QCOMPARE(status(), QStringLiteral("Versículo listo: ") + name);
    QCOMPARE(window->quickVerseField->text(), QStringLiteral("Salmos 23"));
    QVERIFY(standIn->requests.isEmpty());

    // What the status line said is in the log too.
    QFile log(StudioWindow::logPath());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(QString::fromUtf8(log.readAll()).contains(QStringLiteral("UI: Versículo listo: ") + name));
}

// The combo shows the stored choice and writes every change, which the next lookup follows.
void tst_VerseLookup::bibleComboWritesTheChoice()
{
    setting(QStringLiteral("bible_choice"), QStringLiteral("en"));
    open();
    QComboBox* combo = window->bibleCombo;
    const QStringList texts{"Automática según idioma de subtítulos", "Español · Reina-Valera 1909 (incluida)",
                            "Inglés · King James Version (incluida)",
                            "API.Bible (p. ej. Reina-Valera 1960, con tu clave)"};
    const QStringList values{"auto", "es", "en", "api"};
    QCOMPARE(combo->count(), 4);
    for (int i = 0; i < 4; ++i) {
        QCOMPARE(combo->itemText(i), texts[i]);
        QCOMPARE(combo->itemData(i).toString(), values[i]);
    }
    QCOMPARE(combo->currentIndex(), 2);

    typeQuickVerse(QStringLiteral("Juan 3:16"));
    QCOMPARE(layer(1).reference, QStringLiteral("John 3:16 · KJV"));

    QTest::keyClick(combo, Qt::Key_Up); // the operator picks the Spanish Bible
    QCOMPARE(combo->currentIndex(), 1);
    QCOMPARE(QSettings().value(QStringLiteral("bible_choice")).toString(), QStringLiteral("es"));
    typeQuickVerse(QStringLiteral("Juan 3:16"));
    QCOMPARE(layerCount(), 2);
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · RV1909"));
    QCOMPARE(layer(1).text, verseOf(bible::spanish(), john, 3, 16));
}

void tst_VerseLookup::laterLookupsReuseTheFrontVerseLayer()
{
    setting(QStringLiteral("bible_choice"), QStringLiteral("es"));
    open();
    typeQuickVerse(QStringLiteral("Salmos 23"));
    QCOMPARE(layerCount(), 2);

    // A text layer in front is not a verse layer: the verse behind it is used.
    Layer title;
    title.kind = Layer::Kind::Text;
    title.text = QStringLiteral("Bienvenidos");
    window->addLayer(title);
    QCOMPARE(window->canvas->selected, 2);
    typeQuickVerse(QStringLiteral("Juan 3:16"));
    QCOMPARE(layerCount(), 3);
    QCOMPARE(window->canvas->selected, 1);
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16"));
    QCOMPARE(layer(1).text, verseOf(bible::spanish(), john, 3, 16)); // one verse comes without its number
    QCOMPARE(layer(2).text, QStringLiteral("Bienvenidos"));
    QCOMPARE(status(), QStringLiteral("Versículo listo: Juan 3:16"));

    // With two verse layers, the one in front.
    Layer front;
    front.kind = Layer::Kind::Verse;
    front.text = QStringLiteral("otro");
    window->addLayer(front);
    window->canvas->select(0);
    typeQuickVerse(QStringLiteral("Juan 1:1"));
    QCOMPARE(layerCount(), 4);
    QCOMPARE(window->canvas->selected, 3);
    QCOMPARE(layer(3).name, QStringLiteral("Juan 1:1"));
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16"));
}

void tst_VerseLookup::rangeStopsAtTheChapterEnd()
{
    setting(QStringLiteral("bible_choice"), QStringLiteral("es"));
    open();
    typeQuickVerse(QStringLiteral("Juan 3:16-999"));
    QCOMPARE(layerCount(), 2);
    QCOMPARE(layer(1).text, numbered(bible::spanish(), john, 3, 16, 36));
    QVERIFY(layer(1).text.startsWith(QStringLiteral("16 Porque de tal manera amó Dios al mundo")));
    QVERIFY(layer(1).text.contains(QStringLiteral(" 36 El que cree en el Hijo")));
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16-999"));
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16-999 · RV1909"));
}

void tst_VerseLookup::badReferenceLeavesTheLayer_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<bool>("button");
    QTest::addColumn<QString>("message");

    const QString missing = QStringLiteral("Esa cita no existe en la Biblia");
    const QString unknown = QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
    QTest::newRow("no such chapter, Return") << "Juan 99:1" << false << missing;
    QTest::newRow("no such chapter, button") << "Juan 99:1" << true << missing;
    QTest::newRow("verse past the chapter") << "Juan 3:37" << false << missing;
    QTest::newRow("one-chapter book") << "Judas 2" << false << missing;
    QTest::newRow("garbage, Return") << "hola mundo" << false << unknown;
    QTest::newRow("garbage, button") << "hola mundo" << true << unknown;
    QTest::newRow("book without chapter") << "Juan" << false << unknown;
}

// A failure comes before the layer changes. Return reports on the status line alone; the button
// also opens a warning box. The field keeps what was typed, to be corrected.
void tst_VerseLookup::badReferenceLeavesTheLayer()
{
    QFETCH(QString, typed);
    QFETCH(bool, button);
    QFETCH(QString, message);

    setting(QStringLiteral("bible_choice"), QStringLiteral("es"));
    open();
    typeQuickVerse(QStringLiteral("Salmos 23"));
    const QString text = layer(1).text;

    BoxWatcher boxes;
    window->quickVerseField->clear();
    QTest::keyClicks(window->quickVerseField, typed);
    if (button) {
        QPushButton* show = buttonNamed(window.get(), QStringLiteral("Mostrar versículo"));
        QVERIFY(show);
        QTest::mouseClick(show, Qt::LeftButton);
        QCOMPARE(boxes.seen, QStringList{message});
    } else {
        QTest::keyClick(window->quickVerseField, Qt::Key_Return);
        QCOMPARE(boxes.seen, QStringList());
    }
    QCOMPARE(status(), message);
    QCOMPARE(layerCount(), 2);
    QCOMPARE(layer(1).text, text);
    QCOMPARE(layer(1).name, QStringLiteral("Salmos 23"));
    QCOMPARE(layer(1).reference, QStringLiteral("Salmos 23 · RV1909"));
    QCOMPARE(window->quickVerseField->text(), typed);
}

void tst_VerseLookup::onlineBibleWithoutSettingsKeepsBuiltIn_data()
{
    QTest::addColumn<bool>("withKey");
    QTest::addColumn<bool>("withBible");

    QTest::newRow("neither") << false << false;
    QTest::newRow("key, no Bible") << true << false;
    QTest::newRow("Bible, no key") << false << true;
}

void tst_VerseLookup::onlineBibleWithoutSettingsKeepsBuiltIn()
{
    QFETCH(bool, withKey);
    QFETCH(bool, withBible);

    setting(QStringLiteral("bible_choice"), QStringLiteral("api"));
    if (withBible)
        setting(QStringLiteral("apibible_id"), rv1960);
    open();
    if (withKey)
        QTest::keyClicks(window->apiBibleKeyField, bibleKey);
    typeQuickVerse(QStringLiteral("Salmos 23"));

    QCOMPARE(layer(1).text, numbered(bible::spanish(), psalms, 23, 1, 6));
    QCOMPARE(layer(1).reference, QStringLiteral("Salmos 23 · RV1909"));
    QCOMPARE(status(), QStringLiteral("Versículo mostrado con RV1909: configura la clave y la Biblia de API.Bible en "
                                      "la pestaña Traducción IA y Biblia."));
    QVERIFY(standIn->requests.isEmpty());
}

void tst_VerseLookup::onlineBibleReplacesBuiltInText_data()
{
    QTest::addColumn<QString>("storedName"); // what the online combo holds from earlier
    QTest::addColumn<bool>("keyInStore");
    QTest::addColumn<QString>("label");

    QTest::newRow("name and abbreviation") << "Reina Valera 1960 (RVR60)" << false << "Reina Valera 1960";
    QTest::newRow("name alone") << "Mi Biblia" << false << "Mi Biblia";
    QTest::newRow("no entry in the combo") << "" << false << "API.Bible";
    QTest::newRow("key from the secret store") << "Reina Valera 1960 (RVR60)" << true << "Reina Valera 1960";
}

void tst_VerseLookup::onlineBibleReplacesBuiltInText()
{
    QFETCH(QString, storedName);
    QFETCH(bool, keyInStore);
    QFETCH(QString, label);

    setting(QStringLiteral("bible_choice"), QStringLiteral("api"));
    setting(QStringLiteral("apibible_id"), rv1960);
    if (!storedName.isEmpty())
        setting(QStringLiteral("apibible_name"), storedName);
    const QString online = QStringLiteral("Porque de tal manera amó Dios al mundo, que ha dado a su Hijo unigénito");
    standIn->answer = [&](const Request&) { return passageReply(QStringLiteral("\n  ") + online + QStringLiteral("\n")); };
    standIn->holding = true;
    open();
    if (keyInStore)
        QVERIFY(storeSecret(QStringLiteral("apibible"), bibleKey));
    else
        QTest::keyClicks(window->apiBibleKeyField, bibleKey);

    typeQuickVerse(QStringLiteral("Juan 3:16"));

    // The built-in text is on the layer while the service is asked.
    QCOMPARE(layer(1).text, verseOf(bible::spanish(), john, 3, 16));
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · RV1909"));
    QCOMPARE(status(), QStringLiteral("Consultando API.Bible..."));
    QTRY_COMPARE(standIn->requests.size(), 1);
    const Request& request = standIn->requests.first();
    QCOMPARE(request.method, QByteArray("GET"));
    QVERIFY2(request.target.startsWith("/v1/bibles/" + rv1960.toLatin1() + "/passages/JHN.3.16?"), request.target.constData());
    QCOMPARE(request.headers.value("api-key"), bibleKey.toLatin1());

    standIn->release();
    QTRY_COMPARE(layer(1).text, online);
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · ") + label);
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16"));
    QCOMPARE(status(), QStringLiteral("Versículo listo: Juan 3:16"));
    QCOMPARE(window->layerList->currentItem()->text(), QStringLiteral("Juan 3:16"));
}

void tst_VerseLookup::onlineBibleFailureKeepsBuiltInText_data()
{
    QTest::addColumn<int>("httpStatus");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("message");

    QTest::newRow("401") << 401 << QByteArray(R"({"statusCode":401,"message":"Unauthorized"})")
                         << "API.Bible: clave no válida o sin permiso para esa Biblia · se mantiene RV1909";
    QTest::newRow("500") << 500 << QByteArray("{}") << "API.Bible: sin respuesta (HTTP 500) · se mantiene RV1909";
    QTest::newRow("no text") << 200 << json({{QStringLiteral("data"), QJsonObject{{QStringLiteral("content"), QString()}}}})
                             << "API.Bible no devolvió texto para esa cita · se mantiene RV1909";
}

void tst_VerseLookup::onlineBibleFailureKeepsBuiltInText()
{
    QFETCH(int, httpStatus);
    QFETCH(QByteArray, body);
    QFETCH(QString, message);

    setting(QStringLiteral("bible_choice"), QStringLiteral("api"));
    setting(QStringLiteral("apibible_id"), rv1960);
    setting(QStringLiteral("apibible_name"), QStringLiteral("Reina Valera 1960 (RVR60)"));
    standIn->answer = [&](const Request&) { return Response{httpStatus, body}; };
    open();
    QTest::keyClicks(window->apiBibleKeyField, bibleKey);
    typeQuickVerse(QStringLiteral("Salmos 23"));

    QTRY_COMPARE(status(), message);
    QCOMPARE(standIn->requests.size(), 1);
    QCOMPARE(layer(1).text, numbered(bible::spanish(), psalms, 23, 1, 6));
    QCOMPARE(layer(1).reference, QStringLiteral("Salmos 23 · RV1909"));
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

    setting(QStringLiteral("bible_choice"), QStringLiteral("api"));
    setting(QStringLiteral("apibible_id"), rv1960);
    standIn->answer = [](const Request& request) {
        if (request.target.startsWith("/v1/bibles?"))
            return biblesReply({{"b32b9d1b64b4ef29-01", "BLP", "La Biblia de la Palabra"}});
        return passageReply(QStringLiteral("texto que llega tarde"));
    };
    standIn->holding = true;
    open();
    QTest::keyClicks(window->apiBibleKeyField, bibleKey);
    typeQuickVerse(QStringLiteral("Juan 3:16"));
    QTRY_COMPARE(standIn->requests.size(), 1);

    QCOMPARE(window->canvas->selected, 1);
    window->removeSelectedLayer();
    QCOMPARE(layerCount(), 1);
    if (textInItsPlace) {
        Layer title;
        title.kind = Layer::Kind::Text;
        title.text = QStringLiteral("Bienvenidos");
        window->addLayer(title);
    }

    standIn->release();
    QTRY_COMPARE(standIn->answered, 1);
    // A later answer through the same client: once it is in, the first has been handled too.
    QPushButton* list = buttonNamed(window.get(), QStringLiteral("Buscar Biblias en español"));
    QVERIFY(list);
    QTest::mouseClick(list, Qt::LeftButton);
    QTRY_COMPARE(status(), QStringLiteral("Biblias disponibles: 1"));

    QCOMPARE(layerCount(), textInItsPlace ? 2 : 1);
    QCOMPARE(layer(0).kind, Layer::Kind::Camera);
    if (textInItsPlace) {
        QCOMPARE(layer(1).kind, Layer::Kind::Text);
        QCOMPARE(layer(1).text, QStringLiteral("Bienvenidos"));
        QCOMPARE(layer(1).reference, QString());
    }
}

void tst_VerseLookup::otherLanguageWithoutAiKey()
{
    setting(QStringLiteral("bible_choice"), QStringLiteral("auto"));
    setting(QStringLiteral("translation_target"), QStringLiteral("Français"));
    open();
    QCOMPARE(window->verseLanguage(), QStringLiteral("other:français"));
    typeQuickVerse(QStringLiteral("Juan 3:16"));

    QCOMPARE(layer(1).text, verseOf(bible::spanish(), john, 3, 16));
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · RV1909"));
    QCOMPARE(status(),
             QStringLiteral("Versículo en español; para traducirlo a otro idioma añade la API key de OpenAI."));
    QVERIFY(standIn->requests.isEmpty());
}

void tst_VerseLookup::otherLanguageIsTranslated_data()
{
    QTest::addColumn<int>("httpStatus");
    QTest::addColumn<bool>("translated");

    QTest::newRow("translated") << 200 << true;
    QTest::newRow("key refused") << 401 << false;
}

void tst_VerseLookup::otherLanguageIsTranslated()
{
    QFETCH(int, httpStatus);
    QFETCH(bool, translated);

    setting(QStringLiteral("translation_target"), QStringLiteral("Français"));
    QVERIFY(storeSecret(QStringLiteral("openai"), aiKey));
    const QString french = QStringLiteral("Car Dieu a tant aimé le monde qu'il a donné son Fils unique");
    standIn->answer = [&](const Request&) {
        return httpStatus == 200 ? translationReply(french)
                                 : Response{httpStatus, R"({"error":{"message":"Incorrect API key provided"}})"};
    };
    standIn->holding = true;
    open();
    typeQuickVerse(QStringLiteral("Juan 3:16"));

    const QString spanish = verseOf(bible::spanish(), john, 3, 16);
    QCOMPARE(layer(1).text, spanish);
    QCOMPARE(status(), QStringLiteral("Traduciendo versículo..."));
    QTRY_COMPARE(standIn->requests.size(), 1);
    const Request& request = standIn->requests.first();
    QCOMPARE(request.method, QByteArray("POST"));
    QCOMPARE(request.target, QByteArray("/v1/responses"));
    QCOMPARE(request.headers.value("authorization"), "Bearer " + aiKey.toLatin1());
    const QJsonObject body = QJsonDocument::fromJson(request.body).object();
    QCOMPARE(body.value(QStringLiteral("input")).toString(), spanish);
    QCOMPARE(body.value(QStringLiteral("instructions")).toString(),
             QStringLiteral("Translate this Bible passage faithfully into français. Return only the translated "
                            "passage, no commentary."));

    standIn->release();
    if (translated) {
        QTRY_COMPARE(layer(1).text, french);
        QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · traducción automática"));
        QCOMPARE(status(), QStringLiteral("Versículo listo: Juan 3:16"));
    } else {
        QTRY_COMPARE(status(), QStringLiteral("No se pudo traducir el versículo (revisa la API key de OpenAI)"));
        QCOMPARE(layer(1).text, spanish);
        QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · RV1909"));
    }
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16"));
}

void tst_VerseLookup::listingNeedsAKey()
{
    open();
    QPushButton* list = buttonNamed(window.get(), QStringLiteral("Buscar Biblias en español"));
    QVERIFY(list);
    QTest::keyClicks(window->apiBibleKeyField, QStringLiteral("   "));
    BoxWatcher boxes;
    QTest::mouseClick(list, Qt::LeftButton);
    QCOMPARE(status(), QStringLiteral("Escribe tu clave de API.Bible"));
    QCOMPARE(boxes.seen, QStringList());
    QVERIFY(standIn->requests.isEmpty());
}

void tst_VerseLookup::listingFillsTheOnlineCombo_data()
{
    QTest::addColumn<bool>("keyInStore");
    QTest::addColumn<bool>("save");

    QTest::newRow("typed, saved") << false << true;
    QTest::newRow("typed, not saved") << false << false;
    QTest::newRow("from the secret store") << true << false;
}

void tst_VerseLookup::listingFillsTheOnlineCombo()
{
    QFETCH(bool, keyInStore);
    QFETCH(bool, save);

    // An entry from an earlier listing goes when the new list comes.
    setting(QStringLiteral("apibible_id"), QStringLiteral("old-id"));
    setting(QStringLiteral("apibible_name"), QStringLiteral("Una Biblia vieja (UBV)"));
    standIn->answer = [](const Request&) {
        return biblesReply({{"b32b9d1b64b4ef29-01", "BLP", "La Biblia de la Palabra"},
                            {"592420522e16049f-01", "RVR60", "Reina Valera 1960"},
                            {"7c4e1a2b3d5f6071-01", "BTX60", "Biblia Textual 1960"},
                            {"482ddd53705278cc-02", "VBL", "Versión Biblia Libre"}});
    };
    open();
    QComboBox* combo = window->onlineBibleCombo;
    QCOMPARE(combo->count(), 1);
    if (keyInStore)
        QVERIFY(storeSecret(QStringLiteral("apibible"), bibleKey));
    else
        QTest::keyClicks(window->apiBibleKeyField, QStringLiteral(" ") + bibleKey + QStringLiteral(" "));
    window->keySaveCheck->setChecked(save);

    QTest::mouseClick(buttonNamed(window.get(), QStringLiteral("Buscar Biblias en español")), Qt::LeftButton);
    QTRY_COMPARE(status(), QStringLiteral("Biblias disponibles: 4"));

    QCOMPARE(standIn->requests.size(), 1);
    QCOMPARE(standIn->requests.first().target, QByteArray("/v1/bibles?language=spa"));
    QCOMPARE(standIn->requests.first().headers.value("api-key"), bibleKey.toLatin1());
    const QStringList names{"La Biblia de la Palabra (BLP)", "Reina Valera 1960 (RVR60)", "Biblia Textual 1960 (BTX60)",
                            "Versión Biblia Libre (VBL)"};
    const QStringList ids{"b32b9d1b64b4ef29-01", "592420522e16049f-01", "7c4e1a2b3d5f6071-01", "482ddd53705278cc-02"};
    QCOMPARE(combo->count(), 4);
    for (int i = 0; i < 4; ++i) {
        QCOMPARE(combo->itemText(i), names[i]);
        QCOMPARE(combo->itemData(i).toString(), ids[i]);
    }
    QCOMPARE(combo->currentIndex(), 1);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_id")).toString(), ids[1]);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_name")).toString(), names[1]);
    QCOMPARE(readSecretFile(QStringLiteral("apibible")), save || keyInStore ? bibleKey : QString());

    // The operator picks another entry.
    QTest::keyClick(combo, Qt::Key_Down);
    QCOMPARE(combo->currentIndex(), 2);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_id")).toString(), ids[2]);
    QCOMPARE(QSettings().value(QStringLiteral("apibible_name")).toString(), names[2]);
}

void tst_VerseLookup::listingError()
{
    setting(QStringLiteral("apibible_id"), rv1960);
    setting(QStringLiteral("apibible_name"), QStringLiteral("Reina Valera 1960 (RVR60)"));
    standIn->answer = [](const Request&) { return Response{401, R"({"message":"Unauthorized"})"}; };
    open();
    QTest::keyClicks(window->apiBibleKeyField, bibleKey);
    QTest::mouseClick(buttonNamed(window.get(), QStringLiteral("Buscar Biblias en español")), Qt::LeftButton);
    QCOMPARE(status(), QStringLiteral("Consultando API.Bible..."));
    QTRY_COMPARE(status(), QStringLiteral("API.Bible: clave no válida o sin permiso para esa Biblia"));
    QCOMPARE(window->onlineBibleCombo->count(), 1);
    QCOMPARE(window->onlineBibleCombo->currentText(), QStringLiteral("Reina Valera 1960 (RVR60)"));
    QCOMPARE(QSettings().value(QStringLiteral("apibible_id")).toString(), rv1960);
}

void tst_VerseLookup::verseLayerPanelLooksUpTheSelectedLayer_data()
{
    QTest::addColumn<bool>("button");
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("failure"); // empty: the lookup succeeds

    QTest::newRow("Return") << false << "Juan 3:16" << "";
    QTest::newRow("button") << true << "Juan 3:16" << "";
    QTest::newRow("no such chapter") << false << "Juan 99:1" << "Esa cita no existe en la Biblia";
}

// The panel works on the selected layer, even with another verse layer in front of it.
void tst_VerseLookup::verseLayerPanelLooksUpTheSelectedLayer()
{
    QFETCH(bool, button);
    QFETCH(QString, typed);
    QFETCH(QString, failure);

    setting(QStringLiteral("bible_choice"), QStringLiteral("es"));
    open();
    for (const char* text : {"detrás", "delante"}) {
        Layer verse;
        verse.kind = Layer::Kind::Verse;
        verse.text = QString::fromUtf8(text);
        window->addLayer(verse);
    }
    window->canvas->select(1);
    QLineEdit* field = citationField();
    QVERIFY(field);
    QCOMPARE(field->text(), QString());
    QTest::keyClicks(field, typed);

    BoxWatcher boxes;
    if (button) {
        QPushButton* find = buttonNamed(window->propertyPanel, QStringLiteral("Buscar versículo"));
        QVERIFY(find);
        QTest::mouseClick(find, Qt::LeftButton);
    } else {
        QTest::keyClick(field, Qt::Key_Return);
    }

    QCOMPARE(layer(2).text, QStringLiteral("delante"));
    if (!failure.isEmpty()) {
        QCOMPARE(status(), failure);
        QCOMPARE(boxes.seen, QStringList{failure});
        QCOMPARE(layer(1).text, QStringLiteral("detrás"));
        return;
    }
    QCOMPARE(boxes.seen, QStringList());
    QCOMPARE(layer(1).text, verseOf(bible::spanish(), john, 3, 16));
    QCOMPARE(layer(1).reference, QStringLiteral("Juan 3:16 · RV1909"));
    QCOMPARE(layer(1).name, QStringLiteral("Juan 3:16"));
    QCOMPARE(status(), QStringLiteral("Versículo listo: Juan 3:16"));
    QCOMPARE(window->canvas->selected, 1);
    // The rebuilt panel shows the citation and the Bible apart.
    field = citationField();
    QVERIFY(field);
    QCOMPARE(field->text(), QStringLiteral("Juan 3:16"));
    bool bibleShown = false;
    for (QLabel* label : window->propertyPanel->findChildren<QLabel*>())
        bibleShown = bibleShown || label->text() == QStringLiteral("RV1909");
    QVERIFY(bibleShown);
}

// Settings, secrets and the log stay in the test's own folders, also when it is run by hand, and
// the secret store never reaches the user's keyring.
int main(int argc, char** argv)
{
    const QByteArray home = VELMORA_TEST_OUTPUT "/home";
    QDir().mkpath(QString::fromUtf8(home));
    qputenv("HOME", home);
    qputenv("XDG_CONFIG_HOME", home + "/config");
    qputenv("XDG_DATA_HOME", home + "/data");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home + "/no-bus");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    QApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
    tst_VerseLookup test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_verselookup.moc"
