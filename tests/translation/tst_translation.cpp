#include "Captions.h"
#include "Layer.h"
#include "LiveTranscriber.h"
#include "Peers.h"
#include "Processes.h"
#include "RtmpServer.h"
#include "SceneDef.h"
#include "Translation.h"
#include "TranslationText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cmath>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;

QJsonObject jsonBody(const Request& request) { return QJsonDocument::fromJson(request.body).object(); }
QByteArray transcription(const QString& text) { return StandInHttpServer::json({{"text", text}}); }
QByteArray translationAnswer(const QString& first, const QString& second = {})
{
    const QJsonArray content{QJsonObject{{"type", "output_text"}, {"text", first}},
                             QJsonObject{{"type", "output_text"}, {"text", second}}};
    return StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", content}}}}});
}

// Which phrase a transcription carries: 1600 × (n + 1) samples in a form of less than 3200 bytes more.
int phraseOf(const Request& request) { return int(request.body.size() / 3200) - 1; }

// The stand-in's usual answers: "Texto n" heard in phrase n, "Phrase" as its translation.
Response answering(const Request& request)
{
    if (request.target.endsWith("transcriptions"))
        return {200, transcription(QStringLiteral("Texto %1").arg(phraseOf(request)))};
    return {200, translationAnswer("Phrase")};
}

// One engine against one stand-in service, with everything it tells the window kept.
struct Session
{
    StandInHttpServer service;
    bool listening = service.listen();
    Translation engine{service.endpoint()};
    LiveTranscriber& live = engine.live;
    QStringList captions, statuses, heard;
    QList<QByteArray> speech;
    qint64 clockMs = 1'700'000'000'000;

    // With `livePort`, the live link goes to a peer there; otherwise phrases are cut locally only.
    explicit Session(bool voice = false, const QString& source = "es", quint16 livePort = 0)
    {
        engine.live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(livePort);
        engine.chunkOnly = livePort == 0;
        engine.nowMs = [this] { return clockMs; };
        engine.caption = [this](const QString& text) { captions << text; };
        engine.statusChanged = [this](const QString& text) { statuses << text; };
        engine.heard = [this](const QString& text) { heard << text; };
        engine.voiceAudio = [this](const QByteArray& audio) { speech << audio; };
        engine.start("sk-test-5e7a-secret", "Haitian Creole", voice, source);
    }
    QList<Request> requestsTo(const QByteArray& path) const
    {
        QList<Request> found = service.requests;
        found.removeIf([&path](const Request& request) { return request.target != "/v1/" + path; });
        return found;
    }
    void feed(const std::vector<tavrin::AudioBlock>& blocks)
    {
        for (const tavrin::AudioBlock& block : blocks)
            engine.feed(block);
    }
    void sendPhrase(int n)
    {
        engine.cutTimes[engine.nextId] = clockMs;
        const QByteArray wav = translation_text::wavFile(std::vector<std::int16_t>(1600 * (n + 1)));
        engine.segments.push_back({engine.nextId++, wav});
        engine.pump();
    }
    bool settled() const { return engine.net.findChildren<QNetworkReply*>().isEmpty(); }
};

const QString active = "Modo en vivo activo (texto mientras se habla).";
const QString lost = "Modo en vivo no disponible; se usa modo por trozos.";

// Stereo blocks of a 200 Hz tone (amplitude 0 for silence) of `seconds`, in 20 ms pieces.
std::vector<tavrin::AudioBlock> blocksOf(double seconds, double amplitude, int blockFrames = 960)
{
    std::vector<tavrin::AudioBlock> blocks;
    const int frames = int(seconds * 48000);
    for (int at = 0; at < frames; at += blockFrames) {
        blocks.emplace_back();
        for (int i = at; i < std::min(frames, at + blockFrames); ++i)
            blocks.back().samples.insert(blocks.back().samples.end(), 2,
                                         float(amplitude * std::sin(2.0 * M_PI * 200.0 * i / 48000.0)));
    }
    return blocks;
}

// Qt's own WebSocket server as the service: it keeps what our client sends, and confirms the session.
struct QtPeer
{
    QWebSocketServer server{"stand-in", QWebSocketServer::SecureMode};
    QWebSocket* socket = nullptr;
    QList<QJsonObject> received;
    QStringList types;
    QByteArray lastPong;
    bool confirm = true;

    QtPeer()
    {
        server.setSslConfiguration(testServerConfiguration());
        server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&server, &QWebSocketServer::newConnection, &server, [this] {
            socket = server.nextPendingConnection();
            QObject::connect(socket, &QWebSocket::textMessageReceived, socket, [this](const QString& text) {
                received << QJsonDocument::fromJson(text.toUtf8()).object();
                types << received.last().value("type").toString();
                if (confirm && types.last() == "session.update")
                    send("session.updated");
            });
            QObject::connect(socket, &QWebSocket::pong, socket,
                             [this](quint64, const QByteArray& data) { lastPong = data; });
        });
    }
    void send(const char* type, QJsonObject more = {})
    {
        more["type"] = QString::fromLatin1(type);
        socket->sendTextMessage(QString::fromUtf8(QJsonDocument(more).toJson(QJsonDocument::Compact)));
    }
};

} // namespace

class tst_Translation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(trustTestCertificate()); }

    void liveLink()
    {
        QtPeer peer;
        Session session(false, "es", peer.server.serverPort());
        session.service.answer = [](const Request& request) { return answering(request); };
        QTRY_VERIFY(session.live.ready);
        QCOMPARE(peer.socket->request().rawHeader("Authorization"), "Bearer sk-test-5e7a-secret");
        // Pieces of 100 ms and of 2 s, and the commit: Qt's server checks all three length forms. The
        // pause ends the turn 0.45 s into the quiet, with all the audio sent before the commit.
        session.feed(blocksOf(0.1, 0.3, 4800));
        session.feed(blocksOf(2.0, 0.3, 96000));
        session.feed(blocksOf(0.46, 0.0));
        QTRY_COMPARE(peer.types.last(), "input_audio_buffer.commit");
        QList<qsizetype> appended;
        for (const QJsonObject& message : peer.received)
            if (message.value("type") == "input_audio_buffer.append")
                appended << QByteArray::fromBase64(message.value("audio").toString().toLatin1()).size();
        QCOMPARE(appended, QList<qsizetype>({4800, 96000, 4800, 4800, 4800, 4800, 2880}));

        peer.socket->setOutgoingFrameSize(8); // one message in many fragments
        peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "Hermanos, "}});
        peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "buenos días"}});
        peer.send("conversation.item.input_audio_transcription.completed",
                  {{"transcript", " Hermanos, buenos días. "}});
        QTRY_COMPARE(session.heard,
                     QStringList({"… Hermanos, ", "… Hermanos, buenos días", "Hermanos, buenos días."}));
        QTRY_COMPARE(session.captions, QStringList{"Phrase"});
        // The longest ping a control frame may carry comes back whole, in the one-byte length form.
        peer.socket->ping(QByteArray(125, 'p'));
        QTRY_COMPARE(peer.lastPong, QByteArray(125, 'p'));
        peer.send("error", {{"error", QJsonObject{{"message", "rate"}}}});
        QTRY_VERIFY(session.statuses.contains("Error en vivo: rate"));
        QVERIFY(session.live.ready);

        peer.socket->abort();
        QTRY_COMPARE(session.statuses.last(), lost);
        // Without the link, espeak-ng's sermon is cut locally, each phrase at its pause.
        std::vector<float> speech = spokenStereo("es", R"(<speak>Hermanos, buenos días a todos. <break time="900ms"/>)"
                                                       R"( Abramos la Biblia en Juan. <break time="1200ms"/>)"
                                                       R"( Dios es amor.</speak>)");
        QVERIFY2(!speech.empty(), "espeak-ng or sox failed");
        speech.resize(speech.size() + 192000);
        for (std::size_t at = 0; at < speech.size(); at += 3200)
            session.engine.feed({{speech.begin() + std::ptrdiff_t(at),
                                  speech.begin() + std::ptrdiff_t(std::min(speech.size(), at + 3200))}, 0, {}, {}});
        QTRY_COMPARE(session.captions.size(), 4);

        // A model the service does not offer: the same connection is configured again by turns.
        peer.confirm = false;
        session.live.start("sk-test-5e7a-secret", "es", "x");
        QTRY_COMPARE(peer.types.count("session.update"), 2);
        peer.send("error", {{"error", QJsonObject{{"message", "no such model"}}}});
        QTRY_COMPARE(peer.types.count("session.update"), 3);
        QCOMPARE(session.statuses.last(), "Modelo en vivo no disponible (no such model); se intenta por turnos.");
        const QByteArray again = QJsonDocument(peer.received.last()).toJson(QJsonDocument::Compact);
        QVERIFY(again.contains(R"("model":"gpt-4o-transcribe")") && again.contains(R"("type":"server_vad")"));
        peer.send("transcription_session.updated");
        QTRY_VERIFY(session.live.ready);
        // A link that never comes up has nothing to hand over: the operator is told, and no more.
        session.live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(RtmpServer::freePort());
        session.live.start("sk-test-5e7a-secret", "es", "x");
        QTRY_VERIFY(session.statuses.last().startsWith("Conexión en vivo falló: "));
    }

    void bytesFromTheNetwork_data()
    {
        QTest::addColumn<QByteArray>("answer");  // the upgrade answer, then frames; the last 9 bytes written apart
        QTest::addColumn<QString>("lastStatus"); // what the link told the operator last
        const QByteArray upgrade = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n";
        const QByteArray confirmed = R"({"type":"session.updated"})";
        const QByteArray updated = upgrade + serverFrame(0x81, confirmed);
        const QString tooBig = "Conexión en vivo cerrada: mensaje demasiado grande.";
        const auto row = [](const char* name, const QByteArray& bytes, const QString& status = {}) {
            QTest::newRow(name) << bytes << status;
        };
        row("session confirmed", updated, active);
        row("close frame", updated + serverFrame(0x88, "\x03\xe8"), "Conexión en vivo cerrada por el servidor.");
        row("a length that wraps around with the fragments",
            upgrade + serverFrame(0x01, "ab") + serverFrame(0x80, "x", ~0ull - 1), tooBig);
        row("fragments past the bound",
            upgrade + serverFrame(0x01, QByteArray(LiveTranscriber::maxMessageBytes - 3, 'a')) +
                serverFrame(0x80, QByteArray(4, 'b')),
            tooBig);
        row("refused upgrade", "HTTP/1.1 401 Unauthorized\r\n\r\n",
            "Modo en vivo rechazado: HTTP/1.1 401 Unauthorized");
        row("header that never ends", QByteArray(LiveTranscriber::maxHeaderBytes + 1, 'h'),
            "Modo en vivo rechazado: " + QString(120, u'h'));
        row("binary, unknown opcodes and text not JSON",
            upgrade + serverFrame(0x82, confirmed) + QByteArray::fromHex("8f008b7e0002abcd") +
                serverFrame(0x81, "\xff{not json"));
    }
    void bytesFromTheNetwork()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, lastStatus);
        const bool ready = lastStatus == active;
        RawTlsPeer peer;
        Session session(false, "es", peer.server.serverPort());
        QTRY_VERIFY(peer.handshaken());
        QVERIFY(peer.fromClient.startsWith("GET /v1/realtime?intent=transcription HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
        peer.socket->write(answer.chopped(9));
        QTRY_VERIFY(!session.live.inbox.isEmpty() || session.live.upgraded);
        QVERIFY(!session.live.ready);
        peer.socket->write(answer.right(9));
        QTRY_VERIFY(session.statuses.contains(lost) || session.live.ready ||
                    (session.live.inbox.isEmpty() && session.live.upgraded));
        QTRY_COMPARE(session.live.ready, ready);
        QStringList told = session.statuses.mid(1); // after the engine's own "connecting"
        told.removeAll(lost);
        QCOMPARE(told.value(told.size() - 1), lastStatus);
        QCOMPARE(session.statuses.contains(lost), !ready && !lastStatus.isEmpty()); // closed or refused
    }

    void turnDecisions_data()
    {
        // Audio as pieces of (seconds, amplitude) in 20 ms blocks, with what is heard so far.
        QTest::addColumn<QList<QPointF>>("audio");
        QTest::addColumn<QString>("partial");
        QTest::addColumn<int>("primed"); // a pause due, with so many samples since the last commit; 0 for none
        QTest::addColumn<int>("commits");
        QTest::addColumn<int>("samplesSinceCommit");
        QTest::newRow("a phrase and a pause") << QList<QPointF>{{1.0, 0.3}, {0.5, 0.0}} << "" << 0 << 1 << 960;
        QTest::newRow("three seconds of silence") << QList<QPointF>{{3.01, 0.0}} << "" << 0 << 0 << 240;
        // Too little voice for a pause: the seven-second limit drops the count; the audio stays with the service.
        QTest::newRow("a cough, then quiet") << QList<QPointF>{{0.3, 0.3}, {6.8, 0.0}} << "" << 0 << 0 << 2400;
        // A finished sentence ends the turn after 0.15 s of quiet, once two seconds have gone by.
        QTest::newRow("a full stop") << QList<QPointF>{{2.2, 0.3}, {0.16, 0.0}} << "Amén." << 0 << 1 << 0;
        QTest::newRow("no full stop") << QList<QPointF>{{2.2, 0.3}, {0.16, 0.0}} << "Amén" << 0 << 0 << 56640;
        QTest::newRow("half a second") << QList<QPointF>{{0.0001, 0.0}} << "" << 11998 << 1 << 0;
        QTest::newRow("just under half a second") << QList<QPointF>{{0.0001, 0.0}} << "" << 11997 << 0 << 11999;
    }
    void turnDecisions()
    {
        QFETCH(QList<QPointF>, audio);
        QFETCH(int, primed);
        QtPeer peer;
        Session session(false, "es", peer.server.serverPort());
        QTRY_VERIFY(session.live.ready);
        QFETCH(QString, partial);
        session.live.partialText = partial;
        if (primed > 0) {
            session.live.speechSeen = true;
            session.live.voicedCount = 19200;
            session.live.silentRun = 10800;
            session.live.samplesSinceCommit = primed;
        }
        for (const QPointF& piece : audio)
            session.feed(blocksOf(piece.x(), piece.y()));
        session.live.sendJson({{"type", "marker"}});
        QTRY_COMPARE(peer.types.last(), "marker");
        QTEST(int(peer.types.count("input_audio_buffer.commit")), "commits");
        QTEST(session.live.samplesSinceCommit, "samplesSinceCommit");
        session.live.stop(); // the connection is cut at once
        QTRY_COMPARE(peer.socket->state(), QAbstractSocket::UnconnectedState);
    }

    void feedRules_data()
    {
        QTest::addColumn<QList<int>>("blockFloats"); // the sizes of the blocks of silence fed
        QTest::addColumn<int>("pcmAfter");
        QTest::addColumn<int>("decimationAfter");
        QTest::newRow("odd float dropped, next block pairs afresh") << QList<int>{7, 3} << 1 << 1;
        QTest::newRow("decimation carries across blocks") << QList<int>{10, 2} << 2 << 0;
        QTest::newRow("silence is emptied every 2 s") << QList<int>{240000} << 40000 - 32000 << 0;
    }
    void feedRules()
    {
        QFETCH(QList<int>, blockFloats);
        Session session;
        for (const int floats : blockFloats)
            session.engine.feed({std::vector<float>(std::size_t(floats)), 0, {}, {}});
        QTEST(int(session.engine.pcm.size()), "pcmAfter");
        QTEST(session.engine.decimationCount, "decimationAfter");
    }

    void replies_data()
    {
        // Each of three phrases: "ok", "slow", or failing at the transcription ("t:…") or translation ("r:…").
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QStringList>("captions");
        QTest::addColumn<QString>("status");
        QTest::addColumn<bool>("running");
        const QStringList all{"Phrase 0", "Phrase 1", "Phrase 2"};
        QTest::newRow("answers overtake each other") << QStringList{"slow", "ok", "ok"} << all << "" << true;
        QTest::newRow("rate limit passes one number empty")
            << QStringList{"ok", "r:429", "ok"} << QStringList{"Phrase 0", "Phrase 2"}
            << "Traduccion: Limite temporal de la API; se reintenta con el siguiente segmento." << true;
        QTest::newRow("request id is quoted") << QStringList{"ok", "ok", "t:500id"} << all.mid(0, 2)
            << "Transcripcion: No se pudo completar la solicitud. HTTP 500. Revisa conexion y acceso al modelo."
               " ID: req_42" << true;
        QTest::newRow("repeated text is dropped") << QStringList{"ok", "t:same", "t:same"}
                                                  << QStringList{"Phrase 0", "¡Amén, amén!"} << "" << true;
        // The two others come back after the session has ended and are passed over.
        QTest::newRow("bad key ends the session") << QStringList{"ok", "t:401", "slow"} << all.mid(0, 1)
                                                  << "Transcripcion: API key o permisos no validos." << false;
        QTest::newRow("no credit ends the session")
            << QStringList{"r:quota", "slow", "slow"} << QStringList{}
            << "Traduccion: Sin cuota/saldo disponible en el proyecto API. Revisa Facturación del proyecto." << false;
    }
    void replies()
    {
        QFETCH(QStringList, script);
        QFETCH(QString, status);
        QFETCH(bool, running);
        Session session;
        session.service.answer = [&script](const Request& request) -> Response {
            const bool transcribing = request.target.endsWith("transcriptions");
            const QString input = jsonBody(request).value("input").toString();
            const int phrase = transcribing ? phraseOf(request) : input.right(1).toInt();
            const QString step = script.value(phrase), failure = step.mid(2);
            const QString said = input.mid(input.lastIndexOf("New text: ") + 10).replace("Frase", "Phrase");
            Response response{200, translationAnswer(said.left(3), said.mid(3))};
            if (transcribing)
                response.body = transcription(step != "t:same" ? QStringLiteral("Frase %1").arg(phrase)
                                              : phrase == 1    ? "¡Amén, amén!"
                                                               : "amén amén");
            if (step.startsWith(transcribing ? "t:" : "r:") && failure != "same") {
                response = Response{failure.left(3).toInt(), R"({"error":{"message":"x"}})"};
                if (failure == "quota")
                    response = Response{429, R"({"error":{"code":"insufficient_quota"}})"};
                else if (failure == "500id")
                    response.headers = {{"x-request-id", "req_42"}};
            }
            // Later phrases' failures and repeats come last, so that what went before is settled.
            response.delayMs = step == "slow" ? 400 : step == "t:401" || phrase == 2 ? 200 : 0;
            return response;
        };
        for (int i = 0; i < 3; ++i)
            session.sendPhrase(i);
        // Every answer has arrived, the slow ones of an ended session included, and been dealt with.
        QTRY_VERIFY((session.engine.inFlight == 0 || !session.engine.running) && session.settled());
        QTEST(session.captions, "captions");
        QCOMPARE(session.engine.running, running);
        QVERIFY2(status.isEmpty() || session.statuses.contains(status), qPrintable(session.statuses.join(u'|')));
        QVERIFY(!running || session.engine.nextShow == 3);
        QCOMPARE(session.heard.contains("(repetido, descartado) amén amén"), script.contains("t:same"));
        const Request first = session.requestsTo("audio/transcriptions").first();
        QCOMPARE(first.headers.value("authorization"), "Bearer sk-test-5e7a-secret");
        QVERIFY(first.body.contains("name=\"language\"\r\n\r\nes\r\n"));
        QVERIFY(first.body.contains("filename=\"church.wav\"\r\nContent-Type: audio/wav\r\n\r\n" +
                                    translation_text::wavFile(std::vector<std::int16_t>(1600)) + "\r\n--"));
        const QJsonObject instructed = jsonBody(session.requestsTo("responses").value(0));
        QVERIFY(instructed["instructions"].toString().contains("Haitian Creole as a human"));
    }

    void limits()
    {
        // The captions wait seven seconds for a slow phrase, and no longer.
        Session session;
        session.service.answer = [](const Request& request) {
            Response response = answering(request);
            response.silent = phraseOf(request) == 0; // the first phrase's transcription never comes
            return response;
        };
        session.sendPhrase(0);
        session.sendPhrase(1);
        QTRY_VERIFY(session.engine.ready.contains(1));
        session.engine.flush();
        QVERIFY(session.captions.isEmpty());
        session.clockMs += 7001;
        session.engine.flush();
        QCOMPARE(session.captions, QStringList{"Phrase"});
        QVERIFY(session.statuses.contains("Se omitió un segmento lento para no detener la pantalla."));
        QVERIFY(session.statuses.last().startsWith("Subtítulo actualizado · 7.0 s"));
        // Three requests at a time, the silent one included, and six waiting: more are passed over, and told.
        session.service.holding = true;
        for (int i = 0; i < 10; ++i) {
            session.feed(blocksOf(1.5, 0.2, 1600));
            session.feed(blocksOf(0.8, 0.0, 1600));
        }
        QCOMPARE(session.engine.inFlight, 3);
        QCOMPARE(int(session.engine.segments.size()), 6);
        QCOMPARE(session.statuses.count("IA con retraso; se omite un segmento."), 2);
        // The session ends three hours after its start, not a millisecond sooner.
        session.clockMs += Translation::sessionLimitMs - 7001;
        session.feed(blocksOf(0.1, 0.2, 1600));
        QVERIFY(session.engine.running);
        session.clockMs += 1;
        session.feed(blocksOf(0.1, 0.2, 1600));
        QCOMPARE(session.statuses.last(), "IA pausada tras 3 horas; inicia otra sesion si corresponde.");
    }

    void audioRouteAndVoice_data()
    {
        QTest::addColumn<int>("status");      // the audio model's answer
        QTest::addColumn<int>("speechBytes"); // the size of the spoken translation
        QTest::addColumn<QStringList>("captions");
        QTest::addColumn<bool>("voiced");
        QTest::newRow("heard directly, thirty seconds of voice")
            << 200 << int(Translation::maxSpeechBytes) << QStringList{"Heard directly"} << true;
        QTest::newRow("model missing falls back, voice a byte too long")
            << 404 << int(Translation::maxSpeechBytes) + 1 << QStringList{"Phrase"} << false;
        QTest::newRow("server error") << 500 << 0 << QStringList{} << false;
    }
    void audioRouteAndVoice()
    {
        QFETCH(int, status);
        QFETCH(int, speechBytes);
        QFETCH(QStringList, captions);
        Session session(true);
        session.service.answer = [status, speechBytes](const Request& request) {
            const QJsonObject choice{{"message", QJsonObject{{"content", "Heard directly"}}}};
            if (request.target.endsWith("speech"))
                return Response{200, QByteArray(speechBytes, '\x01'), false, false, 0, {}, "application/octet-stream"};
            return request.target.endsWith("chat/completions")
                       ? Response{status, StandInHttpServer::json({{"choices", QJsonArray{choice}}})}
                       : answering(request);
        };
        session.engine.audioRoute = true;
        session.sendPhrase(0);
        QTRY_VERIFY(session.settled());
        QCOMPARE(session.captions, captions);
        QCOMPARE(session.engine.audioRoute, status != 404);
        QCOMPARE(session.statuses.contains("Modelo de audio no disponible; se usa transcripción + traducción."),
                 status == 404);
        const QList<Request> spoken = session.requestsTo("audio/speech");
        QCOMPARE(spoken.isEmpty() ? QString() : jsonBody(spoken.first()).value("input").toString(), captions.value(0));
        QTEST(!session.speech.isEmpty(), "voiced");
    }

    void captionHelpers()
    {
        SceneDef scene;
        scene.layers.resize(2);
        scene.layers[0].kind = scene.layers[1].kind = Layer::Kind::Subtitle;
        scene.layers[0].visible = false; // a hidden subtitle first, to be passed over
        scene.layers[1].font = "DejaVu Sans";
        scene.layers[1].rect = QRectF(0.05, 0.6, 0.9, 0.15);
        const Layer* layer = captions::visibleSubtitle(scene);
        QCOMPARE(layer, &scene.layers[1]);
        const captions::Box box = captions::boxFor(layer, 1920, 1080);
        // The oldest lines leave first; a phrase too long for the box stays alone.
        QCOMPARE(captions::fit({"uno", "dos", "tres"}, "cuatro", "\n", box), QStringList({"tres", "cuatro"}));
        const QString words = QString(400, u'x').replace(u'x', "palabra ");
        QCOMPARE(captions::fit({"uno"}, words, "\n", box), QStringList{words});
        // The service's speech: low byte first, each sample four times; a last odd byte is ignored.
        const std::vector<float> samples = captions::speechToStereo(QByteArray("\x00\x40\x00\x80\x7f", 5));
        QCOMPARE(QList<float>(samples.begin(), samples.end()), QList<float>({0.5f, 0.5f, 0.5f, 0.5f, -1, -1, -1, -1}));
    }
};

QTEST_MAIN(tst_Translation)
#include "tst_translation.moc"
