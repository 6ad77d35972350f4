#include "Compositor.h"
#include "Frame.h"

#include <QFontMetricsF>
#include <QTest>

#include <functional>
#include <memory>

// Layers are written out member by member; those left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using Kind = Layer::Kind;
using Mode = Compositor::Mode;

// Detail everywhere and, if asked, every alpha: any difference in scaling, placement or premultiplying shows.
std::shared_ptr<tavrin::Frame> busyFrame(int width, int height, int seed, bool translucent)
{
    auto frame = std::make_shared<tavrin::Frame>(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p = frame->pixels.data() + (std::size_t(y) * std::size_t(width) + std::size_t(x)) * 4;
            p[0] = std::uint8_t((x * 7 + seed) & 255);
            p[1] = std::uint8_t((y * 5 + seed * 3) & 255);
            p[2] = std::uint8_t(((x / 9 + y / 9) & 1) ? 230 : 20);
            p[3] = translucent ? std::uint8_t((x * 255) / std::max(1, width - 1)) : 255;
        }
    return frame;
}

int largestDifference(const QImage& a, const QImage& b)
{
    const tavrin::Frame fa = frameFromImage(a), fb = frameFromImage(b);
    int largest = fa.width == fb.width && fa.height == fb.height ? 0 : 256;
    for (std::size_t i = 0; largest < 256 && i < fa.pixels.size(); ++i)
        largest = std::max(largest, std::abs(int(fa.pixels[i]) - int(fb.pixels[i])));
    return largest;
}

CaptionView captionsOf(const QStringList& phrases, const QString& separator = QStringLiteral("\n"), bool show = true)
{
    return CaptionView{show, phrases.join(separator), phrases, separator};
}

struct Options { QSize size{640, 360}; CaptionView captions{}; bool hall = false, preview = false; QString title{};
                 bool band = false; };

// The literal picture, once the fast path was found to give the same to within rounding.
QImage compose(const SceneDef& scene, const Options& o)
{
    const auto draw = [&](Mode mode) {
        return Compositor(mode).compose(scene, o.title, o.band, o.size.width(), o.size.height(), o.hall, o.preview,
                                        o.captions, nullptr, 0);
    };
    const QImage literal = draw(Mode::Literal);
    const int off = largestDifference(literal, draw(Mode::Fast));
    QTest::qVerify(off <= 2, "fast path", qPrintable(QString::number(off)), __FILE__, __LINE__);
    return literal;
}

// Within the 2 levels per channel that painting may round by.
bool near(const QImage& image, QPoint p, const QColor& want)
{
    const QColor got = image.pixelColor(p);
    return std::max({std::abs(got.red() - want.red()), std::abs(got.green() - want.green()),
                     std::abs(got.blue() - want.blue())}) <= 2;
}
#define CHECK_COLOUR(image, p, expected) QVERIFY2(near(image, p, expected), qPrintable(QString::number((p).x())))

// White text, and nothing of a blue background.
int brightest(const QImage& image, const QRect& area)
{
    int most = 0;
    const QRect clipped = area & image.rect();
    for (int y = clipped.top(); y <= clipped.bottom(); ++y)
        for (int x = clipped.left(); x <= clipped.right(); ++x)
            most = std::max(most, qRed(image.pixel(x, y)));
    return most;
}

// `lines`: the brightest value in each of the first three rows of text.
struct Captioning { QStringList phrases = {}; QString separator = "\n"; bool show = true, preview = false;
                    QList<int> lines = {}; };
enum class Finishing { None, Hall, Band };
// `subtitleLayer`: an invisible one.
struct Finish { QString title = {}; bool band = false, hall = false; QString caption = {};
                bool show = true, subtitleLayer = false; Finishing drawn = Finishing::None; };

} // namespace

class tst_Compositor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void missingPictures()
    {
        // Over white: an image or a video without its picture is a dark box; a camera leaves what is below.
        const SceneDef scene{{}, {{.kind = Kind::Color, .fill = Qt::white},
                                  {.kind = Kind::Image, .rect = {0, 0, 0.3, 1}},
                                  {.kind = Kind::Video, .rect = {0.3, 0, 0.3, 1}},
                                  {.kind = Kind::Camera, .rect = {0.6, 0, 0.4, 1}}}};
        const QImage image = compose(scene, {.size = {300, 100}});
        CHECK_COLOUR(image, QPoint(45, 50), QColor(55, 55, 55)); // black at alpha 200
        CHECK_COLOUR(image, QPoint(135, 50), QColor(55, 55, 55));
        CHECK_COLOUR(image, QPoint(240, 50), Qt::white);
        // No output at all for an empty size.
        for (const QSize empty : {QSize(0, 100), QSize(100, 0)})
            QVERIFY(Compositor(Mode::Fast).compose(scene, {}, true, empty.width(), empty.height(), false, true,
                                                   captionsOf({"a", "b"}), nullptr, 0).isNull());
    }

    void subtitles_data()
    {
        QTest::addColumn<Captioning>("captioning");
        const int dim = 140, full = 255; // 255 x 0.55
        const QStringList two{"MMM", "WWW"};
        using C = Captioning;
        QTest::newRow("blank separator never splits") << C{.phrases = two, .separator = " ", .lines = {full, 0, 0}};
        QTest::newRow("newline: older dimmed, newest below") << C{.phrases = two, .lines = {dim, full, 0}};
        QTest::newRow("blank row: newest lower") << C{.phrases = two, .separator = "\n\n", .lines = {dim, 0, full}};
        // An empty subtitle leaves nothing on program, not even its background.
        QTest::newRow("no captions on program") << C{.lines = {0, 0, 0}};
        QTest::newRow("captions hidden on program") << C{.phrases = two, .show = false, .lines = {0, 0, 0}};
        QTest::newRow("captions in preview") << C{.phrases = two, .preview = true, .lines = {dim, full, 0}};
        QTest::newRow("placeholder in preview") << C{.preview = true, .lines = {full, full, full}};
    }

    void subtitles()
    {
        QFETCH(Captioning, captioning);
        // 36 pixels high on 360; hung from the top all the same; what an earlier frame left is replaced.
        const Layer subtitle{.kind = Kind::Subtitle, .text = "old", .reference = "old", .font = "DejaVu Sans",
                             .size = 108, .background = Qt::blue, .align = Qt::AlignLeft | Qt::AlignBottom,
                             .shadow = false};
        const QImage image = compose({{}, {subtitle}}, {.captions = captionsOf(captioning.phrases, captioning.separator,
                                                                              captioning.show),
                                                        .preview = captioning.preview});
        CHECK_COLOUR(image, QPoint(2, 2), captioning.lines[0] > 0 ? Qt::blue : Qt::black);
        QFont font(subtitle.font);
        font.setPixelSize(36);
        font.setBold(true);
        const qreal lineHeight = QFontMetricsF(font).lineSpacing();
        for (int line = 0; line < captioning.lines.size(); ++line) {
            // The middle of each row of text, below the box's 8-pixel top margin.
            const int found = brightest(image, QRect(0, int(8 + lineHeight * (line + 0.25)), 640, int(lineHeight / 2)));
            QVERIFY2(std::abs(found - captioning.lines[line]) <= 6, qPrintable(QString::number(found)));
        }
    }

    void finishingText_data()
    {
        QTest::addColumn<Finish>("finish");
        const QString title = QStringLiteral("Anuncios"), words = QStringLiteral("Bienvenidos");
        QTest::newRow("band with an empty title, no hall text off the hall")
            << Finish{.band = true, .caption = words, .drawn = Finishing::Band};
        QTest::newRow("a title brings the band") << Finish{.title = title, .drawn = Finishing::Band};
        QTest::newRow("neither") << Finish{};
        QTest::newRow("no band on the hall") << Finish{.title = title, .band = true, .hall = true};
        QTest::newRow("hall captions without subtitle layer")
            << Finish{.title = title, .band = true, .hall = true, .caption = words, .drawn = Finishing::Hall};
        QTest::newRow("an invisible subtitle layer takes them")
            << Finish{.hall = true, .caption = words, .subtitleLayer = true};
        QTest::newRow("captions hidden") << Finish{.hall = true, .caption = words, .show = false};
    }

    void finishingText()
    {
        QFETCH(Finish, finish);
        SceneDef scene;
        if (finish.subtitleLayer)
            scene.layers.push_back({.kind = Kind::Subtitle, .visible = false});
        const QStringList phrases = finish.caption.isEmpty() ? QStringList() : QStringList{finish.caption};
        const QImage image = compose(scene, {{1000, 500}, captionsOf(phrases, "\n", finish.show), finish.hall, false,
                                             finish.title, finish.band});
        if (finish.drawn == Finishing::None) {
            QCOMPARE(brightest(image, image.rect()), 0);
        } else if (finish.drawn == Finishing::Hall) {
            // White text in (50, 62, 900, 375); nothing beyond it but the shadow's 4 pixels.
            QVERIFY(brightest(image, QRect(50, 62, 900, 375)) >= 250);
            QCOMPARE(brightest(image, QRect(0, 0, 1000, 57)) + brightest(image, QRect(0, 442, 1000, 58)), 0);
        } else {
            // Band (40, 390, 920, 75), rgb(12, 48, 88) at alpha 235 over black; a short title at its left.
            for (const QPoint p : {QPoint(900, 427), QPoint(40, 390), QPoint(959, 464)})
                CHECK_COLOUR(image, p, QColor(11, 44, 81));
            for (const QPoint p : {QPoint(39, 427), QPoint(500, 389), QPoint(500, 465)})
                CHECK_COLOUR(image, p, Qt::black);
            QCOMPARE(brightest(image, QRect(64, 398, 300, 59)) >= 250, !finish.title.isEmpty());
        }
    }

    void fastMatchesLiteral_data()
    {
        QTest::addColumn<QList<Kind>>("kinds");
        QTest::addColumn<Options>("output");
        const QList<Kind> every{Kind::Camera, Kind::Image, Kind::Text, Kind::Color, Kind::Verse, Kind::Subtitle};
        const auto captions = [](const char* separator) {
            return captionsOf({"y aquel Verbo fue hecho carne", "y habitó entre nosotros", "lleno de gracia"},
                              separator);
        };
        QTest::newRow("subtitles in portrait, preview")
            << QList<Kind>{Kind::Subtitle} << Options{.size = {360, 640}, .captions = captions(" "), .preview = true};
        QTest::newRow("every kind on the hall") << every << Options{.captions = captions("\n"), .hall = true};
        // Text above 64 pixels, which Qt fills as paths.
        QTest::newRow("every kind at full size") << every << Options{.size = {1920, 1080}, .captions = captions("\n\n")};
    }

    void fastMatchesLiteral()
    {
        QFETCH(QList<Kind>, kinds);
        QFETCH(Options, output);
        // What is hardest for the fast path: opacity, shadows, backgrounds, fractional boxes, scaling both
        // ways, a translucent picture, text running out of its box, a shadow pass moved by half a pixel.
        const Layer samples[] = {
            {.kind = Kind::Camera, .rect = {0.0, 0.0, 0.7, 0.83}, .cover = true},
            {.kind = Kind::Image, .opacity = 0.8, .rect = {0.513, 0.071, 0.417, 0.333},
             .image = busyFrame(333, 187, 5, true)},
            {.kind = Kind::Image, .rect = {0.02, 0.6, 0.31, 0.37}, .image = busyFrame(40, 30, 9, false), .cover = true},
            {.kind = Kind::Color, .rect = {0.6, 0.7, 0.3, 0.2}, .fill = QColor(200, 100, 0, 120)},
            {.kind = Kind::Text, .opacity = 0.7, .rect = {0.1, 0.05, 0.37, 0.13},
             .text = "Anuncios de la semana: reunión de jóvenes el sábado a las 18 h, con cena",
             .align = Qt::AlignLeft | Qt::AlignVCenter},
            {.kind = Kind::Text, .rect = {0.3, 0.55, 0.6, 0.3}, .text = "Gloria a Dios", .size = 100,
             .color = QColor(250, 220, 120), .background = Qt::transparent},
            {.kind = Kind::Verse, .rect = {0.083, 0.41, 0.834, 0.3},
             .text = "Porque de tal manera amó Dios al mundo,\nque ha dado a su Hijo unigénito",
             .reference = "Juan 3:16 · RVR1909", .color = QColor(255, 240, 200)},
            {.kind = Kind::Subtitle, .opacity = 0.9, .rect = {0.05, 0.08, 0.9, 0.84}, .size = 72,
             .background = Qt::transparent, .align = Qt::AlignLeft | Qt::AlignTop},
        };
        SceneDef scene{{}, {Layer{.kind = Kind::Color, .fill = QColor(8, 24, 48)}}};
        std::copy_if(std::begin(samples), std::end(samples), std::back_inserter(scene.layers),
                     [&](const Layer& l) { return kinds.contains(l.kind); });
        tavrin::Frame camera = *busyFrame(480, 270, 2, false);
        quint64 serial = 1;
        Compositor literal(Mode::Literal);
        auto fast = std::make_unique<Compositor>(Mode::Fast);
        const auto draw = [&](Compositor& compositor) {
            return compositor.compose(scene, QStringLiteral("Culto dominical · Bienvenidos a todos los que nos ven"),
                                      true, output.size.width(), output.size.height(), output.hall, output.preview,
                                      output.captions, &camera, serial);
        };
        const auto check = [&](const char* what) {
            QVERIFY2(largestDifference(draw(literal), draw(*fast)) <= 2, what);
        };
        check("first drawing");
        // The take keeps one picture as the fade's still and paints into another: neither may touch what follows.
        const QImage kept = draw(*fast), keptCopy = kept.copy();
        QImage painted = draw(*fast);
        painted.fill(Qt::green);
        check("drawn from what the fast path kept");
        camera = *busyFrame(480, 270, 77, false); // the camera's next frame, in the same object
        ++serial;
        check("new camera frame");
        const std::pair<const char*, std::function<void(Layer&)>> edits[] = {
            {"new picture, the old one freed",
             [](Layer& l) { l.image = l.image ? busyFrame(64, 48, 200, false) : nullptr; }},
            {"new text", [](Layer& l) { l.text += QStringLiteral(" amén"); }},
            {"new colour", [](Layer& l) { l.color = QColor(255, 0, 0); }},
            {"moved box", [](Layer& l) { l.rect.translate(0.013, 0.02); }},
        };
        for (const auto& [what, edit] : edits) {
            std::for_each(scene.layers.begin() + 1, scene.layers.end(), edit);
            check(what);
        }
        for (int i = 0; i < 20; ++i) // long enough for all that was kept to be dropped
            fast->compose({}, {}, false, output.size.width(), output.size.height(), false, false, {}, nullptr, 0);
        check("after a pause");
        fast.reset(); // pictures outlive their compositor
        QCOMPARE(largestDifference(kept, keptCopy), 0);
        QCOMPARE(painted.pixelColor(0, 0), QColor(Qt::green));
    }
};

QTEST_MAIN(tst_Compositor)
#include "tst_compositor.moc"
