#include "Canvas.h"
#include "Compositor.h"
#include "Frame.h"
#include "Layer.h"
#include "ProjectFile.h"
#include "SceneDef.h"
#include "SceneLimits.h"
#include "TextPainting.h"
#include "i18n.h"

#include <QDir>
#include <QFile>
#include <QFontMetricsF>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <csignal>
#include <functional>
#include <memory>
#include <sys/resource.h>
#include <vector>

// Layers are written out member by member; those left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using Kind = Layer::Kind;
using Mode = Compositor::Mode;

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

bool near(const QImage& image, QPoint p, const QColor& want)
{
    const QColor got = image.pixelColor(p);
    return std::max({std::abs(got.red() - want.red()), std::abs(got.green() - want.green()),
                     std::abs(got.blue() - want.blue())}) <= 2;
}
#define CHECK_COLOUR(image, p, expected) QVERIFY2(near(image, p, expected), qPrintable(QString::number((p).x())))

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
struct Finish { QString title = {}; bool band = false, hall = false; QString caption = {};
                bool show = true, subtitleLayer = false; Finishing drawn = Finishing::None; };

Layer layer(Kind kind, const QRectF& rect, bool visible = true)
{
    return {.kind = kind, .visible = visible, .rect = rect};
}

struct Geometry { QSize widget; double aspect; QRectF picture; };
const Geometry letterboxed{{640, 540}, 4.0 / 3.0, {0, 30, 640, 480}};
const Geometry pillarboxed{{800, 360}, 16.0 / 9.0, {80, 0, 640, 360}};

struct Bench
{
    QWidget host;
    Canvas* canvas = new Canvas(&host);
    SceneDef scene;
    QStringList calls;
    QRectF picture;

    Bench(std::vector<Layer> layers, int selected, const Geometry& geometry) : picture(geometry.picture)
    {
        scene.layers = std::move(layers);
        host.setFixedSize(geometry.widget);
        canvas->setGeometry(QRect(QPoint(), geometry.widget));
        canvas->aspect = geometry.aspect;
        canvas->scene = &scene;
        canvas->changed = [this] { calls << QStringLiteral("changed"); };
        canvas->selectionChanged = [this] { calls << QStringLiteral("selected %1").arg(canvas->selected); };
        canvas->activated = [this] { calls << QStringLiteral("activated"); };
        host.show();
        canvas->select(selected);
        calls.clear();
        QVERIFY(QTest::qWaitForWindowExposed(&host));
    }

    QPoint at(QPointF f) const
    {
        return (picture.topLeft() + QPointF(f.x() * picture.width(), f.y() * picture.height())).toPoint();
    }
    QRectF rect(int index) const { return scene.layers[std::size_t(index)].rect; }
};

// A layer dragged by `delta` at its `corner` (0 top left, clockwise), or by its middle when that is -1.
struct Drag { const char* name; Kind kind; QRectF start; int corner; QPointF delta; QRectF expected; };

// Selected before and after; `dragged`: the layer after a drag by (0.1, 0.1) or the key, null if nothing moves.
struct Press { bool frontVisible = true; int initial = -1; QPointF at; Qt::MouseButton button = Qt::LeftButton;
               bool twice = false; int expected = -1; QStringList calls = {}; QRectF dragged = {}; int key = 0;
               Qt::KeyboardModifiers modifiers = {}; };

const QString outputDir = QStringLiteral(VELMORA_TEST_OUTPUT);
QString outputPath(const QString& name) { return QDir(outputDir).filePath(name); }

QString thrownMessage(const std::function<void()>& call)
{
    try { call(); } catch (const std::runtime_error& error) { return QString::fromUtf8(error.what()); }
    return {};
}

QByteArray json(const std::vector<SceneDef>& scenes)
{
    QJsonArray array;
    for (const SceneDef& scene : scenes)
        array.append(scene.toJson());
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

ProjectData sampleProject()
{
    const Layer text{.kind = Kind::Text, .name = "Bienvenida", .rect = {0.1, 0.7, 0.8, 0.2}, .text = "«hermanos»"};
    const Layer video{.kind = Kind::Video, .name = "Video", .visible = false, .uri = "rtsp://10.0.0.5/stream"};
    return ProjectData{.vertical = true, .current = 5, .currentHall = 1,
                       .scenes = {SceneDef{"Culto", {{.kind = Kind::Camera}, text}}, {"Anuncios", {video}}},
                       .hall = {SceneDef{"Sala", {{.kind = Kind::Verse, .name = "Juan 3:16"}}}},
                       .band = true, .title = QStringLiteral("Servicio dominical"), .gain = 150};
}

const QByteArray everyKey = R"({"name":"Capa ñ","visible":false,"opacity":0.25,"x":-0.2,"y":0.1,"w":0.5,)"
    R"("h":1.5,"cover":true,"path":"/tmp/foto.png","text":"Línea 1\nLínea 2","reference":"Juan 3:16",)"
    R"("font":"DejaVu Sans","size":72,"bold":false,"color":"#800a141e","background":"#00000000","align":33,)"
    R"("shadow":false,"uri":"rtsp://cam/1","sound":false,"fill":"#4d010203"})";

} // namespace

class tst_Scene : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDir().mkpath(outputDir)); }

    // A kind keeps what is its own, as it was; a box too thin to see or grab comes back full.
    void layerJson()
    {
        const QStringList common{"kind", "name", "visible", "opacity", "x", "y", "w", "h", "cover"};
        const QStringList text{"text", "reference", "font", "size", "bold", "color", "background", "align", "shadow"};
        const std::pair<const char*, QStringList> kinds[] = {
            {"camera", {}}, {"video", {"uri", "sound"}}, {"text", text}, {"verse", text}, {"subtitle", text}};
        for (const auto& [kind, ownKeys] : kinds) {
            QJsonObject all = QJsonDocument::fromJson(everyKey).object(), own;
            all.insert("kind", kind);
            for (const QString& key : common + ownKeys)
                own.insert(key, all.value(key));
            QCOMPARE(Layer::fromJson(all).toJson(), own);
        }
        const auto read = [](const char* json) { return Layer::fromJson(QJsonDocument::fromJson(json).object()); };
        QCOMPARE(read(R"({"kind":"subtitle"})").kind, Kind::Subtitle);
        QCOMPARE(read(R"({"x":0.3,"y":0.4,"w":0.01,"h":0.5})").rect, QRectF(0, 0, 1, 1));
        QCOMPARE(read(R"({"x":0.3,"y":0.4,"w":0.0101,"h":0.5})").rect, QRectF(0.3, 0.4, 0.0101, 0.5));
        QCOMPARE(read(R"({"opacity":3})").opacity, 1.0);
        QCOMPARE(read(R"({"kind":"text","size":2})").size, 8);
    }

    void roundTrip()
    {
        const QString path = outputPath("roundtrip.tavrin");
        writeProjectFile(path, writeProject(sampleProject()));
        const QByteArray bytes = readProjectFile(path);
        QCOMPARE(writeProject(readProject(bytes)), bytes); // nothing was lost on the way
        const auto titled = [](const QString& title) {
            return readProject(QJsonDocument(QJsonObject{{"version", 3}, {"gain", 100}, {"title", title}}).toJson());
        };
        const QString exact(500, QChar(u'ñ'));
        QCOMPARE(titled(exact).title, exact);
        QCOMPARE(titled(exact + "abc").title, exact);
        QCOMPARE(QList<int>({clampedIndex(99, 2), clampedIndex(-3, 2), clampedIndex(1, 2), clampedIndex(4, 0)}),
                 QList<int>({1, 0, 1, 0}));
    }

    void reading_data();
    void reading()
    {
        QFETCH(QByteArray, document);
        const QString path = outputPath("read.tavrin");
        QFile::remove(path);
        if (!document.isNull())
            writeProjectFile(path, document);
        ProjectData project;
        QTEST(thrownMessage([&] { project = readProject(readProjectFile(path)); }), "message");
        QFETCH(QByteArray, lists);
        if (!lists.isNull())
            QCOMPARE(json(project.scenes) + json(project.hall), lists);
    }

    // Into a plain file's path, then cut off part way as on a full disk: the former file stays, alone.
    void failedSaveLosesNothing()
    {
        const QByteArray former = writeProject(sampleProject());
        writeProjectFile(outputPath("former.tavrin"), former);
        writeProjectFile(outputPath("plain-file"), "not a folder");
        ProjectData big = sampleProject();
        big.scenes.resize(400, big.scenes.front());
        const auto save = [&](const char* target) {
            return thrownMessage([&] { writeProjectFile(outputPath(target), writeProject(big)); });
        };
        QCOMPARE(save("plain-file/proyecto.tavrin"), QStringLiteral("No se pudo guardar proyecto"));
        // Larger than the process may write, so that the save fails part way, even as root.
        rlimit saved{};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
        const rlimit limited{rlim_t(former.size() * 2), saved.rlim_max};
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
        const QString message = save("former.tavrin");
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);
        QCOMPARE(message, QStringLiteral("No se pudo guardar proyecto"));
        QCOMPARE(readProjectFile(outputPath("former.tavrin")), former);
        QCOMPARE(QDir(outputDir).entryList({"former.tavrin*"}, QDir::Files | QDir::Hidden).size(), 1);
    }

    void missingPictures()
    {
        // Over white: an image or a video without its picture is a dark box; a camera leaves what is below.
        const SceneDef scene{{}, {{.kind = Kind::Color, .fill = Qt::white},
                                  {.kind = Kind::Image, .rect = {0, 0, 0.3, 1}},
                                  {.kind = Kind::Video, .rect = {0.3, 0, 0.3, 1}},
                                  {.kind = Kind::Camera, .rect = {0.6, 0, 0.4, 1}}}};
        const QImage image = compose(scene, {.size = {301, 100}});
        CHECK_COLOUR(image, QPoint(45, 50), QColor(55, 55, 55)); // black at alpha 200
        CHECK_COLOUR(image, QPoint(135, 50), QColor(55, 55, 55));
        CHECK_COLOUR(image, QPoint(240, 50), Qt::white);
        // Box edges fall between pixels here, yet stay sharp: no pixel is half box, half what is below.
        for (int x = 0; x < image.width(); ++x)
            QVERIFY2(near(image, {x, 50}, Qt::white) || near(image, {x, 50}, QColor(55, 55, 55)),
                     qPrintable(QString::number(x)));
        for (const QSize empty : {QSize(0, 100), QSize(100, 0)})
            QVERIFY(Compositor(Mode::Fast).compose(scene, {}, true, empty.width(), empty.height(), false, true,
                                                   captionsOf({"a", "b"}), nullptr, 0).isNull());
    }

    // The painted part of a picture, as the fast path crops text to it; one pixel may widen any row, the last too.
    void paintedBounds_data()
    {
        QTest::addColumn<QList<QPoint>>("painted");
        QTest::addColumn<QRect>("bounds"); // within (1, 1, 8, 8)
        QTest::newRow("nothing") << QList<QPoint>{} << QRect();
        QTest::newRow("outside only") << QList<QPoint>{{0, 0}, {9, 9}} << QRect();
        QTest::newRow("last row widest") << QList<QPoint>{{4, 2}, {5, 3}, {1, 8}, {8, 8}} << QRect(1, 2, 8, 7);
        QTest::newRow("first row widest") << QList<QPoint>{{1, 1}, {8, 1}, {4, 5}} << QRect(1, 1, 8, 5);
    }
    void paintedBounds()
    {
        QFETCH(QList<QPoint>, painted);
        QImage image(10, 10, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        for (const QPoint p : painted)
            image.setPixel(p, qRgba(0, 0, 0, 1));
        QTEST(textpainting::paintedBounds(image, {1, 1, 8, 8}), "bounds");
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
        QFont font(subtitle.font, -1, QFont::Bold);
        font.setPixelSize(36);
        const qreal lineHeight = QFontMetricsF(font).lineSpacing();
        for (int line = 0; line < captioning.lines.size(); ++line) {
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
        QTest::addColumn<Options>("output");
        const auto captions = [](const char* separator) {
            return captionsOf({"y aquel Verbo fue hecho carne", "y habitó entre nosotros", "lleno de gracia"},
                              separator);
        };
        QTest::newRow("hall, portrait") << Options{.size = {360, 640}, .captions = captions("\n"), .hall = true};
        QTest::newRow("full size") << Options{.size = {1920, 1080}, .captions = captions("\n\n")};
    }
    void fastMatchesLiteral()
    {
        QFETCH(Options, output);
        // The hardest for the fast path: opacity, shadows, fractional boxes, scaling both ways, overflowing text.
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
        scene.layers.insert(scene.layers.end(), std::begin(samples), std::end(samples));
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
            // Where the allocator may put a new picture: the freed one's address and size, under a new owner.
            {"new picture in the old one's memory", [](Layer& l) {
                 if (!l.image)
                     return;
                 *l.image = *busyFrame(64, 48, 201, false);
                 const auto keeper = std::make_shared<std::shared_ptr<tavrin::Frame>>(l.image);
                 l.image = std::shared_ptr<tavrin::Frame>(keeper, l.image.get());
             }},
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

    void drag_data()
    {
        QTest::addColumn<Drag>("drag");
        const QRectF middle(0.25, 0.25, 0.5, 0.5), thin(0.95, 0.4, 0.03, 0.2), wide(0.2, 0.2, 0.4, 0.2);
        // Pictures keep the proportion they had at the press, the larger size winning; every size is at least 0.03.
        const Drag drags[] = {
            {"moves with the mouse", Kind::Text, middle, -1, {0.1, 0.05}, {0.35, 0.3, 0.5, 0.5}},
            {"no further left nor up", Kind::Color, {0, 0, 1, 1}, -1, {-1.2, -1.2}, {-0.95, -0.95, 1, 1}},
            {"no further right nor down", Kind::Text, thin, -1, {0.1, 0.9}, {0.95, 0.95, 0.03, 0.2}},
            {"camera, height leads", Kind::Camera, middle, 2, {-0.1, 0.2}, {0.25, 0.25, 0.7, 0.7}},
            {"image from the top left", Kind::Image, wide, 0, {-0.1, 0.0}, {0.1, 0.15, 0.5, 0.25}},
            {"video from the bottom left", Kind::Video, {0.5, 0.2, 0.4, 0.2}, 3, {-0.2, 0.1}, {0.3, 0.2, 0.6, 0.3}},
            {"smallest after the aspect", Kind::Camera, wide, 2, {-0.35, -0.2}, {0.2, 0.2, 0.05, 0.03}},
            {"flips past the fixed corner", Kind::Text, middle, 2, {-0.7, -0.6}, {0.05, 0.15, 0.2, 0.1}},
            {"flip past the left limit", Kind::Text, {0.0, 0.2, 0.04, 0.2}, 2, {-0.2, 0.0}, {-0.11, 0.2, 0.16, 0.2}},
        };
        for (const Drag& d : drags)
            QTest::newRow(d.name) << d;
    }
    void drag()
    {
        QFETCH(Drag, drag);
        Bench bench({layer(drag.kind, drag.start)}, 0, letterboxed);
        const QRectF& r = drag.start;
        const QPointF corners[] = {r.topLeft(), r.topRight(), r.bottomRight(), r.bottomLeft()};
        const QPoint from = bench.at(drag.corner < 0 ? r.center() : corners[drag.corner]);
        const QPoint to = from + QPointF(drag.delta.x() * bench.picture.width(),
                                         drag.delta.y() * bench.picture.height()).toPoint();
        QTest::mousePress(bench.canvas, Qt::LeftButton, {}, from);
        QTest::mouseMove(bench.canvas, (from + to) / 2);
        QTest::mouseMove(bench.canvas, to);
        QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, to);
        QTest::mouseMove(bench.canvas, to + QPoint(40, 30)); // the release ended the drag
        QCOMPARE(bench.rect(0), drag.expected);
        QCOMPARE(bench.calls, QStringList({"changed", "changed"}));
    }

    void press_data()
    {
        QTest::addColumn<Press>("press");
        // 0 lies under 1; 2 reaches into the left side bar; 3 is invisible, over 0's top left.
        const QRectF back(0.2, 0.2, 0.5, 0.5), front(0.5, 0.5, 0.5, 0.5), resized(0.1, 0.1, 0.6, 0.6);
        const QPointF corner(0.6, 0.6); // of 0; handles are within 10 pixels, even under another layer
        QTest::newRow("front layer wins") << Press{.at = {0.5, 0.5}, .expected = 1, .calls = {"selected 1"},
                                                   .dragged = front};
        QTest::newRow("invisible layer is skipped") << Press{.frontVisible = false, .at = {0.5, 0.5}, .expected = 0,
                                                             .calls = {"selected 0"}, .dragged = back};
        QTest::newRow("layer in the side bar") << Press{.at = {-0.0625, 0.8}, .expected = 2, .calls = {"selected 2"},
                                                        .dragged = {-0.1, 0.8, 0.3, 0.2}};
        QTest::newRow("empty space clears") << Press{.initial = 0, .at = {0.95, 0.1}, .calls = {"selected -1"}};
        QTest::newRow("handle, 10 px away") << Press{.initial = 0, .at = corner + QPointF(-6 / 640.0, -8 / 360.0),
                                                     .expected = 0, .dragged = resized};
        QTest::newRow("handle out of reach, 11.3 px")
            << Press{.initial = 0, .at = corner + QPointF(0.0125, 8 / 360.0), .expected = 1, .calls = {"selected 1"},
                     .dragged = front};
        QTest::newRow("double click") << Press{.at = {0.5, 0.5}, .button = Qt::RightButton, .twice = true,
                                               .expected = 1, .calls = {"selected 1", "activated"}};
        // A double click, with any button, starts no drag. Shift moves further; other keys go on to the window.
        const auto arrow = [](const char* name, int key, QPointF to, Qt::KeyboardModifiers modifiers = {}) {
            QTest::newRow(name) << Press{.initial = 0, .expected = 0, .calls = {"changed"},
                                         .dragged = {to, QSizeF(0.5, 0.5)}, .key = key, .modifiers = modifiers};
        };
        arrow("left key", Qt::Key_Left, {0.095, 0.1});
        arrow("right key", Qt::Key_Right, {0.105, 0.1});
        arrow("shift up key", Qt::Key_Up, {0.1, 0.05}, Qt::ShiftModifier);
        arrow("down key", Qt::Key_Down, {0.1, 0.105});
        QTest::newRow("key, nothing selected") << Press{.key = Qt::Key_Left};
        QTest::newRow("other key") << Press{.initial = 0, .expected = 0, .key = Qt::Key_A};
        QTest::newRow("double click, nothing") << Press{.initial = 1, .at = {0.95, 0.1}, .twice = true, .expected = 1};
    }
    void press()
    {
        QFETCH(Press, press);
        const std::vector<Layer> layers{
            layer(Kind::Text, {0.1, 0.1, 0.5, 0.5}), layer(Kind::Image, {0.4, 0.4, 0.5, 0.5}, press.frontVisible),
            layer(Kind::Text, {-0.2, 0.7, 0.3, 0.2}), layer(Kind::Color, {0.05, 0.05, 0.3, 0.3}, false)};
        Bench bench(layers, press.initial, pillarboxed);
        const QPoint from = bench.at(press.at);
        if (press.key)
            QTest::keyClick(bench.canvas, Qt::Key(press.key), press.modifiers);
        else if (press.twice)
            QTest::mouseDClick(bench.canvas, press.button, {}, from);
        else
            QTest::mousePress(bench.canvas, press.button, {}, from);
        QCOMPARE(bench.canvas->selected, press.expected);
        QCOMPARE(bench.calls, press.calls);
        bench.calls.clear();
        if (!press.key) {
            QTest::mouseMove(bench.canvas, from + QPoint(64, 36));
            QTest::mouseRelease(bench.canvas, press.button, {}, from + QPoint(64, 36));
        }
        const bool moved = !press.dragged.isNull();
        for (int i = 0; i < 4; ++i)
            QCOMPARE(bench.rect(i), i == press.expected && moved ? press.dragged : layers[std::size_t(i)].rect);
        QCOMPARE(bench.calls, moved && !press.key ? QStringList{"changed"} : QStringList());
    }

    // Reported every time, even when nothing changed: the window refreshes its layer list on it.
    void select()
    {
        Bench bench(std::vector<Layer>(3, layer(Kind::Text, {0.1, 0.1, 0.2, 0.2})), 1, pillarboxed);
        for (const int index : {2, 3, -1})
            bench.canvas->select(index);
        bench.canvas->scene = nullptr;
        bench.canvas->select(0);
        QCOMPARE(bench.calls, QStringList({"selected 2", "selected -1", "selected -1", "selected -1"}));
    }
};

void tst_Scene::reading_data()
{
    QTest::addColumn<QByteArray>("document"); // null: no file
    QTest::addColumn<QString>("message");     // empty: read
    QTest::addColumn<QByteArray>("lists");     // the scenes and hall read; null: not checked
    const auto row = [](const char* name, const QByteArray& document, const QString& message,
                        const QByteArray& lists = {}) { QTest::newRow(name) << document << message << lists; };
    const QString file = QStringLiteral("Proyecto inválido");
    const QString version = QStringLiteral("Versión de proyecto inválida");
    const QString options = QStringLiteral("Opciones de proyecto inválidas");
    const auto padded = [](qsizetype size) {
        QByteArray bytes(R"({"version":3,"gain":100})");
        return bytes.append(QByteArray(size - bytes.size(), ' '));
    };
    row("no file", QByteArray(), file);
    row("exactly 4 MiB", padded(4194304), QString());
    row("one byte more", padded(4194305), file);
    row("not JSON", QByteArray("Esto no es un proyecto"), version);
    row("version 0", QByteArray(R"({"version":0,"gain":100})"), version);
    row("bad version wins over missing gain", QByteArray(R"({"version":7})"), version);
    row("gain -1", QByteArray(R"({"version":3,"gain":-1})"), options);
    row("gain 201", QByteArray(R"({"version":3,"gain":201})"), options);
    row("gain 0", QByteArray(R"({"version":3,"gain":0})"), QString());
    row("gain 200, version 1", QByteArray(R"({"version":1,"gain":200})"), QString());
    const auto one = [](const QByteArray& keys) { return R"({"version":1,"gain":100)" + keys + "}"; };
    const QByteArray both = R"(,"image":"/home/ana/fotos/logo.png","media":"file:///home/ana/intro.mp4")";
    const Layer camera{.kind = Kind::Camera, .name = T("Cámara")};
    const Layer logo{.kind = Kind::Image, .name = "logo.png", .rect = {0.8, 0.03, 0.17, 0.17},
                     .path = "/home/ana/fotos/logo.png"};
    const Layer video{.kind = Kind::Video, .name = T("Video"), .uri = "file:///home/ana/intro.mp4"};
    const auto first = [](std::vector<Layer> layers) {
        return json({{T("Escena 1"), std::move(layers)}}) + json({});
    };
    row("1: camera, logo and video", one(R"(,"scene":0)" + both), {}, first({camera, logo, video}));
    row("2: version 1 keys ignored", R"({"version":2,"gain":80,"scene":0,"image":"/a.png","hall":[{"name":"H"}]})",
        {}, json({}) + json({{"H", {}}}));
    const auto project = [](const char* list, std::size_t sceneCount, std::size_t layerCount) {
        const SceneDef scene{"Culto", std::vector<Layer>(layerCount, Layer{.kind = Kind::Text, .name = "T"})};
        return R"({"version":3,"gain":100,")" + QByteArray(list) + "\":" +
               json(std::vector<SceneDef>(sceneCount, scene)) + '}';
    };
    row("scenes at the bound", project("scenes", maxScenesPerList, 1), QString());
    row("one scene more", project("scenes", maxScenesPerList + 1, 1), file);
    row("layers at the bound", project("hall", 2, maxLayersPerScene), QString());
    row("one layer more", project("scenes", 2, maxLayersPerScene + 1), file);
}

QTEST_MAIN(tst_Scene)
#include "tst_scene.moc"
