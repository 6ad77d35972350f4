#include "Compositor.h"
#include "Frame.h"
#include "i18n.h"

#include <QFontInfo>
#include <QFontMetricsF>
#include <QTest>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

class tst_Compositor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pictureGeometry_data();
    void pictureGeometry();
    void missingPictures();
    void subtitles_data();
    void subtitles();
    void finishingText_data();
    void finishingText();
    void fastMatchesLiteral_data();
    void fastMatchesLiteral();
    void frameFromImage_data();
    void frameFromImage();
};

namespace {

using Kind = Layer::Kind;
using Mode = Compositor::Mode;

// Detail everywhere and, if asked, every alpha: any difference in scaling, placement or
// premultiplication shows.
std::shared_ptr<tavrin::Frame> busyFrame(int width, int height, int seed, bool translucent)
{
    auto frame = std::make_shared<tavrin::Frame>(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* p =
                frame->pixels.data() + (std::size_t(y) * std::size_t(width) + std::size_t(x)) * 4;
            p[0] = std::uint8_t((x * 7 + seed) & 255);
            p[1] = std::uint8_t((y * 5 + seed * 3) & 255);
            p[2] = std::uint8_t(((x / 9 + y / 9) & 1) ? 230 : 20);
            p[3] = translucent ? std::uint8_t((x * 255) / std::max(1, width - 1)) : 255;
        }
    return frame;
}

Layer layerOf(Kind kind, const QRectF& rect = QRectF(0, 0, 1, 1), double opacity = 1.0)
{
    Layer layer;
    layer.kind = kind;
    layer.rect = rect;
    layer.opacity = opacity;
    return layer;
}

// Largest difference of any byte of the outputs' RGBA.
int largestDifference(const QImage& a, const QImage& b)
{
    const tavrin::Frame fa = frameFromImage(a);
    const tavrin::Frame fb = frameFromImage(b);
    int largest = fa.width == fb.width && fa.height == fb.height ? 0 : 256;
    for (std::size_t i = 0; largest < 256 && i < fa.pixels.size(); ++i)
        largest = std::max(largest, std::abs(int(fa.pixels[i]) - int(fb.pixels[i])));
    return largest;
}

// The literal picture, once the fast path was found to give the same to within rounding.
QImage compose(const SceneDef& scene, QSize size, const CaptionView& captions = {}, bool hall = false,
               bool preview = false, const QString& title = {}, bool band = false)
{
    const auto draw = [&](Mode mode) {
        return Compositor(mode).compose(scene, title, band, size.width(), size.height(), hall, preview,
                                        captions, nullptr, 0);
    };
    const QImage literal = draw(Mode::Literal);
    const int difference = largestDifference(literal, draw(Mode::Fast));
    QTest::qVerify(difference <= 2, "fast path", qPrintable(QStringLiteral("off by %1").arg(difference)),
                   __FILE__, __LINE__);
    return literal;
}

// Within the 2 levels per channel that painting may round by.
bool near(const QColor& a, const QColor& b)
{
    return std::abs(a.red() - b.red()) <= 2 && std::abs(a.green() - b.green()) <= 2 &&
           std::abs(a.blue() - b.blue()) <= 2;
}

#define CHECK_COLOUR(image, x, y, expected)                                                                  \
    QVERIFY2(near((image).pixelColor(x, y), expected), qPrintable((image).pixelColor(x, y).name()))

// Largest red value inside `area`: white text, and nothing of a blue background.
int brightest(const QImage& image, const QRect& area)
{
    int most = 0;
    const QRect clipped = area & image.rect();
    for (int y = clipped.top(); y <= clipped.bottom(); ++y)
        for (int x = clipped.left(); x <= clipped.right(); ++x)
            most = std::max(most, qRed(image.pixel(x, y)));
    return most;
}

const char* const placeholderText =
    "Aquí aparecerá la traducción en vivo: se escribe de izquierda a derecha y hacia abajo, sin moverse; al "
    "llenarse salen las frases de arriba y la nueva queda resaltada.";

CaptionView captionsOf(const QStringList& phrases, const QString& separator, bool show = true)
{
    CaptionView view;
    view.show = show;
    view.phrases = phrases;
    view.separator = separator;
    view.text = phrases.join(separator);
    return view;
}

struct Placement
{
    QSize frame;
    QRectF rect;
    bool cover = false;
    QRect expected;                // pixels the picture covers, on a 400 x 300 output
    Qt::Orientations cropped = {}; // sides of the frame that cover cuts off
};

struct Captioning
{
    QStringList phrases = {};
    QString separator = QStringLiteral("\n");
    bool show = true;
    bool preview = false;
    bool placeholder = false;
    QList<int> lines = {}; // brightest value in each of the first three rows of text
};

enum class Finishing { None, Hall, Band };

struct Finish
{
    QString title = {};
    bool band = false;
    bool hall = false;
    QString caption = {};
    bool show = true;
    bool subtitleLayer = false; // an invisible one
    Finishing drawn = Finishing::None;
};

struct Output
{
    QList<Kind> kinds = {};
    QSize size{640, 360};
    bool hall = false;
    bool preview = false;
    QString separator = QStringLiteral("\n");
    double subtitleOpacity = 0.9;
};

} // namespace

void tst_Compositor::pictureGeometry_data()
{
    QTest::addColumn<Placement>("placement");
    const QRectF box(0.25, 0.25, 0.5, 0.5);
    QTest::newRow("wide fits between bars") << Placement{{200, 100}, {0, 0, 1, 1}, false, {0, 50, 400, 200}};
    QTest::newRow("tall fits between bars") << Placement{{100, 200}, {0, 0, 1, 1}, false, {125, 0, 150, 300}};
    QTest::newRow("small enlarged, centred") << Placement{{20, 30}, box, false, {150, 75, 100, 150}};
    QTest::newRow("cover cuts a wide frame's sides")
        << Placement{{200, 100}, box, true, {100, 75, 200, 150}, Qt::Horizontal};
    QTest::newRow("cover cuts a tall frame's ends")
        << Placement{{100, 300}, {0.5, 0.1, 0.25, 0.8}, true, {200, 30, 100, 240}, Qt::Vertical};
}

void tst_Compositor::pictureGeometry()
{
    QFETCH(Placement, placement);
    const QColor red(230, 20, 20);
    const QColor green(20, 200, 20);

    // Red in a green border, so that what cover cuts off is seen to be gone.
    QImage picture(placement.frame, QImage::Format_RGBA8888);
    picture.fill(green);
    const int border = std::min(picture.width(), picture.height()) / 10;
    QPainter(&picture).fillRect(picture.rect().adjusted(border, border, -border, -border), red);
    SceneDef scene;
    scene.layers.push_back(layerOf(Kind::Image, placement.rect));
    scene.layers.back().image = std::make_shared<tavrin::Frame>(::frameFromImage(picture));
    scene.layers.back().cover = placement.cover;
    const QImage image = compose(scene, QSize(400, 300));

    const QRect& r = placement.expected;
    const QPoint mid = r.center();
    const QColor sides = placement.cropped & Qt::Horizontal ? red : green;
    const QColor ends = placement.cropped & Qt::Vertical ? red : green;
    CHECK_COLOUR(image, r.left(), mid.y(), sides);
    CHECK_COLOUR(image, r.right(), mid.y(), sides);
    CHECK_COLOUR(image, mid.x(), r.top(), ends);
    CHECK_COLOUR(image, mid.x(), r.bottom(), ends);
    for (const QPoint p : {QPoint(r.left() - 1, mid.y()), QPoint(r.right() + 1, mid.y()),
                           QPoint(mid.x(), r.top() - 1), QPoint(mid.x(), r.bottom() + 1)})
        if (image.rect().contains(p))
            CHECK_COLOUR(image, p.x(), p.y(), Qt::black);
}

void tst_Compositor::missingPictures()
{
    // Over white: an image or a video without its picture is a dark box; a camera without one leaves
    // what lies below in view.
    SceneDef scene;
    scene.layers.push_back(layerOf(Kind::Color));
    scene.layers.back().fill = Qt::white;
    scene.layers.push_back(layerOf(Kind::Image, QRectF(0, 0, 0.3, 1)));
    scene.layers.push_back(layerOf(Kind::Video, QRectF(0.3, 0, 0.3, 1)));
    scene.layers.push_back(layerOf(Kind::Camera, QRectF(0.6, 0, 0.4, 1)));
    const QImage image = compose(scene, QSize(300, 100));
    CHECK_COLOUR(image, 45, 50, QColor(55, 55, 55)); // black at alpha 200
    CHECK_COLOUR(image, 135, 50, QColor(55, 55, 55));
    CHECK_COLOUR(image, 240, 50, Qt::white);
}

void tst_Compositor::subtitles_data()
{
    QTest::addColumn<Captioning>("captioning");
    const int dim = 140; // 255 x 0.55
    const int full = 255;
    const QStringList two{QStringLiteral("MMM"), QStringLiteral("WWW")};
    QTest::newRow("blank separator never splits")
        << Captioning{.phrases = two, .separator = QStringLiteral(" "), .lines = {full, 0, 0}};
    QTest::newRow("newline: older dimmed, newest below")
        << Captioning{.phrases = two, .lines = {dim, full, 0}};
    QTest::newRow("blank row: newest a row lower")
        << Captioning{.phrases = two, .separator = QStringLiteral("\n\n"), .lines = {dim, 0, full}};
    QTest::newRow("three phrases: two dimmed")
        << Captioning{.phrases = {QStringLiteral("MMM"), QStringLiteral("NNN"), QStringLiteral("WWW")},
                      .lines = {dim, dim, full}};
    QTest::newRow("one phrase is one run")
        << Captioning{.phrases = {QStringLiteral("MMM")}, .lines = {full, 0, 0}};
    // An empty subtitle leaves nothing on program, not even its background.
    QTest::newRow("no captions on program") << Captioning{.lines = {0, 0, 0}};
    QTest::newRow("captions hidden on program")
        << Captioning{.phrases = two, .show = false, .lines = {0, 0, 0}};
    QTest::newRow("captions in preview")
        << Captioning{.phrases = two, .preview = true, .lines = {dim, full, 0}};
    QTest::newRow("placeholder in preview")
        << Captioning{.preview = true, .placeholder = true, .lines = {full, full, full}};
    QTest::newRow("placeholder in preview, captions hidden") << Captioning{
        .phrases = two, .show = false, .preview = true, .placeholder = true, .lines = {full, full, full}};
}

void tst_Compositor::subtitles()
{
    QFETCH(Captioning, captioning);

    Layer subtitle = layerOf(Kind::Subtitle);
    subtitle.font = QStringLiteral("DejaVu Sans");
    subtitle.size = 108; // 36 pixels on a 360-high output
    subtitle.shadow = false;
    subtitle.background = Qt::blue;
    subtitle.align = Qt::AlignLeft | Qt::AlignBottom; // subtitles hang from the top all the same
    subtitle.text = QStringLiteral("old");            // what an earlier frame left is always replaced
    subtitle.reference = QStringLiteral("old");
    SceneDef scene;
    scene.layers.push_back(subtitle);
    const QSize size(640, 360);
    const CaptionView captions = captionsOf(captioning.phrases, captioning.separator, captioning.show);
    const QImage image = compose(scene, size, captions, false, captioning.preview);

    CHECK_COLOUR(image, 2, 2, captioning.lines[0] > 0 ? Qt::blue : Qt::black);
    QFont font(subtitle.font);
    font.setPixelSize(36);
    font.setBold(true);
    const qreal lineHeight = QFontMetricsF(font).lineSpacing();
    for (int line = 0; line < captioning.lines.size(); ++line) {
        // The middle of each row of text, below the box's 8-pixel top margin.
        const int found =
            brightest(image, QRect(0, int(8 + lineHeight * (line + 0.25)), 640, int(lineHeight / 2)));
        QVERIFY2(std::abs(found - captioning.lines[line]) <= 6,
                 qPrintable(QStringLiteral("row %1: %2").arg(line).arg(found)));
    }
    if (captioning.placeholder) {
        // The same picture as a caption of its very text.
        const QImage caption = compose(scene, size, captionsOf({T(placeholderText)}, QStringLiteral("\n")));
        QCOMPARE(largestDifference(image, caption), 0);
    }
}

void tst_Compositor::finishingText_data()
{
    QTest::addColumn<Finish>("finish");
    const QString title = QStringLiteral("Anuncios");
    const QString words = QStringLiteral("Bienvenidos");
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
    QTest::newRow("no caption text") << Finish{.hall = true};
}

void tst_Compositor::finishingText()
{
    QFETCH(Finish, finish);

    SceneDef scene;
    if (finish.subtitleLayer) {
        scene.layers.push_back(layerOf(Kind::Subtitle));
        scene.layers.back().visible = false;
    }
    const CaptionView captions =
        captionsOf(finish.caption.isEmpty() ? QStringList() : QStringList{finish.caption},
                   QStringLiteral("\n"), finish.show);
    const QImage image =
        compose(scene, QSize(1000, 500), captions, finish.hall, false, finish.title, finish.band);

    if (finish.drawn == Finishing::None) {
        QCOMPARE(brightest(image, image.rect()), 0);
    } else if (finish.drawn == Finishing::Hall) {
        // White text in (50, 62, 900, 375); nothing beyond it but the shadow's 4 pixels.
        QVERIFY(brightest(image, QRect(50, 62, 900, 375)) >= 250);
        QCOMPARE(brightest(image, QRect(0, 0, 1000, 57)), 0);
        QCOMPARE(brightest(image, QRect(0, 442, 1000, 58)), 0);
    } else {
        // Band (40, 390, 920, 75), rgb(12, 48, 88) at alpha 235 over black; a short title stays at its left.
        for (const QPoint p : {QPoint(900, 427), QPoint(40, 390), QPoint(959, 464)})
            CHECK_COLOUR(image, p.x(), p.y(), QColor(11, 44, 81));
        for (const QPoint p : {QPoint(39, 427), QPoint(500, 389), QPoint(500, 465)})
            CHECK_COLOUR(image, p.x(), p.y(), Qt::black);
        QCOMPARE(brightest(image, QRect(64, 398, 300, 59)) >= 250, !finish.title.isEmpty());
    }
}

void tst_Compositor::fastMatchesLiteral_data()
{
    QTest::addColumn<Output>("output");
    QTest::addColumn<QString>("font");
    const QSize full(1920, 1080); // text above 64 pixels, which Qt fills as paths
    const QList<Kind> every{Kind::Camera, Kind::Image, Kind::Text,  Kind::Video,
                            Kind::Screen, Kind::Color, Kind::Verse, Kind::Subtitle};
    const std::pair<const char*, Output> outputs[] = {
        {"camera, cropped and scaled", Output{.kinds = {Kind::Camera}}},
        {"images, translucent and enlarged", Output{.kinds = {Kind::Image}}},
        {"video and screen without source", Output{.kinds = {Kind::Video, Kind::Screen}}},
        {"translucent colour", Output{.kinds = {Kind::Color}}},
        {"text, with opacity, at full size", Output{.kinds = {Kind::Text}, .size = full}},
        {"verse", Output{.kinds = {Kind::Verse}}},
        {"subtitles in preview, blank row",
         Output{.kinds = {Kind::Subtitle}, .preview = true, .separator = QStringLiteral("\n\n")}},
        {"subtitles in portrait, blank separator",
         Output{.kinds = {Kind::Subtitle}, .size = {360, 640}, .separator = QStringLiteral(" ")}},
        {"subtitles at full size, opaque",
         Output{.kinds = {Kind::Subtitle}, .size = full, .subtitleOpacity = 1.0}},
        {"hall captions", Output{.hall = true}},
        {"hall captions at full size", Output{.size = full, .hall = true}},
        {"every kind on the hall", Output{.kinds = every, .hall = true}},
        {"every kind at full size",
         Output{.kinds = every, .size = full, .separator = QStringLiteral("\n\n")}},
    };
    // Text layers in the fonts a layer's "Arial" becomes on Linux machines, outline fonts with hinting
    // of their own, each installed by the test set-up; rows without text layers once.
    const char* const fonts[] = {"DejaVu Sans", "Liberation Sans", "Nimbus Sans"};
    for (const char* font : fonts)
        for (const auto& [name, output] : outputs)
            if (font == fonts[0] || std::any_of(output.kinds.begin(), output.kinds.end(), [](Kind kind) {
                    return kind == Kind::Text || kind == Kind::Verse || kind == Kind::Subtitle;
                }))
                QTest::addRow("%s, %s", name, font) << output << QString::fromLatin1(font);
}

void tst_Compositor::fastMatchesLiteral()
{
    QFETCH(Output, output);
    QFETCH(QString, font);
    // The family as it is found, foundry and all: "Nimbus Sans [urw]".
    QVERIFY2(QFontInfo(QFont(font)).family().startsWith(font), qPrintable(font + QStringLiteral(" is not installed")));

    // What is hardest for the fast path, kind by kind: opacity, shadows, backgrounds, fractional boxes,
    // scaling both ways, a translucent picture, text running out of its box.
    std::vector<Layer> samples;
    const auto add = [&](Kind kind, QRectF rect, double opacity = 1.0) -> Layer& {
        return samples.emplace_back(layerOf(kind, rect, opacity));
    };
    add(Kind::Camera, {0.0, 0.0, 0.7, 0.83}).cover = true;
    add(Kind::Image, {0.513, 0.071, 0.417, 0.333}, 0.8).image = busyFrame(333, 187, 5, true);
    Layer& small = add(Kind::Image, {0.02, 0.6, 0.31, 0.37});
    small.image = busyFrame(40, 30, 9, false);
    small.cover = true;
    add(Kind::Video, {0.8, 0.6, 0.15, 0.15});
    add(Kind::Screen, {0.81, 0.02, 0.17, 0.1}, 0.6);
    add(Kind::Color, {0.6, 0.7, 0.3, 0.2}).fill = QColor(200, 100, 0, 120);
    Layer& text = add(Kind::Text, {0.1, 0.05, 0.37, 0.13}, 0.7);
    text.text = QStringLiteral("Anuncios de la semana: reunión de jóvenes el sábado a las 18 h, con cena");
    text.align = Qt::AlignLeft | Qt::AlignVCenter;
    Layer& large = add(Kind::Text, {0.3, 0.55, 0.6, 0.3}); // at full size a shadow pass moves by half a pixel
    large.text = QStringLiteral("Gloria a Dios");
    large.size = 100;
    large.background = Qt::transparent;
    large.color = QColor(250, 220, 120);
    Layer& verse = add(Kind::Verse, {0.083, 0.41, 0.834, 0.3});
    verse.text = QStringLiteral("Porque de tal manera amó Dios al mundo,\nque ha dado a su Hijo unigénito");
    verse.reference = QStringLiteral("Juan 3:16 · RVR1909");
    verse.color = QColor(255, 240, 200);
    Layer& subtitle = add(Kind::Subtitle, {0.05, 0.08, 0.9, 0.84}, output.subtitleOpacity);
    subtitle.size = 72;
    subtitle.background = Qt::transparent;
    subtitle.align = Qt::AlignLeft | Qt::AlignTop;

    SceneDef scene;
    scene.layers.push_back(layerOf(Kind::Color));
    scene.layers.back().fill = QColor(8, 24, 48);
    for (Layer& layer : samples) {
        layer.font = font;
        if (output.kinds.contains(layer.kind))
            scene.layers.push_back(layer);
    }
    tavrin::Frame camera = *busyFrame(480, 270, 2, false);
    quint64 serial = 1;
    const CaptionView captions =
        captionsOf({QStringLiteral("y aquel Verbo fue hecho carne"),
                    QStringLiteral("y habitó entre nosotros"), QStringLiteral("lleno de gracia y de verdad")},
                   output.separator);
    Compositor literal(Mode::Literal);
    auto fast = std::make_unique<Compositor>(Mode::Fast);
    const auto draw = [&](Compositor& compositor) {
        return compositor.compose(scene,
                                  QStringLiteral("Culto dominical · Bienvenidos a todos los que nos ven hoy"),
                                  true, output.size.width(), output.size.height(), output.hall,
                                  output.preview, captions, &camera, serial);
    };
    const auto check = [&](const char* what) {
        const int difference = largestDifference(draw(literal), draw(*fast));
        QVERIFY2(difference <= 2, qPrintable(QStringLiteral("%1: off by %2").arg(what).arg(difference)));
    };
    check("first drawing");
    // The tick shows each picture for a frame while the take keeps one as the fade's still and paints the
    // fade into another: neither may change what follows, nor be changed by it.
    const QImage kept = draw(*fast);
    const QImage keptCopy = kept.copy();
    QImage painted = draw(*fast);
    painted.fill(Qt::green);
    check("drawn from what the fast path kept");

    // What the fast path keeps must never outlive what it was made from: one change at a time.
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
        fast->compose(SceneDef(), {}, false, output.size.width(), output.size.height(), false, false, {},
                      nullptr, 0);
    check("after a pause");
    fast.reset(); // pictures outlive their compositor
    QCOMPARE(largestDifference(kept, keptCopy), 0);
    QCOMPARE(painted.pixelColor(0, 0), QColor(Qt::green));
}

void tst_Compositor::frameFromImage_data()
{
    QTest::addColumn<QImage::Format>("format");
    QTest::addColumn<QSize>("size");
    QTest::newRow("premultiplied ARGB32") << QImage::Format_ARGB32_Premultiplied << QSize(37, 5);
    QTest::newRow("RGBA8888") << QImage::Format_RGBA8888 << QSize(37, 5);
    QTest::newRow("RGB32") << QImage::Format_RGB32 << QSize(5, 3);
    QTest::newRow("ARGB32") << QImage::Format_ARGB32 << QSize(9, 4);
    QTest::newRow("RGB888, rows padded") << QImage::Format_RGB888 << QSize(7, 3);
    QTest::newRow("RGBA8888 premultiplied") << QImage::Format_RGBA8888_Premultiplied << QSize(6, 2);
}

void tst_Compositor::frameFromImage()
{
    QFETCH(QImage::Format, format);
    QFETCH(QSize, size);

    // Every alpha from clear to opaque, and colours that premultiplication rounds.
    QImage source(size, QImage::Format_ARGB32);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            source.setPixel(x, y,
                            qRgba((x * 53 + y) & 255, (y * 91 + x * 3) & 255, 255 - x * 5,
                                  (x * 255 / (size.width() - 1) + y * 40) & 255));
    const QImage picture = source.convertToFormat(format);
    const QImage expected = picture.convertToFormat(QImage::Format_RGBA8888);

    const tavrin::Frame frame = ::frameFromImage(picture);
    QCOMPARE(QSize(frame.width, frame.height), size);
    QCOMPARE(frame.pixels.size(), std::size_t(size.width() * size.height() * 4));
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width() * 4; ++x) {
            const int got = frame.pixels[std::size_t(y * size.width() * 4 + x)];
            const int want = expected.constScanLine(y)[x];
            QVERIFY2(std::abs(got - want) <= 1,
                     qPrintable(QStringLiteral("row %1, byte %2: %3").arg(y).arg(x).arg(got)));
        }
    QVERIFY(::frameFromImage(QImage()).empty());
}

QTEST_MAIN(tst_Compositor)
#include "tst_compositor.moc"
