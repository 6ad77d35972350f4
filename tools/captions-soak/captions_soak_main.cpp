// velmora-captions-soak: three hours of a service through the translation engine in about three
// minutes. Speech from espeak-ng with pauses, silences of a few seconds to half a minute now and
// then, against a local stand-in of the AI service that answers in 0.3 to 1.2 s of the engine's
// time, out of order, now and then after half a minute, with an error, or not at all. The engine's clock runs 60 times faster than the wall clock, and the stand-in's
// delays are real, so that an answer of 300 ms stands for a phrase that took 18 s.
// It checks that every number is delivered, passed empty or skipped, in order; that memory stays
// flat; and that the three-hour limit ends the session with its message. Last line:
//   captions_soak hours=<h> numbers=<n> delivered=<n> skipped=<n> passed_empty=<n> in_order=<yes|no>
//     all_accounted=<yes|no>//     rss_start_kb=<kb at 10 min> rss_hourly_kb=<kb,…> rss_end_kb=<kb> limit=<reached|missed>
// Usage: velmora-captions-soak [--minutes M]   (simulated minutes before the limit, default 180)
#include "Peers.h"
#include "Processes.h"
#include "Translation.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QThread>

#include <cstdio>
#include <cstring>

namespace {

constexpr double speedUp = 60.0;
constexpr double blockMs = 1600.0 / 48.0; // one block of the tick: 1600 stereo frames at 48 kHz

long residentKb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    status.open(QIODevice::ReadOnly);
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    return 0;
}

// How the stand-in treats one request: mostly a quick answer, sometimes a slow, failed or lost one.
StandInHttpServer::Response serviceAnswer(const StandInHttpServer::Request& request, int& counter)
{
    QRandomGenerator& random = *QRandomGenerator::global();
    StandInHttpServer::Response response;
    const int roll = int(random.bounded(100));
    response.delayMs = roll < 2 ? 300 + int(random.bounded(200)) : 5 + int(random.bounded(15));
    if (roll >= 2 && roll < 5)
        return {500, R"({"error":{"message":"overloaded"}})", false, false, response.delayMs};
    if (roll == 5)
        return {429, R"({"error":{"code":"rate_limit_exceeded"}})", false, false, response.delayMs};
    if (roll == 6)
        return {200, {}, false, true};
    if (request.target.endsWith("transcriptions")) {
        response.body = StandInHttpServer::json({{QStringLiteral("text"), QStringLiteral("Frase número %1").arg(++counter)}});
        return response;
    }
    const QString input = QJsonDocument::fromJson(request.body).object().value(QLatin1String("input")).toString();
    const QJsonObject text{{QStringLiteral("type"), QStringLiteral("output_text")},
                           {QStringLiteral("text"), QStringLiteral("Phrase ") + input.section(u' ', -1)}};
    response.body = StandInHttpServer::json(
        {{QStringLiteral("output"), QJsonArray{QJsonObject{{QStringLiteral("content"), QJsonArray{text}}}}}});
    return response;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    const int at = int(arguments.indexOf(QStringLiteral("--minutes")));
    const int minutes = at >= 0 ? arguments.value(at + 1).toInt() : 180;

    std::vector<std::vector<float>> sentences;
    for (const char* text : {"Hermanos, buenos días a todos.", "Abramos la Biblia en el libro de Juan.",
                             "Dios es amor y nos cuida siempre.", "Oremos juntos por nuestras familias.",
                             "La paz del Señor sea con ustedes.", "Gracias por acompañarnos en este culto."}) {
        sentences.push_back(spokenStereo(QStringLiteral("es"), QString::fromUtf8(text)));
        if (sentences.back().empty()) {
            std::fprintf(stderr, "espeak-ng and sox are needed\n");
            return 1;
        }
    }

    StandInHttpServer service;
    int transcribed = 0;
    service.answer = [&transcribed](const StandInHttpServer::Request& request) {
        return serviceAnswer(request, transcribed);
    };
    service.listen();

    Translation engine(service.endpoint());
    qint64 clockMs = 1'700'000'000'000;
    const qint64 startMs = clockMs;
    engine.nowMs = [&clockMs] { return clockMs; };
    engine.chunkOnly = true;
    int delivered = 0;
    int skipped = 0;
    int lastNumber = -1;
    bool inOrder = true;
    bool limitReported = false;
    const auto shown = [&] {
        const int number = engine.nextShow - 1;
        inOrder = inOrder && number > lastNumber;
        lastNumber = number;
    };
    engine.caption = [&](const QString&) {
        ++delivered;
        shown();
    };
    engine.statusChanged = [&](const QString& text) {
        if (text.startsWith(QStringLiteral("Se omitió"))) {
            ++skipped;
            shown();
        }
        limitReported = limitReported || text.startsWith(QLatin1String("IA pausada tras 3 horas"));
    };
    engine.start(QStringLiteral("sk-soak"), QStringLiteral("English"), false, QStringLiteral("es"));

    QElapsedTimer wall;
    wall.start();
    QRandomGenerator& random = *QRandomGenerator::global();
    std::vector<float> audio;
    std::size_t position = 0;
    long rssStart = 0;
    double blockClock = 0.0;
    int blocks = 0;
    // One tick's worth: a block of audio, the engine's clock, the flush timer every 15 blocks, and
    // the event loop, waiting for the wall clock whenever the run is ahead of 60 times real time.
    const auto step = [&](bool speaking) {
        if (position >= audio.size()) {
            audio.clear();
            position = 0;
            if (speaking) {
                audio = sentences[random.bounded(quint32(sentences.size()))];
            }
            const bool longSilence = random.bounded(40) == 0;
            const int pauseMs = longSilence ? 5000 + int(random.bounded(25000)) : 400 + int(random.bounded(1100));
            audio.resize(audio.size() + std::size_t(pauseMs) * 96, 0.0f);
        }
        tavrin::AudioBlock block;
        const std::size_t end = std::min(audio.size(), position + 3200);
        block.samples.assign(audio.begin() + std::ptrdiff_t(position), audio.begin() + std::ptrdiff_t(end));
        position = end;
        engine.feed(block);
        blockClock += blockMs;
        clockMs = startMs + qint64(blockClock);
        if (++blocks % 15 == 0)
            engine.flush();
        if (blocks % 3000 == 0)
            service.requests.clear(); // the stand-in's own record would otherwise grow for hours
        while (double(wall.elapsed()) * speedUp < blockClock)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        QCoreApplication::processEvents();
    };

    const double speechMs = double(minutes) * 60000.0 - 60000.0;
    QStringList hourly;
    while (blockClock < speechMs) {
        step(true);
        if (rssStart == 0 && blockClock > 600000.0)
            rssStart = residentKb();
        if (blockClock >= 3600000.0 * double(hourly.size() + 1))
            hourly << QString::number(residentKb());
    }
    // Half a minute of quiet lets every number in flight come back, be delivered or be skipped.
    while (blockClock < speechMs + 30000.0)
        step(false);
    const int numbers = engine.nextId;
    const bool allAccounted = engine.nextShow == numbers && engine.inFlight == 0 && engine.segments.empty();
    const long rssEnd = residentKb();
    while (engine.running && blockClock < double(minutes) * 60000.0 + 60000.0)
        step(false);

    const bool limitReached = !engine.running && limitReported;
    std::printf("captions_soak hours=%.2f numbers=%d delivered=%d skipped=%d passed_empty=%d in_order=%s "
                "all_accounted=%s rss_start_kb=%ld rss_hourly_kb=%s rss_end_kb=%ld limit=%s\n",
                double(clockMs - startMs) / 3600000.0, numbers, delivered, skipped, numbers - delivered - skipped,
                inOrder ? "yes" : "no", allAccounted ? "yes" : "no", rssStart, qPrintable(hourly.join(u',')), rssEnd,
                limitReached ? "reached" : "missed");
    return inOrder && allAccounted && (limitReached || minutes < 180) ? 0 : 1;
}
