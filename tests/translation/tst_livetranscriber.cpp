#include "LiveTranscriber.h"
#include "SpokenAudio.h"
#include "StandInHttpServer.h"
#include "TlsTestPeer.h"
#include "Translation.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cmath>
#include <memory>

namespace {

const QString apiKey = QStringLiteral("sk-live-9c2d-secret");

// Stereo blocks of a tone (amplitude 0 for silence) of `seconds`, in 20 ms pieces.
std::vector<tavrin::AudioBlock> blocksOf(double seconds, double amplitude, int blockFrames = 960)
{
    std::vector<tavrin::AudioBlock> blocks;
    const int frames = int(seconds * 48000);
    for (int at = 0; at < frames; at += blockFrames) {
        tavrin::AudioBlock block;
        for (int i = at; i < std::min(frames, at + blockFrames); ++i) {
            const auto value = float(amplitude * std::sin(2.0 * M_PI * 200.0 * i / 48000.0));
            block.samples.insert(block.samples.end(), {value, value});
        }
        blocks.push_back(std::move(block));
    }
    return blocks;
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray typed(const char* type, const QJsonObject& more = {})
{
    QJsonObject object = more;
    object[QStringLiteral("type")] = QString::fromLatin1(type);
    return compact(object);
}

// What the link tells its owner.
struct Link
{
    LiveTranscriber live;
    QStringList statuses;
    QStringList partials;
    QStringList turns;
    int unavailable = 0;

    explicit Link(quint16 port)
    {
        live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(port);
        live.status = [this](const QString& text) { statuses << text; };
        live.partial = [this](const QString& text) { partials << text; };
        live.turn = [this](const QString& text, qint64) { turns << text; };
        live.unavailable = [this] { ++unavailable; };
    }
    // Opens the link to `peer` and has the peer confirm the session.
    template <typename Peer> bool configuredBy(Peer& peer)
    {
        live.start(apiKey, QStringLiteral("es"), QStringLiteral("x"));
        if (!QTest::qWaitFor([&peer] { return peer.received.size() == 1; }))
            return false;
        peer.socket->sendTextMessage(QString::fromUtf8(typed("session.updated")));
        return QTest::qWaitFor([this] { return live.ready; });
    }
    void feed(const std::vector<tavrin::AudioBlock>& blocks)
    {
        for (const tavrin::AudioBlock& block : blocks)
            live.feed(block);
    }
};

// Qt's own WebSocket server, as the service: it keeps every message our client sends.
struct QtPeer
{
    QWebSocketServer server{QStringLiteral("stand-in"), QWebSocketServer::SecureMode};
    QWebSocket* socket = nullptr;
    QList<QJsonObject> received;
    QList<qsizetype> receivedSizes;
    QByteArray lastPong;
    std::function<void(const QJsonObject&)> onMessage = [](const QJsonObject&) {};

    QtPeer()
    {
        server.setSslConfiguration(testServerConfiguration());
        server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&server, &QWebSocketServer::newConnection, &server, [this] {
            socket = server.nextPendingConnection();
            QObject::connect(socket, &QWebSocket::textMessageReceived, socket, [this](const QString& text) {
                receivedSizes << text.toUtf8().size();
                received << QJsonDocument::fromJson(text.toUtf8()).object();
                onMessage(received.last());
            });
            QObject::connect(socket, &QWebSocket::pong, socket,
                             [this](quint64, const QByteArray& payload) { lastPong = payload; });
        });
    }
    QStringList types() const
    {
        QStringList found;
        for (const QJsonObject& each : received)
            found << each.value(QLatin1String("type")).toString();
        return found;
    }
};

} // namespace

class tst_LiveTranscriber : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void sessionUpdate_data();
    void sessionUpdate();
    void sendsEveryLengthForm();
    void refusedConnection();
    void serviceEvents();
    void bytesFromTheNetwork_data();
    void bytesFromTheNetwork();
    void turnDecisions_data();
    void turnDecisions();
    void independentPeer();
    void speechThroughTheLiveRoute();
};

void tst_LiveTranscriber::initTestCase()
{
    QVERIFY(trustTestCertificate());
}

void tst_LiveTranscriber::sessionUpdate_data()
{
    QTest::addColumn<QByteArray>("model");
    QTest::addColumn<QByteArray>("delay");
    QTest::addColumn<QString>("language");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("text while speaking")
        << QByteArray() << QByteArray() << "es"
        << QByteArray(R"({"format":{"rate":24000,"type":"audio/pcm"},"noise_reduction":{"type":"near_field"},)"
                      R"("transcription":{"delay":"low","language":"es","languages":["es"],)"
                      R"("model":"gpt-live-transcribe","prompt":"Sermón cristiano en una iglesia."},"turn_detection":null})");
    QTest::newRow("delay and noise reduction from the environment, no language")
        << QByteArray("gpt-live-transcribe") << QByteArray("high") << ""
        << QByteArray(R"({"format":{"rate":24000,"type":"audio/pcm"},"noise_reduction":{"type":"far_field"},)"
                      R"("transcription":{"delay":"high","model":"gpt-live-transcribe","prompt":"Sermón cristiano en una iglesia."},)"
                      R"("turn_detection":null})");
    QTest::newRow("by turns")
        << QByteArray("gpt-4o-transcribe") << QByteArray() << "en"
        << QByteArray(R"({"format":{"rate":24000,"type":"audio/pcm"},"noise_reduction":{"type":"near_field"},)"
                      R"("transcription":{"language":"en","model":"gpt-4o-transcribe"},)"
                      R"("turn_detection":{"prefix_padding_ms":300,"silence_duration_ms":450,"threshold":0.5,"type":"server_vad"}})");
}

void tst_LiveTranscriber::sessionUpdate()
{
    QFETCH(QByteArray, model);
    QFETCH(QByteArray, delay);
    QFETCH(QString, language);
    QFETCH(QByteArray, expected);
    qputenv("VELMORA_LIVE_MODEL", model);
    qputenv("VELMORA_LIVE_DELAY", delay);
    qputenv("VELMORA_LIVE_NR", delay.isEmpty() ? QByteArray() : QByteArray("far_field"));
    QtPeer peer;
    Link link(peer.server.serverPort());
    link.live.start(apiKey, language, QStringLiteral("Sermón cristiano en una iglesia."));
    QTRY_COMPARE(peer.received.size(), 1);
    qunsetenv("VELMORA_LIVE_MODEL");
    qunsetenv("VELMORA_LIVE_DELAY");
    qunsetenv("VELMORA_LIVE_NR");
    QCOMPARE(peer.socket->requestUrl().path(), QStringLiteral("/v1/realtime"));
    QCOMPARE(peer.socket->requestUrl().query(), QStringLiteral("intent=transcription"));
    QCOMPARE(peer.socket->request().rawHeader("Authorization"), "Bearer " + apiKey.toUtf8());
    const QJsonObject update = peer.received.first();
    QCOMPARE(update.value("type").toString(), QStringLiteral("session.update"));
    QCOMPARE(update.value("session").toObject().value("type").toString(), QStringLiteral("transcription"));
    QCOMPARE(compact(update.value("session").toObject().value("audio").toObject().value("input").toObject()), expected);

    peer.socket->sendTextMessage(QString::fromUtf8(typed("session.updated")));
    QTRY_VERIFY(link.live.ready);
    QCOMPARE(link.statuses.last(), model == "gpt-4o-transcribe" ? QStringLiteral("Modo en vivo activo (por turnos).")
                                                                 : QStringLiteral("Modo en vivo activo (texto mientras se habla)."));
}

void tst_LiveTranscriber::sendsEveryLengthForm()
{
    QtPeer peer;
    Link link(peer.server.serverPort());
    QVERIFY(link.configuredBy(peer));
    // 100 ms of audio, then 2 s in one block: the two-byte and the eight-byte length forms; the
    // commit at the end of the turn is the one-byte form. Qt's server unmasks and checks all three.
    link.feed(blocksOf(0.1, 0.3, 4800));
    link.feed(blocksOf(2.0, 0.3, 96000));
    link.feed(blocksOf(0.6, 0.0));
    QTRY_VERIFY(peer.types().contains(QStringLiteral("input_audio_buffer.commit")));
    QVERIFY(peer.receivedSizes[peer.types().indexOf(QStringLiteral("input_audio_buffer.commit"))] < 126);
    QCOMPARE(QByteArray::fromBase64(peer.received[1].value("audio").toString().toLatin1()).size(), 4800);
    QCOMPARE(QByteArray::fromBase64(peer.received[2].value("audio").toString().toLatin1()).size(), 96000);
    QVERIFY(peer.receivedSizes[2] > 65535);
    // The automatic gain has brought the tone of 0.3 to half of full scale by the end of the 2 s.
    const QByteArray samples = QByteArray::fromBase64(peer.received[2].value("audio").toString().toLatin1());
    int loudest = 0;
    for (qsizetype i = samples.size() - 4800; i < samples.size(); i += 2)
        loudest = std::max(loudest, std::abs(int(qint16(quint8(samples[i]) | (quint8(samples[i + 1]) << 8)))));
    QVERIFY2(loudest > 15500 && loudest < 17000, qPrintable(QString::number(loudest)));
}

void tst_LiveTranscriber::refusedConnection()
{
    // A link that never came up has nothing to hand over: the operator is told, the chunked
    // route simply goes on.
    quint16 port = 0;
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        port = probe.serverPort();
    }
    Link link(port);
    link.live.start(apiKey, QStringLiteral("es"), QStringLiteral("x"));
    QTRY_COMPARE(link.statuses.size(), 1);
    QVERIFY(link.statuses.first().startsWith(QStringLiteral("Conexión en vivo falló: ")));
    QCOMPARE(link.unavailable, 0);
    QVERIFY(!link.live.ready);
}

void tst_LiveTranscriber::serviceEvents()
{
    QtPeer peer;
    Link link(peer.server.serverPort());
    link.live.start(apiKey, QStringLiteral("es"), QStringLiteral("x"));
    QTRY_VERIFY(peer.socket);
    QTRY_COMPARE(peer.received.size(), 1);
    // A model the service does not offer: the same connection is configured again by turns.
    peer.socket->sendTextMessage(QString::fromUtf8(typed("error", {{"error", QJsonObject{{"message", "no such model"}}}})));
    QTRY_COMPARE(peer.received.size(), 2);
    QCOMPARE(link.statuses.last(), QStringLiteral("Modelo en vivo no disponible (no such model); se intenta por turnos."));
    QCOMPARE(link.live.turnMode, 1);
    peer.socket->sendTextMessage(QString::fromUtf8(typed("transcription_session.updated")));
    QTRY_VERIFY(link.live.ready);

    peer.socket->setOutgoingFrameSize(8); // one message in many fragments
    peer.socket->sendTextMessage(QString::fromUtf8(
        typed("conversation.item.input_audio_transcription.delta", {{"delta", "Hermanos, "}})));
    peer.socket->sendTextMessage(QString::fromUtf8(
        typed("conversation.item.input_audio_transcription.delta", {{"delta", QStringLiteral("buenos días")}})));
    peer.socket->sendTextMessage(QString::fromUtf8(
        typed("conversation.item.input_audio_transcription.completed", {{"transcript", QStringLiteral(" Hermanos, buenos días. ")}})));
    QTRY_COMPARE(link.turns, QStringList{QStringLiteral("Hermanos, buenos días.")});
    QCOMPARE(link.partials, QStringList({QStringLiteral("Hermanos, "), QStringLiteral("Hermanos, buenos días")}));
    QVERIFY(link.live.partialText.isEmpty());

    peer.socket->ping(QByteArray(125, 'p'));
    QTRY_COMPARE(peer.lastPong, QByteArray(125, 'p'));
    peer.socket->sendTextMessage(QString::fromUtf8(typed("error", {{"error", QJsonObject{{"message", "rate"}}}})));
    QTRY_COMPARE(link.statuses.last(), QStringLiteral("Error en vivo: rate"));
    QVERIFY(link.live.ready);

    peer.socket->abort();
    QTRY_COMPARE(link.unavailable, 1);
    QVERIFY(link.statuses.last().startsWith(QStringLiteral("Conexión en vivo ")));
    QVERIFY(!link.live.ready);
}

void tst_LiveTranscriber::bytesFromTheNetwork_data()
{
    QTest::addColumn<QByteArray>("answer");    // the upgrade answer, then frames
    QTest::addColumn<int>("splitAt");          // where the bytes are cut into two writes; 0 for one
    QTest::addColumn<bool>("ready");           // the session got configured
    QTest::addColumn<QString>("lastStatus");   // what the operator was told last
    QTest::addColumn<int>("pongLengthByte");   // second byte of the pong sent back; -1 for none
    QTest::addColumn<bool>("unavailable");
    const QByteArray upgrade = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n";
    const QByteArray updated = serverFrame(0x81, typed("session.updated"));
    const QByteArray active = QByteArray("Modo en vivo activo (texto mientras se habla).");
    QTest::newRow("frame split inside its header") << upgrade + updated << int(upgrade.size() + 1) << true
                                                   << QString::fromUtf8(active) << -1 << false;
    QTest::newRow("frame split inside its payload") << upgrade + updated << int(upgrade.size() + 9) << true
                                                    << QString::fromUtf8(active) << -1 << false;
    QTest::newRow("answer and frames in one read")
        << upgrade + updated + serverFrame(0x81, typed("error", {{"error", QJsonObject{{"message", "late"}}}})) << 0 << true
        << "Error en vivo: late" << -1 << false;
    QTest::newRow("masked frame from the server") << upgrade + serverFrame(0x81, typed("session.updated"), ~0ull, true) << 0
                                                  << true << QString::fromUtf8(active) << -1 << false;
    QTest::newRow("empty ping") << upgrade + serverFrame(0x89, {}) << 0 << false << "" << 0x80 << false;
    QTest::newRow("ping of 125 bytes") << upgrade + serverFrame(0x89, QByteArray(125, 'a')) << 0 << false << "" << 0x80 + 125
                                       << false;
    QTest::newRow("ping of 126 bytes") << upgrade + serverFrame(0x89, QByteArray(126, 'a')) << 0 << false << "" << 0xfe
                                       << false;
    QTest::newRow("ping of 65536 bytes") << upgrade + serverFrame(0x89, QByteArray(65536, 'a')) << 70 << false << "" << 0xff
                                         << false;
    QTest::newRow("binary frame ignored") << upgrade + serverFrame(0x82, typed("session.updated")) << 0 << false << "" << -1
                                          << false;
    QTest::newRow("text that is not JSON") << upgrade + serverFrame(0x81, "\xff\xfe{not json") + serverFrame(0x81, "[1,2]") << 0
                                           << false << "" << -1 << false;
    QTest::newRow("close frame") << upgrade + updated + serverFrame(0x88, "\x03\xe8") << 0 << false
                                 << "Conexión en vivo cerrada por el servidor." << -1 << true;
    QTest::newRow("a frame of 2^63 bytes announced") << upgrade + serverFrame(0x81, "x", 1ull << 63) << 0 << false
                                                     << "Conexión en vivo cerrada: mensaje demasiado grande." << -1 << true;
    QTest::newRow("a length that wraps around with the fragments")
        << upgrade + serverFrame(0x01, "ab") + serverFrame(0x80, "x", ~0ull - 1) << 0 << false
        << "Conexión en vivo cerrada: mensaje demasiado grande." << -1 << true;
    QTest::newRow("fragments past the bound")
        << upgrade + serverFrame(0x01, QByteArray(LiveTranscriber::maxMessageBytes - 10, 'a')) + serverFrame(0x80, QByteArray(20, 'b'))
        << 0 << false << "Conexión en vivo cerrada: mensaje demasiado grande." << -1 << true;
    QTest::newRow("refused upgrade") << QByteArray("HTTP/1.1 401 Unauthorized\r\ncontent-length: 0\r\n\r\n") << 0
                                     << false << "Modo en vivo rechazado: HTTP/1.1 401 Unauthorized\r\ncontent-length: 0"
                                     << -1 << true;
    QTest::newRow("header that never ends") << QByteArray(LiveTranscriber::maxHeaderBytes + 1, 'h') << 0 << false
                                            << "Modo en vivo rechazado: " + QString(120, u'h') << -1 << true;
    QTest::newRow("unknown opcodes after the upgrade") << upgrade + QByteArray::fromHex("8f0082030102038b7e0002abcd") << 0 << false
                                               << "" << -1 << false;
}

void tst_LiveTranscriber::bytesFromTheNetwork()
{
    QFETCH(QByteArray, answer);
    QFETCH(int, splitAt);
    QFETCH(bool, ready);
    QFETCH(QString, lastStatus);
    QFETCH(int, pongLengthByte);
    QFETCH(bool, unavailable);
    RawTlsPeer peer;
    Link link(peer.server.serverPort());
    link.live.start(apiKey, QStringLiteral("es"), QStringLiteral("x"));
    QTRY_VERIFY(peer.handshaken());
    QVERIFY(peer.fromClient.startsWith("GET /v1/realtime?intent=transcription HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
    peer.fromClient.clear();
    if (splitAt > 0) {
        peer.socket->write(answer.left(splitAt));
        QTRY_VERIFY(!link.live.inbox.isEmpty() || link.live.upgraded);
        QVERIFY(!link.live.ready);
        answer = answer.mid(splitAt);
    }
    peer.socket->write(answer);
    const auto settled = [&] {
        return link.unavailable > 0 || (ready ? link.live.ready : link.live.inbox.isEmpty() && link.live.upgraded) ||
               (pongLengthByte >= 0 && peer.fromClient.size() > 200);
    };
    QTRY_VERIFY(settled());
    QTRY_COMPARE(link.live.ready, ready);
    QCOMPARE(link.statuses.value(link.statuses.size() - 1), lastStatus);
    QCOMPARE(link.unavailable, unavailable ? 1 : 0);
    QVERIFY(link.live.inbox.size() <= LiveTranscriber::maxHeaderBytes);
    if (pongLengthByte >= 0) {
        // After the session update comes the pong, masked, with the length form its size calls for.
        const QByteArray& sent = peer.fromClient;
        const int form = quint8(sent[1]) & 0x7f;
        const qsizetype update = (form == 126 ? 4 + ((quint8(sent[2]) << 8) | quint8(sent[3])) : 2 + form) + 4;
        QTRY_VERIFY(sent.size() > update + 1);
        QCOMPARE(quint8(sent[update]), quint8(0x8a));
        QCOMPARE(quint8(sent[update + 1]), quint8(pongLengthByte));
    }
}

void tst_LiveTranscriber::turnDecisions_data()
{
    // Audio as pieces of (seconds, amplitude); what the turn decision does with it.
    QTest::addColumn<QList<QPointF>>("audio");
    QTest::addColumn<int>("commits");
    QTest::addColumn<int>("samplesSinceCommit");
    // Counts are checked at the 20 ms blocks the tick hands over.
    QTest::newRow("a phrase and a pause") << QList<QPointF>{{1.0, 0.3}, {0.5, 0.0}} << 1 << 960;
    QTest::newRow("three seconds of silence") << QList<QPointF>{{3.01, 0.0}} << 0 << 240;
    // Too little voice for a pause: the seven-second limit drops the count, and the audio stays
    // with the service for the next commit.
    QTest::newRow("a cough, then quiet") << QList<QPointF>{{0.3, 0.3}, {6.8, 0.0}} << 0 << 2400;
}

void tst_LiveTranscriber::turnDecisions()
{
    QFETCH(QList<QPointF>, audio);
    QFETCH(int, commits);
    QFETCH(int, samplesSinceCommit);
    QtPeer peer;
    Link link(peer.server.serverPort());
    QVERIFY(link.configuredBy(peer));
    for (const QPointF& piece : audio)
        link.feed(blocksOf(piece.x(), piece.y()));
    link.live.sendJson({{"type", "marker"}});
    QTRY_COMPARE(peer.types().last(), QStringLiteral("marker"));
    QCOMPARE(peer.types().count(QStringLiteral("input_audio_buffer.commit")), commits);
    QCOMPARE(link.live.samplesSinceCommit, samplesSinceCommit);
}

void tst_LiveTranscriber::independentPeer()
{
    // Python's websockets library as the service: it answers the update, counts the audio it is
    // sent, and on each commit returns the count as the turn's text.
    QTemporaryDir folder;
    const QString script = folder.filePath(QStringLiteral("peer.py"));
    QFile file(script);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(R"(import asyncio, base64, json, ssl, sys, websockets
async def serve(socket, path):
    assert path == "/v1/realtime?intent=transcription", path
    received = 0
    async for text in socket:
        message = json.loads(text)
        if message["type"] == "session.update":
            await socket.send(json.dumps({"type": "session.updated"}))
        elif message["type"] == "input_audio_buffer.append":
            received += len(base64.b64decode(message["audio"]))
        elif message["type"] == "input_audio_buffer.commit":
            await socket.send(json.dumps({"type": "conversation.item.input_audio_transcription.completed",
                                          "transcript": "bytes=%d" % received}))
async def main():
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1], sys.argv[2])
    async with websockets.serve(serve, "127.0.0.1", 0, ssl=context) as server:
        print(server.sockets[0].getsockname()[1], flush=True)
        await asyncio.Future()
asyncio.run(main())
)");
    file.close();
    QProcess python;
    const auto stopPython = qScopeGuard([&python] {
        python.kill();
        python.waitForFinished();
    });
    python.start(QStringLiteral("/usr/bin/python3"), {script, testCertificateFile(), testKeyFile()});
    QVERIFY(python.waitForReadyRead(10000));
    Link link(quint16(python.readLine().trimmed().toInt()));
    link.live.start(apiKey, QStringLiteral("es"), QStringLiteral("x"));
    QTRY_VERIFY(link.live.ready);
    // The pause ends the turn 0.45 s into the quiet: all of 1.46 s went out before the commit.
    link.feed(blocksOf(1.0, 0.3));
    link.feed(blocksOf(0.46, 0.0));
    QTRY_COMPARE(link.turns, QStringList{QStringLiteral("bytes=%1").arg(int(1.46 * 24000 * 2))});
}

void tst_LiveTranscriber::speechThroughTheLiveRoute()
{
    // Speech by espeak-ng through the engine: the link turns it into partial texts for the Heard
    // line and finished turns for the captions; when the service goes away, phrases are cut locally.
    const std::vector<float> speech = spokenStereo(
        QStringLiteral("es"), QStringLiteral("<speak>Hermanos, buenos días a todos. <break time=\"900ms\"/> Abramos la "
                                             "Biblia en Juan. <break time=\"900ms\"/> Dios es amor y nos cuida siempre.</speak>"));
    QVERIFY(!speech.empty());

    StandInHttpServer service;
    QVERIFY(service.listen());
    service.answer = [](const StandInHttpServer::Request& request) {
        if (request.target.endsWith("transcriptions"))
            return StandInHttpServer::Response{200, StandInHttpServer::json({{"text", "Trozo"}})};
        const QString input = QJsonDocument::fromJson(request.body).object().value("input").toString();
        const QJsonObject text{{"type", "output_text"}, {"text", "EN " + input.section(QStringLiteral("New text: "), -1)}};
        return StandInHttpServer::Response{
            200, StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", QJsonArray{text}}}}}})};
    };
    QtPeer peer;
    int turnNumber = 0;
    peer.onMessage = [&peer, &turnNumber](const QJsonObject& message) {
        const QString type = message.value("type").toString();
        if (type == QLatin1String("session.update"))
            peer.socket->sendTextMessage(QString::fromUtf8(typed("session.updated")));
        else if (type == QLatin1String("input_audio_buffer.append"))
            peer.socket->sendTextMessage(
                QString::fromUtf8(typed("conversation.item.input_audio_transcription.delta", {{"delta", "pa "}})));
        else if (type == QLatin1String("input_audio_buffer.commit"))
            peer.socket->sendTextMessage(QString::fromUtf8(typed(
                "conversation.item.input_audio_transcription.completed", {{"transcript", QStringLiteral("Turno %1").arg(++turnNumber)}})));
    };
    Translation engine(service.endpoint());
    engine.live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(peer.server.serverPort());
    QStringList captions;
    QStringList heard;
    QStringList statuses;
    engine.caption = [&captions](const QString& text) { captions << text; };
    engine.heard = [&heard](const QString& text) { heard << text; };
    engine.statusChanged = [&statuses](const QString& text) { statuses << text; };
    engine.start(apiKey, QStringLiteral("English"), false, QStringLiteral("es"));
    QTRY_VERIFY(engine.live.ready);
    for (std::size_t at = 0; at < speech.size(); at += 3200) {
        tavrin::AudioBlock block;
        block.samples.assign(speech.begin() + std::ptrdiff_t(at),
                             speech.begin() + std::ptrdiff_t(std::min(speech.size(), at + 3200)));
        engine.feed(block);
        QCoreApplication::processEvents(); // the link's replies arrive while the sermon goes on
    }
    for (const tavrin::AudioBlock& block : blocksOf(1.0, 0.0, 1600))
        engine.feed(block);
    QTRY_COMPARE(captions, QStringList({QStringLiteral("EN Turno 1"), QStringLiteral("EN Turno 2"), QStringLiteral("EN Turno 3")}));
    QVERIFY(heard.contains(QStringLiteral("… pa pa ")));
    QVERIFY(service.requests.size() >= 1 && !service.requests.last().target.endsWith("transcriptions"));

    peer.socket->abort();
    QTRY_VERIFY(!engine.live.ready);
    // The socket reports the loss as an error or as a disconnection, whichever it sees first.
    QVERIFY(statuses.value(statuses.size() - 2).startsWith(QStringLiteral("Conexión en vivo ")));
    QCOMPARE(statuses.last(), QStringLiteral("Modo en vivo no disponible; se usa modo por trozos."));
    for (std::size_t at = 0; at < speech.size(); at += 3200) {
        tavrin::AudioBlock block;
        block.samples.assign(speech.begin() + std::ptrdiff_t(at),
                             speech.begin() + std::ptrdiff_t(std::min(speech.size(), at + 3200)));
        engine.feed(block);
    }
    QTRY_VERIFY(captions.contains(QStringLiteral("EN Trozo")));
}

QTEST_MAIN(tst_LiveTranscriber)
#include "tst_livetranscriber.moc"
