// velmora-bench: times the frame stage of the tick on a fixed, busy workload at 1920 x 1080.
//
// One frame stage is what the tick does once a frame is due: Preview, Stream program and Hall
// program compositions, a fade in progress over the Stream program, the RGBA copy for the outputs
// and one audio block. It runs the workload with the studio's fast compositor and then with the
// literal one, and ends with one line:
//   frame_stage_ms p50=<fast> p99=<fast> literal_p50=<literal> speedup=<literal/fast>
// Before it comes the cost of a verse lookup (parse and the text of Psalm 119 from the built-in
// Spanish Bible), the first in the process and then a warm median:
//   bible_lookup_ms cold=<first, with the Bible's unpacking> warm=<median>
// and what live translation adds: the share of one core that phrase cutting takes, and the time
// from a translation's arrival to the start of the first composed frame that shows it:
//   translation_feed_core_pct=<percent>
//   caption_delay_ms p50=<median> p99=<99th percentile>
//
// Options: --frames N (default 300), --warmup N (default 30), --show-slow MS (list every frame
// slower than MS, part by part).

#include "AudioMix.h"
#include "Compositor.h"
#include "Frame.h"
#include "Passage.h"
#include "Reference.h"
#include "TranslationBench.h"

#include <QElapsedTimer>
#include <QGuiApplication>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

namespace {

constexpr int width = 1920;
constexpr int height = 1080;
// In the extra run a caption arrives every 1.5 s, so the subtitle layer is laid out again now and
// then; the reference workload keeps its five phrases.
constexpr int framesPerCaption = 45;
// The fade lasts 0.4 s: twelve frames.
constexpr int fadeFrames = 12;

// A moving pattern, so that every frame really is a new picture.
void paintCamera(tavrin::Frame& frame, int number)
{
    for (int y = 0; y < frame.height; ++y) {
        std::uint8_t* row = frame.pixels.data() + std::size_t(y) * std::size_t(frame.width) * 4;
        const int g = (y + number * 3) & 255;
        for (int x = 0; x < frame.width; ++x) {
            row[x * 4 + 0] = std::uint8_t((x + number * 7) & 255);
            row[x * 4 + 1] = std::uint8_t(g);
            row[x * 4 + 2] = std::uint8_t((x + y + number) & 255);
            row[x * 4 + 3] = 255;
        }
    }
}

std::shared_ptr<tavrin::Frame> stillPicture(int w, int h)
{
    auto frame = std::make_shared<tavrin::Frame>(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            std::uint8_t* p = frame->pixels.data() + (std::size_t(y) * std::size_t(w) + std::size_t(x)) * 4;
            p[0] = std::uint8_t(x * 255 / w);
            p[1] = std::uint8_t(y * 255 / h);
            p[2] = std::uint8_t(((x / 40 + y / 40) & 1) ? 200 : 40);
        }
    return frame;
}

SceneDef streamScene(const std::shared_ptr<tavrin::Frame>& pip)
{
    SceneDef scene;
    scene.name = QStringLiteral("Culto");

    Layer camera; // full box
    scene.layers.push_back(camera);

    Layer picture;
    picture.kind = Layer::Kind::Image;
    picture.image = pip;
    picture.rect = QRectF(0.57, 0.04, 0.4, 0.4);
    scene.layers.push_back(picture);

    Layer verse;
    verse.kind = Layer::Kind::Verse;
    verse.rect = QRectF(0.08, 0.4, 0.84, 0.34);
    verse.text = QStringLiteral("Porque de tal manera amó Dios al mundo,\n"
                                "que ha dado a su Hijo unigénito, para que todo aquel que en él cree,\n"
                                "no se pierda, mas tenga vida eterna.");
    verse.reference = QStringLiteral("Juan 3:16 · RVR1909");
    scene.layers.push_back(verse);
    return scene;
}

SceneDef hallScene()
{
    SceneDef scene;
    scene.name = QStringLiteral("Escena 1");
    Layer background;
    background.kind = Layer::Kind::Color;
    background.fill = QColor(8, 24, 48);
    scene.layers.push_back(background);

    Layer subtitles;
    subtitles.kind = Layer::Kind::Subtitle;
    subtitles.rect = QRectF(0.05, 0.08, 0.9, 0.84);
    subtitles.size = 72;
    subtitles.background = QColor(0, 0, 0, 0);
    subtitles.align = Qt::AlignLeft | Qt::AlignTop;
    scene.layers.push_back(subtitles);
    return scene;
}

// What the stage of the tick does once a frame is due: the caption and source updates that happen
// before it are prepared outside the timed part.
struct Workload
{
    SceneDef stream;
    SceneDef hall;
    QString title = QStringLiteral("Bienvenidos · Culto dominical");
    CaptionView captions;
    tavrin::Frame camera; // stands for Media::latest, which gets a new Frame for every new picture
    std::deque<float> room;
    std::deque<float> voice;
    tavrin::AudioState audio;

    Workload() : stream(streamScene(stillPicture(1280, 720))), hall(hallScene())
    {
        captions.separator = QStringLiteral("\n");
        for (int i = 0; i < 5; ++i)
            nextCaption(i);
    }

    void nextCaption(int number)
    {
        static const char* const words[] = {"and the word", "was made flesh", "and dwelt among us",
                                            "full of grace and truth", "and we beheld his glory"};
        QString phrase = QStringLiteral("Phrase %1: ").arg(number);
        for (int i = 0; i < 3; ++i)
            phrase += QString::fromLatin1(words[(number + i) % 5]) + QLatin1Char(' ');
        captions.phrases.append(phrase.trimmed());
        while (captions.phrases.size() > 5)
            captions.phrases.removeFirst();
        captions.text = captions.phrases.join(captions.separator);
    }

    // Sources and captions for frame `number`; returns the camera picture to compose with.
    const tavrin::Frame* prepare(int number, bool newCaptions)
    {
        if (newCaptions && number > 0 && number % framesPerCaption == 0)
            nextCaption(5 + number / framesPerCaption);
        camera = tavrin::Frame(width, height);
        paintCamera(camera, number);
        room.resize(tavrin::mixBlockSamples, 0.25f);
        voice.resize(tavrin::mixBlockSamples / 2, -0.1f);
        return &camera;
    }
};

// Parts of the stage, timed one after the other within it.
const char* const phaseNames[] = {"preview", "program", "hall", "fade", "copy", "audio"};
constexpr int phaseCount = 6;

struct Figures
{
    double p50 = 0.0;
    double p99 = 0.0;
    double mean = 0.0;
    double worst = 0.0;
    double phaseP50[phaseCount] = {};
    double phaseWorst[phaseCount] = {};
};

double percentile(std::vector<double> sorted, double p)
{
    std::sort(sorted.begin(), sorted.end());
    const double rank = p * double(sorted.size() - 1);
    const std::size_t low = std::size_t(std::floor(rank));
    const std::size_t high = std::min(sorted.size() - 1, low + 1);
    return sorted[low] + (sorted[high] - sorted[low]) * (rank - double(low));
}

volatile std::uint64_t sink = 0; // keeps the compiler from dropping results
double showSlowerThanMs = 0.0;

Figures run(Compositor::Mode mode, int frames, int warmup, bool newCaptions)
{
    Workload work;
    Compositor compositor(mode);

    // The still of the last take: the old Program with its lower third.
    SceneDef old;
    Layer plain;
    plain.kind = Layer::Kind::Color;
    old.layers.push_back(plain);
    const QImage fadeFrom =
        compositor.compose(old, QStringLiteral("Anuncios"), true, width, height, false, false, work.captions, nullptr, 0);

    QImage shown[3]; // what the monitors hold until the next frame replaces it
    std::vector<double> times;
    times.reserve(std::size_t(frames));
    std::vector<double> phases[phaseCount];
    for (int number = 0; number < warmup + frames; ++number) {
        const tavrin::Frame* camera = work.prepare(number, newCaptions);
        const quint64 serial = quint64(number) + 1;
        const double fade = double(number % fadeFrames) / fadeFrames;

        qint64 marks[phaseCount + 1] = {};
        QElapsedTimer timer;
        timer.start();
        {
            QImage preview = compositor.compose(work.stream, work.title, true, width, height, false, true,
                                                work.captions, camera, serial);
            marks[1] = timer.nsecsElapsed();
            QImage program = compositor.compose(work.stream, work.title, true, width, height, false, false,
                                                work.captions, camera, serial);
            marks[2] = timer.nsecsElapsed();
            QImage hall = compositor.compose(work.hall, QString(), false, width, height, true, false, work.captions,
                                             camera, serial);
            marks[3] = timer.nsecsElapsed();
            {
                QPainter painter(&program);
                painter.setOpacity(1.0 - fade);
                painter.drawImage(0, 0, fadeFrom);
            }
            shown[0] = preview;
            shown[1] = program;
            shown[2] = hall;
            marks[4] = timer.nsecsElapsed();
            const tavrin::Frame out = frameFromImage(program);
            marks[5] = timer.nsecsElapsed();
            const std::vector<float> block =
                tavrin::mixBlock(nullptr, work.room, work.voice, work.audio, 100, 100);
            sink = sink + out.pixels[out.pixels.size() / 2] + std::uint64_t(block[7] * 1000.0f);
        }
        marks[6] = timer.nsecsElapsed();
        if (showSlowerThanMs > 0 && double(marks[6]) / 1e6 > showSlowerThanMs) {
            std::printf("slow frame %d (%s), ms by part:", number, mode == Compositor::Mode::Fast ? "fast" : "literal");
            for (int phase = 0; phase < phaseCount; ++phase)
                std::printf(" %.2f", double(marks[phase + 1] - marks[phase]) / 1e6);
            std::printf("\n");
        }
        if (number >= warmup) {
            times.push_back(double(marks[6]) / 1e6);
            for (int phase = 0; phase < phaseCount; ++phase)
                phases[phase].push_back(double(marks[phase + 1] - marks[phase]) / 1e6);
        }
    }

    Figures figures;
    figures.p50 = percentile(times, 0.50);
    figures.p99 = percentile(times, 0.99);
    figures.worst = *std::max_element(times.begin(), times.end());
    double total = 0.0;
    for (double t : times)
        total += t;
    figures.mean = total / double(times.size());
    for (int phase = 0; phase < phaseCount; ++phase) {
        figures.phaseP50[phase] = percentile(phases[phase], 0.50);
        figures.phaseWorst[phase] = *std::max_element(phases[phase].begin(), phases[phase].end());
    }
    return figures;
}

// Largest difference of any channel between the outputs of the two modes on one frame.
int largestDifference()
{
    Workload work;
    const tavrin::Frame* camera = work.prepare(7, false);
    Compositor fast(Compositor::Mode::Fast);
    Compositor literal(Compositor::Mode::Literal);
    int largest = 0;
    const auto compare = [&](const SceneDef& scene, const QString& title, bool band, bool hall, bool preview) {
        const tavrin::Frame a = frameFromImage(
            fast.compose(scene, title, band, width, height, hall, preview, work.captions, camera, 8));
        const tavrin::Frame b = frameFromImage(
            literal.compose(scene, title, band, width, height, hall, preview, work.captions, camera, 8));
        for (std::size_t i = 0; i < a.pixels.size() && i < b.pixels.size(); ++i)
            largest = std::max(largest, std::abs(int(a.pixels[i]) - int(b.pixels[i])));
    };
    compare(work.stream, work.title, true, false, true);
    compare(work.hall, QString(), false, true, false);
    return largest;
}

void report(const char* name, const Figures& figures)
{
    std::printf("%-8s p50 %.2f ms  p99 %.2f ms  mean %.2f ms  worst %.2f ms\n", name, figures.p50, figures.p99,
                figures.mean, figures.worst);
    std::printf("         p50 / worst by part:");
    for (int phase = 0; phase < phaseCount; ++phase)
        std::printf(" %s %.2f/%.2f", phaseNames[phase], figures.phaseP50[phase], figures.phaseWorst[phase]);
    std::printf("\n");
    std::fflush(stdout);
}

struct LookupFigures
{
    double coldMs = 0.0;
    double warmMs = 0.0;
};

// What the quick verse box costs for the longest chapter, 176 verses. Must run before anything
// else in the process touches the Bibles, so that the first call pays for unpacking one.
LookupFigures lookupFigures()
{
    const QString typed = QStringLiteral("Salmos 119");
    const auto lookup = [&typed] {
        const bible::Passage passage = bible::builtInPassage(bible::parse(typed), QStringLiteral("es"));
        sink = sink + std::uint64_t(passage.text.size());
    };
    LookupFigures figures;
    QElapsedTimer timer;
    timer.start();
    lookup();
    figures.coldMs = double(timer.nsecsElapsed()) / 1e6;
    std::vector<double> warm;
    for (int i = 0; i < 500; ++i) {
        timer.restart();
        lookup();
        warm.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    figures.warmMs = percentile(warm, 0.50);
    return figures;
}

int option(const QStringList& arguments, const QString& name, int fallback)
{
    const int at = int(arguments.indexOf(name));
    if (at < 0 || at + 1 >= arguments.size())
        return fallback;
    bool ok = false;
    const int value = arguments.at(at + 1).toInt(&ok);
    return ok && value > 0 ? value : fallback;
}

} // namespace

int main(int argc, char** argv)
{
    // Text is drawn in pictures only; no display is needed, and the offscreen platform keeps the
    // font resolution the same from one machine to the next.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    const LookupFigures lookup = lookupFigures();
    const QStringList arguments = application.arguments();
    const int frames = option(arguments, QStringLiteral("--frames"), 300);
    const int warmup = option(arguments, QStringLiteral("--warmup"), 30);
    showSlowerThanMs = option(arguments, QStringLiteral("--show-slow"), 0);

    std::printf("workload: %dx%d, Preview + Stream program (camera, 1280x720 picture, verse, lower third),\n"
                "          Hall program (background, subtitles of 5 caption lines at 72 px),\n"
                "          fade, RGBA copy, audio block; %d frames after %d of warm-up\n",
                width, height, frames, warmup);
    std::fflush(stdout);

    const Figures fast = run(Compositor::Mode::Fast, frames, warmup, false);
    report("fast:", fast);
    // Not part of the reference workload: what a new caption costs when it has to be laid out.
    const Figures captions = run(Compositor::Mode::Fast, frames, warmup, true);
    std::printf("with a new caption every %d frames:\n", framesPerCaption);
    report("fast:", captions);
    const Figures literal = run(Compositor::Mode::Literal, frames, warmup, false);
    report("literal:", literal);
    std::printf("largest channel difference fast vs literal: %d\n", largestDifference());
    std::printf("bible_lookup_ms cold=%.2f warm=%.3f\n", lookup.coldMs, lookup.warmMs);
    const TranslationFigures translation = measureTranslation(150);
    std::printf("translation_feed_core_pct=%.3f\n", translation.feedCorePercent);
    std::printf("caption_delay_ms p50=%.2f p99=%.2f\n", translation.captionDelayP50Ms, translation.captionDelayP99Ms);
    std::printf("frame_stage_ms p50=%.2f p99=%.2f literal_p50=%.2f speedup=%.2f\n", fast.p50, fast.p99, literal.p50,
                literal.p50 / fast.p50);
    return 0;
}
