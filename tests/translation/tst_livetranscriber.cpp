#include "LiveTranscriber.h"
#include "RtmpServer.h"
#include "SpokenAudio.h"
#include "StandInHttpServer.h"
#include "TlsTestPeer.h"
#include "Translation.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cmath>
#include <memory>

namespace {

const QString apiKey = "sk-live-9c2d-secret";
const QString active = "Modo en vivo activo (texto mientras se habla).";

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

QByteArray compact(const QJsonObject& object) { return QJsonDocument(object).toJson(QJsonDocument::Compact); }

QByteArray typed(const char* type, QJsonObject more = {})
{
    more["type"] = QString::fromLatin1(type);
    return compact(more);
}

// What the link tells its owner.
struct Link
{
    LiveTranscriber live;
    QStringList statuses, partials, turns;
    int unavailable = 0;

    explicit Link(quint16 port)
    {
        live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(port);
        live.status = [this](const QString& text) { statuses << text; };
        live.partial = [this](const QString& text) { partials << text; };
        live.turn = [this](const QString& text, qint64) { turns << text; };
        live.unavailable = [this] { ++unavailable; };
    }
    void start(const QString& language = "es", const QString& prompt = "x") { live.start(apiKey, language, prompt); }
    void feed(const std::vector<tavrin::AudioBlock>& blocks)
    {
        for (const tavrin::AudioBlock& block : blocks)
            live.feed(block);
    }
};

// Qt's own WebSocket server, as the service: it keeps every message our client sends.
struct QtPeer
{
    QWebSocketServer server{"stand-in", QWebSocketServer::SecureMode};
    QWebSocket* socket = nullptr;
    QList<QJsonObject> received;
    QList<qsizetype> receivedSizes;
    QStringList types;
    QByteArray lastPong;
    std::function<void(const QString& type)> onMessage = [](const QString&) {};

    QtPeer()
    {
        server.setSslConfiguration(testServerConfiguration());
        server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&server, &QWebSocketServer::newConnection, &server, [this] {
            socket = server.nextPendingConnection();
            QObject::connect(socket, &QWebSocket::textMessageReceived, socket, [this](const QString& text) {
                receivedSizes << text.toUtf8().size();
                received << QJsonDocument::fromJson(text.toUtf8()).object();
                types << received.last().value("type").toString();
                onMessage(types.last());
            });
            QObject::connect(socket, &QWebSocket::pong, socket,
                             [this](quint64, const QByteArray& data) { lastPong = data; });
        });
    }
    void send(const char* type, const QJsonObject& more = {})
    {
        socket->sendTextMessage(QString::fromUtf8(typed(type, more)));
    }
    // Has the link open and the session confirmed.
    bool configure(Link& link)
    {
        link.start();
        if (!QTest::qWaitFor([this] { return received.size() == 1; }))
            return false;
        send("session.updated");
        return QTest::qWaitFor([&link] { return link.live.ready; });
    }
};

} // namespace

class tst_LiveTranscriber : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(trustTestCertificate());
    }

    void sessionUpdate_data()
    {
        QTest::addColumn<QByteArray>("model");
        QTest::addColumn<QByteArray>("delay");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray pcm = R"({"format":{"rate":24000,"type":"audio/pcm"},"noise_reduction":{"type":)";
        const QByteArray prompt = R"("prompt":"Sermón cristiano en una iglesia."},)";
        QTest::newRow("text while speaking")
            << QByteArray() << QByteArray() << "es"
            << pcm + R"("near_field"},"transcription":{"delay":"low","language":"es","languages":["es"],)"
                   R"("model":"gpt-live-transcribe",)" + prompt + R"("turn_detection":null})";
        QTest::newRow("delay and noise reduction from the environment, no language")
            << QByteArray("gpt-live-transcribe") << QByteArray("high") << ""
            << pcm + R"("far_field"},"transcription":{"delay":"high","model":"gpt-live-transcribe",)" + prompt
                   + R"("turn_detection":null})";
        QTest::newRow("by turns") << QByteArray("gpt-4o-transcribe") << QByteArray() << "en"
                                  << pcm + R"("near_field"},"transcription":{"language":"en","model":)"
                                           R"("gpt-4o-transcribe"},"turn_detection":{"prefix_padding_ms":300,)"
                                           R"("silence_duration_ms":450,"threshold":0.5,"type":"server_vad"}})";
    }
    void sessionUpdate()
    {
        QFETCH(QByteArray, model);
        QFETCH(QByteArray, delay);
        QFETCH(QString, language);
        qputenv("VELMORA_LIVE_MODEL", model);
        qputenv("VELMORA_LIVE_DELAY", delay);
        qputenv("VELMORA_LIVE_NR", delay.isEmpty() ? QByteArray() : QByteArray("far_field"));
        QtPeer peer;
        Link link(peer.server.serverPort());
        link.start(language, "Sermón cristiano en una iglesia.");
        QTRY_COMPARE(peer.received.size(), 1);
        for (const char* name : {"VELMORA_LIVE_MODEL", "VELMORA_LIVE_DELAY", "VELMORA_LIVE_NR"})
            qunsetenv(name);
        QCOMPARE(peer.socket->request().rawHeader("Authorization"), "Bearer " + apiKey.toUtf8());
        const QJsonObject session = peer.received.first().value("session").toObject();
        QCOMPARE(peer.types.first() + ' ' + session.value("type").toString(), "session.update transcription");
        QTEST(compact(session.value("audio").toObject().value("input").toObject()), "expected");
        peer.send("session.updated");
        QTRY_VERIFY(link.live.ready);
        QCOMPARE(link.statuses.last(), model == "gpt-4o-transcribe" ? "Modo en vivo activo (por turnos)." : active);
    }

    void sendsEveryLengthForm()
    {
        QtPeer peer;
        Link link(peer.server.serverPort());
        QVERIFY(peer.configure(link));
        // 100 ms of audio, then 2 s in one block: the two-byte and the eight-byte length forms; the
        // commit at the end of the turn is the one-byte form. Qt's server unmasks and checks all three.
        link.feed(blocksOf(0.1, 0.3, 4800));
        link.feed(blocksOf(2.0, 0.3, 96000));
        link.feed(blocksOf(0.6, 0.0));
        QTRY_VERIFY(peer.types.contains("input_audio_buffer.commit"));
        QVERIFY(peer.receivedSizes[peer.types.indexOf("input_audio_buffer.commit")] < 126);
        QCOMPARE(QByteArray::fromBase64(peer.received[1].value("audio").toString().toLatin1()).size(), 4800);
        const QByteArray samples = QByteArray::fromBase64(peer.received[2].value("audio").toString().toLatin1());
        QCOMPARE(samples.size(), 96000);
        QVERIFY(peer.receivedSizes[2] > 65535);
        // The automatic gain has brought the tone of 0.3 to half of full scale by the end of the 2 s.
        int loudest = 0;
        for (qsizetype i = samples.size() - 4800; i < samples.size(); i += 2)
            loudest = std::max(loudest, std::abs(int(qint16(quint8(samples[i]) | (quint8(samples[i + 1]) << 8)))));
        QVERIFY2(loudest > 15500 && loudest < 17000, qPrintable(QString::number(loudest)));
    }

    void refusedConnection()
    {
        // A link that never came up has nothing to hand over: the operator is told, the chunked route goes on.
        Link link(RtmpServer::freePort());
        link.start();
        QTRY_COMPARE(link.statuses.size(), 1);
        QVERIFY(link.statuses.first().startsWith("Conexión en vivo falló: "));
        QVERIFY(link.unavailable == 0 && !link.live.ready);
    }

    void serviceEvents()
    {
        QtPeer peer;
        Link link(peer.server.serverPort());
        link.start();
        QTRY_COMPARE(peer.received.size(), 1);
        // A model the service does not offer: the same connection is configured again by turns.
        peer.send("error", {{"error", QJsonObject{{"message", "no such model"}}}});
        QTRY_COMPARE(peer.received.size(), 2);
        QCOMPARE(link.statuses.last(), "Modelo en vivo no disponible (no such model); se intenta por turnos.");
        QCOMPARE(link.live.turnMode, 1);
        peer.send("transcription_session.updated");
        QTRY_VERIFY(link.live.ready);

        peer.socket->setOutgoingFrameSize(8); // one message in many fragments
        peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "Hermanos, "}});
        peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "buenos días"}});
        peer.send("conversation.item.input_audio_transcription.completed",
                  {{"transcript", " Hermanos, buenos días. "}});
        QTRY_COMPARE(link.turns, QStringList{"Hermanos, buenos días."});
        QCOMPARE(link.partials, QStringList({"Hermanos, ", "Hermanos, buenos días"}));
        QVERIFY(link.live.partialText.isEmpty());

        peer.socket->ping(QByteArray(125, 'p'));
        QTRY_COMPARE(peer.lastPong, QByteArray(125, 'p'));
        peer.send("error", {{"error", QJsonObject{{"message", "rate"}}}});
        QTRY_COMPARE(link.statuses.last(), "Error en vivo: rate");
        QVERIFY(link.live.ready);

        peer.socket->abort();
        QTRY_COMPARE(link.unavailable, 1);
        QVERIFY(link.statuses.last().startsWith("Conexión en vivo ") && !link.live.ready);
    }

    void bytesFromTheNetwork_data()
    {
        QTest::addColumn<QByteArray>("answer");  // the upgrade answer, then frames
        QTest::addColumn<int>("splitAt");        // where the bytes are cut into two writes; 0 for one
        QTest::addColumn<QString>("lastStatus"); // what the operator was told last
        QTest::addColumn<int>("pongLengthByte"); // second byte of the pong sent back; -1 for none
        const QByteArray upgrade = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n";
        const QByteArray updated = upgrade + serverFrame(0x81, typed("session.updated"));
        const QString tooBig = "Conexión en vivo cerrada: mensaje demasiado grande.";
        const auto row = [](const char* name, const QByteArray& bytes, const QString& status = {}, int pong = -1,
                            int split = 0) {
            QTest::newRow(name) << bytes << split << status << pong;
        };
        row("frame split inside its header", updated, active, -1, int(upgrade.size() + 1));
        row("frame split inside its payload", updated, active, -1, int(upgrade.size() + 9));
        row("answer and frames in one read",
            updated + serverFrame(0x81, typed("error", {{"error", QJsonObject{{"message", "late"}}}})),
            "Error en vivo: late");
        row("masked frame from the server", upgrade + serverFrame(0x81, typed("session.updated"), ~0ull, true), active);
        row("empty ping", upgrade + serverFrame(0x89, {}), {}, 0x80);
        row("ping of 125 bytes", upgrade + serverFrame(0x89, QByteArray(125, 'a')), {}, 0x80 + 125);
        row("ping of 126 bytes", upgrade + serverFrame(0x89, QByteArray(126, 'a')), {}, 0xfe);
        row("ping of 65536 bytes", upgrade + serverFrame(0x89, QByteArray(65536, 'a')), {}, 0xff, 70);
        row("binary frame ignored", upgrade + serverFrame(0x82, typed("session.updated")));
        row("text that is not JSON", upgrade + serverFrame(0x81, "\xff\xfe{not json") + serverFrame(0x81, "[1,2]"));
        row("close frame", updated + serverFrame(0x88, "\x03\xe8"), "Conexión en vivo cerrada por el servidor.");
        row("a frame of 2^63 bytes announced", upgrade + serverFrame(0x81, "x", 1ull << 63), tooBig);
        row("a length that wraps around with the fragments",
            upgrade + serverFrame(0x01, "ab") + serverFrame(0x80, "x", ~0ull - 1), tooBig);
        row("fragments past the bound",
            upgrade + serverFrame(0x01, QByteArray(LiveTranscriber::maxMessageBytes - 10, 'a')) +
                serverFrame(0x80, QByteArray(20, 'b')),
            tooBig);
        row("refused upgrade", "HTTP/1.1 401 Unauthorized\r\ncontent-length: 0\r\n\r\n",
            "Modo en vivo rechazado: HTTP/1.1 401 Unauthorized\r\ncontent-length: 0");
        row("header that never ends", QByteArray(LiveTranscriber::maxHeaderBytes + 1, 'h'),
            "Modo en vivo rechazado: " + QString(120, u'h'));
        row("unknown opcodes after the upgrade", upgrade + QByteArray::fromHex("8f0082030102038b7e0002abcd"));
    }
    void bytesFromTheNetwork()
    {
        QFETCH(QByteArray, answer);
        QFETCH(int, splitAt);
        QFETCH(QString, lastStatus);
        QFETCH(int, pongLengthByte);
        // The session is up after a confirmation (and a later error); it is gone when closed or refused.
        const bool ready = lastStatus == active || lastStatus.startsWith("Error");
        const bool unavailable = lastStatus.startsWith("Conexión en vivo cerrada") || lastStatus.contains("rechazado");
        RawTlsPeer peer;
        Link link(peer.server.serverPort());
        link.start();
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
            return link.unavailable > 0 || (pongLengthByte >= 0 && peer.fromClient.size() > 200) ||
                   (ready ? link.live.ready : link.live.inbox.isEmpty() && link.live.upgraded);
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

    void turnDecisions_data()
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
    void turnDecisions()
    {
        QFETCH(QList<QPointF>, audio);
        QtPeer peer;
        Link link(peer.server.serverPort());
        QVERIFY(peer.configure(link));
        for (const QPointF& piece : audio)
            link.feed(blocksOf(piece.x(), piece.y()));
        link.live.sendJson({{"type", "marker"}});
        QTRY_COMPARE(peer.types.last(), "marker");
        QTEST(int(peer.types.count("input_audio_buffer.commit")), "commits");
        QTEST(link.live.samplesSinceCommit, "samplesSinceCommit");
        link.live.stop(); // the connection is cut at once
        QTRY_COMPARE(peer.socket->state(), QAbstractSocket::UnconnectedState);
    }

    void independentPeer()
    {
        // Python's websockets library as the service: it answers the update, counts the audio it is
        // sent, and on each commit returns the count as the turn's text.
        QTemporaryDir folder;
        QFile script(folder.filePath("peer.py"));
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(R"(import asyncio, base64, json, ssl, sys, websockets
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
        script.close();
        QProcess python;
        const auto stopPython = qScopeGuard([&python] { python.kill(), python.waitForFinished(); });
        python.start("/usr/bin/python3", {script.fileName(), testCertificateFile(), testKeyFile()});
        QVERIFY(python.waitForReadyRead(10000));
        Link link(quint16(python.readLine().trimmed().toInt()));
        link.start();
        QTRY_VERIFY(link.live.ready);
        // The pause ends the turn 0.45 s into the quiet: all of 1.46 s went out before the commit.
        link.feed(blocksOf(1.0, 0.3));
        link.feed(blocksOf(0.46, 0.0));
        QTRY_COMPARE(link.turns, QStringList{QStringLiteral("bytes=%1").arg(int(1.46 * 24000 * 2))});
    }

    void speechThroughTheLiveRoute()
    {
        // Speech by espeak-ng through the engine: the link turns it into partial texts for the Heard
        // line and finished turns for the captions; when the service goes away, phrases are cut locally.
        const std::vector<float> speech =
            spokenStereo("es", R"(<speak>Hermanos, buenos días a todos. <break time="900ms"/> Abramos la Biblia en )"
                               R"(Juan. <break time="900ms"/> Dios es amor y nos cuida siempre.</speak>)");
        QVERIFY(!speech.empty());
        StandInHttpServer service;
        QVERIFY(service.listen());
        service.answer = [](const StandInHttpServer::Request& request) {
            if (request.target.endsWith("transcriptions"))
                return StandInHttpServer::Response{200, StandInHttpServer::json({{"text", "Trozo"}})};
            const QString input = QJsonDocument::fromJson(request.body).object().value("input").toString();
            const QJsonObject text{{"type", "output_text"}, {"text", "EN " + input.section("New text: ", -1)}};
            return StandInHttpServer::Response{
                200, StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", QJsonArray{text}}}}}})};
        };
        QtPeer peer;
        int turnNumber = 0;
        peer.onMessage = [&peer, &turnNumber](const QString& type) {
            if (type == "session.update")
                peer.send("session.updated");
            else if (type == "input_audio_buffer.append")
                peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "pa "}});
            else if (type == "input_audio_buffer.commit")
                peer.send("conversation.item.input_audio_transcription.completed",
                          {{"transcript", QStringLiteral("Turno %1").arg(++turnNumber)}});
        };
        Translation engine(service.endpoint());
        engine.live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(peer.server.serverPort());
        QStringList captions, heard, statuses;
        engine.caption = [&captions](const QString& text) { captions << text; };
        engine.heard = [&heard](const QString& text) { heard << text; };
        engine.statusChanged = [&statuses](const QString& text) { statuses << text; };
        engine.start(apiKey, "English", false, "es");
        QTRY_VERIFY(engine.live.ready);
        const auto speak = [&] {
            for (std::size_t at = 0; at < speech.size(); at += 3200) {
                tavrin::AudioBlock block;
                block.samples.assign(speech.begin() + std::ptrdiff_t(at),
                                     speech.begin() + std::ptrdiff_t(std::min(speech.size(), at + 3200)));
                engine.feed(block);
                QCoreApplication::processEvents(); // the link's replies arrive while the sermon goes on
            }
        };
        speak();
        for (const tavrin::AudioBlock& block : blocksOf(1.0, 0.0, 1600))
            engine.feed(block);
        QTRY_COMPARE(captions, QStringList({"EN Turno 1", "EN Turno 2", "EN Turno 3"}));
        QVERIFY(heard.contains("… pa pa "));
        QVERIFY(service.requests.size() >= 1 && !service.requests.last().target.endsWith("transcriptions"));

        peer.socket->abort();
        QTRY_VERIFY(!engine.live.ready);
        // The socket reports the loss as an error or as a disconnection, whichever it sees first.
        QVERIFY(statuses.value(statuses.size() - 2).startsWith("Conexión en vivo "));
        QCOMPARE(statuses.last(), "Modo en vivo no disponible; se usa modo por trozos.");
        speak();
        QTRY_VERIFY(captions.contains("EN Trozo"));
    }
};

QTEST_MAIN(tst_LiveTranscriber)
#include "tst_livetranscriber.moc"
