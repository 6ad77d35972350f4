#include "LiveTranscriber.h"
#include "RtmpServer.h"
#include "SpokenAudio.h"
#include "StandInHttpServer.h"
#include "TlsTestPeer.h"
#include "Translation.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cmath>

namespace {

const QString active = "Modo en vivo activo (texto mientras se habla).";

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

QByteArray typed(const char* type, QJsonObject more = {})
{
    more["type"] = QString::fromLatin1(type);
    return QJsonDocument(more).toJson(QJsonDocument::Compact);
}

// What the link tells its owner.
struct Link
{
    LiveTranscriber live;
    QStringList statuses, partials, turns;
    int unavailable = 0;

    explicit Link(quint16 port, const QString& language = "es")
    {
        live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(port);
        live.status = [this](const QString& text) { statuses << text; };
        live.partial = [this](const QString& text) { partials << text; };
        live.turn = [this](const QString& text, qint64) { turns << text; };
        live.unavailable = [this] { ++unavailable; };
        live.start("sk-live-9c2d-secret", language, "Sermón.");
    }
    void feed(const std::vector<tavrin::AudioBlock>& blocks)
    {
        for (const tavrin::AudioBlock& block : blocks)
            live.feed(block);
    }
};

// Qt's own WebSocket server as the service: it keeps every message our client sends, and answers
// the session update unless told otherwise.
struct QtPeer
{
    QWebSocketServer server{"stand-in", QWebSocketServer::SecureMode};
    QWebSocket* socket = nullptr;
    QList<QJsonObject> received;
    QStringList types;
    QByteArray lastPong;
    bool confirm = true;
    std::function<void(const QString& type)> onMessage = [](const QString&) {};

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
                onMessage(types.last());
            });
            QObject::connect(socket, &QWebSocket::pong, socket, [this](quint64, const QByteArray& data) { lastPong = data; });
        });
    }
    void send(const char* type, const QJsonObject& more = {}) { socket->sendTextMessage(QString::fromUtf8(typed(type, more))); }
    // The audio of every append, in the order sent.
    QList<qsizetype> appended() const
    {
        QList<qsizetype> sizes;
        for (const QJsonObject& message : received)
            if (message.value("type") == "input_audio_buffer.append")
                sizes << QByteArray::fromBase64(message.value("audio").toString().toLatin1()).size();
        return sizes;
    }
};

} // namespace

class tst_LiveTranscriber : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(trustTestCertificate()); }

    void sessionUpdate_data()
    {
        QTest::addColumn<QByteArray>("model");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("expected"); // the transcription settings and the turn detection
        QTest::newRow("text while speaking") << QByteArray() << "es"
                                             << R"({"delay":"low","language":"es","languages":["es"],)"
                                                R"("model":"gpt-live-transcribe","prompt":"Sermón."} )";
        QTest::newRow("by turns, language detected") << QByteArray("gpt-4o-transcribe") << ""
                                                     << R"({"model":"gpt-4o-transcribe"} server_vad)";
    }
    void sessionUpdate()
    {
        QFETCH(QByteArray, model);
        QFETCH(QString, language);
        qputenv("VELMORA_LIVE_MODEL", model);
        QtPeer peer;
        Link link(peer.server.serverPort(), language);
        qunsetenv("VELMORA_LIVE_MODEL");
        QTRY_VERIFY(link.live.ready);
        QCOMPARE(peer.socket->request().rawHeader("Authorization"), "Bearer sk-live-9c2d-secret");
        const QJsonObject update = peer.received.first();
        const QJsonObject input = update["session"]["audio"]["input"].toObject();
        QTEST(QJsonDocument(input["transcription"].toObject()).toJson(QJsonDocument::Compact) + ' ' +
                  input["turn_detection"]["type"].toString(),
              "expected");
        QCOMPARE(link.statuses.last(), model.isEmpty() ? active : "Modo en vivo activo (por turnos).");
    }

    void refusedConnection()
    {
        // A link that never came up has nothing to hand over: the operator is told, the chunked route goes on.
        Link link(RtmpServer::freePort());
        QTRY_COMPARE(link.statuses.size(), 1);
        QVERIFY(link.statuses.first().startsWith("Conexión en vivo falló: "));
        QVERIFY(link.unavailable == 0 && !link.live.ready);
    }

    void serviceEvents()
    {
        QtPeer peer;
        peer.confirm = false;
        Link link(peer.server.serverPort());
        QTRY_COMPARE(peer.received.size(), 1);
        // A model the service does not offer: the same connection is configured again by turns.
        peer.send("error", {{"error", QJsonObject{{"message", "no such model"}}}});
        QTRY_COMPARE(peer.received.size(), 2);
        QCOMPARE(link.statuses.last(), "Modelo en vivo no disponible (no such model); se intenta por turnos.");
        const QJsonObject again = peer.received[1];
        QCOMPARE(again["session"]["audio"]["input"]["turn_detection"]["type"].toString(), "server_vad");
        peer.send("transcription_session.updated");
        QTRY_VERIFY(link.live.ready);

        peer.socket->setOutgoingFrameSize(8); // one message in many fragments
        peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "Hermanos, "}});
        peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "buenos días"}});
        peer.send("conversation.item.input_audio_transcription.completed", {{"transcript", " Hermanos, buenos días. "}});
        QTRY_COMPARE(link.turns, QStringList{"Hermanos, buenos días."});
        QCOMPARE(link.partials, QStringList({"Hermanos, ", "Hermanos, buenos días"}));
        // The longest ping a control frame may carry comes back whole, in the one-byte length form.
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
        const QByteArray upgrade = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n";
        const QByteArray updated = upgrade + serverFrame(0x81, typed("session.updated"));
        const QString tooBig = "Conexión en vivo cerrada: mensaje demasiado grande.";
        const auto row = [](const char* name, const QByteArray& bytes, const QString& status = {}, int split = 0) {
            QTest::newRow(name) << bytes << split << status;
        };
        row("frame split inside its header", updated, active, int(upgrade.size() + 1));
        row("frame split inside its payload", updated, active, int(upgrade.size() + 9));
        row("answer and frames in one read",
            updated + serverFrame(0x81, typed("error", {{"error", QJsonObject{{"message", "late"}}}})),
            "Error en vivo: late");
        row("masked frame from the server", upgrade + serverFrame(0x81, typed("session.updated"), ~0ull, true), active);
        row("close frame", updated + serverFrame(0x88, "\x03\xe8"), "Conexión en vivo cerrada por el servidor.");
        row("a length that wraps around with the fragments",
            upgrade + serverFrame(0x01, "ab") + serverFrame(0x80, "x", ~0ull - 1), tooBig);
        row("fragments past the bound",
            upgrade + serverFrame(0x01, QByteArray(LiveTranscriber::maxMessageBytes - 10, 'a')) +
                serverFrame(0x80, QByteArray(20, 'b')),
            tooBig);
        row("refused upgrade", "HTTP/1.1 401 Unauthorized\r\n\r\n", "Modo en vivo rechazado: HTTP/1.1 401 Unauthorized");
        row("header that never ends", QByteArray(LiveTranscriber::maxHeaderBytes + 1, 'h'),
            "Modo en vivo rechazado: " + QString(120, u'h'));
        row("binary, unknown opcodes and text not JSON",
            upgrade + serverFrame(0x82, typed("session.updated")) + QByteArray::fromHex("8f008b7e0002abcd") +
                serverFrame(0x81, "\xff{not json"));
    }
    void bytesFromTheNetwork()
    {
        QFETCH(QByteArray, answer);
        QFETCH(int, splitAt);
        QFETCH(QString, lastStatus);
        // The session is up after a confirmation (and a later error); it is gone when closed or refused.
        const bool ready = lastStatus == active || lastStatus.startsWith("Error");
        const bool unavailable = lastStatus.startsWith("Conexión en vivo cerrada") || lastStatus.contains("rechazado");
        RawTlsPeer peer;
        Link link(peer.server.serverPort());
        QTRY_VERIFY(peer.handshaken());
        QVERIFY(peer.fromClient.startsWith("GET /v1/realtime?intent=transcription HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
        if (splitAt > 0) {
            peer.socket->write(answer.left(splitAt));
            QTRY_VERIFY(!link.live.inbox.isEmpty() || link.live.upgraded);
            QVERIFY(!link.live.ready);
        }
        peer.socket->write(answer.mid(splitAt));
        QTRY_VERIFY(link.unavailable > 0 || (ready ? link.live.ready : link.live.inbox.isEmpty() && link.live.upgraded));
        QTRY_COMPARE(link.live.ready, ready);
        QCOMPARE(link.statuses.value(link.statuses.size() - 1), lastStatus);
        QCOMPARE(link.unavailable, unavailable ? 1 : 0);
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
        // Too little voice for a pause: the seven-second limit drops the count, and the audio stays
        // with the service for the next commit.
        QTest::newRow("a cough, then quiet") << QList<QPointF>{{0.3, 0.3}, {6.8, 0.0}} << "" << 0 << 0 << 2400;
        // A finished sentence ends the turn after 0.15 s of quiet, once two seconds have gone by.
        QTest::newRow("a full stop") << QList<QPointF>{{2.2, 0.3}, {0.16, 0.0}} << "Amén." << 0 << 1 << 0;
        QTest::newRow("no full stop") << QList<QPointF>{{2.2, 0.3}, {0.16, 0.0}} << "Amén" << 0 << 0 << 56640;
        // Half a second since the last commit is enough to commit again.
        QTest::newRow("half a second") << QList<QPointF>{{0.0001, 0.0}} << "" << 11998 << 1 << 0;
        QTest::newRow("just under half a second") << QList<QPointF>{{0.0001, 0.0}} << "" << 11997 << 0 << 11999;
    }
    void turnDecisions()
    {
        QFETCH(QList<QPointF>, audio);
        QFETCH(int, primed);
        QtPeer peer;
        Link link(peer.server.serverPort());
        QTRY_VERIFY(link.live.ready);
        QFETCH(QString, partial);
        link.live.partialText = partial;
        if (primed > 0) {
            link.live.speechSeen = true;
            link.live.voicedCount = 19200;
            link.live.silentRun = 10800;
            link.live.samplesSinceCommit = primed;
        }
        for (const QPointF& piece : audio)
            link.feed(blocksOf(piece.x(), piece.y()));
        link.live.sendJson({{"type", "marker"}});
        QTRY_COMPARE(peer.types.last(), "marker");
        QTEST(int(peer.types.count("input_audio_buffer.commit")), "commits");
        QTEST(link.live.samplesSinceCommit, "samplesSinceCommit");
        link.live.stop(); // the connection is cut at once
        QTRY_COMPARE(peer.socket->state(), QAbstractSocket::UnconnectedState);
    }

    void audioPieces()
    {
        // 100 ms, then 2 s in one block, then a pause: the two-byte and the eight-byte length forms, the
        // commit in the one-byte form; Qt's server unmasks and checks all three. The pause ends the turn
        // 0.45 s into the quiet, and all the audio went out before the commit.
        QtPeer peer;
        Link link(peer.server.serverPort());
        QTRY_VERIFY(link.live.ready);
        link.feed(blocksOf(0.1, 0.3, 4800));
        link.feed(blocksOf(2.0, 0.3, 96000));
        link.feed(blocksOf(0.46, 0.0));
        QTRY_COMPARE(peer.types.last(), "input_audio_buffer.commit");
        QCOMPARE(peer.appended(), QList<qsizetype>({4800, 96000, 4800, 4800, 4800, 4800, 2880}));
    }

    void liveRouteInTheEngine()
    {
        // The link's partial texts go to the Heard line and its turns to the captions; when the
        // service goes away, a sermon spoken by espeak-ng is cut into phrases locally.
        StandInHttpServer service;
        QVERIFY(service.listen());
        service.answer = [](const StandInHttpServer::Request& request) {
            const QJsonObject text{{"type", "output_text"}, {"text", "Hi"}};
            return StandInHttpServer::Response{200, request.target.endsWith("transcriptions")
                ? StandInHttpServer::json({{"text", QStringLiteral("Trozo %1").arg(request.body.size())}})
                : StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", QJsonArray{text}}}}}})};
        };
        QtPeer peer;
        peer.onMessage = [&peer](const QString& type) {
            if (type == "input_audio_buffer.append")
                peer.send("conversation.item.input_audio_transcription.delta", {{"delta", "pa "}});
            else if (type == "input_audio_buffer.commit")
                peer.send("conversation.item.input_audio_transcription.completed", {{"transcript", "Turno"}});
        };
        Translation engine(service.endpoint());
        engine.live.endpoint = QStringLiteral("https://127.0.0.1:%1/v1/").arg(peer.server.serverPort());
        QStringList captions, heard, statuses;
        engine.caption = [&captions](const QString& text) { captions << text; };
        engine.heard = [&heard](const QString& text) { heard << text; };
        engine.statusChanged = [&statuses](const QString& text) { statuses << text; };
        engine.start("sk-live-9c2d-secret", "English", false, "es");
        QTRY_VERIFY(engine.live.ready);
        const auto feed = [&engine](const std::vector<tavrin::AudioBlock>& blocks) {
            for (const tavrin::AudioBlock& block : blocks) {
                engine.feed(block);
                QCoreApplication::processEvents(); // the link's replies arrive while the sermon goes on
            }
        };
        feed(blocksOf(1.0, 0.3));
        feed(blocksOf(0.5, 0.0));
        QTRY_COMPARE(captions, QStringList{"Hi"});
        QVERIFY(heard.contains("… pa pa ") && heard.contains("Turno"));

        peer.socket->abort();
        QTRY_VERIFY(!engine.live.ready);
        QCOMPARE(statuses.last(), "Modo en vivo no disponible; se usa modo por trozos.");
        std::vector<float> speech = spokenStereo("es", R"(<speak>Hermanos, buenos días a todos. <break time="900ms"/>)"
                                                       R"( Abramos la Biblia en el libro de Juan. <break time="1200ms"/>)"
                                                       R"( Dios es amor.</speak>)");
        QVERIFY2(!speech.empty(), "espeak-ng or sox failed");
        speech.resize(speech.size() + 192000);
        for (std::size_t at = 0; at < speech.size(); at += 3200)
            engine.feed({{speech.begin() + std::ptrdiff_t(at),
                          speech.begin() + std::ptrdiff_t(std::min(speech.size(), at + 3200))}, 0, {}, {}});
        // Three phrases, each cut at its pause.
        QTRY_COMPARE(captions.size(), 4);
    }
};

QTEST_MAIN(tst_LiveTranscriber)
#include "tst_livetranscriber.moc"
