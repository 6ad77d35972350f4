#include "Compositor.h"
#include "Frame.h"
#include "i18n.h"

#include <QFontMetricsF>
#include <QTest>

#include <algorithm>
#include <cstdlib>
#include <memory>

using Mode = Compositor::Mode;
Q_DECLARE_METATYPE(Compositor::Mode)

class tst_Compositor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void textPixelSize_data();
    void textPixelSize();
    void shadowOffset_data();
    void shadowOffset();
    void pictureGeometry_data();
    void pictureGeometry();
    void coverCropsTheMiddle_data();
    void coverCropsTheMiddle();
    void missingPictures_data();
    void missingPictures();
    void skippedLayers_data();
    void skippedLayers();
    void subtitleRuns_data();
    void subtitleRuns();
    void previewPlaceholder_data();
    void previewPlaceholder();
    void hallFallback_data();
    void hallFallback();
    void band_data();
    void band();
    void fastMatchesLiteral_data();
    void fastMatchesLiteral();
    void fastFollowsChangingSources();
    void returnedPicturesStayIntact();
    void frameFromImage_data();
    void frameFromImage();
};

namespace {

const QColor black(0, 0, 0);

std::shared_ptr<tavrin::Frame> solidFrame(int width, int height, const QColor& colour)
{
    auto frame = std::make_shared<tavrin::Frame>(width, height);
    for (std::size_t i = 0; i < frame->pixels.size(); i += 4) {
        frame->pixels[i] = std::uint8_t(colour.red());
        frame->pixels[i + 1] = std::uint8_t(colour.green());
        frame->pixels[i + 2] = std::uint8_t(colour.blue());
        frame->pixels[i + 3] = std::uint8_t(colour.alpha());
    }
    return frame;
}

// A picture with detail everywhere and partly transparent pixels, to catch any difference in
// scaling, placement or premultiplication.
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

Layer colourLayer(const QColor& fill, const QRectF& rect = QRectF(0, 0, 1, 1))
{
    Layer layer;
    layer.kind = Layer::Kind::Color;
    layer.fill = fill;
    layer.rect = rect;
    return layer;
}

Layer imageLayer(const std::shared_ptr<tavrin::Frame>& frame, const QRectF& rect, bool cover)
{
    Layer layer;
    layer.kind = Layer::Kind::Image;
    layer.image = frame;
    layer.rect = rect;
    layer.cover = cover;
    return layer;
}

QImage compose(Mode mode, const SceneDef& scene, int width, int height, const QString& title = QString(),
               bool band = false, bool hall = false, bool preview = false, const CaptionView& captions = {},
               const tavrin::Frame* camera = nullptr)
{
    Compositor compositor(mode);
    return compositor.compose(scene, title, band, width, height, hall, preview, captions, camera, 1);
}

QColor at(const QImage& image, int x, int y)
{
    return image.pixelColor(x, y);
}

bool near(const QColor& a, const QColor& b, int tolerance = 2)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance;
}

QByteArray describe(const QColor& colour)
{
    return QStringLiteral("rgb(%1, %2, %3)").arg(colour.red()).arg(colour.green()).arg(colour.blue()).toUtf8();
}

#define CHECK_COLOUR(actual, expected)                                                                     \
    QVERIFY2(near(actual, expected), (describe(actual) + " instead of " + describe(expected)).constData())

// Brightest channel inside `area`.
int brightest(const QImage& image, const QRect& area)
{
    int most = 0;
    const QRect clipped = area & image.rect();
    for (int y = clipped.top(); y <= clipped.bottom(); ++y)
        for (int x = clipped.left(); x <= clipped.right(); ++x) {
            const QColor c = image.pixelColor(x, y);
            most = std::max({most, c.red(), c.green(), c.blue()});
        }
    return most;
}

bool allBlack(const QImage& image)
{
    return brightest(image, image.rect()) == 0;
}

// Largest difference of any byte of the outputs' RGBA.
int largestDifference(const QImage& a, const QImage& b)
{
    const tavrin::Frame fa = frameFromImage(a);
    const tavrin::Frame fb = frameFromImage(b);
    if (fa.width != fb.width || fa.height != fb.height)
        return 256;
    int largest = 0;
    for (std::size_t i = 0; i < fa.pixels.size(); ++i)
        largest = std::max(largest, std::abs(int(fa.pixels[i]) - int(fb.pixels[i])));
    return largest;
}

CaptionView captionsOf(const QStringList& phrases, const QString& separator, bool show = true)
{
    CaptionView view;
    view.show = show;
    view.phrases = phrases;
    view.separator = separator;
    view.text = phrases.join(separator);
    return view;
}

void addModes(const char* name)
{
    QTest::addRow("%s, literal", name) << Mode::Literal;
    QTest::addRow("%s, fast", name) << Mode::Fast;
}

} // namespace

void tst_Compositor::textPixelSize_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("outputHeight");
    QTest::addColumn<int>("pixels");

    QTest::newRow("small size on a small output is raised to 4") << 8 << 360 << 4;
    QTest::newRow("just under the floor") << 14 << 360 << 4;
    QTest::newRow("just above the floor") << 15 << 360 << 5;
    QTest::newRow("landscape output") << 56 << 1080 << 56;
    QTest::newRow("portrait output scales by height, truncating") << 56 << 1920 << 99;
    QTest::newRow("largest size in portrait") << 400 << 1920 << 711;
}

void tst_Compositor::textPixelSize()
{
    QFETCH(int, size);
    QFETCH(int, outputHeight);
    QFETCH(int, pixels);
    QCOMPARE(::textPixelSize(size, outputHeight), pixels);
}

void tst_Compositor::shadowOffset_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("outputHeight");
    QTest::addColumn<int>("offset");

    QTest::newRow("default text size") << 56 << 1080 << 3;
    QTest::newRow("hall subtitle size") << 72 << 1080 << 4;
    QTest::newRow("never below 2") << 8 << 1080 << 2;
    QTest::newRow("small output keeps 2") << 56 << 360 << 2;
    QTest::newRow("portrait truncates") << 56 << 1920 << 5;
    QTest::newRow("largest") << 400 << 1920 << 39;
}

void tst_Compositor::shadowOffset()
{
    QFETCH(int, size);
    QFETCH(int, outputHeight);
    QFETCH(int, offset);
    QCOMPARE(::shadowOffset(size, outputHeight), offset);
}

void tst_Compositor::pictureGeometry_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QSize>("frameSize");
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<bool>("cover");
    QTest::addColumn<QRect>("expected"); // pixels the picture covers, on a 400 x 300 output

    const auto rows = [](Mode mode, const char* suffix) {
        QTest::addRow("wide frame fits with bars above and below, %s", suffix)
            << mode << QSize(200, 100) << QRectF(0, 0, 1, 1) << false << QRect(0, 50, 400, 200);
        QTest::addRow("tall frame fits with bars left and right, %s", suffix)
            << mode << QSize(100, 200) << QRectF(0, 0, 1, 1) << false << QRect(125, 0, 150, 300);
        QTest::addRow("fit is centred in an offset box, %s", suffix)
            << mode << QSize(200, 100) << QRectF(0.25, 0.25, 0.5, 0.5) << false << QRect(100, 100, 200, 100);
        QTest::addRow("fit enlarges a small frame, %s", suffix)
            << mode << QSize(20, 30) << QRectF(0.25, 0.25, 0.5, 0.5) << false << QRect(150, 75, 100, 150);
        QTest::addRow("cover fills a box of another shape, %s", suffix)
            << mode << QSize(200, 100) << QRectF(0.25, 0.25, 0.5, 0.5) << true << QRect(100, 75, 200, 150);
        QTest::addRow("cover fills with a tall frame, %s", suffix)
            << mode << QSize(100, 300) << QRectF(0.5, 0.1, 0.25, 0.8) << true << QRect(200, 30, 100, 240);
    };
    rows(Mode::Literal, "literal");
    rows(Mode::Fast, "fast");
}

void tst_Compositor::pictureGeometry()
{
    QFETCH(Mode, mode);
    QFETCH(QSize, frameSize);
    QFETCH(QRectF, rect);
    QFETCH(bool, cover);
    QFETCH(QRect, expected);

    const QColor red(230, 20, 20);
    SceneDef scene;
    scene.layers.push_back(imageLayer(solidFrame(frameSize.width(), frameSize.height(), red), rect, cover));
    const QImage image = compose(mode, scene, 400, 300);
    QCOMPARE(image.size(), QSize(400, 300));

    const int midX = expected.center().x();
    const int midY = expected.center().y();
    // Inside along each edge: the picture.
    CHECK_COLOUR(at(image, expected.left(), midY), red);
    CHECK_COLOUR(at(image, expected.right(), midY), red);
    CHECK_COLOUR(at(image, midX, expected.top()), red);
    CHECK_COLOUR(at(image, midX, expected.bottom()), red);
    // Just outside: untouched black, where the output goes on.
    if (expected.left() > 0)
        CHECK_COLOUR(at(image, expected.left() - 1, midY), black);
    if (expected.right() < 399)
        CHECK_COLOUR(at(image, expected.right() + 1, midY), black);
    if (expected.top() > 0)
        CHECK_COLOUR(at(image, midX, expected.top() - 1), black);
    if (expected.bottom() < 299)
        CHECK_COLOUR(at(image, midX, expected.bottom() + 1), black);
}

void tst_Compositor::coverCropsTheMiddle_data()
{
    QTest::addColumn<Mode>("mode");
    addModes("cover");
}

void tst_Compositor::coverCropsTheMiddle()
{
    QFETCH(Mode, mode);
    // A 300 x 100 frame in three bands, blue | red | green, shown with cover in a square box: only
    // the middle 100 x 100, the red band, may be seen.
    auto frame = solidFrame(300, 100, QColor(200, 0, 0));
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 300; ++x) {
            std::uint8_t* p = frame->pixels.data() + (std::size_t(y) * 300 + std::size_t(x)) * 4;
            if (x < 100) {
                p[0] = 0;
                p[2] = 200;
            } else if (x >= 200) {
                p[0] = 0;
                p[1] = 200;
            }
        }
    SceneDef scene;
    scene.layers.push_back(imageLayer(frame, QRectF(0.25, 0, 0.5, 1), true)); // 200 x 200 on 400 x 200
    const QImage image = compose(mode, scene, 400, 200);
    for (const QPoint point : {QPoint(101, 1), QPoint(298, 1), QPoint(101, 198), QPoint(298, 198), QPoint(200, 100)})
        CHECK_COLOUR(at(image, point.x(), point.y()), QColor(200, 0, 0));
    CHECK_COLOUR(at(image, 99, 100), black);
    CHECK_COLOUR(at(image, 300, 100), black);
}

void tst_Compositor::missingPictures_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("emptyFrame"); // an empty frame instead of none
    QTest::addColumn<int>("expected");    // grey level inside the box, over white

    // The missing box is black at alpha 200 over white: 255 - 200 = 55.
    const auto rows = [](Mode mode, const char* suffix) {
        QTest::addRow("image without picture, %s", suffix) << mode << int(Layer::Kind::Image) << false << 55;
        QTest::addRow("image with an empty picture, %s", suffix) << mode << int(Layer::Kind::Image) << true << 55;
        QTest::addRow("video without source, %s", suffix) << mode << int(Layer::Kind::Video) << false << 55;
        QTest::addRow("screen without source, %s", suffix) << mode << int(Layer::Kind::Screen) << false << 55;
        QTest::addRow("kind outside the list, %s", suffix) << mode << 42 << false << 55;
        QTest::addRow("camera without frame draws nothing, %s", suffix)
            << mode << int(Layer::Kind::Camera) << false << 255;
        QTest::addRow("camera with an empty frame draws nothing, %s", suffix)
            << mode << int(Layer::Kind::Camera) << true << 255;
    };
    rows(Mode::Literal, "literal");
    rows(Mode::Fast, "fast");
}

void tst_Compositor::missingPictures()
{
    QFETCH(Mode, mode);
    QFETCH(int, kind);
    QFETCH(bool, emptyFrame);
    QFETCH(int, expected);

    SceneDef scene;
    scene.layers.push_back(colourLayer(Qt::white));
    Layer layer;
    layer.kind = Layer::Kind(kind);
    layer.rect = QRectF(0.25, 0.25, 0.5, 0.5);
    if (emptyFrame)
        layer.image = std::make_shared<tavrin::Frame>();
    scene.layers.push_back(layer);
    const tavrin::Frame empty;
    const QImage image =
        compose(mode, scene, 200, 100, {}, false, false, false, {}, emptyFrame ? &empty : nullptr);

    CHECK_COLOUR(at(image, 100, 50), QColor(expected, expected, expected));
    CHECK_COLOUR(at(image, 50, 25), QColor(expected, expected, expected));
    CHECK_COLOUR(at(image, 49, 50), QColor(Qt::white)); // outside the box
}

void tst_Compositor::skippedLayers_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<bool>("visible");
    QTest::addColumn<double>("opacity");
    QTest::addColumn<int>("expectedRed");

    const auto rows = [](Mode mode, const char* suffix) {
        QTest::addRow("invisible, %s", suffix) << mode << false << 1.0 << 0;
        QTest::addRow("opacity zero, %s", suffix) << mode << true << 0.0 << 0;
        QTest::addRow("half opacity, %s", suffix) << mode << true << 0.5 << 128;
        QTest::addRow("opaque, %s", suffix) << mode << true << 1.0 << 255;
    };
    rows(Mode::Literal, "literal");
    rows(Mode::Fast, "fast");
}

void tst_Compositor::skippedLayers()
{
    QFETCH(Mode, mode);
    QFETCH(bool, visible);
    QFETCH(double, opacity);
    QFETCH(int, expectedRed);

    // A colour layer, and a text layer whose blue background would show if it were drawn at all.
    SceneDef scene;
    Layer red = colourLayer(QColor(255, 0, 0));
    red.visible = visible;
    red.opacity = opacity;
    scene.layers.push_back(red);
    Layer text;
    text.kind = Layer::Kind::Text;
    text.text = QStringLiteral("Hola");
    text.background = QColor(0, 0, 255);
    text.rect = QRectF(0, 0, 0.5, 0.5);
    text.visible = visible;
    text.opacity = opacity;
    scene.layers.push_back(text);

    const QImage image = compose(mode, scene, 200, 100);
    QVERIFY(std::abs(at(image, 150, 75).red() - expectedRed) <= 2);
    QVERIFY(std::abs(at(image, 2, 2).blue() - expectedRed) <= 2); // the background's corner, clear of text
}

void tst_Compositor::subtitleRuns_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QStringList>("phrases");
    QTest::addColumn<QString>("separator");
    QTest::addColumn<bool>("show");
    QTest::addColumn<QList<int>>("lines"); // brightest value in each of the first three rows of text

    const int dim = 140; // 255 x 0.55
    const auto rows = [&](Mode mode, const char* suffix) {
        const QStringList two{QStringLiteral("MMM"), QStringLiteral("WWW")};
        QTest::addRow("blank separator never splits, %s", suffix)
            << mode << two << QStringLiteral(" ") << true << QList<int>{255, 0, 0};
        QTest::addRow("newline: older dimmed, newest below, %s", suffix)
            << mode << two << QStringLiteral("\n") << true << QList<int>{dim, 255, 0};
        QTest::addRow("blank row: newest one row lower, %s", suffix)
            << mode << two << QStringLiteral("\n\n") << true << QList<int>{dim, 0, 255};
        QTest::addRow("one phrase is one run, %s", suffix)
            << mode << QStringList{QStringLiteral("MMM")} << QStringLiteral("\n") << true << QList<int>{255, 0, 0};
        QTest::addRow("captions hidden on program, %s", suffix)
            << mode << two << QStringLiteral("\n") << false << QList<int>{0, 0, 0};
        QTest::addRow("three phrases: two dimmed, %s", suffix)
            << mode << QStringList{QStringLiteral("MMM"), QStringLiteral("NNN"), QStringLiteral("WWW")}
            << QStringLiteral("\n") << true << QList<int>{dim, dim, 255};
    };
    rows(Mode::Literal, "literal");
    rows(Mode::Fast, "fast");
}

void tst_Compositor::subtitleRuns()
{
    QFETCH(Mode, mode);
    QFETCH(QStringList, phrases);
    QFETCH(QString, separator);
    QFETCH(bool, show);
    QFETCH(QList<int>, lines);

    const int height = 360;
    Layer subtitle;
    subtitle.kind = Layer::Kind::Subtitle;
    subtitle.font = QStringLiteral("DejaVu Sans");
    subtitle.size = 108; // 36 pixels at this height
    subtitle.shadow = false;
    subtitle.background = QColor(0, 0, 0, 0);
    subtitle.align = Qt::AlignLeft | Qt::AlignBottom; // bottom is overridden: subtitles hang from the top
    // Text left there by an earlier frame is always replaced.
    subtitle.text = QStringLiteral("old");
    subtitle.reference = QStringLiteral("old");
    SceneDef scene;
    scene.layers.push_back(subtitle);

    const QImage image =
        compose(mode, scene, 640, height, {}, false, false, false, captionsOf(phrases, separator, show));

    QFont font(subtitle.font);
    font.setPixelSize(::textPixelSize(subtitle.size, height));
    font.setBold(true);
    const qreal lineHeight = QFontMetricsF(font).lineSpacing();
    for (int line = 0; line < lines.size(); ++line) {
        // The middle of each row of text, inside the box's 8-pixel top margin.
        const int top = int(8 + lineHeight * (line + 0.25));
        const int bottom = int(8 + lineHeight * (line + 0.75));
        const int found = brightest(image, QRect(0, top, 640, bottom - top));
        QVERIFY2(std::abs(found - lines[line]) <= 6,
                 qPrintable(QStringLiteral("row %1: %2 instead of %3").arg(line).arg(found).arg(lines[line])));
    }
}

void tst_Compositor::previewPlaceholder_data()
{
    QTest::addColumn<Mode>("mode");
    addModes("placeholder");
}

void tst_Compositor::previewPlaceholder()
{
    QFETCH(Mode, mode);
    Layer subtitle;
    subtitle.kind = Layer::Kind::Subtitle;
    subtitle.color = QColor(0, 255, 0);
    subtitle.rect = QRectF(0.05, 0.08, 0.9, 0.84);
    subtitle.background = QColor(0, 0, 255, 255);
    SceneDef scene;
    scene.layers.push_back(subtitle);

    const CaptionView none = captionsOf({}, QStringLiteral("\n"));
    // On program an empty subtitle leaves nothing, not even its background.
    QVERIFY(allBlack(compose(mode, scene, 640, 360, {}, false, false, false, none)));
    QVERIFY(allBlack(compose(mode, scene, 640, 360, {}, false, true, false, none)));

    // In Preview it shows the placeholder, in the layer's colour: the same picture as a caption of
    // that very text on program.
    const QImage preview = compose(mode, scene, 640, 360, {}, false, false, true, none);
    QVERIFY(brightest(preview, QRect(0, 0, 640, 360)) > 200);
    const QString placeholder =
        T("Aquí aparecerá la traducción en vivo: se escribe de izquierda a derecha y hacia abajo, sin moverse; al "
          "llenarse salen las frases de arriba y la nueva queda resaltada.");
    const QImage program =
        compose(mode, scene, 640, 360, {}, false, false, false, captionsOf({placeholder}, QStringLiteral("\n")));
    QCOMPARE(largestDifference(preview, program), 0);

    // Captions switched off also give the placeholder in Preview.
    const QImage hidden =
        compose(mode, scene, 640, 360, {}, false, false, true,
                captionsOf({QStringLiteral("uno"), QStringLiteral("dos")}, QStringLiteral("\n"), false));
    QCOMPARE(largestDifference(hidden, program), 0);
}

void tst_Compositor::hallFallback_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<bool>("subtitleLayer"); // an invisible one
    QTest::addColumn<bool>("show");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("hall");
    QTest::addColumn<bool>("drawn");

    const QString words = QStringLiteral("Bienvenidos");
    const auto rows = [&](Mode mode, const char* suffix) {
        QTest::addRow("hall without subtitle layer, %s", suffix) << mode << false << true << words << true << true;
        QTest::addRow("invisible subtitle layer suppresses it, %s", suffix)
            << mode << true << true << words << true << false;
        QTest::addRow("captions hidden, %s", suffix) << mode << false << false << words << true << false;
        QTest::addRow("no caption text, %s", suffix) << mode << false << true << QString() << true << false;
        QTest::addRow("stream program never, %s", suffix) << mode << false << true << words << false << false;
    };
    rows(Mode::Literal, "literal");
    rows(Mode::Fast, "fast");
}

void tst_Compositor::hallFallback()
{
    QFETCH(Mode, mode);
    QFETCH(bool, subtitleLayer);
    QFETCH(bool, show);
    QFETCH(QString, text);
    QFETCH(bool, hall);
    QFETCH(bool, drawn);

    SceneDef scene;
    if (subtitleLayer) {
        Layer subtitle;
        subtitle.kind = Layer::Kind::Subtitle;
        subtitle.visible = false;
        scene.layers.push_back(subtitle);
    }
    CaptionView captions;
    captions.show = show;
    captions.text = text;
    captions.phrases = text.isEmpty() ? QStringList() : QStringList{text};
    const QImage image = compose(mode, scene, 640, 360, {}, false, hall, false, captions);
    if (!drawn) {
        QVERIFY(allBlack(image));
        return;
    }
    // White text, centred in the area (32, 45, 576, 270); nothing outside it but the shadow's 4 pixels.
    QVERIFY(brightest(image, QRect(32, 45, 576, 270)) >= 250);
    QCOMPARE(brightest(image, QRect(0, 0, 640, 40)), 0);
    QCOMPARE(brightest(image, QRect(0, 320, 640, 40)), 0);
}

void tst_Compositor::band_data()
{
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QString>("title");
    QTest::addColumn<bool>("band");
    QTest::addColumn<bool>("hall");
    QTest::addColumn<bool>("drawn");

    const auto rows = [](Mode mode, const char* suffix) {
        QTest::addRow("band with an empty title, %s", suffix) << mode << QString() << true << false << true;
        QTest::addRow("title without band still draws the band, %s", suffix)
            << mode << QStringLiteral("Anuncios") << false << false << true;
        QTest::addRow("neither, %s", suffix) << mode << QString() << false << false << false;
        QTest::addRow("never on the hall, %s", suffix) << mode << QStringLiteral("Anuncios") << true << true << false;
    };
    rows(Mode::Literal, "literal");
    rows(Mode::Fast, "fast");
}

void tst_Compositor::band()
{
    QFETCH(Mode, mode);
    QFETCH(QString, title);
    QFETCH(bool, band);
    QFETCH(bool, hall);
    QFETCH(bool, drawn);

    const QImage image = compose(mode, SceneDef(), 1000, 500, title, band, hall);
    // Band (40, 390, 920, 75), rgb(12, 48, 88) at alpha 235 over black. Its right end is clear of a
    // short, left-aligned title.
    const QColor bandColour(11, 44, 81);
    if (!drawn) {
        QVERIFY(allBlack(image));
        return;
    }
    CHECK_COLOUR(at(image, 900, 427), bandColour);
    CHECK_COLOUR(at(image, 40, 390), bandColour);
    CHECK_COLOUR(at(image, 959, 464), bandColour);
    CHECK_COLOUR(at(image, 39, 427), black);
    CHECK_COLOUR(at(image, 500, 389), black);
    CHECK_COLOUR(at(image, 500, 465), black);
    QCOMPARE(brightest(image, QRect(64, 398, 300, 59)) >= 250, !title.isEmpty()); // white title text
}

void tst_Compositor::fastMatchesLiteral_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<bool>("hall");
    QTest::addColumn<bool>("preview");
    QTest::addColumn<QString>("separator");
    QTest::addColumn<double>("subtitleOpacity");

    QTest::newRow("landscape program") << QSize(640, 360) << false << false << QStringLiteral("\n") << 0.9;
    QTest::newRow("landscape preview") << QSize(640, 360) << false << true << QStringLiteral("\n\n") << 0.9;
    QTest::newRow("portrait program") << QSize(360, 640) << false << false << QStringLiteral(" ") << 0.9;
    QTest::newRow("hall") << QSize(640, 360) << true << false << QStringLiteral("\n") << 1.0;
    // Text above 64 pixels, which Qt fills as paths, with and without opacity.
    QTest::newRow("full size") << QSize(1920, 1080) << false << false << QStringLiteral("\n") << 1.0;
    QTest::newRow("full size, translucent subtitles")
        << QSize(1920, 1080) << false << false << QStringLiteral("\n\n") << 0.9;
    QTest::newRow("full size hall") << QSize(1920, 1080) << true << false << QStringLiteral("\n") << 1.0;
}

void tst_Compositor::fastMatchesLiteral()
{
    QFETCH(QSize, size);
    QFETCH(bool, hall);
    QFETCH(bool, preview);
    QFETCH(QString, separator);
    QFETCH(double, subtitleOpacity);

    // Every kind, with opacity, shadows, backgrounds, fractional boxes, scaling both ways, a
    // translucent picture and text running out of its box.
    SceneDef scene;
    scene.layers.push_back(colourLayer(QColor(8, 24, 48)));
    Layer camera;
    camera.rect = QRectF(0.0, 0.0, 0.7, 0.83);
    camera.cover = true;
    scene.layers.push_back(camera);
    Layer picture = imageLayer(busyFrame(333, 187, 5, true), QRectF(0.513, 0.071, 0.417, 0.333), false);
    picture.opacity = 0.8;
    scene.layers.push_back(picture);
    scene.layers.push_back(imageLayer(busyFrame(40, 30, 9, false), QRectF(0.02, 0.6, 0.31, 0.37), true));
    Layer video; // no source yet: the missing box
    video.kind = Layer::Kind::Video;
    video.rect = QRectF(0.8, 0.6, 0.15, 0.15);
    scene.layers.push_back(video);
    Layer text;
    text.kind = Layer::Kind::Text;
    text.text = QStringLiteral("Anuncios de la semana: reunión de jóvenes el sábado a las 18 h, con cena");
    text.rect = QRectF(0.1, 0.05, 0.37, 0.13);
    text.opacity = 0.7;
    text.align = Qt::AlignLeft | Qt::AlignVCenter;
    scene.layers.push_back(text);
    Layer verse;
    verse.kind = Layer::Kind::Verse;
    verse.text = QStringLiteral("Porque de tal manera amó Dios al mundo,\nque ha dado a su Hijo unigénito");
    verse.reference = QStringLiteral("Juan 3:16 · RVR1909");
    verse.rect = QRectF(0.083, 0.41, 0.834, 0.3);
    verse.color = QColor(255, 240, 200);
    scene.layers.push_back(verse);
    Layer subtitle;
    subtitle.kind = Layer::Kind::Subtitle;
    subtitle.rect = QRectF(0.05, 0.08, 0.9, 0.84);
    subtitle.size = 72;
    subtitle.background = QColor(0, 0, 0, 0);
    subtitle.align = Qt::AlignLeft | Qt::AlignTop;
    subtitle.opacity = subtitleOpacity;
    scene.layers.push_back(subtitle);
    Layer shaded = colourLayer(QColor(200, 100, 0, 120), QRectF(0.6, 0.7, 0.3, 0.2));
    scene.layers.push_back(shaded);
    Layer screen;
    screen.kind = Layer::Kind::Screen;
    screen.rect = QRectF(0.81, 0.02, 0.17, 0.1);
    screen.opacity = 0.6;
    scene.layers.push_back(screen);
    Layer large; // shadow offset 5 at full size: one of its passes moves by half a pixel
    large.kind = Layer::Kind::Text;
    large.text = QStringLiteral("Gloria a Dios");
    large.size = 100;
    large.rect = QRectF(0.3, 0.55, 0.6, 0.3);
    large.background = QColor(0, 0, 0, 0);
    large.color = QColor(250, 220, 120);
    scene.layers.push_back(large);

    const auto cameraFrame = busyFrame(480, 270, 2, false);
    const CaptionView captions = captionsOf({QStringLiteral("y aquel Verbo fue hecho carne"),
                                             QStringLiteral("y habitó entre nosotros"),
                                             QStringLiteral("lleno de gracia y de verdad")},
                                            separator);
    const QString title = QStringLiteral("Culto dominical · Bienvenidos a todos los que nos ven hoy");

    // Qt's first paths of a font face can differ by a few levels at glyph edges from the same text
    // drawn after other sizes of that face: compare from the steady state on.
    Compositor(Mode::Literal).compose(scene, title, true, size.width(), size.height(), hall, preview, captions,
                                      cameraFrame.get(), 1);

    Compositor literal(Mode::Literal);
    Compositor fast(Mode::Fast);
    const auto both = [&](const SceneDef& s, const CaptionView& c) {
        const QImage a = literal.compose(s, title, true, size.width(), size.height(), hall, preview, c,
                                         cameraFrame.get(), 1);
        const QImage b = fast.compose(s, title, true, size.width(), size.height(), hall, preview, c,
                                      cameraFrame.get(), 1);
        return std::pair{a, b};
    };
    // Twice: the second time the fast path draws from what it kept.
    for (int round = 0; round < 2; ++round) {
        const auto [a, b] = both(scene, captions);
        QCOMPARE(a.format(), QImage::Format_RGBA8888);
        QCOMPARE(b.format(), QImage::Format_ARGB32_Premultiplied);
        QVERIFY2(!allBlack(a), "nothing drawn");
        const int difference = largestDifference(a, b);
        QVERIFY2(difference <= 2, qPrintable(QStringLiteral("round %1: %2").arg(round).arg(difference)));
        CHECK_COLOUR(at(b, size.width() / 2, size.height() / 2), at(a, size.width() / 2, size.height() / 2));
    }

    // Hall fallback text, with no subtitle layer in the scene.
    SceneDef plain = scene;
    plain.layers.erase(plain.layers.begin() + 7);
    const auto [a, b] = both(plain, captions);
    QVERIFY(largestDifference(a, b) <= 2);
}

void tst_Compositor::fastFollowsChangingSources()
{
    // What the fast path keeps must never outlive what it was made from.
    Compositor literal(Mode::Literal);
    Compositor fast(Mode::Fast);
    const CaptionView none;

    tavrin::Frame camera = *busyFrame(320, 180, 1, false);
    SceneDef scene;
    Layer cameraLayer;
    cameraLayer.rect = QRectF(0.1, 0.1, 0.5, 0.5); // scaled, so it goes through a kept sprite
    scene.layers.push_back(cameraLayer);
    scene.layers.push_back(imageLayer(busyFrame(64, 48, 3, true), QRectF(0.6, 0.1, 0.3, 0.3), false));
    Layer text;
    text.kind = Layer::Kind::Text;
    text.text = QStringLiteral("uno");
    text.rect = QRectF(0.1, 0.7, 0.8, 0.2);
    scene.layers.push_back(text);

    const auto check = [&](quint64 serial, const char* what) {
        const QImage a = literal.compose(scene, {}, false, 400, 300, false, false, none, &camera, serial);
        const QImage b = fast.compose(scene, {}, false, 400, 300, false, false, none, &camera, serial);
        QVERIFY2(largestDifference(a, b) <= 2, what);
    };
    check(1, "first frame");
    check(1, "same frame again");

    // The camera delivers a new frame into the same object.
    camera = *busyFrame(320, 180, 77, false);
    check(2, "new camera frame");

    // The operator loads another picture; the old one is freed.
    scene.layers[1].image = busyFrame(64, 48, 200, false);
    check(2, "new picture");

    // Edits of a text layer: text, colour, position.
    scene.layers[2].text = QStringLiteral("dos");
    check(2, "new text");
    scene.layers[2].color = QColor(255, 0, 0);
    check(2, "new colour");
    scene.layers[2].rect.translate(0.013, 0.02);
    check(2, "moved box");

    // Many compositions later, after everything was dropped and made again.
    for (int i = 0; i < 20; ++i)
        fast.compose(SceneDef(), {}, false, 400, 300, false, false, none, nullptr, 0);
    check(2, "after a pause");
}

void tst_Compositor::returnedPicturesStayIntact()
{
    // The tick shows a picture for a frame and the take keeps one as the fade's still, while the
    // compositor goes on making new ones; it also paints the fade into the picture it got.
    Compositor fast(Mode::Fast);
    const CaptionView none;
    SceneDef red;
    red.layers.push_back(colourLayer(QColor(255, 0, 0)));
    SceneDef blue;
    blue.layers.push_back(colourLayer(QColor(0, 0, 255)));

    const QImage kept = fast.compose(red, {}, false, 320, 180, false, false, none, nullptr, 0);
    QImage painted = fast.compose(red, {}, false, 320, 180, false, false, none, nullptr, 0);
    {
        QPainter painter(&painted);
        painter.fillRect(painted.rect(), Qt::green);
    }
    for (int i = 0; i < 12; ++i) {
        const QImage next = fast.compose(blue, {}, false, 320, 180, false, false, none, nullptr, 0);
        CHECK_COLOUR(at(next, 10, 10), QColor(0, 0, 255));
        CHECK_COLOUR(at(next, 319, 179), QColor(0, 0, 255));
    }
    CHECK_COLOUR(at(kept, 160, 90), QColor(255, 0, 0));
    CHECK_COLOUR(at(painted, 160, 90), QColor(0, 255, 0));

    // A picture that outlives its compositor stays valid.
    QImage survivor;
    {
        Compositor shortLived(Mode::Fast);
        survivor = shortLived.compose(blue, {}, false, 64, 64, false, false, none, nullptr, 0);
    }
    CHECK_COLOUR(at(survivor, 5, 5), QColor(0, 0, 255));
}

void tst_Compositor::frameFromImage_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<QSize>("size");

    QTest::newRow("premultiplied ARGB32") << int(QImage::Format_ARGB32_Premultiplied) << QSize(37, 5);
    QTest::newRow("RGBA8888") << int(QImage::Format_RGBA8888) << QSize(37, 5);
    QTest::newRow("RGB32") << int(QImage::Format_RGB32) << QSize(5, 3);
    QTest::newRow("ARGB32") << int(QImage::Format_ARGB32) << QSize(9, 4);
    QTest::newRow("RGB888, rows padded") << int(QImage::Format_RGB888) << QSize(7, 3);
    QTest::newRow("RGBA8888 premultiplied") << int(QImage::Format_RGBA8888_Premultiplied) << QSize(6, 2);
}

void tst_Compositor::frameFromImage()
{
    QFETCH(int, format);
    QFETCH(QSize, size);

    // Every alpha from clear to opaque, and colours that premultiplication rounds.
    QImage source(size, QImage::Format_ARGB32);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            source.setPixel(x, y, qRgba((x * 53 + y) & 255, (y * 91 + x * 3) & 255, 255 - x * 5,
                                        (x * 255 / (size.width() - 1) + y * 40) & 255));
    const QImage picture = source.convertToFormat(QImage::Format(format));
    const QImage expected = picture.convertToFormat(QImage::Format_RGBA8888);

    const tavrin::Frame frame = ::frameFromImage(picture);
    QCOMPARE(frame.width, size.width());
    QCOMPARE(frame.height, size.height());
    QCOMPARE(frame.pixels.size(), std::size_t(size.width() * size.height() * 4));
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width() * 4; ++x) {
            const int got = frame.pixels[std::size_t(y * size.width() * 4 + x)];
            const int want = expected.constScanLine(y)[x];
            QVERIFY2(std::abs(got - want) <= 1,
                     qPrintable(QStringLiteral("byte %1 of row %2: %3, not %4").arg(x).arg(y).arg(got).arg(want)));
        }

    QVERIFY(::frameFromImage(QImage()).empty());
}

QTEST_MAIN(tst_Compositor)
#include "tst_compositor.moc"
