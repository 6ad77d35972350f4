#include "AudioCapture.h"
#include "Peers.h"
#include "Picture.h"
#include "SecretStore.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>

using namespace Qt::Literals::StringLiterals;
using Response = StandInHttpServer::Response;

namespace {
const bool testHome = useTestHome(VELMORA_TEST_OUTPUT "/home");
const QString aiKey = u"sk-panel-5c2e-secret"_s;
const QStringList phrases{u"Grace and peace to you all."_s, u"Let us open the Word together."_s,
                          u"Today we read John chapter three."_s};
// Whether the captions are on the picture: they are the only thing drawn in white there.
bool captionsDrawn(const QImage& picture)
{
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x)
            if (qRed(picture.pixel(x, y)) > 100)
                return true;
    return false;
}
} // namespace

// The translation panel of a real window, its captions on the Hall picture, the AI service on loopback.
class tst_TranslationPanel : public QObject
{
    Q_OBJECT
    std::unique_ptr<StandInHttpServer> standIn;
    std::unique_ptr<StudioWindow> window;

    void open() // frames are composed by the test
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
    void startSession(const QString& key = aiKey) // with the test tone as the voice input
    {
        window->audioCombo->setCurrentIndex(1);
        press(u"Conectar fuentes"_s);
        QVERIFY(window->capture && window->capture->running);
        window->aiKeyField->setText(key);
        press(u"Iniciar traducción"_s);
    }
    QString status() const { return window->statusLabel->text(); }

private Q_SLOTS:
    void init()
    {
        prepareStudioTest();
        standIn = std::make_unique<StandInHttpServer>();
        QVERIFY(testHome && trustTestCertificate() && standIn->listen());
        clearStudioState();
        QSettings().setValue(u"openai_endpoint"_s, standIn->endpoint());
    }
    void cleanup() // whatever a case did, the key never reached the log
    {
        window.reset();
        QFile log(StudioWindow::logPath());
        QVERIFY(!log.open(QIODevice::ReadOnly) || !log.readAll().contains(aiKey.toUtf8()));
    }

    void captions_data() // separator, act after three phrases, whether they are shown then
    {
        QTest::addColumn<int>("separator");
        QTest::addColumn<QString>("act");
        QTest::addColumn<bool>("shown");
        QTest::newRow("one after the other") << 0 << "" << true;
        QTest::newRow("each on its line, 39 s after") << 1 << "39" << true;
        QTest::newRow("40 s after the last phrase") << 1 << "40" << false;
        QTest::newRow("screen cleared") << 1 << "clear" << false;
        QTest::newRow("subtitles hidden") << 1 << "hide" << false;
    }
    void captions() // changing the separator joins the phrases anew
    {
        QFETCH(int, separator);
        QFETCH(QString, act);
        QFETCH(bool, shown);
        open();
        for (const QString& phrase : phrases)
            window->translation.caption(u' ' + phrase + u'\n');
        window->translation.caption(u"  "_s);
        window->separatorCombo->setCurrentIndex(separator);
        if (act == "clear"_L1)
            press(u"Limpiar pantalla de subtítulos"_s);
        else if (act == "hide"_L1)
            window->showCaptionsCheck->click();
        else if (!act.isEmpty())
            window->lastCaptionMs -= act.toInt() * 1000 + (act == "40"_L1);
        window->frameStage(g_get_monotonic_time()); // a frame is where the captions expire
        QCOMPARE(captionsDrawn(window->hallMonitor->image), shown);
        const bool kept = shown || act == "hide"_L1;
        QCOMPARE(window->captionText, kept ? phrases.join(window->captionSeparator()) : QString());
    }

    // The key is tried and started from the field, else the store, kept there while the box is ticked, and
    // deleted by a ticked box with an empty field. Start needs a voice input; F1 and the buttons set the direction,
    // a running session starts afresh in it. The three-hour limit ends a session; the button starts afresh after it.
    // Live over TLS: partial text on the Heard line only, a finished turn on the screens; chunks once it drops.
    void keyLanguageAndLive()
    {
        open();
        int code = 401;
        const QByteArray ok = R"({"output":[{"content":[{"type":"output_text","text":"Brothers, good morning."}]}]})";
        standIn->answer = [&code, &ok](const auto&) { return Response{code, code == 200 ? ok : "{}"}; };
        press(u"Probar API key ahora"_s);
        QTRY_COMPARE(status(), u"Ingresa tu API key"_s);
        window->aiKeyField->setText(aiKey);
        press(u"Probar API key ahora"_s);
        QTRY_VERIFY(status().startsWith(u"API con error HTTP 401"_s));
        press(u"Iniciar traducción"_s);
        QCOMPARE(status(), u"Conecta una entrada de voz antes de iniciar IA"_s);
        QTest::keyClick(window.get(), Qt::Key_F1);
        QVERIFY(status() == u"Pantallas en español."_s && window->sourceLanguage == "en"_L1);
        QVERIFY(readSecretFile(u"openai"_s).isEmpty()); // the box was not ticked
        code = 200;
        window->keySaveCheck->setChecked(true);
        startSession();
        QTRY_COMPARE(standIn->requests.size(), 2);
        QCOMPARE(readSecretFile(u"openai"_s), aiKey);
        window->keySaveCheck->setChecked(false);
        window->aiKeyField->clear();
        press(u"Probar API key ahora"_s);
        QTRY_VERIFY(status().startsWith(u"API OK: respondió en "_s));
        QCOMPARE(standIn->requests[2].headers.value("authorization"), "Bearer " + aiKey.toUtf8());

        const std::int32_t session = window->translation.generation;
        window->translation.caption(phrases[0]);
        press(u"Predica en ESPAÑOL → pantallas en inglés"_s);
        QCOMPARE(status(), u"Pantallas en inglés."_s);
        QVERIFY(window->translation.generation > session && window->captions.isEmpty());
        QVERIFY(window->translation.targetLanguage == "English"_L1 && window->translation.sourceLanguage == "es"_L1);
        QTRY_COMPARE(standIn->requests.size(), 4);
        window->translation.caption(phrases[0]);
        window->translation.voiceAudio(QByteArray(48000, '\x10')); // a new speech replaces what is left
        window->translation.voiceAudio(QByteArray(4800, '\x10'));
        QCOMPARE(window->voiceAudio.size(), std::size_t(4800 / 2 * 4));
        window->translation.nowMs = [start = window->translation.sessionStart] {
            return start + Translation::sessionLimitMs + 1;
        };
        window->translation.feed({std::vector<float>(3200), 0, {}, {}});
        const QString ended = u"IA pausada tras 3 horas; inicia otra sesion si corresponde."_s;
        QTRY_COMPARE(window->aiStatusLabel->text(), ended);
        QVERIFY(status() == u"IA: "_s + ended && window->captions.isEmpty() && window->voiceAudio.empty());
        press(window->translateButton->text());
        QVERIFY(window->translation.running);

        open(); // a window opened later finds the stored key, with the box ticked
        QVERIFY(window->keySaveCheck->isChecked() && window->aiKeyField->text() == aiKey);
        startSession(QString());
        QVERIFY2(status().startsWith(u"Ingresa tu API key"_s), qPrintable(status()));
        QVERIFY(!window->translation.running && readSecretFile(u"openai"_s).isEmpty());

        RawTlsPeer peer;
        window->translation.live.endpoint = u"https://127.0.0.1:%1/v1/"_s.arg(peer.server.serverPort());
        startSession();
        QTRY_VERIFY(peer.handshaken());
        const auto said = [&peer](const QByteArray& json) { peer.socket->write(serverFrame(0x81, json)); };
        peer.socket->write("HTTP/1.1 101 Switching Protocols\r\n\r\n");
        said(R"({"type":"session.updated"})");
        QTRY_COMPARE(status(), u"IA: Modo en vivo activo (texto mientras se habla)."_s);
        said(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"Hermanos, "})");
        said(R"({"type":"conversation.item.input_audio_transcription.delta","delta":"buenos días"})");
        QTRY_VERIFY(window->heardLabel->text().endsWith(u"Hermanos, buenos días"_s));
        QVERIFY(window->captions.isEmpty());
        said(R"({"type":"conversation.item.input_audio_transcription.completed","transcript":"Hermanos."})");
        QTRY_COMPARE(window->captions, QStringList{u"Brothers, good morning."_s});
        peer.socket->abort();
        QTRY_COMPARE(status(), u"IA: Modo en vivo no disponible; se usa modo por trozos."_s);
        QCOMPARE(window->captions.size(), 1); // a report while the session runs keeps the captions
    }
};

QTEST_MAIN(tst_TranslationPanel)
#include "tst_translationpanel.moc"
