#include "AudioCapture.h"
#include "Peers.h"
#include "Picture.h"
#include "SecretStore.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"
#include "TranslationText.h"

#include <QTest>
#include <QtWidgets>

using namespace Qt::Literals::StringLiterals;
using Response = StandInHttpServer::Response;

namespace {
const bool testHome = useTestHome(VELMORA_TEST_OUTPUT "/home");
const QString aiKey = u"sk-panel-5c2e-secret"_s;
const QStringList phrases{u"Grace and peace to you all."_s, u"Let us open the Word together."_s,
                          u"Today we read John chapter three."_s};
QByteArray answer(const QByteArray& text)
{
    return R"({"output":[{"content":[{"type":"output_text","text":")" + text + "\"}]}]}";
}
// The brightest red of the first and last text rows (-1 without text): older phrases dimmed, the newest white.
std::pair<int, int> firstAndLastLine(const QImage& picture)
{
    QList<int> peaks;
    for (int y = 0, peak = 0; y < picture.height(); ++y, peak = 0) {
        for (int x = 0; x < picture.width(); ++x)
            peak = std::max(peak, qRed(picture.pixel(x, y)));
        if (peak > 100)
            peaks << peak;
    }
    const qsizetype span = std::min<qsizetype>(20, peaks.size());
    if (peaks.isEmpty())
        return {-1, -1};
    return {*std::max_element(peaks.cbegin(), peaks.cbegin() + span),
            *std::max_element(peaks.cend() - span, peaks.cend())};
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
    QImage hallPicture()
    {
        window->frameStage(g_get_monotonic_time());
        return window->hallMonitor->image;
    }
    QString status() const { return window->statusLabel->text(); }

private Q_SLOTS:
    void init()
    {
        prepareStudioTest();
        standIn = std::make_unique<StandInHttpServer>();
        QVERIFY(testHome && trustTestCertificate() && standIn->listen());
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

    void startButton_data() // key stored before, key typed, box to keep it, status, key stored after
    {
        QTest::addColumn<QStringList>("row");
        const QString started = u"IA: IA activa"_s;
        QTest::newRow("typed, saved") << QStringList{"", aiKey, "save", started, aiKey};
        QTest::newRow("stored key") << QStringList{aiKey, "", "", started, aiKey};
        QTest::newRow("cleared, box on: deleted") << QStringList{aiKey, "", "save", "Ingresa tu API key", ""};
    }
    void startButton()
    {
        QFETCH(QStringList, row);
        QVERIFY(row[0].isEmpty() || storeSecret(u"openai"_s, row[0]));
        open();
        QCOMPARE(window->keySaveCheck->isChecked(), !row[0].isEmpty());
        window->keySaveCheck->setChecked(!row[2].isEmpty());
        startSession(row[1]);
        QVERIFY2(status().startsWith(row[3]), qPrintable(status()));
        QCOMPARE(readSecretFile(u"openai"_s), row[4]);
        const bool running = row[3].startsWith(u"IA: "_s);
        QCOMPARE(window->translation.running, running);
        QTRY_COMPARE(standIn->requests.size(), running ? 1 : 0);
        if (!running)
            return;
        QCOMPARE(standIn->requests[0].headers.value("authorization"), "Bearer " + aiKey.toUtf8());
        window->translation.voiceAudio(QByteArray(48000, '\x10')); // a new speech replaces what is left
        window->translation.voiceAudio(QByteArray(4800, '\x10'));
        QCOMPARE(window->voiceAudio.size(), std::size_t(4800 / 2 * 4));
    }

    void captions_data() // separator, act after three phrases; shown 0: nothing, 1: all bright, 2: the newest alone
    {
        QTest::addColumn<int>("separator");
        QTest::addColumn<QString>("act");
        QTest::addColumn<int>("shown");
        QTest::newRow("one after the other") << 0 << "" << 1;
        QTest::newRow("each on its line, 39 s after") << 1 << "39" << 2;
        QTest::newRow("40 s after the last phrase") << 1 << "40" << 0;
        QTest::newRow("screen cleared") << 1 << "clear" << 0;
        QTest::newRow("subtitles hidden") << 1 << "hide" << 0;
    }
    void captions() // changing the separator joins the phrases anew
    {
        QFETCH(int, separator);
        QFETCH(QString, act);
        QFETCH(int, shown);
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
        const auto [first, last] = firstAndLastLine(hallPicture());
        const bool kept = shown || act == "hide"_L1;
        QCOMPARE(window->captionText, kept ? phrases.join(window->captionSeparator()) : QString());
        QVERIFY(shown ? last >= 230 && (shown == 2 ? first < 200 : first >= 230) : first == -1);
    }

    // The key is tried from the field, else the store. Start needs a voice input; F1 and the buttons set the
    // direction, a running session starts afresh in it. A refused key, then the three-hour limit, end a session.
    void keyTestAndReports()
    {
        open();
        int code = 401;
        standIn->answer = [&code](const auto& request) {
            return code == 200 && !request.target.endsWith("audio/transcriptions") ? Response{200, answer("OK")}
                                                                                   : Response{401, "{}"};
        };
        press(u"Probar API key ahora"_s);
        QTRY_COMPARE(status(), u"Ingresa tu API key"_s);
        window->aiKeyField->setText(aiKey);
        press(u"Probar API key ahora"_s);
        QTRY_VERIFY(status().startsWith(u"API con error HTTP 401"_s));
        code = 200;
        QVERIFY(storeSecret(u"openai"_s, aiKey));
        window->aiKeyField->clear();
        press(u"Probar API key ahora"_s);
        QTRY_VERIFY(status().startsWith(u"API OK: respondió en "_s));
        QCOMPARE(standIn->requests.size(), 2);
        QCOMPARE(standIn->requests[1].headers.value("authorization"), "Bearer " + aiKey.toUtf8());

        const auto reported = [this](const QString& report, bool ended) {
            QTRY_COMPARE(window->aiStatusLabel->text(), report);
            QCOMPARE(status(), u"IA: "_s + report);
            QCOMPARE(window->captions.isEmpty() && window->voiceAudio.empty(), ended);
            if (!window->translation.running) // the button starts afresh after any end
                press(window->translateButton->text());
            window->translation.caption(phrases[0]);
            window->translation.voiceAudio(QByteArray(4800, '\x10'));
        };
        press(u"Iniciar traducción"_s);
        QCOMPARE(status(), u"Conecta una entrada de voz antes de iniciar IA"_s);
        QTest::keyClick(window.get(), Qt::Key_F1);
        QVERIFY(status() == u"Pantallas en español."_s && window->sourceLanguage == "en"_L1);
        startSession();
        QTRY_COMPARE(standIn->requests.size(), 3);
        const std::int32_t session = window->translation.generation;
        window->translation.caption(phrases[0]);
        press(u"Predica en ESPAÑOL → pantallas en inglés"_s);
        QCOMPARE(status(), u"Pantallas en inglés."_s);
        QVERIFY(window->translation.generation > session && window->captions.isEmpty());
        QVERIFY(window->translation.targetLanguage == "English"_L1 && window->translation.sourceLanguage == "es"_L1);
        QTRY_COMPARE(standIn->requests.size(), 4);
        window->translation.caption(phrases[0]);
        window->translation.voiceAudio(QByteArray(4800, '\x10'));
        window->translation.segments.push_back({0, translation_text::wavFile(std::vector<std::int16_t>(16000))});
        window->translation.pump(); // a refused key reports while the session still runs, and ends it right after
        reported(u"Transcripcion: API key o permisos no validos."_s, false);
        window->translation.nowMs = [start = window->translation.sessionStart] {
            return start + Translation::sessionLimitMs + 1;
        };
        tavrin::AudioBlock block;
        block.samples.assign(3200, 0.0f);
        window->translation.feed(block);
        reported(u"IA pausada tras 3 horas; inicia otra sesion si corresponde."_s, true);
    }

    // Live over TLS: partial text on the Heard line only, a finished turn on the screens; chunks once it drops.
    void liveRoute()
    {
        standIn->answer = [](const auto&) { return Response{200, answer("Brothers, good morning.")}; };
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
        QTRY_VERIFY(window->heardLabel->text().endsWith(u"Hermanos, buenos días"_s));
        QVERIFY(window->captions.isEmpty());
        said(R"({"type":"conversation.item.input_audio_transcription.completed","transcript":"Hermanos."})");
        QTRY_COMPARE(window->captions, QStringList{u"Brothers, good morning."_s});
        QVERIFY(firstAndLastLine(hallPicture()).first > 100);
        peer.socket->abort();
        QTRY_COMPARE(status(), u"IA: Modo en vivo no disponible; se usa modo por trozos."_s);
    }
};

QTEST_MAIN(tst_TranslationPanel)
#include "tst_translationpanel.moc"
