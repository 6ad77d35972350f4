#include "TranslationBench.h"

#include "Captions.h"
#include "Compositor.h"
#include "FrameClock.h"
#include "Peers.h"
#include "SceneDef.h"
#include "Translation.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkReply>
#include <QRandomGenerator>
#include <QTimer>

#include <algorithm>
#include <cmath>

namespace {

double percentileOf(std::vector<double> values, double share)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(share * double(values.size())))];
}

// A minute of 1.5 s phrases of a tone, each followed by 0.8 s of quiet, in the studio's blocks.
std::vector<tavrin::AudioBlock> phrasesAndPauses()
{
    std::vector<tavrin::AudioBlock> blocks;
    for (int block = 0; block < 60 * 30; ++block) {
        tavrin::AudioBlock each;
        each.samples.resize(3200);
        for (int frame = 0; frame < 1600; ++frame) {
            const int sample = block * 1600 + frame;
            const bool voiced = sample % 110400 < 72000;
            const auto value = voiced ? float(0.2 * std::sin(2.0 * M_PI * 220.0 * sample / 48000.0)) : 0.0f;
            each.samples[std::size_t(frame) * 2] = value;
            each.samples[std::size_t(frame) * 2 + 1] = value;
        }
        blocks.push_back(std::move(each));
    }
    return blocks;
}

SceneDef hallScene()
{
    SceneDef scene;
    Layer subtitles;
    subtitles.kind = Layer::Kind::Subtitle;
    subtitles.rect = QRectF(0.05, 0.55, 0.9, 0.4);
    subtitles.size = 72;
    scene.layers.push_back(subtitles);
    return scene;
}

} // namespace

TranslationFigures measureTranslation(int captionCount)
{
    TranslationFigures figures;
    StandInHttpServer service;
    service.listen();
    service.answer = [](const StandInHttpServer::Request&) {
        const QJsonObject text{{QStringLiteral("type"), QStringLiteral("output_text")},
                               {QStringLiteral("text"), QStringLiteral("The Lord is my shepherd, I shall not want.")}};
        const QJsonObject item{{QStringLiteral("content"), QJsonArray{text}}};
        return StandInHttpServer::Response{200, StandInHttpServer::json({{QStringLiteral("output"), QJsonArray{item}}})};
    };
    Translation engine(service.endpoint());
    engine.chunkOnly = true;
    engine.start(QStringLiteral("sk-bench"), QStringLiteral("English"), false, QStringLiteral("es"));

    const std::vector<tavrin::AudioBlock> blocks = phrasesAndPauses();
    QElapsedTimer timer;
    timer.start();
    for (const tavrin::AudioBlock& block : blocks)
        engine.feed(block);
    figures.feedCorePercent = double(timer.nsecsElapsed()) / 1e9 / 60.0 * 100.0;
    engine.stop();
    engine.start(QStringLiteral("sk-bench"), QStringLiteral("English"), false, QStringLiteral("es"));

    // The window's side: the caption handler fits the phrase, the frame loop composes the hall.
    QStringList phrases;
    const QString separator = captions::separatorFor(1);
    const SceneDef scene = hallScene();
    const captions::Box box = captions::boxFor(&scene.layers.front(), 1920, 1080);
    engine.caption = [&](const QString& text) { phrases = captions::fit(phrases, text, separator, box); };

    Compositor compositor;
    FrameClock clock(0);
    std::vector<double> delays;
    qint64 arrivedNs = -1;
    int shownCount = 0;
    QEventLoop loop;
    QObject::connect(&engine.net, &QNetworkAccessManager::finished, &engine, [&](QNetworkReply* reply) {
        if (reply->url().path().endsWith(QLatin1String("responses")))
            arrivedNs = timer.nsecsElapsed();
    });
    const auto askNext = [&engine] {
        const std::int32_t id = engine.nextId++;
        ++engine.inFlight;
        engine.translate(id, QStringLiteral("Frase %1").arg(id));
    };
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(5);
    QObject::connect(&tick, &QTimer::timeout, &engine, [&] {
        const std::int64_t nowUs = timer.nsecsElapsed() / 1000;
        if (!clock.due(nowUs))
            return;
        clock.advance(nowUs);
        const qint64 composingNs = timer.nsecsElapsed();
        CaptionView view;
        view.text = phrases.join(separator);
        view.phrases = phrases;
        view.separator = separator;
        compositor.compose(scene, QString(), false, 1920, 1080, true, false, view, nullptr, 0);
        if (arrivedNs < 0 || engine.nextShow <= shownCount)
            return;
        delays.push_back(double(composingNs - arrivedNs) / 1e6);
        arrivedNs = -1;
        shownCount = engine.nextShow;
        if (int(delays.size()) >= captionCount)
            loop.quit();
        else
            QTimer::singleShot(40 + int(QRandomGenerator::global()->bounded(160)), &engine, askNext);
    });
    clock = FrameClock(timer.nsecsElapsed() / 1000);
    tick.start();
    askNext();
    loop.exec();
    figures.captionDelayP50Ms = percentileOf(delays, 0.50);
    figures.captionDelayP99Ms = percentileOf(delays, 0.99);
    return figures;
}
