#include "Canvas.h"
#include "CanvasGeometry.h"
#include "SceneDef.h"

#include <QKeyEvent>
#include <QTest>

#include <cmath>
#include <vector>

Q_DECLARE_METATYPE(Layer::Kind)

class tst_Canvas : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void clampPosition_data();
    void clampPosition();
    void resize_data();
    void resize();
    void dragMoves_data();
    void dragMoves();
    void dragResizes_data();
    void dragResizes();
    void releaseEndsTheDrag();
    void press_data();
    void press();
    void ignoredPresses_data();
    void ignoredPresses();
    void handleUnderOtherLayers_data();
    void handleUnderOtherLayers();
    void firstCornerWins();
    void doubleClick_data();
    void doubleClick();
    void select_data();
    void select();
    void keys_data();
    void keys();
    void cursors_data();
    void cursors();
};

namespace {

Layer layer(Layer::Kind kind, const QRectF& rect, bool visible = true)
{
    Layer l;
    l.kind = kind;
    l.rect = rect;
    l.visible = visible;
    return l;
}

bool near(const QRectF& a, const QRectF& b)
{
    const double tolerance = 1e-9;
    return std::abs(a.x() - b.x()) < tolerance && std::abs(a.y() - b.y()) < tolerance &&
           std::abs(a.width() - b.width()) < tolerance && std::abs(a.height() - b.height()) < tolerance;
}

QByteArray describe(const QRectF& r)
{
    return QByteArray("(") + QByteArray::number(r.x(), 'g', 12) + ", " + QByteArray::number(r.y(), 'g', 12) +
           ", " + QByteArray::number(r.width(), 'g', 12) + ", " + QByteArray::number(r.height(), 'g', 12) +
           ")";
}

#define COMPARE_RECT(actual, expected)                                                                       \
    QVERIFY2(near((actual), (expected)), (describe(actual) + " instead of " + describe(expected)).constData())

// The window around the canvas: keys that the canvas leaves alone arrive here.
class Host : public QWidget
{
public:
    QList<int> keys;

protected:
    void keyPressEvent(QKeyEvent* event) override
    {
        // QTest presses Shift on its own before the key itself.
        if (event->key() != Qt::Key_Shift)
            keys << event->key();
    }
};

// A shown canvas of a fixed size on a scene of its own, recording its callbacks in order.
struct Bench
{
    Host host;
    Canvas* canvas = nullptr;
    SceneDef scene;
    QStringList calls;
    QRectF picture; // where the picture box is expected, in widget pixels

    Bench(QSize size, double aspect, const QRectF& pictureBox, std::vector<Layer> layers)
        : picture(pictureBox)
    {
        scene.layers = std::move(layers);
        host.setFixedSize(size);
        canvas = new Canvas(&host);
        canvas->setGeometry(QRect(QPoint(), size));
        canvas->aspect = aspect;
        canvas->scene = &scene;
        canvas->changed = [this] { calls << QStringLiteral("changed"); };
        canvas->selectionChanged = [this] {
            calls << QStringLiteral("selectionChanged %1").arg(canvas->selected);
        };
        canvas->activated = [this] { calls << QStringLiteral("activated"); };
        host.show();
    }

    // A point of the output, in widget pixels.
    QPoint at(QPointF fraction) const
    {
        return (picture.topLeft() + QPointF(fraction.x() * picture.width(), fraction.y() * picture.height()))
            .toPoint();
    }
    // A distance in the output, in widget pixels.
    QPoint step(QPointF fraction) const
    {
        return QPointF(fraction.x() * picture.width(), fraction.y() * picture.height()).toPoint();
    }
    QRectF rect(int index) const { return scene.layers[std::size_t(index)].rect; }
};

struct Geometry
{
    const char* name;
    QSize widget;
    double aspect;
    QRectF picture;
};

// The drag steps are multiples of 0.05, whole pixels in each of these boxes.
const Geometry geometries[] = {
    {"16:9 filling 640x360", {640, 360}, 16.0 / 9.0, {0, 0, 640, 360}},
    {"16:9 pillarboxed in 800x360", {800, 360}, 16.0 / 9.0, {80, 0, 640, 360}},
    {"16:9 letterboxed in 640x480", {640, 480}, 16.0 / 9.0, {0, 60, 640, 360}},
    {"4:3 pillarboxed in 640x360", {640, 360}, 4.0 / 3.0, {80, 0, 480, 360}},
};

void addGeometryColumns()
{
    QTest::addColumn<QSize>("widget");
    QTest::addColumn<double>("aspect");
    QTest::addColumn<QRectF>("picture");
}

} // namespace

void tst_Canvas::clampPosition_data()
{
    QTest::addColumn<QRectF>("box");
    QTest::addColumn<QRectF>("expected");

    QTest::newRow("inside stays") << QRectF(0.2, 0.3, 0.4, 0.5) << QRectF(0.2, 0.3, 0.4, 0.5);
    QTest::newRow("past the right edge") << QRectF(0.96, 0.3, 0.4, 0.5) << QRectF(0.95, 0.3, 0.4, 0.5);
    QTest::newRow("past the bottom edge") << QRectF(0.2, 3.0, 0.4, 0.5) << QRectF(0.2, 0.95, 0.4, 0.5);
    QTest::newRow("too far left for its width")
        << QRectF(-0.3, 0.3, 0.3, 0.5) << QRectF(-0.25, 0.3, 0.3, 0.5);
    QTest::newRow("too far up for its height") << QRectF(0.2, -0.6, 0.4, 0.5) << QRectF(0.2, -0.45, 0.4, 0.5);
    QTest::newRow("thin box at the right limit")
        << QRectF(0.95, 0.3, 0.03, 0.5) << QRectF(0.95, 0.3, 0.03, 0.5);
    QTest::newRow("full width far left") << QRectF(-2.0, 0.0, 1.0, 1.0) << QRectF(-0.95, 0.0, 1.0, 1.0);
    QTest::newRow("wider than the output") << QRectF(-1.5, 0.0, 2.0, 1.0) << QRectF(-1.5, 0.0, 2.0, 1.0);
}

void tst_Canvas::clampPosition()
{
    QFETCH(QRectF, box);
    QFETCH(QRectF, expected);
    COMPARE_RECT(canvasgeometry::clampPosition(box), expected);
}

void tst_Canvas::resize_data()
{
    QTest::addColumn<QRectF>("start");
    QTest::addColumn<int>("corner");
    QTest::addColumn<QPointF>("delta");
    QTest::addColumn<bool>("keepAspect");
    QTest::addColumn<QRectF>("expected");

    QTest::newRow("free from bottom right")
        << QRectF(0.2, 0.2, 0.4, 0.2) << 2 << QPointF(0.1, 0.3) << false << QRectF(0.2, 0.2, 0.5, 0.5);
    QTest::newRow("aspect from bottom right")
        << QRectF(0.2, 0.2, 0.4, 0.2) << 2 << QPointF(0.1, 0.3) << true << QRectF(0.2, 0.2, 1.0, 0.5);
    QTest::newRow("no height means no aspect")
        << QRectF(0.2, 0.2, 0.4, 0.0) << 2 << QPointF(0.1, 0.3) << true << QRectF(0.2, 0.2, 0.5, 0.3);
    QTest::newRow("no width keeps the height finite")
        << QRectF(0.2, 0.2, 0.0, 0.4) << 2 << QPointF(0.3, 0.1) << true << QRectF(0.2, 0.2, 0.3, 0.5);
    QTest::newRow("grabbed corner onto the anchor grows right and down")
        << QRectF(0.2, 0.2, 0.4, 0.2) << 0 << QPointF(0.4, 0.2) << false << QRectF(0.6, 0.4, 0.03, 0.03);
    QTest::newRow("not clamped") << QRectF(0.9, 0.5, 0.1, 0.2) << 0 << QPointF(0.2, 0.0) << false
                                 << QRectF(1.0, 0.5, 0.1, 0.2);
    QTest::newRow("unknown corner") << QRectF(0.2, 0.2, 0.4, 0.2) << 4 << QPointF(0.1, 0.3) << false
                                    << QRectF(0.2, 0.2, 0.4, 0.2);
}

void tst_Canvas::resize()
{
    QFETCH(QRectF, start);
    QFETCH(int, corner);
    QFETCH(QPointF, delta);
    QFETCH(bool, keepAspect);
    QFETCH(QRectF, expected);
    COMPARE_RECT(canvasgeometry::resize(start, corner, delta, keepAspect), expected);
}

void tst_Canvas::dragMoves_data()
{
    addGeometryColumns();
    QTest::addColumn<QRectF>("start");
    QTest::addColumn<QPointF>("delta");
    QTest::addColumn<QRectF>("expected");

    struct Case
    {
        const char* name;
        QRectF start;
        QPointF delta;
        QRectF expected;
    };
    const Case cases[] = {
        {"moves with the mouse", {0.25, 0.25, 0.5, 0.5}, {0.1, 0.05}, {0.35, 0.3, 0.5, 0.5}},
        {"thin layer at the right limit stays", {0.95, 0.4, 0.03, 0.2}, {0.1, 0.0}, {0.95, 0.4, 0.03, 0.2}},
        {"thin layer at the right limit comes back",
         {0.95, 0.4, 0.03, 0.2},
         {-0.1, 0.0},
         {0.85, 0.4, 0.03, 0.2}},
        {"full width reaches the left limit", {0, 0, 1, 1}, {-0.95, 0.0}, {-0.95, 0, 1, 1}},
        {"full width no further left", {0, 0, 1, 1}, {-1.2, 0.0}, {-0.95, 0, 1, 1}},
        {"full width no further right", {0, 0, 1, 1}, {1.5, 0.0}, {0.95, 0, 1, 1}},
        {"no further down", {0.2, 0.5, 0.2, 0.2}, {0.0, 0.6}, {0.2, 0.95, 0.2, 0.2}},
        {"no further up than its height allows", {0.2, 0.5, 0.2, 0.2}, {0.0, -0.9}, {0.2, -0.15, 0.2, 0.2}},
    };
    for (const Geometry& g : geometries)
        for (const Case& c : cases)
            QTest::addRow("%s, %s", c.name, g.name)
                << g.widget << g.aspect << g.picture << c.start << c.delta << c.expected;
}

void tst_Canvas::dragMoves()
{
    QFETCH(QSize, widget);
    QFETCH(double, aspect);
    QFETCH(QRectF, picture);
    QFETCH(QRectF, start);
    QFETCH(QPointF, delta);
    QFETCH(QRectF, expected);

    Bench bench(widget, aspect, picture, {layer(Layer::Kind::Text, start)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));

    const QPoint press = bench.at(start.center());
    QTest::mousePress(bench.canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(bench.canvas, press + bench.step(delta / 2));
    QTest::mouseMove(bench.canvas, press + bench.step(delta));
    QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, press + bench.step(delta));

    QCOMPARE(bench.canvas->selected, 0);
    COMPARE_RECT(bench.rect(0), expected);
    QCOMPARE(bench.calls, QStringList({"selectionChanged 0", "changed", "changed"}));
}

void tst_Canvas::dragResizes_data()
{
    addGeometryColumns();
    QTest::addColumn<Layer::Kind>("kind");
    QTest::addColumn<QRectF>("start");
    QTest::addColumn<int>("corner");
    QTest::addColumn<QPointF>("delta");
    QTest::addColumn<QRectF>("expected");

    using K = Layer::Kind;
    struct Case
    {
        const char* name;
        Layer::Kind kind;
        QRectF start;
        int corner;
        QPointF delta;
        QRectF expected;
    };
    const Case cases[] = {
        {"text resizes freely", K::Text, {0.25, 0.25, 0.5, 0.5}, 2, {0.1, -0.1}, {0.25, 0.25, 0.6, 0.4}},
        {"camera keeps its start aspect, width leads",
         K::Camera,
         {0.25, 0.25, 0.5, 0.5},
         2,
         {0.1, -0.1},
         {0.25, 0.25, 0.6, 0.6}},
        {"camera keeps its start aspect, height leads",
         K::Camera,
         {0.25, 0.25, 0.5, 0.5},
         2,
         {-0.1, 0.2},
         {0.25, 0.25, 0.7, 0.7}},
        {"wide image from the top left",
         K::Image,
         {0.2, 0.2, 0.4, 0.2},
         0,
         {-0.1, 0.0},
         {0.1, 0.15, 0.5, 0.25}},
        {"screen from the top right", K::Screen, {0.1, 0.1, 0.3, 0.3}, 1, {0.2, 0.0}, {0.1, -0.1, 0.5, 0.5}},
        {"wide video from the bottom left",
         K::Video,
         {0.5, 0.2, 0.4, 0.2},
         3,
         {-0.2, 0.1},
         {0.3, 0.2, 0.6, 0.3}},
        {"colour stretches freely", K::Color, {0.1, 0.1, 0.4, 0.4}, 3, {0.1, 0.2}, {0.2, 0.1, 0.3, 0.6}},
        {"verse stretches freely", K::Verse, {0.1, 0.1, 0.4, 0.4}, 1, {0.2, 0.1}, {0.1, 0.2, 0.6, 0.3}},
        {"text down to the smallest",
         K::Text,
         {0.25, 0.25, 0.5, 0.5},
         2,
         {-0.5, -0.5},
         {0.25, 0.25, 0.03, 0.03}},
        {"camera down to the smallest",
         K::Camera,
         {0.2, 0.2, 0.4, 0.2},
         2,
         {-0.4, -0.2},
         {0.2, 0.2, 0.03, 0.03}},
        {"smallest size after the aspect",
         K::Camera,
         {0.2, 0.2, 0.4, 0.2},
         2,
         {-0.35, -0.2},
         {0.2, 0.2, 0.05, 0.03}},
        {"text flips past the anchor",
         K::Text,
         {0.25, 0.25, 0.5, 0.5},
         2,
         {-0.7, -0.6},
         {0.05, 0.15, 0.2, 0.1}},
        {"text flips sideways only", K::Text, {0.25, 0.25, 0.5, 0.5}, 2, {-0.6, 0.0}, {0.15, 0.25, 0.1, 0.5}},
        {"camera flips upwards", K::Camera, {0.3, 0.3, 0.2, 0.2}, 3, {0.0, -0.4}, {0.3, 0.1, 0.2, 0.2}},
        {"anchor beyond the right limit is clamped",
         K::Text,
         {0.9, 0.5, 0.1, 0.2},
         0,
         {0.2, 0.0},
         {0.95, 0.5, 0.1, 0.2}},
        {"flipped box beyond the left limit is clamped",
         K::Text,
         {0.0, 0.2, 0.04, 0.2},
         2,
         {-0.2, 0.0},
         {-0.11, 0.2, 0.16, 0.2}},
    };
    for (const Geometry& g : geometries)
        for (const Case& c : cases)
            QTest::addRow("%s, %s", c.name, g.name) << g.widget << g.aspect << g.picture << c.kind << c.start
                                                    << c.corner << c.delta << c.expected;
}

void tst_Canvas::dragResizes()
{
    QFETCH(QSize, widget);
    QFETCH(double, aspect);
    QFETCH(QRectF, picture);
    QFETCH(Layer::Kind, kind);
    QFETCH(QRectF, start);
    QFETCH(int, corner);
    QFETCH(QPointF, delta);
    QFETCH(QRectF, expected);

    Bench bench(widget, aspect, picture, {layer(kind, start)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(0);
    bench.calls.clear();

    const QPointF corners[] = {start.topLeft(), start.topRight(), start.bottomRight(), start.bottomLeft()};
    const QPoint press = bench.at(corners[corner]);
    QTest::mousePress(bench.canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(bench.canvas, press + bench.step(delta / 2));
    QTest::mouseMove(bench.canvas, press + bench.step(delta));
    QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, press + bench.step(delta));

    COMPARE_RECT(bench.rect(0), expected);
    QCOMPARE(bench.canvas->selected, 0);
    QCOMPARE(bench.calls, QStringList({"changed", "changed"}));
}

void tst_Canvas::releaseEndsTheDrag()
{
    const QRectF start(0.25, 0.25, 0.5, 0.5);
    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360}, {layer(Layer::Kind::Text, start)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));

    const QPoint press = bench.at(start.center());
    QTest::mousePress(bench.canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(bench.canvas, press + QPoint(64, 36));
    QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, press + QPoint(64, 36));
    const QRectF moved(0.35, 0.35, 0.5, 0.5);
    COMPARE_RECT(bench.rect(0), moved);

    bench.calls.clear();
    QTest::mouseMove(bench.canvas, press + QPoint(128, 72));
    QTest::mouseMove(bench.canvas, press);
    COMPARE_RECT(bench.rect(0), moved);
    QVERIFY(bench.calls.isEmpty());
}

void tst_Canvas::press_data()
{
    QTest::addColumn<bool>("frontVisible");
    QTest::addColumn<int>("initial");
    QTest::addColumn<QPointF>("at");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QStringList>("calls");

    const QStringList none;
    QTest::newRow("front layer wins the overlap")
        << true << -1 << QPointF(0.5, 0.5) << 1 << QStringList{"selectionChanged 1"};
    QTest::newRow("invisible front layer is skipped")
        << false << -1 << QPointF(0.5, 0.5) << 0 << QStringList{"selectionChanged 0"};
    QTest::newRow("invisible layer alone is not hit") << false << -1 << QPointF(0.8, 0.8) << -1 << none;
    QTest::newRow("bottom layer where it is alone")
        << true << 1 << QPointF(0.2, 0.2) << 0 << QStringList{"selectionChanged 0"};
    QTest::newRow("selected layer again is not selected anew") << true << 1 << QPointF(0.5, 0.5) << 1 << none;
    QTest::newRow("layer reaching into the side bar is hit there")
        << true << -1 << QPointF(-0.0625, 0.8) << 2 << QStringList{"selectionChanged 2"};
    QTest::newRow("empty side bar") << true << 0 << QPointF(-0.0625, 0.2) << -1
                                    << QStringList{"selectionChanged -1"};
    QTest::newRow("empty space clears the selection")
        << true << 0 << QPointF(0.95, 0.1) << -1 << QStringList{"selectionChanged -1"};
    QTest::newRow("empty space with nothing selected") << true << -1 << QPointF(0.95, 0.1) << -1 << none;
}

void tst_Canvas::press()
{
    QFETCH(bool, frontVisible);
    QFETCH(int, initial);
    QFETCH(QPointF, at);
    QFETCH(int, expected);
    QFETCH(QStringList, calls);

    Bench bench({800, 360}, 16.0 / 9.0, {80, 0, 640, 360},
                {layer(Layer::Kind::Text, {0.1, 0.1, 0.5, 0.5}),
                 layer(Layer::Kind::Image, {0.4, 0.4, 0.5, 0.5}, frontVisible),
                 layer(Layer::Kind::Text, {-0.2, 0.7, 0.3, 0.2})});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(initial);
    bench.calls.clear();
    const SceneDef before = bench.scene;

    // The button goes up before any check, so that a failure leaves no button held for the next test.
    const QPoint press = bench.at(at);
    QTest::mousePress(bench.canvas, Qt::LeftButton, {}, press);
    const int selectedAtPress = bench.canvas->selected;
    const QStringList callsAtPress = bench.calls;
    bench.calls.clear();
    QTest::mouseMove(bench.canvas, press + QPoint(64, 36));
    QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, press + QPoint(64, 36));

    QCOMPARE(selectedAtPress, expected);
    QCOMPARE(callsAtPress, calls);
    // A hit starts a move of that layer; a miss starts nothing.
    for (int i = 0; i < 3; ++i) {
        const QRectF was = before.layers[std::size_t(i)].rect;
        COMPARE_RECT(bench.rect(i), i == expected ? was.translated(0.1, 0.1) : was);
    }
    QCOMPARE(bench.calls, expected >= 0 ? QStringList{"changed"} : QStringList());
}

void tst_Canvas::ignoredPresses_data()
{
    QTest::addColumn<bool>("withScene");
    QTest::addColumn<Qt::MouseButton>("button");

    QTest::newRow("right button") << true << Qt::RightButton;
    QTest::newRow("middle button") << true << Qt::MiddleButton;
    QTest::newRow("no scene") << false << Qt::LeftButton;
}

void tst_Canvas::ignoredPresses()
{
    QFETCH(bool, withScene);
    QFETCH(Qt::MouseButton, button);

    const QRectF start(0.25, 0.25, 0.5, 0.5);
    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360}, {layer(Layer::Kind::Text, start)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    if (!withScene)
        bench.canvas->scene = nullptr;

    const QPoint press = bench.at(start.center());
    QTest::mousePress(bench.canvas, button, {}, press);
    QTest::mouseMove(bench.canvas, press + QPoint(64, 36));
    QTest::mouseRelease(bench.canvas, button, {}, press + QPoint(64, 36));
    QCOMPARE(bench.canvas->selected, -1);
    COMPARE_RECT(bench.rect(0), start);
    QVERIFY(bench.calls.isEmpty());
}

void tst_Canvas::handleUnderOtherLayers_data()
{
    QTest::addColumn<QPoint>("offset");
    QTest::addColumn<bool>("grabbed");

    QTest::newRow("on the corner") << QPoint(0, 0) << true;
    QTest::newRow("9.9 px away") << QPoint(7, 7) << true;
    QTest::newRow("10 px away, inside") << QPoint(-6, -8) << true;
    QTest::newRow("11.3 px away") << QPoint(8, 8) << false;
}

void tst_Canvas::handleUnderOtherLayers()
{
    QFETCH(QPoint, offset);
    QFETCH(bool, grabbed);

    const QRectF under(0.25, 0.25, 0.25, 0.25);
    const QRectF front(0, 0, 1, 1);
    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360},
                {layer(Layer::Kind::Text, under), layer(Layer::Kind::Color, front)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(0);

    const QPoint press = bench.at(under.bottomRight()) + offset;
    QTest::mousePress(bench.canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(bench.canvas, press + QPoint(64, 36));
    QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, press + QPoint(64, 36));

    QCOMPARE(bench.canvas->selected, grabbed ? 0 : 1);
    COMPARE_RECT(bench.rect(0), grabbed ? QRectF(0.25, 0.25, 0.35, 0.35) : under);
    COMPARE_RECT(bench.rect(1), grabbed ? front : front.translated(0.1, 0.1));
}

void tst_Canvas::firstCornerWins()
{
    // 12.8 x 7.2 px: the press lies within reach of all four handles.
    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360}, {layer(Layer::Kind::Text, {0.5, 0.5, 0.02, 0.02})});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(0);

    const QPoint press(326, 184);
    QTest::mousePress(bench.canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(bench.canvas, press - QPoint(64, 36));
    QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, press - QPoint(64, 36));

    // The top left handle was taken, so the bottom right corner stayed where it was.
    COMPARE_RECT(bench.rect(0), QRectF(0.4, 0.4, 0.12, 0.12));
}

void tst_Canvas::doubleClick_data()
{
    QTest::addColumn<int>("initial");
    QTest::addColumn<QPointF>("at");
    QTest::addColumn<Qt::MouseButton>("button");
    QTest::addColumn<int>("expected");
    QTest::addColumn<QStringList>("calls");

    QTest::newRow("on a layer") << -1 << QPointF(0.5, 0.5) << Qt::LeftButton << 1
                                << QStringList{"selectionChanged 1", "activated"};
    QTest::newRow("with the right button")
        << -1 << QPointF(0.5, 0.5) << Qt::RightButton << 1 << QStringList{"selectionChanged 1", "activated"};
    QTest::newRow("on the selected layer")
        << 1 << QPointF(0.5, 0.5) << Qt::LeftButton << 1 << QStringList{"selectionChanged 1", "activated"};
    QTest::newRow("through an invisible layer")
        << 1 << QPointF(0.2, 0.2) << Qt::LeftButton << 0 << QStringList{"selectionChanged 0", "activated"};
    QTest::newRow("empty space keeps the selection")
        << 1 << QPointF(0.95, 0.1) << Qt::LeftButton << 1 << QStringList();
    QTest::newRow("empty space with nothing selected")
        << -1 << QPointF(0.95, 0.1) << Qt::LeftButton << -1 << QStringList();
}

void tst_Canvas::doubleClick()
{
    QFETCH(int, initial);
    QFETCH(QPointF, at);
    QFETCH(Qt::MouseButton, button);
    QFETCH(int, expected);
    QFETCH(QStringList, calls);

    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360},
                {layer(Layer::Kind::Text, {0.1, 0.1, 0.5, 0.5}),
                 layer(Layer::Kind::Image, {0.4, 0.4, 0.5, 0.5}),
                 layer(Layer::Kind::Color, {0.05, 0.05, 0.3, 0.3}, false)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(initial);
    bench.calls.clear();
    const SceneDef before = bench.scene;

    QTest::mouseDClick(bench.canvas, button, {}, bench.at(at));
    const int selectedAtClick = bench.canvas->selected;
    const QStringList callsAtClick = bench.calls;
    bench.calls.clear();
    QTest::mouseMove(bench.canvas, bench.at(at) + QPoint(64, 36));
    QTest::mouseRelease(bench.canvas, button, {}, bench.at(at) + QPoint(64, 36));

    QCOMPARE(selectedAtClick, expected);
    QCOMPARE(callsAtClick, calls);
    // A double click starts no drag.
    for (int i = 0; i < 3; ++i)
        COMPARE_RECT(bench.rect(i), before.layers[std::size_t(i)].rect);
    QVERIFY(bench.calls.isEmpty());
}

void tst_Canvas::select_data()
{
    QTest::addColumn<bool>("withScene");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("expected");

    QTest::newRow("first") << true << 0 << 0;
    QTest::newRow("last") << true << 2 << 2;
    QTest::newRow("same again") << true << 1 << 1;
    QTest::newRow("one past the end") << true << 3 << -1;
    QTest::newRow("five of three") << true << 5 << -1;
    QTest::newRow("minus one") << true << -1 << -1;
    QTest::newRow("other negative") << true << -7 << -1;
    QTest::newRow("no scene") << false << 0 << -1;
}

void tst_Canvas::select()
{
    QFETCH(bool, withScene);
    QFETCH(int, index);
    QFETCH(int, expected);

    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360},
                {layer(Layer::Kind::Text, {0.1, 0.1, 0.2, 0.2}),
                 layer(Layer::Kind::Text, {0.4, 0.4, 0.2, 0.2}),
                 layer(Layer::Kind::Text, {0.7, 0.7, 0.2, 0.2})});
    bench.canvas->select(1);
    bench.calls.clear();
    if (!withScene)
        bench.canvas->scene = nullptr;

    bench.canvas->select(index);
    QCOMPARE(bench.canvas->selected, expected);
    QCOMPARE(bench.calls, QStringList{QStringLiteral("selectionChanged %1").arg(expected)});
}

void tst_Canvas::keys_data()
{
    QTest::addColumn<int>("selectedIndex");
    QTest::addColumn<int>("key");
    QTest::addColumn<Qt::KeyboardModifiers>("modifiers");
    QTest::addColumn<QRectF>("start");
    QTest::addColumn<QRectF>("expected");

    const QRectF middle(0.5, 0.5, 0.2, 0.2);
    const Qt::KeyboardModifiers plain;
    QTest::newRow("left") << 0 << int(Qt::Key_Left) << plain << middle << QRectF(0.495, 0.5, 0.2, 0.2);
    QTest::newRow("right") << 0 << int(Qt::Key_Right) << plain << middle << QRectF(0.505, 0.5, 0.2, 0.2);
    QTest::newRow("up") << 0 << int(Qt::Key_Up) << plain << middle << QRectF(0.5, 0.495, 0.2, 0.2);
    QTest::newRow("down") << 0 << int(Qt::Key_Down) << plain << middle << QRectF(0.5, 0.505, 0.2, 0.2);
    QTest::newRow("shift left") << 0 << int(Qt::Key_Left) << Qt::KeyboardModifiers(Qt::ShiftModifier)
                                << middle << QRectF(0.45, 0.5, 0.2, 0.2);
    QTest::newRow("shift down") << 0 << int(Qt::Key_Down) << Qt::KeyboardModifiers(Qt::ShiftModifier)
                                << middle << QRectF(0.5, 0.55, 0.2, 0.2);
    QTest::newRow("thin layer at the right limit stays")
        << 0 << int(Qt::Key_Right) << Qt::KeyboardModifiers(Qt::ShiftModifier) << QRectF(0.95, 0.4, 0.03, 0.2)
        << QRectF(0.95, 0.4, 0.03, 0.2);
    QTest::newRow("full width stops at the left limit")
        << 0 << int(Qt::Key_Left) << Qt::KeyboardModifiers(Qt::ShiftModifier) << QRectF(-0.92, 0, 1, 1)
        << QRectF(-0.95, 0, 1, 1);
    QTest::newRow("no selection, left") << -1 << int(Qt::Key_Left) << plain << middle << middle;
    QTest::newRow("no selection, shift down")
        << -1 << int(Qt::Key_Down) << Qt::KeyboardModifiers(Qt::ShiftModifier) << middle << middle;
    QTest::newRow("other key") << 0 << int(Qt::Key_A) << plain << middle << middle;
    QTest::newRow("space is the window's") << 0 << int(Qt::Key_Space) << plain << middle << middle;
}

void tst_Canvas::keys()
{
    QFETCH(int, selectedIndex);
    QFETCH(int, key);
    QFETCH(Qt::KeyboardModifiers, modifiers);
    QFETCH(QRectF, start);
    QFETCH(QRectF, expected);

    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360}, {layer(Layer::Kind::Camera, start)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(selectedIndex);
    bench.calls.clear();

    QTest::keyClick(bench.canvas, Qt::Key(key), modifiers);
    COMPARE_RECT(bench.rect(0), expected);
    const bool handled = selectedIndex >= 0 && key != Qt::Key_A && key != Qt::Key_Space;
    QCOMPARE(bench.calls, handled ? QStringList{"changed"} : QStringList());
    // What the canvas leaves alone goes on to the window.
    QCOMPARE(bench.host.keys, handled ? QList<int>() : QList<int>{key});
}

void tst_Canvas::cursors_data()
{
    QTest::addColumn<bool>("withScene");
    QTest::addColumn<int>("selectedIndex");
    QTest::addColumn<QPointF>("at");
    QTest::addColumn<QPoint>("offset");
    QTest::addColumn<Qt::CursorShape>("expected");

    const QPoint none;
    QTest::newRow("top left handle") << true << 0 << QPointF(0.25, 0.25) << none << Qt::SizeFDiagCursor;
    QTest::newRow("top right handle") << true << 0 << QPointF(0.5, 0.25) << none << Qt::SizeFDiagCursor;
    QTest::newRow("bottom right handle") << true << 0 << QPointF(0.5, 0.5) << none << Qt::SizeFDiagCursor;
    QTest::newRow("bottom left handle") << true << 0 << QPointF(0.25, 0.5) << none << Qt::SizeFDiagCursor;
    QTest::newRow("just outside a handle's reach is empty")
        << true << 0 << QPointF(0.25, 0.5) << QPoint(-8, 8) << Qt::ArrowCursor;
    QTest::newRow("handle reach outside the box")
        << true << 0 << QPointF(0.25, 0.5) << QPoint(-7, 7) << Qt::SizeFDiagCursor;
    QTest::newRow("inside the selected layer")
        << true << 0 << QPointF(0.375, 0.375) << none << Qt::OpenHandCursor;
    QTest::newRow("corner of a layer not selected")
        << true << -1 << QPointF(0.25, 0.25) << QPoint(2, 2) << Qt::OpenHandCursor;
    QTest::newRow("other layer") << true << 0 << QPointF(0.7, 0.2) << none << Qt::OpenHandCursor;
    QTest::newRow("invisible layer") << true << 0 << QPointF(0.7, 0.7) << none << Qt::ArrowCursor;
    QTest::newRow("empty space") << true << 0 << QPointF(0.1, 0.8) << none << Qt::ArrowCursor;
    QTest::newRow("no scene leaves the cursor")
        << false << -1 << QPointF(0.375, 0.375) << none << Qt::CrossCursor;
}

void tst_Canvas::cursors()
{
    QFETCH(bool, withScene);
    QFETCH(int, selectedIndex);
    QFETCH(QPointF, at);
    QFETCH(QPoint, offset);
    QFETCH(Qt::CursorShape, expected);

    Bench bench({640, 360}, 16.0 / 9.0, {0, 0, 640, 360},
                {layer(Layer::Kind::Text, {0.25, 0.25, 0.25, 0.25}),
                 layer(Layer::Kind::Color, {0.6, 0.1, 0.3, 0.3}),
                 layer(Layer::Kind::Color, {0.6, 0.6, 0.3, 0.3}, false)});
    QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
    bench.canvas->select(selectedIndex);
    if (!withScene)
        bench.canvas->scene = nullptr;

    // Hover somewhere else first: a move to where the pointer already is reports nothing.
    QTest::mouseMove(bench.canvas, QPoint(1, 1));
    bench.canvas->setCursor(Qt::CrossCursor);
    QTest::mouseMove(bench.canvas, bench.at(at) + offset);
    QTRY_COMPARE(bench.canvas->cursor().shape(), expected);
    QVERIFY(bench.calls.size() <= 1); // only the selection above
}

QTEST_MAIN(tst_Canvas)
#include "tst_canvas.moc"
