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
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using Response = StandInHttpServer::Response;

namespace {

const bool testHome = useTestHome(VELMORA_TEST_OUTPUT "/home");
const QString aiKey = u"sk-panel-5c2e-secret"_s;
const QStringList phrases{u"Grace and peace to you all."_s, u"Let us open the Word together."_s,
                          u"Today we read John chapter three."_s};

// The AI service's answer with `text` as its output.
QByteArray answer(const QByteArray& text)
{
    return R"({"output":[{"content":[{"type":"output_text","text":")" + text + R"("}]}]})";
}

// The brightest red of the first and of the last line of text in a picture, -1 without text: older
// phrases are drawn dimmed, the newest in full white, on the hall's dark blue.
std::pair<int, int> firstAndLastLine(const QImage& picture)
{
    QList<int> peaks; // of the rows with text
    for (int y = 0; y < picture.height(); ++y) {
        int peak = 0;
        for (int x = 0; x < picture.width(); ++x)
            peak = std::max(peak, qRed(picture.pixel(x, y)));
        if (peak > 100)
            peaks << peak;
    }
    if (peaks.isEmpty())
        return {-1, -1};
    const qsizetype span = std::min<qsizetype>(20, peaks.size());
    return {*std::max_element(peaks.cbegin(), peaks.cbegin() + span),
            *std::max_element(peaks.cend() - span, peaks.cend())};
}

// The secret "openai" before the press of Start and after, the key typed, the box to keep it, the status.
struct Start
{
    bool voiceInput;
    QString stored, typed;
    bool save;
    QString shown, storedAfter;
};

} // namespace

Q_DECLARE_METATYPE(Start)

// The translation panel of a real window, its captions on the Hall picture, the AI service on loopback.
class tst_TranslationPanel : public QObject
{
    Q_OBJECT

    std::unique_ptr<StandInHttpServer> standIn;
    std::unique_ptr<StudioWindow> window;

    void open() // the engine reads its endpoint when the window is made; frames are composed by the test
    {
        window = std::make_unique<StudioWindow>(false);
        window->tickTimer.stop();
        window->show();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
    }
    void press(const QString& text)
    {
        for (QPushButton* each : window->findChildren<QPushButton*>())
            if (each->text() == text)
                return each->click();
        QFAIL(qPrintable(u"no button "_s + text));
    }
    void connectTone()
    {
        window->audioCombo->setCurrentIndex(1);
        press(u"Conectar fuentes"_s);
        QVERIFY(window->capture && window->capture->running);
    }
    void startSession()
    {
        connectTone();
        window->aiKeyField->setText(aiKey);
        press(u"Iniciar traducción"_s);
    }
    QImage hallPicture()
    {
        window->frameStage(g_get_monotonic_time());
        return window->hallMonitor->image;
    }
    QString status() const { return window->statusLabel->text(); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(testHome && trustTestCertificate());
        QCoreApplication::setOrganizationName(u"Lorvane"_s);
        QCoreApplication::setApplicationName(u"TavrinStudio"_s);
        gst_init(nullptr, nullptr);
    }

    void init()
    {
        standIn = std::make_unique<StandInHttpServer>();
        QVERIFY(standIn->listen());
        QSettings settings;
        settings.clear();
        settings.setValue(u"onboarding_complete"_s, true);
        settings.setValue(u"openai_endpoint"_s, standIn->endpoint());
        QFile::remove(QFileInfo(StudioWindow::logPath()).path() + u"/secrets.json"_s);
        QFile::remove(StudioWindow::logPath());
    }

    void cleanup() // whatever a case did, the key never reached the log
    {
        window.reset();
        standIn.reset();
        QFile log(StudioWindow::logPath());
        QVERIFY(!log.open(QIODevice::ReadOnly) || !log.readAll().contains(aiKey.toUtf8()));
    }

    void startButton_data()
    {
        QTest::addColumn<Start>("row");
        const QString started = u"IA: IA activa; conectando modo en vivo..."_s;
        QTest::newRow("no voice input")
            << Start{false, "", aiKey, true, "Conecta una entrada de voz antes de iniciar IA", ""};
        QTest::newRow("typed key, saved") << Start{true, "", aiKey, true, started, aiKey};
        QTest::newRow("typed key, not saved") << Start{true, "", aiKey, false, started, ""};
        QTest::newRow("empty field takes the stored key") << Start{true, aiKey, "", false, started, aiKey};
        QTest::newRow("field cleared, box on: key deleted") << Start{true, aiKey, "", true, "Ingresa tu API key", ""};
    }
    void startButton()
    {
        QFETCH(Start, row);
        const auto& [voiceInput, stored, typed, save, shown, storedAfter] = row;
        QVERIFY(stored.isEmpty() || storeSecret(u"openai"_s, stored));
        open();
        QCOMPARE(window->aiKeyField->text(), stored); // a stored key is in the field, the box checked
        QCOMPARE(window->keySaveCheck->isChecked(), !stored.isEmpty());
        if (voiceInput)
            connectTone();
        window->aiKeyField->setText(typed);
        window->keySaveCheck->setChecked(save);
        press(u"Iniciar traducción"_s);
        QCOMPARE(status(), shown);
        QCOMPARE(readSecretFile(u"openai"_s), storedAfter);
        const bool running = shown.startsWith(u"IA: "_s);
        QCOMPARE(window->translation.running, running);
        QCOMPARE(window->translateButton->text(), running ? u"Pausar traducción"_s : u"Iniciar traducción"_s);
        QTRY_COMPARE(standIn->requests.size(), running ? 1 : 0);
        if (!running)
            return;
        QCOMPARE(window->aiKeyField->text(), aiKey);
        QCOMPARE(standIn->requests[0].headers.value("authorization"), "Bearer " + aiKey.toUtf8());

        // Live mode is for the next start: the running session goes on as it started.
        const std::int32_t session = window->translation.generation;
        window->liveModeCheck->click();
        QVERIFY(!QSettings().value(u"live_mode"_s).toBool() && window->translation.chunkOnly);
        QVERIFY(window->translation.running && window->translation.generation == session);

        // A new speech replaces what is left of the former one.
        window->translation.voiceAudio(QByteArray(48000, '\x10'));
        window->translation.voiceAudio(QByteArray(4800, '\x10'));
        QCOMPARE(window->voiceAudio.size(), std::size_t(4800 / 2 * 4));
        // Pausing ends the session and empties the screens and the voice.
        window->translation.caption(phrases[0]);
        press(u"Pausar traducción"_s);
        QVERIFY(!window->translation.running);
        QCOMPARE(window->translateButton->text(), u"Iniciar traducción"_s);
        QVERIFY(window->captions.isEmpty() && window->captionText.isEmpty() && window->voiceAudio.empty());
    }

    // F1, F2 and the direction buttons set the direction; a running session starts afresh in it.
    void direction()
    {
        open();
        const auto turn = [this](int key, const QString& target) { // a shortcut, or 0 for the button
            const bool spanish = target == "Spanish"_L1, running = window->translation.running;
            const QString source = spanish ? u"en"_s : u"es"_s;
            const std::int32_t session = window->translation.generation;
            const qsizetype asked = standIn->requests.size();
            if (running)
                window->translation.caption(phrases[0]);
            if (!key)
                press(spanish ? u"Predica en INGLÉS → pantallas en español"_s
                              : u"Predica en ESPAÑOL → pantallas en inglés"_s);
            else
                QTest::keyClick(window.get(), Qt::Key(key));
            QCOMPARE(status(), spanish ? u"Pantallas en español."_s : u"Pantallas en inglés."_s);
            QCOMPARE(window->targetCombo->currentText(), target);
            QCOMPARE(window->sourceLanguage, source);
            QCOMPARE(QSettings().value(u"translation_target"_s).toString(), target);
            QCOMPARE(QSettings().value(u"source_language"_s).toString(), source);
            QCOMPARE(window->translation.running, running);
            QCOMPARE(window->translation.generation > session, running);
            QVERIFY(window->captions.isEmpty());
            QTRY_COMPARE(standIn->requests.size(), asked + running);
            QVERIFY(!running || window->translation.targetLanguage == target);
            QVERIFY(!running || window->translation.sourceLanguage == source);
        };
        turn(Qt::Key_F1, u"Spanish"_s);
        turn(Qt::Key_F2, u"English"_s);
        turn(0, u"Spanish"_s);
        startSession();
        QTRY_COMPARE(standIn->requests.size(), 1);
        turn(0, u"English"_s);
        turn(Qt::Key_F1, u"Spanish"_s);
    }

    void captions_data()
    {
        QTest::addColumn<int>("separator");
        QTest::addColumn<int>("count");
        QTest::addColumn<QString>("act"); // after the phrases
        QTest::addColumn<bool>("kept");
        QTest::addColumn<int>("shown"); // 0: nothing, 1: all lines bright, 2: the newest alone bright
        QTest::newRow("one phrase") << 1 << 1 << "" << true << 1;
        QTest::newRow("each on its line") << 1 << 3 << "" << true << 2;
        QTest::newRow("blank row between") << 2 << 3 << "" << true << 2;
        QTest::newRow("one after the other") << 0 << 3 << "" << true << 1;
        QTest::newRow("39 s after the last phrase") << 1 << 2 << "39" << true << 2;
        QTest::newRow("40 s after the last phrase") << 1 << 2 << "40" << false << 0;
        QTest::newRow("screen cleared") << 1 << 2 << "clear" << false << 0;
        QTest::newRow("subtitles hidden") << 1 << 2 << "hide" << true << 0;
    }
    // Changing the separator joins the phrases on screen anew, without a new phrase.
    void captions()
    {
        QFETCH(int, separator);
        QFETCH(int, count);
        QFETCH(QString, act);
        QFETCH(bool, kept);
        QFETCH(int, shown);
        open();
        QCOMPARE(firstAndLastLine(hallPicture()), std::make_pair(-1, -1));
        for (int i = 0; i < count; ++i)
            window->translation.caption(u' ' + phrases[i] + u'\n');
        window->translation.caption(u"  "_s);
        window->separatorCombo->setCurrentIndex(separator);
        QCOMPARE(QSettings().value(u"caption_separator"_s, 1).toInt(), separator);
        if (act == "clear"_L1)
            press(u"Limpiar pantalla de subtítulos"_s);
        else if (act == "hide"_L1)
            window->showCaptionsCheck->click();
        else if (!act.isEmpty())
            window->lastCaptionMs -= act.toInt() * 1000 + (act == "40"_L1);
        const QImage picture = hallPicture();
        QCOMPARE(window->captions, kept ? phrases.mid(0, count) : QStringList());
        QCOMPARE(window->captionText, kept ? phrases.mid(0, count).join(window->captionSeparator()) : QString());
        const auto [first, last] = firstAndLastLine(picture);
        QVERIFY2(shown ? last >= 230 && (shown == 2 ? first < 200 : first >= 230) : first == -1,
                 qPrintable(u"%1 %2"_s.arg(first).arg(last)));
        if (separator == 1 && count == 3) // the picture of the user guide
            QVERIFY(picture.scaled(960, 540, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                        .save(QStringLiteral(VELMORA_TEST_OUTPUT "/translation-hall.png")));
    }

    // Reports reach the AI line, the status line and the log. A session that ends by itself (three hours)
    // empties the screens and the voice; after any end the button starts afresh.
    void statusReports()
    {
        open();
        standIn->answer = [](const auto& request) {
            return request.target.endsWith("audio/transcriptions")
                       ? Response{401, R"({"error":{"message":"Incorrect API key provided."}})"}
                       : Response{200, "{}"};
        };
        startSession();
        const auto reported = [this](const QString& report, bool ended) {
            QCOMPARE(window->aiStatusLabel->text(), report);
            QCOMPARE(status(), u"IA: "_s + report);
            QFile log(StudioWindow::logPath());
            QVERIFY(log.open(QIODevice::ReadOnly) && QString::fromUtf8(log.readAll()).contains(status() + u'\n'));
            QCOMPARE(window->translateButton->text(), ended ? u"Iniciar traducción"_s : u"Pausar traducción"_s);
            QCOMPARE(window->captions.isEmpty(), ended);
            QCOMPARE(window->voiceAudio.empty(), ended);
            if (!window->translation.running)
                press(window->translateButton->text());
            QVERIFY(window->translation.running);
            QCOMPARE(window->translateButton->text(), u"Pausar traducción"_s);
            window->translation.caption(phrases[0]);
            window->translation.voiceAudio(QByteArray(4800, '\x10'));
        };
        window->translation.caption(phrases[0]);
        window->translation.voiceAudio(QByteArray(4800, '\x10'));
        window->translation.statusChanged(u"Subtítulo actualizado · 1.2 s después de la frase"_s);
        reported(u"Subtítulo actualizado · 1.2 s después de la frase"_s, false);
        // A refused key reports while the session still counts as running, and ends it right after.
        window->translation.segments.push_back({0, translation_text::wavFile(std::vector<std::int16_t>(16000))});
        window->translation.pump();
        QTRY_VERIFY(!window->translation.running);
        reported(u"Transcripcion: API key o permisos no validos."_s, false);
        window->translation.nowMs = [start = window->translation.sessionStart] {
            return start + Translation::sessionLimitMs + 1;
        };
        tavrin::AudioBlock block;
        block.samples.assign(3200, 0.0f);
        window->translation.feed(block);
        reported(u"IA pausada tras 3 horas; inicia otra sesion si corresponde."_s, true);
    }

    // The key is tried without a session: from the field, else from the store.
    void keyTest()
    {
        open();
        int code = 401;
        standIn->answer = [&code](const auto&) {
            return Response{code, code == 200 ? answer("OK")
                                              : R"({"error":{"message":"Incorrect API key provided."}})"};
        };
        const auto tried = [this](const QString& shown) {
            press(u"Probar API key ahora"_s);
            QTRY_VERIFY2(QRegularExpression(shown).match(status()).hasMatch(), qPrintable(status()));
        };
        tried(u"^Ingresa tu API key$"_s);
        QVERIFY(standIn->requests.isEmpty());
        window->aiKeyField->setText(aiKey);
        tried(u"^Probando la API de OpenAI\\.\\.\\.$"_s);
        QTRY_COMPARE(status(), u"API con error HTTP 401: Incorrect API key provided."_s);
        code = 200;
        const QString answered = u"^API OK: respondió en \\d+ ms\\. La traducción está lista para usarse\\.$"_s;
        tried(answered);
        QCOMPARE(readSecretFile(u"openai"_s), QString()); // trying a key does not keep it
        QVERIFY(storeSecret(u"openai"_s, aiKey));
        window->aiKeyField->clear();
        tried(answered);
        QCOMPARE(standIn->requests.size(), 3);
        for (const auto& request : std::as_const(standIn->requests))
            QCOMPARE(request.headers.value("authorization"), "Bearer " + aiKey.toUtf8());
        QCOMPARE(standIn->requests[0].target, "/v1/responses");
        QCOMPARE(QJsonDocument::fromJson(standIn->requests[0].body).object(),
                 QJsonObject({{"model", "gpt-4.1-mini"}, {"input", "Responde solo: OK"}, {"max_output_tokens", 16},
                              {"store", false}}));
        QVERIFY(!window->translation.running);
    }

    // The live route: partial text only on the Heard line, a finished turn on the screens, and phrases
    // cut locally once the link is lost.
    void liveRoute()
    {
        standIn->answer = [](const StandInHttpServer::Request&) {
            return Response{200, answer("Brothers, good morning.")};
        };
        RawTlsPeer peer;
        open();
        window->translation.live.endpoint = u"https://127.0.0.1:%1/v1/"_s.arg(peer.server.serverPort());
        startSession();
        QTRY_VERIFY(peer.handshaken());
        const auto said = [&peer](const QByteArray& json) { peer.socket->write(serverFrame(0x81, json)); };
        peer.socket->write("HTTP/1.1 101 Switching Protocols\r\n\r\n");
        said(R"({"type":"session.updated"})");
        QTRY_COMPARE(status(), u"IA: Modo en vivo activo (texto mientras se habla)."_s);
        said(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"Hermanos, "})");
        said(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"buenos días"})");
        QTRY_COMPARE(window->heardLabel->text(), u"Escuchado: … Hermanos, buenos días"_s);
        QVERIFY(window->captions.isEmpty());
        said(R"({"type":"conversation.item.input_audio_transcription.completed",)"
             R"("transcript":"Hermanos, buenos días."})");
        QTRY_COMPARE(window->captions, QStringList{u"Brothers, good morning."_s});
        QCOMPARE(window->heardLabel->text(), u"Escuchado: Hermanos, buenos días."_s);
        QVERIFY(firstAndLastLine(hallPicture()).first > 100);
        peer.socket->abort();
        QTRY_COMPARE(status(), u"IA: Modo en vivo no disponible; se usa modo por trozos."_s);
        QVERIFY(!window->translation.live.ready);
    }
};

QTEST_MAIN(tst_TranslationPanel)
#include "tst_translationpanel.moc"
