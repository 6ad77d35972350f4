#include "Captions.h"
#include "Layer.h"
#include "SceneDef.h"
#include "StandInHttpServer.h"
#include "Translation.h"
#include "TranslationText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QTest>

#include <cmath>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;

// The body of one part of a multipart form.
QByteArray formField(const Request& request, const QByteArray& name)
{
    const QByteArray type = request.headers.value("content-type");
    const QByteArray end = "\r\n--" + type.mid(type.indexOf("boundary=") + 9).replace('"', "");
    const qsizetype at = request.body.indexOf("name=\"" + name + '"');
    const qsizetype start = request.body.indexOf("\r\n\r\n", at) + 4;
    return at < 0 ? QByteArray() : request.body.mid(start, request.body.indexOf(end, start) - start);
}

QJsonObject jsonBody(const Request& request) { return QJsonDocument::fromJson(request.body).object(); }
QByteArray transcription(const QString& text) { return StandInHttpServer::json({{"text", text}}); }
QByteArray translationAnswer(const QString& first, const QString& second = {})
{
    QJsonArray content;
    for (const QString& piece : {first, second})
        content.append(QJsonObject{{"type", "output_text"}, {"text", piece}});
    return StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", content}}}}});
}

// Which phrase a transcription request carries: phrases of 1600 × (n + 1) samples.
int phraseOf(const Request& request) { return int((formField(request, "file").size() - 44) / 3200) - 1; }

// The stand-in's usual answers: "Texto n" heard in phrase n, `said` as its translation.
Response answering(const Request& request, const QString& said = "Phrase")
{
    if (request.target.endsWith("transcriptions"))
        return {200, transcription(QStringLiteral("Texto %1").arg(phraseOf(request)))};
    return {200, translationAnswer(said)};
}

// Stereo samples of a tone (amplitude 0 gives silence) lasting `seconds`.
std::vector<float> tone(double seconds, double amplitude)
{
    std::vector<float> samples;
    for (int i = 0; i < int(seconds * 48000); ++i)
        samples.insert(samples.end(), 2, float(amplitude * std::sin(2.0 * M_PI * 220.0 * i / 48000.0)));
    return samples;
}

// One engine against one stand-in service, with everything it tells the window kept.
struct Session
{
    StandInHttpServer service;
    bool listening = service.listen();
    Translation engine{service.endpoint()};
    QStringList captions, statuses, heard;
    QList<QByteArray> speech;
    qint64 clockMs = 1'700'000'000'000;

    explicit Session(bool voice = false, const QString& source = "es")
    {
        engine.nowMs = [this] { return clockMs; };
        engine.caption = [this](const QString& text) { captions << text; };
        engine.statusChanged = [this](const QString& text) { statuses << text; };
        engine.heard = [this](const QString& text) { heard << text; };
        engine.voiceAudio = [this](const QByteArray& audio) { speech << audio; };
        engine.chunkOnly = true;
        engine.start("sk-test-5e7a-secret", "Haitian Creole", voice, source);
    }
    QList<Request> requestsTo(const QByteArray& path) const
    {
        QList<Request> found;
        for (const Request& request : service.requests)
            if (request.target == "/v1/" + path)
                found << request;
        return found;
    }
    void feed(const std::vector<float>& samples)
    {
        for (std::size_t at = 0; at < samples.size(); at += 3200)
            engine.feed({{samples.begin() + std::ptrdiff_t(at),
                          samples.begin() + std::ptrdiff_t(std::min(samples.size(), at + 3200))}, 0, {}, {}});
    }
    // Sends phrase n, a WAV of 1600 × (n + 1) samples.
    void sendPhrase(int n)
    {
        engine.cutTimes[engine.nextId] = clockMs;
        engine.segments.push_back({engine.nextId++, translation_text::wavFile(std::vector<std::int16_t>(1600 * (n + 1)))});
        engine.pump();
    }
    bool settled() const { return engine.net.findChildren<QNetworkReply*>().isEmpty(); }
};

} // namespace

class tst_Translation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void failureTexts()
    {
        // The rest of the statuses are met through the engine's replies below.
        const QByteArray quota = R"({"error":{"code":"insufficient_quota"}})";
        QVERIFY(translation_text::isFatalFailure(403, {}) && !translation_text::isFatalFailure(404, quota));
        QCOMPARE(translation_text::failureMessage(403, {}), "API key o permisos no validos.");
    }

    void feedRules_data()
    {
        QTest::addColumn<QList<int>>("blockFloats"); // the sizes of the blocks of silence fed
        QTest::addColumn<int>("pcmAfter");
        QTest::addColumn<int>("decimationAfter");
        QTest::newRow("odd float dropped, next block pairs afresh") << QList<int>{7, 3} << 1 << 1;
        QTest::newRow("decimation carries across blocks") << QList<int>{10, 2} << 2 << 0;
        // Two seconds of silence are let go; what follows starts a new buffer.
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

    void requestForms()
    {
        Session session(false, ""); // the language detected by the service
        session.service.answer = [](const Request& request) { return answering(request, "Tradiksyon"); };
        session.sendPhrase(0);
        QTRY_COMPARE(session.captions.size(), 1);
        session.sendPhrase(1);
        QTRY_COMPARE(session.captions.size(), 2);
        QVERIFY(!session.requestsTo("models/gpt-4.1-mini").isEmpty());
        const Request transcribe = session.requestsTo("audio/transcriptions").first();
        QCOMPARE(transcribe.headers.value("authorization"), "Bearer sk-test-5e7a-secret");
        // No language part; the WAV last.
        QCOMPARE(transcribe.body.count("Content-Disposition: form-data; name="), 4);
        QVERIFY(transcribe.body.contains("filename=\"church.wav\"\r\nContent-Type: audio/wav\r\n\r\n"
                                         + translation_text::wavFile(std::vector<std::int16_t>(1600)) + "\r\n--"));
        const QList<Request> translations = session.requestsTo("responses");
        QVERIFY(jsonBody(translations[0]).value("instructions").toString().contains("Haitian Creole as a human"));
        QCOMPARE(jsonBody(translations[1]).value("input").toString(),
                 "Previous original:  Texto 0\nPrevious translation:  Tradiksyon\nNew text: Texto 1");
    }

    void replies_data()
    {
        // How the stand-in answers each of three phrases, in the order they were spoken: "ok", or a
        // failure at the transcription ("t:…") or at the translation ("r:…").
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QStringList>("captions");
        QTest::addColumn<QString>("status");
        QTest::addColumn<bool>("running");
        const QStringList all{"Phrase 0", "Phrase 1", "Phrase 2"};
        const QString failed =
            "Transcripcion: No se pudo completar la solicitud. HTTP %1. Revisa conexion y acceso al modelo.";
        QTest::newRow("answers overtake each other") << QStringList{"slow", "ok", "ok"} << all << "" << true;
        QTest::newRow("rate limit passes one number empty")
            << QStringList{"ok", "r:429", "ok"} << QStringList{"Phrase 0", "Phrase 2"}
            << "Traduccion: Limite temporal de la API; se reintenta con el siguiente segmento." << true;
        QTest::newRow("request id is quoted") << QStringList{"ok", "ok", "t:500id"} << all.mid(0, 2)
                                              << failed.arg(500) + " ID: req_42" << true;
        QTest::newRow("connection lost") << QStringList{"t:drop", "ok", "ok"} << all.mid(1) << failed.arg(0) << true;
        QTest::newRow("malformed or empty answers pass empty")
            << QStringList{"t:empty", "t:garbage", "r:garbage"} << QStringList{} << "" << true;
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
                response.drop = failure == "drop";
                if (failure == "quota")
                    response = Response{429, R"({"error":{"code":"insufficient_quota"}})"};
                else if (failure == "500id")
                    response.headers = {{"x-request-id", "req_42"}};
                else if (failure == "garbage" || failure == "empty")
                    response = Response{200, failure == "empty" ? transcription("  ") : "{\"text\": oops"};
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
        QCOMPARE(formField(session.requestsTo("audio/transcriptions").first(), "language"), "es");
    }

    void queueLimit()
    {
        Session session;
        session.service.holding = true;
        std::vector<float> phrase = tone(1.5, 0.2);
        const std::vector<float> pause = tone(0.8, 0.0);
        phrase.insert(phrase.end(), pause.begin(), pause.end());
        for (int i = 0; i < 10; ++i)
            session.feed(phrase);
        QCOMPARE(session.engine.inFlight, 3);
        QCOMPARE(int(session.engine.segments.size()), 6);
        QCOMPARE(session.engine.nextId, 9);
        QCOMPARE(session.statuses.count("IA con retraso; se omite un segmento."), 1);
    }

    void slowNumberSkipped()
    {
        Session session;
        session.service.answer = [](const Request& request) {
            Response response = answering(request);
            response.silent = phraseOf(request) == 0 && request.target.endsWith("transcriptions");
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
    }

    void audioRoute_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("captions");
        QTest::newRow("answer") << 200 << QStringList{"Heard directly"};
        QTest::newRow("model missing falls back") << 404 << QStringList{"Phrase"};
        QTest::newRow("server error") << 500 << QStringList{};
    }
    void audioRoute()
    {
        QFETCH(int, status);
        Session session;
        session.service.answer = [status](const Request& request) {
            const QJsonObject choice{{"message", QJsonObject{{"content", "Heard directly"}}}};
            return request.target.endsWith("chat/completions")
                       ? Response{status, StandInHttpServer::json({{"choices", QJsonArray{choice}}})}
                       : answering(request);
        };
        session.engine.audioRoute = true;
        session.sendPhrase(0);
        QTRY_COMPARE(session.engine.nextShow, 1);
        QTEST(session.captions, "captions");
        QCOMPARE(session.engine.audioRoute, status != 404);
        const QJsonObject body = jsonBody(session.requestsTo("chat/completions").first());
        const QJsonValue audio = body["messages"][1]["content"][0]["input_audio"]["data"];
        QCOMPARE(QByteArray::fromBase64(audio.toString().toLatin1()).size(), 44 + 3200);
        QCOMPARE(session.statuses.contains("Modelo de audio no disponible; se usa transcripción + traducción."),
                 status == 404);
    }

    void speech_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::newRow("thirty seconds") << int(Translation::maxSpeechBytes);
        QTest::newRow("one byte more") << int(Translation::maxSpeechBytes) + 1;
    }
    void speech()
    {
        QFETCH(int, bytes);
        Session session(true);
        session.service.answer = [bytes](const Request& request) {
            if (request.target.endsWith("speech"))
                return Response{200, QByteArray(bytes, '\x01'), false, false, 0, {}, "application/octet-stream"};
            return answering(request, "Let us pray");
        };
        session.sendPhrase(0);
        QTRY_COMPARE(session.requestsTo("audio/speech").size(), 1);
        QCOMPARE(jsonBody(session.requestsTo("audio/speech").first()).value("input").toString(), "Let us pray");
        QTRY_VERIFY(session.settled());
        QCOMPARE(session.speech.size(), bytes <= Translation::maxSpeechBytes ? 1 : 0);
    }

    void threeHourLimit()
    {
        Session session;
        session.feed(tone(1.0, 0.2));
        QVERIFY(!session.engine.pcm.empty());
        session.clockMs += Translation::sessionLimitMs;
        session.feed(tone(0.1, 0.2));
        QVERIFY(session.engine.running);
        session.clockMs += 1;
        session.feed(tone(0.1, 0.2));
        QVERIFY(!session.engine.running && session.engine.pcm.empty());
        QCOMPARE(session.statuses.last(), "IA pausada tras 3 horas; inicia otra sesion si corresponde.");
    }

    void captionFit_data()
    {
        QTest::addColumn<QStringList>("before");
        QTest::addColumn<QString>("added");
        QTest::addColumn<QStringList>("after");
        const QString words = QString(400, u'x').replace(u'x', "palabra ");
        QTest::newRow("oldest leaves first") << QStringList{"uno", "dos", "tres"} << "cuatro" << QStringList{"tres", "cuatro"};
        QTest::newRow("a long phrase alone stays") << QStringList{"uno"} << words << QStringList{words};
    }
    void captionFit()
    {
        QFETCH(QStringList, before);
        QFETCH(QString, added);
        SceneDef scene;
        scene.layers.resize(2);
        for (Layer& layer : scene.layers) {
            layer.kind = Layer::Kind::Subtitle;
            layer.font = "DejaVu Sans";
        }
        scene.layers[0].visible = false; // a hidden subtitle first, to be passed over
        scene.layers[1].rect = QRectF(0.05, 0.6, 0.9, 0.15);
        const Layer* layer = captions::visibleSubtitle(scene);
        QCOMPARE(layer, &scene.layers[1]);
        QTEST(captions::fit(before, added, captions::separatorFor(1), captions::boxFor(layer, 1920, 1080)), "after");
    }

    void speechSamples()
    {
        // Low byte first, each sample four times; a last odd byte is ignored.
        const std::vector<float> samples = captions::speechToStereo(QByteArray("\x00\x40\x00\x80\x7f", 5));
        QCOMPARE(QList<float>(samples.begin(), samples.end()), QList<float>({0.5f, 0.5f, 0.5f, 0.5f, -1, -1, -1, -1}));
    }
};

QTEST_MAIN(tst_Translation)
#include "tst_translation.moc"
