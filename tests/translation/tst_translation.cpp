#include "Captions.h"
#include "Layer.h"
#include "MediaProbe.h"
#include "SceneDef.h"
#include "SpokenAudio.h"
#include "StandInHttpServer.h"
#include "Translation.h"
#include "TranslationText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <numeric>

namespace {

using Request = StandInHttpServer::Request;
using Response = StandInHttpServer::Response;
const QString apiKey = "sk-test-5e7a-secret";

// The body of one part of a multipart form.
QByteArray formField(const Request& request, const QByteArray& name)
{
    const QByteArray type = request.headers.value("content-type");
    const QByteArray end = "\r\n--" + type.mid(type.indexOf("boundary=") + 9).replace('"', "");
    const qsizetype at = request.body.indexOf("name=\"" + name + '"');
    if (at < 0)
        return {};
    const qsizetype start = request.body.indexOf("\r\n\r\n", at) + 4;
    return request.body.mid(start, request.body.indexOf(end, start) - start);
}

QJsonObject jsonBody(const Request& request) { return QJsonDocument::fromJson(request.body).object(); }
QByteArray transcription(const QString& text) { return StandInHttpServer::json({{"text", text}}); }

QByteArray translationAnswer(const QStringList& pieces)
{
    QJsonArray content;
    for (const QString& piece : pieces)
        content.append(QJsonObject{{"type", "output_text"}, {"text", piece}});
    return StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", content}}}}});
}

// The stand-in's usual answers: `heard` for a transcription, `said` for a translation.
std::function<Response(const Request&)> answering(const QString& heard, const QString& said)
{
    return [=](const Request& request) {
        const bool transcribing = request.target.endsWith("transcriptions");
        return Response{200, transcribing ? transcription(heard) : translationAnswer({said})};
    };
}

// Stereo samples of a tone (amplitude 0 gives silence) lasting `seconds`.
std::vector<float> tone(double seconds, double amplitude)
{
    std::vector<float> samples;
    for (int i = 0; i < int(seconds * 48000); ++i)
        samples.insert(samples.end(), 2, float(amplitude * std::sin(2.0 * M_PI * 220.0 * i / 48000.0)));
    return samples;
}

void feedBlocks(Translation& engine, const std::vector<float>& samples, std::size_t blockFloats = 3200)
{
    for (std::size_t at = 0; at < samples.size(); at += blockFloats) {
        tavrin::AudioBlock block;
        block.samples.assign(samples.begin() + std::ptrdiff_t(at),
                             samples.begin() + std::ptrdiff_t(std::min(samples.size(), at + blockFloats)));
        engine.feed(block);
    }
}

// One engine against one stand-in service, with everything it tells the window kept.
struct Session
{
    StandInHttpServer service;
    std::unique_ptr<Translation> engine;
    QStringList captions, statuses, heard;
    QList<QByteArray> speech;
    qint64 clockMs = 1'700'000'000'000;

    explicit Session(bool voice = false)
    {
        service.listen();
        engine = std::make_unique<Translation>(service.endpoint());
        engine->nowMs = [this] { return clockMs; };
        engine->caption = [this](const QString& text) { captions << text; };
        engine->statusChanged = [this](const QString& text) { statuses << text; };
        engine->heard = [this](const QString& text) { heard << text; };
        engine->voiceAudio = [this](const QByteArray& audio) { speech << audio; };
        engine->chunkOnly = true;
        engine->start(apiKey, "English", voice, "es");
    }
    QList<Request> requestsTo(const QByteArray& path) const
    {
        QList<Request> found;
        for (const Request& request : service.requests)
            if (request.target == "/v1/" + path)
                found << request;
        return found;
    }
    // Sends one phrase whose WAV carries `samples` samples; the stand-in tells phrases apart by it.
    void sendPhrase(int samples)
    {
        Translation::Segment segment{engine->nextId++, translation_text::wavFile(std::vector<std::int16_t>(samples))};
        engine->cutTimes[segment.id] = clockMs;
        engine->segments.push_back(segment);
        engine->pump();
    }
    bool settled() const { return engine->net.findChildren<QNetworkReply*>().isEmpty(); }
};

// Which phrase a transcription request carries: phrases of 1600 × (n + 1) samples.
int phraseOf(const Request& request) { return int((formField(request, "file").size() - 44) / 3200) - 1; }

} // namespace

class tst_Translation : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void textForms_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("key");
        QTest::newRow("case and punctuation do not count") << "¡Dios ES amor!" << "dios es amor";
        QTest::newRow("accents are kept") << "Señor, está aquí" << "señor está aquí";
        QTest::newRow("blanks collapse") << "  uno \t dos\n tres " << "uno dos tres";
        QTest::newRow("punctuation only") << "¿...?" << "";
        QTest::newRow("digits stay") << "Juan 3:16" << "juan 316";
    }
    void textForms()
    {
        QFETCH(QString, text);
        QTEST(translation_text::repetitionKey(text), "key");
    }

    void failures_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("fatal");
        // The rest of the statuses are met through the engine's replies below.
        QTest::newRow("bad key") << 401 << QByteArray("not json") << "API key o permisos no validos." << true;
        QTest::newRow("no rights") << 403 << QByteArray() << "API key o permisos no validos." << true;
        QTest::newRow("quota code on another status")
            << 404 << QByteArray(R"({"error":{"code":"insufficient_quota"}})")
            << "No se pudo completar la solicitud. HTTP 404. Revisa conexion y acceso al modelo." << false;
    }
    void failures()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QTEST(translation_text::failureMessage(status, body), "message");
        QTEST(translation_text::isFatalFailure(status, body), "fatal");
    }

    void feedRules_data()
    {
        QTest::addColumn<QList<int>>("blockFloats"); // the sizes of the blocks fed, of a steady tone
        QTest::addColumn<double>("amplitude");
        QTest::addColumn<int>("pcmAfter");
        QTest::addColumn<int>("decimationAfter");
        QTest::newRow("empty block") << QList<int>{0} << 0.3 << 0 << 0;
        QTest::newRow("one float") << QList<int>{1} << 0.3 << 0 << 0;
        QTest::newRow("odd float dropped, next block pairs afresh") << QList<int>{7, 3} << 0.3 << 1 << 1;
        QTest::newRow("decimation carries across blocks") << QList<int>{10, 2} << 0.3 << 2 << 0;
        // Two seconds of silence are let go; what follows starts a new buffer.
        QTest::newRow("silence is emptied every 2 s") << QList<int>{240000} << 0.0 << 40000 - 32000 << 0;
    }
    void feedRules()
    {
        QFETCH(QList<int>, blockFloats);
        QFETCH(double, amplitude);
        Session session;
        const std::vector<float> source = tone(6.0, amplitude);
        auto at = source.begin();
        for (const int floats : blockFloats) {
            tavrin::AudioBlock block;
            block.samples.assign(at, at + floats);
            at += floats;
            session.engine->feed(block);
        }
        QTEST(int(session.engine->pcm.size()), "pcmAfter");
        QTEST(session.engine->decimationCount, "decimationAfter");
        QCOMPARE(session.engine->nextId, 0);
    }

    void speechCutsAtPauses_data()
    {
        QTest::addColumn<QString>("voice");
        QTest::addColumn<QString>("ssml");
        QTest::addColumn<int>("phrases");
        QTest::newRow("Spanish") << "es"
                                 << R"(<speak>Hermanos, buenos días a todos. <break time="900ms"/> Abramos la )"
                                    R"(Biblia en el libro de Juan. <break time="1200ms"/> Dios es amor y nos cuida )"
                                    R"(siempre.</speak>)"
                                 << 3;
        QTest::newRow("English") << "en"
                                 << R"(<speak>Good morning, brothers and sisters. <break time="1000ms"/> Let us open )"
                                    R"(the Bible in the book of John. <break time="800ms"/> God is love.</speak>)"
                                 << 3;
        // A click is voice for a moment but not a phrase: nothing is sent for it.
        QTest::newRow("click then silence") << "" << "" << 0;
    }
    void speechCutsAtPauses()
    {
        QFETCH(QString, voice);
        QFETCH(QString, ssml);
        std::vector<float> source = ssml.isEmpty() ? tone(0.2, 0.0) : spokenStereo(voice, ssml);
        QVERIFY2(!source.empty(), "espeak-ng or sox failed");
        if (ssml.isEmpty())
            std::fill_n(source.begin() + 4800, 60, 0.5f);
        const std::vector<float> tail = tone(2.0, 0.0);
        source.insert(source.end(), tail.begin(), tail.end());
        Session session;
        session.service.answer = answering("frase", "phrase");
        // Each phrase reaches the stand-in before the next is cut, so that it sees them in spoken order.
        for (std::size_t at = 0; at < source.size(); at += 3200) {
            feedBlocks(*session.engine, {source.begin() + std::ptrdiff_t(at),
                                         source.begin() + std::ptrdiff_t(std::min(source.size(), at + 3200))});
            QTRY_COMPARE(session.requestsTo("audio/transcriptions").size(), session.engine->nextId);
        }
        QTEST(session.engine->nextId, "phrases");

        // The source as the engine hears it, at 16 kHz, to see whether each cut falls where nobody speaks.
        std::vector<double> heard16k;
        for (std::size_t i = 0; i + 5 < source.size(); i += 6)
            heard16k.push_back(std::accumulate(&source[i], &source[i] + 6, 0.0) / 6);
        QTemporaryDir dir;
        std::size_t position = 0;
        const QList<Request> sent = session.requestsTo("audio/transcriptions");
        for (int i = 0; i < sent.size(); ++i) {
            const QByteArray wav = formField(sent[i], "file");
            QFile file(dir.filePath(QStringLiteral("phrase%1.wav").arg(i)));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(wav) == wav.size());
            file.close();
            QStringList read;
            for (const char* field : {"-r", "-c", "-s"})
                read << runTool("soxi", {field, file.fileName()});
            QCOMPARE(read, QStringList({"16000", "1", QString::number((wav.size() - 44) / 2)}));
            position += std::size_t(wav.size() - 44) / 2;
            // 20 ms on each side of the cut hold no voice.
            for (std::size_t k = position - 320; k < std::min(position + 320, heard16k.size()); ++k)
                QVERIFY2(heard16k[k] * heard16k[k] <= 4e-05, qPrintable(QString::number(k)));
        }
    }

    void requestForms_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QByteArray>("prompt");
        QTest::newRow("Spanish") << "es" << QByteArray("Sermón cristiano en una iglesia, pantallas de sala, "
                                                       "transmisión en vivo a YouTube y Facebook.");
        QTest::newRow("English") << "en" << QByteArray("Christian sermon in a church, hall screens, livestream to "
                                                       "YouTube and Facebook.");
        QTest::newRow("detected") << "" << QByteArray("Church sermon.");
    }
    void requestForms()
    {
        QFETCH(QString, source);
        QFETCH(QByteArray, prompt);
        Session session;
        session.engine->start(apiKey, "Haitian Creole", false, source);
        session.service.answer = [](const Request& request) {
            if (request.target.endsWith("transcriptions"))
                return Response{200, transcription(QStringLiteral("Texto %1").arg(phraseOf(request)))};
            return Response{200, translationAnswer({"Tradiksyon"})};
        };
        session.sendPhrase(1600);
        QTRY_COMPARE(session.captions.size(), 1);
        session.sendPhrase(3200);
        QTRY_COMPARE(session.captions.size(), 2);
        QVERIFY(!session.requestsTo("models/gpt-4.1-mini").isEmpty());

        const Request transcribe = session.requestsTo("audio/transcriptions").first();
        QCOMPARE(transcribe.headers.value("authorization"), "Bearer " + apiKey.toUtf8());
        // The language part only when the source language is known; the WAV last.
        QCOMPARE(transcribe.body.count("Content-Disposition: form-data; name="), source.isEmpty() ? 4 : 5);
        QCOMPARE(formField(transcribe, "language") + "|" + formField(transcribe, "prompt"),
                 source.toUtf8() + "|" + prompt);
        QVERIFY(transcribe.body.contains("filename=\"church.wav\"\r\nContent-Type: audio/wav\r\n\r\n"
                                         + translation_text::wavFile(std::vector<std::int16_t>(1600)) + "\r\n--"));
        const QList<Request> translations = session.requestsTo("responses");
        QCOMPARE(translations.size(), 2);
        QVERIFY(jsonBody(translations[0]).value("instructions").toString().contains("Haitian Creole as a human"));
        QCOMPARE(jsonBody(translations[0]).value("input").toString(), "New text: Texto 0");
        QCOMPARE(jsonBody(translations[1]).value("input").toString(),
                 "Previous original:  Texto 0\nPrevious translation:  Tradiksyon\nNew text: Texto 1");
    }

    void replies_data()
    {
        // How the stand-in answers each of three phrases, in the order they were spoken: "ok", or a
        // failure at the transcription ("t:…") or at the translation ("r:…").
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QStringList>("captions");
        QTest::addColumn<QString>("lastStatus");
        QTest::addColumn<bool>("running");
        const QStringList all{"Phrase 0", "Phrase 1", "Phrase 2"};
        const QString failed =
            "Transcripcion: No se pudo completar la solicitud. HTTP %1. Revisa conexion y acceso al modelo.";
        QTest::newRow("answers overtake each other") << QStringList{"slow", "ok", "ok"} << all << "" << true;
        QTest::newRow("rate limit passes one number empty")
            << QStringList{"ok", "r:429", "ok"} << QStringList{"Phrase 0", "Phrase 2"}
            << "Traduccion: Limite temporal de la API; se reintenta con el siguiente segmento." << true;
        QTest::newRow("missing model is not fatal")
            << QStringList{"t:404", "ok", "ok"} << all.mid(1) << failed.arg(404) << true;
        QTest::newRow("request id is quoted") << QStringList{"ok", "ok", "t:500id"} << all.mid(0, 2)
                                              << failed.arg(500) + " ID: req_42" << true;
        QTest::newRow("connection lost") << QStringList{"t:drop", "ok", "ok"} << all.mid(1) << failed.arg(0) << true;
        QTest::newRow("malformed answers pass empty")
            << QStringList{"ok", "t:garbage", "r:garbage"} << all.mid(0, 1) << "" << true;
        QTest::newRow("empty transcription") << QStringList{"t:empty", "ok", "ok"} << all.mid(1) << "" << true;
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
        QFETCH(QString, lastStatus);
        QFETCH(bool, running);
        Session session;
        session.service.answer = [&script](const Request& request) -> Response {
            const bool transcribing = request.target.endsWith("transcriptions");
            const QString input = jsonBody(request).value("input").toString();
            const int phrase = transcribing ? phraseOf(request) : input.right(1).toInt();
            const QString step = script.value(phrase);
            Response response;
            // Later phrases' failures and repeats come last, so that what went before is settled.
            response.delayMs = step == "slow" ? 400 : step == "t:401" || phrase == 2 ? 200 : 0;
            if (transcribing) {
                response.body = transcription(step != "t:same" ? QStringLiteral("Frase %1").arg(phrase)
                                              : phrase == 1    ? "¡Amén, amén!"
                                                               : "amén amén");
            } else {
                const QString said = input.mid(input.lastIndexOf("New text: ") + 10).replace("Frase", "Phrase");
                response.body = translationAnswer({said.left(3), said.mid(3)});
            }
            const QString failure = step.mid(2);
            if (!step.startsWith(transcribing ? "t:" : "r:") || failure == "same")
                return response;
            response.status = failure.left(3).toInt();
            response.body = R"({"error":{"message":"x"}})";
            if (failure == "quota")
                response = Response{429, R"({"error":{"code":"insufficient_quota"}})"};
            else if (failure == "500id")
                response.headers = {{"x-request-id", "req_42"}};
            response.drop = failure == "drop";
            if (failure == "garbage" || failure == "empty")
                response = Response{200, failure == "empty" ? transcription("  ") : "{\"text\": oops"};
            return response;
        };
        for (int i = 0; i < 3; ++i)
            session.sendPhrase(1600 * (i + 1));
        // Every answer has arrived, the slow ones of an ended session included, and been dealt with.
        QTRY_VERIFY((session.engine->inFlight == 0 || !session.engine->running) && session.settled());
        QTEST(session.captions, "captions");
        QCOMPARE(session.engine->running, running);
        if (!lastStatus.isEmpty())
            QVERIFY2(session.statuses.contains(lastStatus), qPrintable(session.statuses.join(u'|')));
        if (running)
            QCOMPARE(session.engine->nextShow, 3);
        if (script.contains("t:same"))
            QVERIFY(session.heard.contains("(repetido, descartado) amén amén"));
    }

    void queueLimit()
    {
        Session session;
        session.service.holding = true;
        std::vector<float> phrase = tone(1.5, 0.2);
        const std::vector<float> pause = tone(0.8, 0.0);
        phrase.insert(phrase.end(), pause.begin(), pause.end());
        for (int i = 0; i < 10; ++i)
            feedBlocks(*session.engine, phrase);
        QCOMPARE(session.engine->inFlight, 3);
        QCOMPARE(int(session.engine->segments.size()), 6);
        QCOMPARE(session.engine->nextId, 9);
        QCOMPARE(session.statuses.count("IA con retraso; se omite un segmento."), 1);
    }

    void slowNumberSkipped()
    {
        Session session;
        session.service.answer = [](const Request& request) {
            if (request.target.endsWith("transcriptions"))
                return Response{200, transcription(QStringLiteral("Frase %1").arg(phraseOf(request))),
                                phraseOf(request) == 0};
            return Response{200, translationAnswer({"Phrase"})};
        };
        session.sendPhrase(1600);
        session.sendPhrase(3200);
        QTRY_VERIFY(session.engine->ready.contains(1));
        session.engine->flush();
        QVERIFY(session.captions.isEmpty());
        session.clockMs += 7001;
        session.engine->flush();
        QCOMPARE(session.captions, QStringList{"Phrase"});
        QVERIFY(session.statuses.contains("Se omitió un segmento lento para no detener la pantalla."));
        QVERIFY(session.statuses.last().startsWith("Subtítulo actualizado · 7.0 s"));
        QCOMPARE(session.engine->nextShow, 2);
    }

    void lateReplyAfterStop()
    {
        Session session;
        session.service.holding = true;
        session.service.answer = answering("Tarde", "Late");
        session.sendPhrase(1600);
        QTRY_COMPARE(session.requestsTo("audio/transcriptions").size(), 1);
        session.engine->stop();
        session.service.release();
        QTRY_VERIFY(session.settled());
        QVERIFY(session.requestsTo("responses").isEmpty() && session.engine->ready.isEmpty());
        QCOMPARE(session.engine->inFlight, 0);
    }

    void audioRoute_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("captions");
        QTest::addColumn<bool>("fellBack");
        QTest::newRow("answer") << 200 << QStringList{"Heard directly"} << false;
        QTest::newRow("model missing") << 404 << QStringList{"Transcribed"} << true;
        QTest::newRow("server error") << 500 << QStringList{} << false;
    }
    void audioRoute()
    {
        QFETCH(int, status);
        QFETCH(bool, fellBack);
        Session session;
        session.service.answer = [status](const Request& request) {
            if (!request.target.endsWith("chat/completions"))
                return answering("Transcrito", "Transcribed")(request);
            const QJsonObject message{{"content", "Heard directly"}};
            const QJsonArray choices{QJsonObject{{"message", message}}};
            return Response{status, StandInHttpServer::json({{"choices", choices}})};
        };
        session.engine->audioRoute = true;
        session.sendPhrase(1600);
        QTRY_COMPARE(session.engine->nextShow, 1);
        QTEST(session.captions, "captions");
        QCOMPARE(session.engine->audioRoute, !fellBack);
        const QJsonObject body = jsonBody(session.requestsTo("chat/completions").first());
        const QJsonValue audio = body["messages"][1]["content"][0]["input_audio"]["data"];
        QCOMPARE(QByteArray::fromBase64(audio.toString().toLatin1()).size(), 44 + 3200);
        QCOMPARE(session.statuses.contains("Modelo de audio no disponible; se usa transcripción + traducción."),
                 fellBack);
    }

    void speech_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::addColumn<bool>("played");
        QTest::newRow("thirty seconds") << int(Translation::maxSpeechBytes) << true;
        QTest::newRow("one byte more") << int(Translation::maxSpeechBytes) + 1 << false;
    }
    void speech()
    {
        QFETCH(int, bytes);
        QFETCH(bool, played);
        Session session(true);
        session.service.answer = [bytes](const Request& request) {
            if (request.target.endsWith("speech"))
                return Response{200, QByteArray(bytes, '\x01'), false, false, 0, {}, "application/octet-stream"};
            return answering("Oremos", "Let us pray")(request);
        };
        session.sendPhrase(1600);
        QTRY_COMPARE(session.requestsTo("audio/speech").size(), 1);
        QCOMPARE(jsonBody(session.requestsTo("audio/speech").first()).value("input").toString(), "Let us pray");
        QTRY_VERIFY(session.settled());
        QCOMPARE(session.speech.size(), played ? 1 : 0);
    }

    void threeHourLimit()
    {
        Session session;
        feedBlocks(*session.engine, tone(1.0, 0.2));
        QVERIFY(!session.engine->pcm.empty());
        session.clockMs += Translation::sessionLimitMs;
        feedBlocks(*session.engine, tone(0.1, 0.2));
        QVERIFY(session.engine->running);
        session.clockMs += 1;
        feedBlocks(*session.engine, tone(0.1, 0.2));
        QVERIFY(!session.engine->running && session.engine->pcm.empty());
        QCOMPARE(session.statuses.last(), "IA pausada tras 3 horas; inicia otra sesion si corresponde.");
    }

    void captionFit_data()
    {
        QTest::addColumn<QStringList>("before");
        QTest::addColumn<QString>("added");
        QTest::addColumn<double>("layerHeight");
        QTest::addColumn<QStringList>("after");
        const QString line = "Una frase corta", words = QString(400, u'x').replace(u'x', "palabra ");
        QTest::newRow("room for all") << QStringList{line, line} << "nueva" << 0.5 << QStringList{line, line, "nueva"};
        QTest::newRow("oldest leaves first") << QStringList{"uno", "dos", "tres"} << "cuatro" << 0.15
                                             << QStringList{"tres", "cuatro"};
        QTest::newRow("a long phrase alone stays") << QStringList{"uno"} << words << 0.1 << QStringList{words};
    }
    void captionFit()
    {
        QFETCH(QStringList, before);
        QFETCH(QString, added);
        QFETCH(double, layerHeight);
        SceneDef scene;
        Layer hidden;
        hidden.kind = Layer::Kind::Subtitle;
        hidden.visible = false;
        Layer shown = hidden;
        shown.visible = true;
        shown.font = "DejaVu Sans";
        shown.size = 56;
        shown.rect = QRectF(0.05, 0.6, 0.9, layerHeight);
        scene.layers = {hidden, shown};
        // The hidden subtitle comes first and must be passed over.
        const Layer* layer = captions::visibleSubtitle(scene);
        QCOMPARE(layer, &scene.layers[1]);
        QTEST(captions::fit(before, added, captions::separatorFor(1), captions::boxFor(layer, 1920, 1080)), "after");
    }

    void speechSamples_data()
    {
        QTest::addColumn<QByteArray>("speech");
        QTest::addColumn<QList<float>>("mixed");
        QTest::newRow("low byte first, each sample four times") << QByteArray("\x00\x40", 2) << QList<float>(4, 0.5f);
        QTest::newRow("a last odd byte is ignored") << QByteArray("\x00\x80\x7f", 3) << QList<float>(4, -1.0f);
        QTest::newRow("nothing") << QByteArray("\x01", 1) << QList<float>();
    }
    void speechSamples()
    {
        QFETCH(QByteArray, speech);
        const std::vector<float> samples = captions::speechToStereo(speech);
        QTEST(QList<float>(samples.begin(), samples.end()), "mixed");
    }
};

QTEST_MAIN(tst_Translation)
#include "tst_translation.moc"
