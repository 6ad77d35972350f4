#include "AudioCapture.h"
#include "Picture.h"
#include "SecretStore.h"
#include "StandInHttpServer.h"
#include "StudioWindow.h"
#include "TestHome.h"
#include "TlsTestPeer.h"
#include "TranslationText.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QRegularExpression>
#include <QSettings>
#include <QTest>

#include <gst/gst.h>
#include <memory>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;

const bool testHome = useTestHome(VELMORA_TEST_OUTPUT "/home");
const QString aiKey = QStringLiteral("sk-panel-5c2e-secret");
const QStringList threePhrases{QStringLiteral("Grace and peace to you all."),
                               QStringLiteral("Let us open the Word together."),
                               QStringLiteral("Today we read John chapter three.")};

// The brightest red of the first and of the last line of text in a picture, -1 when it has no text.
// Older phrases are drawn dimmed and the newest in full white, on the hall's dark blue.
std::pair<int, int> firstAndLastLine(const QImage& picture)
{
    QList<int> rowPeak(picture.height(), 0);
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x)
            rowPeak[y] = std::max(rowPeak[y], qRed(picture.pixel(x, y)));
    const auto isText = [](int peak) { return peak > 100; };
    const qsizetype top = std::find_if(rowPeak.cbegin(), rowPeak.cend(), isText) - rowPeak.cbegin();
    if (top == rowPeak.size())
        return {-1, -1};
    const qsizetype bottom =
        std::find_if(rowPeak.crbegin(), rowPeak.crend(), isText).base() - rowPeak.cbegin();
    const auto peakOf = [&](qsizetype from, qsizetype to) {
        return *std::max_element(rowPeak.cbegin() + from, rowPeak.cbegin() + to);
    };
    return {peakOf(top, top + 20), peakOf(bottom - 20, bottom)};
}

} // namespace

// The translation panel of a real window, its captions on the Hall program picture, and the AI
// service stood in for on loopback.
class tst_TranslationPanel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void startButton_data();
    void startButton();
    void liveModeAtTheNextStart();
    void direction_data();
    void direction();
    void captionsOnTheHall_data();
    void captionsOnTheHall();
    void captionsLeave_data();
    void captionsLeave();
    void statusReports_data();
    void statusReports();
    void keyTest_data();
    void keyTest();
    void liveRoute();

private:
    void open();
    void connectTestTone()
    {
        window->audioCombo->setCurrentIndex(1);
        press(QStringLiteral("Conectar fuentes"));
        QVERIFY(window->capture && window->capture->running);
    }
    void press(const QString& text)
    {
        for (QPushButton* each : window->findChildren<QPushButton*>())
            if (each->text() == text)
                return each->click();
        QFAIL(qPrintable(QStringLiteral("no button ") + text));
    }
    void startSession()
    {
        connectTestTone();
        window->aiKeyField->setText(aiKey);
        press(QStringLiteral("Iniciar traducción"));
        QVERIFY(window->translation.running);
    }
    QImage hallPicture()
    {
        window->frameStage(g_get_monotonic_time());
        return window->hallMonitor->image;
    }
    QString status() const { return window->statusLabel->text(); }

    std::unique_ptr<StandInHttpServer> standIn;
    std::unique_ptr<StudioWindow> window;
};

void tst_TranslationPanel::initTestCase()
{
    QVERIFY(testHome);
    QVERIFY(trustTestCertificate());
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
}

void tst_TranslationPanel::init()
{
    standIn = std::make_unique<StandInHttpServer>();
    QVERIFY(standIn->listen());
    QSettings settings;
    settings.clear();
    settings.setValue(QStringLiteral("onboarding_complete"), true);
    settings.setValue(QStringLiteral("openai_endpoint"), standIn->endpoint());
    settings.sync();
    QFile::remove(QFileInfo(StudioWindow::logPath()).path() + QStringLiteral("/secrets.json"));
    QFile::remove(StudioWindow::logPath());
}

// Whatever a case did, the key never reached the log.
void tst_TranslationPanel::cleanup()
{
    window.reset();
    standIn.reset();
    QFile log(StudioWindow::logPath());
    QVERIFY(!log.open(QIODevice::ReadOnly) || !log.readAll().contains(aiKey.toUtf8()));
}

// The engine reads its endpoint when the window is made. Frames are composed by the test itself.
void tst_TranslationPanel::open()
{
    window = std::make_unique<StudioWindow>(false);
    window->tickTimer.stop();
    window->show();
    QVERIFY(QTest::qWaitForWindowActive(window.get()));
}

void tst_TranslationPanel::startButton_data()
{
    QTest::addColumn<bool>("voiceInput");
    QTest::addColumn<QString>("stored"); // the secret "openai" before the press
    QTest::addColumn<QString>("typed");  // the key field
    QTest::addColumn<bool>("save");
    QTest::addColumn<QString>("shown"); // the status line after the press
    QTest::addColumn<QString>("storedAfter");

    const QString started = QStringLiteral("IA: IA activa; conectando modo en vivo...");
    QTest::newRow("no voice input") << false << "" << aiKey << true
                                    << "Conecta una entrada de voz antes de iniciar IA"
                                    << "";
    QTest::newRow("typed key, saved") << true << "" << aiKey << true << started << aiKey;
    QTest::newRow("typed key, not saved") << true << "" << aiKey << false << started << "";
    QTest::newRow("empty field takes the stored key") << true << aiKey << "" << false << started << aiKey;
    QTest::newRow("field cleared with the box on deletes the key")
        << true << aiKey << "" << true << "Ingresa tu API key"
        << "";
}

void tst_TranslationPanel::startButton()
{
    QFETCH(bool, voiceInput);
    QFETCH(QString, stored);
    QFETCH(QString, typed);
    QFETCH(bool, save);
    QFETCH(QString, shown);
    QFETCH(QString, storedAfter);

    if (!stored.isEmpty())
        QVERIFY(storeSecret(QStringLiteral("openai"), stored));
    open();
    // A stored key is in the field from the start, with the box to keep it checked.
    QCOMPARE(window->aiKeyField->text(), stored);
    QCOMPARE(window->keySaveCheck->isChecked(), !stored.isEmpty());
    if (voiceInput)
        connectTestTone();
    window->aiKeyField->setText(typed);
    window->keySaveCheck->setChecked(save);
    press(QStringLiteral("Iniciar traducción"));
    QCOMPARE(status(), shown);
    QCOMPARE(readSecretFile(QStringLiteral("openai")), storedAfter);
    const bool running = shown.startsWith(QStringLiteral("IA: "));
    QCOMPARE(window->translation.running, running);
    if (!running) {
        QCOMPARE(window->translateButton->text(), QStringLiteral("Iniciar traducción"));
        QVERIFY(standIn->requests.isEmpty());
        return;
    }
    QCOMPARE(window->aiKeyField->text(), aiKey);
    QCOMPARE(window->translateButton->text(), QStringLiteral("Pausar traducción"));
    QCOMPARE(window->translation.targetLanguage, QStringLiteral("English"));
    QTRY_COMPARE(standIn->requests.size(), 1);
    QCOMPARE(standIn->requests[0].headers.value("authorization"), "Bearer " + aiKey.toUtf8());

    // A new speech replaces what is left of the former one.
    window->translation.voiceAudio(QByteArray(48000, '\x10'));
    window->translation.voiceAudio(QByteArray(4800, '\x10'));
    QCOMPARE(window->voiceAudio.size(), std::size_t(4800 / 2 * 4));

    // Pausing ends the session and empties the screens and the voice.
    window->translation.caption(threePhrases[0]);
    press(QStringLiteral("Pausar traducción"));
    QVERIFY(!window->translation.running);
    QCOMPARE(window->translateButton->text(), QStringLiteral("Iniciar traducción"));
    QVERIFY(window->captions.isEmpty() && window->captionText.isEmpty() && window->voiceAudio.empty());
}

void tst_TranslationPanel::liveModeAtTheNextStart()
{
    QSettings().setValue(QStringLiteral("live_mode"), false);
    open();
    QVERIFY(!window->liveModeCheck->isChecked());
    QVERIFY(window->translation.chunkOnly);
    startSession();
    const std::int32_t session = window->translation.generation;
    window->liveModeCheck->click();
    QVERIFY(QSettings().value(QStringLiteral("live_mode")).toBool());
    QVERIFY(!window->translation.chunkOnly);
    // The running session goes on as it started.
    QVERIFY(window->translation.running);
    QCOMPARE(window->translation.generation, session);
}

void tst_TranslationPanel::direction_data()
{
    QTest::addColumn<bool>("running");
    QTest::addColumn<int>("key"); // a shortcut, or 0 for the direction button
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("notice");

    const QString toSpanish = QStringLiteral("Pantallas en español.");
    const QString toEnglish = QStringLiteral("Pantallas en inglés.");
    QTest::newRow("idle, F1") << false << int(Qt::Key_F1) << "Spanish"
                              << "en" << toSpanish;
    QTest::newRow("idle, F2") << false << int(Qt::Key_F2) << "English"
                              << "es" << toEnglish;
    QTest::newRow("idle, button to Spanish") << false << 0 << "Spanish"
                                             << "en" << toSpanish;
    QTest::newRow("running, F1") << true << int(Qt::Key_F1) << "Spanish"
                                 << "en" << toSpanish;
    QTest::newRow("running, button to English") << true << 0 << "English"
                                                << "es" << toEnglish;
}

void tst_TranslationPanel::direction()
{
    QFETCH(bool, running);
    QFETCH(int, key);
    QFETCH(QString, target);
    QFETCH(QString, source);
    QFETCH(QString, notice);

    open();
    window->targetCombo->setEditText(QStringLiteral("Tagalog"));
    if (running) {
        startSession();
        QTRY_COMPARE(standIn->requests.size(), 1);
        window->translation.caption(threePhrases[0]);
    }
    const std::int32_t session = window->translation.generation;
    if (key)
        QTest::keyClick(window.get(), Qt::Key(key));
    else
        press(target == QLatin1String("Spanish")
                  ? QStringLiteral("Predica en INGLÉS → pantallas en español")
                  : QStringLiteral("Predica en ESPAÑOL → pantallas en inglés"));

    QCOMPARE(status(), notice);
    QCOMPARE(window->targetCombo->currentText(), target);
    QCOMPARE(window->sourceLanguage, source);
    QSettings settings;
    QCOMPARE(settings.value(QStringLiteral("translation_target")).toString(), target);
    QCOMPARE(settings.value(QStringLiteral("source_language")).toString(), source);
    QCOMPARE(window->translation.running, running);
    if (!running) {
        QCOMPARE(window->translation.generation, session);
        QVERIFY(standIn->requests.isEmpty());
        return;
    }
    // A running session starts afresh in the new direction.
    QVERIFY(window->translation.generation > session);
    QCOMPARE(window->translation.targetLanguage, target);
    QCOMPARE(window->translation.sourceLanguage, source);
    QCOMPARE(window->translateButton->text(), QStringLiteral("Pausar traducción"));
    QVERIFY(window->captions.isEmpty());
    QTRY_COMPARE(standIn->requests.size(), 2);
}

void tst_TranslationPanel::captionsOnTheHall_data()
{
    QTest::addColumn<int>("separator");
    QTest::addColumn<int>("phrases");
    QTest::addColumn<bool>("newestHighlighted");

    QTest::newRow("one phrase") << 1 << 1 << false;
    QTest::newRow("each on its line") << 1 << 3 << true;
    QTest::newRow("blank row between") << 2 << 3 << true;
    QTest::newRow("one after the other") << 0 << 3 << false;
}

void tst_TranslationPanel::captionsOnTheHall()
{
    QFETCH(int, separator);
    QFETCH(int, phrases);
    QFETCH(bool, newestHighlighted);

    open();
    QCOMPARE(firstAndLastLine(hallPicture()), std::make_pair(-1, -1));
    for (int i = 0; i < phrases; ++i)
        window->translation.caption(u' ' + threePhrases[i] + u'\n');
    window->translation.caption(QStringLiteral("  "));
    // Changing the separator joins the phrases on screen anew, without a new phrase.
    window->separatorCombo->setCurrentIndex(separator);
    QCOMPARE(QSettings().value(QStringLiteral("caption_separator"), 1).toInt(), separator);
    const QStringList shown = threePhrases.mid(0, phrases);
    QCOMPARE(window->captions, shown);
    QCOMPARE(window->captionText, shown.join(window->captionSeparator()));

    const QImage picture = hallPicture();
    const auto [first, last] = firstAndLastLine(picture);
    QVERIFY2(last >= 230, qPrintable(QString::number(last)));
    QVERIFY2(newestHighlighted ? first < 200 : first >= 230, qPrintable(QString::number(first)));
    // The picture of the user guide: three phrases, the newest highlighted.
    if (separator == 1 && phrases == 3)
        QVERIFY(picture.scaled(960, 540, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                    .save(QStringLiteral(VELMORA_TEST_OUTPUT "/translation-hall.png")));
}

void tst_TranslationPanel::captionsLeave_data()
{
    QTest::addColumn<QString>("act");
    QTest::addColumn<bool>("kept");
    QTest::addColumn<bool>("shown");

    QTest::newRow("39 s after the last phrase") << "wait 39" << true << true;
    QTest::newRow("40 s after the last phrase") << "wait 40" << false << false;
    QTest::newRow("screen cleared") << "clear" << false << false;
    QTest::newRow("subtitles hidden") << "hide" << true << false;
}

void tst_TranslationPanel::captionsLeave()
{
    QFETCH(QString, act);
    QFETCH(bool, kept);
    QFETCH(bool, shown);

    open();
    window->translation.caption(threePhrases[0]);
    window->translation.caption(threePhrases[1]);
    QVERIFY(firstAndLastLine(hallPicture()).second >= 230);
    if (act == QLatin1String("wait 39"))
        window->lastCaptionMs -= 39000;
    else if (act == QLatin1String("wait 40"))
        window->lastCaptionMs -= 40001;
    else if (act == QLatin1String("clear"))
        press(QStringLiteral("Limpiar pantalla de subtítulos"));
    else
        window->showCaptionsCheck->click();
    const QImage picture = hallPicture();
    QCOMPARE(window->captions.size(), kept ? 2 : 0);
    QCOMPARE(window->captionText.isEmpty(), !kept);
    QCOMPARE(firstAndLastLine(picture).first != -1, shown);
}

void tst_TranslationPanel::statusReports_data()
{
    QTest::addColumn<QString>("event");
    QTest::addColumn<QString>("report");
    QTest::addColumn<bool>("sessionEnded"); // the session ended by itself: button back, screens empty

    QTest::newRow("a report of a running session")
        << "report"
        << "Subtítulo actualizado · 1.2 s después de la frase" << false;
    QTest::newRow("three hours reached")
        << "limit"
        << "IA pausada tras 3 horas; inicia otra sesion si corresponde." << true;
    // A refused key reports while the session still counts as running, and ends it right after.
    QTest::newRow("refused key") << "fatal"
                                 << "Transcripcion: API key o permisos no validos." << false;
}

void tst_TranslationPanel::statusReports()
{
    QFETCH(QString, event);
    QFETCH(QString, report);
    QFETCH(bool, sessionEnded);

    open();
    standIn->answer = [](const Request& request) {
        if (request.target.endsWith("audio/transcriptions"))
            return Response{401, R"({"error":{"message":"Incorrect API key provided."}})", false};
        return Response{200, "{}", false};
    };
    startSession();
    window->translation.caption(threePhrases[0]);
    window->translation.voiceAudio(QByteArray(4800, '\x10'));

    if (event == QLatin1String("report")) {
        window->translation.statusChanged(report);
    } else if (event == QLatin1String("limit")) {
        window->translation.nowMs = [start = window->translation.sessionStart] {
            return start + Translation::sessionLimitMs + 1;
        };
        tavrin::AudioBlock block;
        block.samples.assign(3200, 0.0f);
        window->translation.feed(block);
    } else {
        window->translation.segments.push_back(
            {0, translation_text::wavFile(std::vector<std::int16_t>(16000, 0))});
        window->translation.pump();
        QTRY_VERIFY(!window->translation.running);
    }
    QCOMPARE(window->aiStatusLabel->text(), report);
    QCOMPARE(status(), QStringLiteral("IA: ") + report);
    QFile log(StudioWindow::logPath());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(QString::fromUtf8(log.readAll()).contains(QStringLiteral("IA: ") + report + u'\n'));
    QCOMPARE(window->translateButton->text(),
             sessionEnded ? QStringLiteral("Iniciar traducción") : QStringLiteral("Pausar traducción"));
    QCOMPARE(window->captions.isEmpty(), sessionEnded);
    QCOMPARE(window->voiceAudio.empty(), sessionEnded);

    // The button follows the engine: after any end a press starts afresh.
    if (!window->translation.running) {
        press(window->translateButton->text());
        QVERIFY(window->translation.running);
        QCOMPARE(window->translateButton->text(), QStringLiteral("Pausar traducción"));
    }
}

void tst_TranslationPanel::keyTest_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("stored");
    QTest::addColumn<int>("httpStatus");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("shown"); // a pattern

    const QByteArray ok = R"({"output":[{"content":[{"type":"output_text","text":"OK"}]}]})";
    const QString answered =
        QStringLiteral("^API OK: respondió en \\d+ ms\\. La traducción está lista para usarse\\.$");
    QTest::newRow("typed key answered") << aiKey << "" << 200 << ok << answered;
    QTest::newRow("stored key answered") << "" << aiKey << 200 << ok << answered;
    QTest::newRow("refused")
        << aiKey << "" << 401
        << QByteArray(R"({"error":{"message":"Incorrect API key provided.","code":"invalid_api_key"}})")
        << "^API con error HTTP 401: Incorrect API key provided\\.$";
    QTest::newRow("no key") << ""
                            << "" << 0 << QByteArray() << "^Ingresa tu API key$";
}

void tst_TranslationPanel::keyTest()
{
    QFETCH(QString, typed);
    QFETCH(QString, stored);
    QFETCH(int, httpStatus);
    QFETCH(QByteArray, body);
    QFETCH(QString, shown);

    if (!stored.isEmpty())
        QVERIFY(storeSecret(QStringLiteral("openai"), stored));
    open();
    standIn->answer = [httpStatus, body](const Request&) { return Response{httpStatus, body, false}; };
    window->aiKeyField->setText(typed);
    press(QStringLiteral("Probar API key ahora"));
    if (httpStatus == 0) {
        QVERIFY(QRegularExpression(shown).match(status()).hasMatch());
        QVERIFY(standIn->requests.isEmpty());
        return;
    }
    // No session is needed.
    QVERIFY(!window->translation.running);
    QCOMPARE(status(), QStringLiteral("Probando la API de OpenAI..."));
    QTRY_VERIFY2(QRegularExpression(shown).match(status()).hasMatch(), qPrintable(status()));
    QCOMPARE(standIn->requests.size(), 1);
    const Request& sent = standIn->requests[0];
    QCOMPARE(sent.method, "POST");
    QCOMPARE(sent.target, "/v1/responses");
    QCOMPARE(sent.headers.value("authorization"), "Bearer " + aiKey.toUtf8());
    QCOMPARE(sent.headers.value("content-type"), "application/json");
    QCOMPARE(readSecretFile(QStringLiteral("openai")), stored);
    QCOMPARE(QJsonDocument::fromJson(sent.body).object(), QJsonObject({{"model", "gpt-4.1-mini"},
                                                                       {"input", "Responde solo: OK"},
                                                                       {"max_output_tokens", 16},
                                                                       {"store", false}}));
}

// The live route in the window: partial text only on the Heard line, a finished turn on the
// screens, and phrases cut locally once the link is lost.
void tst_TranslationPanel::liveRoute()
{
    standIn->answer = [](const Request&) {
        return Response{200, R"({"output":[{"content":[{"type":"output_text","text":"Brothers, good morning."}]}]})"};
    };
    RawTlsPeer peer;
    open();
    window->translation.live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(peer.server.serverPort());
    startSession();
    QTRY_VERIFY(peer.handshaken());
    const auto said = [&peer](const QByteArray& json) { peer.socket->write(serverFrame(0x81, json)); };
    peer.socket->write("HTTP/1.1 101 Switching Protocols\r\n\r\n");
    said(R"({"type":"session.updated"})");
    QTRY_COMPARE(status(), QStringLiteral("IA: Modo en vivo activo (texto mientras se habla)."));
    said(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"Hermanos, "})");
    said(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"buenos días"})");
    QTRY_COMPARE(window->heardLabel->text(), QStringLiteral("Escuchado: … Hermanos, buenos días"));
    QVERIFY(window->captions.isEmpty());
    said(R"({"type":"conversation.item.input_audio_transcription.completed","transcript":"Hermanos, buenos días."})");
    QTRY_COMPARE(window->captions, QStringList{QStringLiteral("Brothers, good morning.")});
    QCOMPARE(window->heardLabel->text(), QStringLiteral("Escuchado: Hermanos, buenos días."));
    QVERIFY(firstAndLastLine(hallPicture()).first > 100);

    peer.socket->abort();
    QTRY_COMPARE(status(), QStringLiteral("IA: Modo en vivo no disponible; se usa modo por trozos."));
    QVERIFY(!window->translation.live.ready);
}

QTEST_MAIN(tst_TranslationPanel)
#include "tst_translationpanel.moc"
