#include "Canvas.h"
#include "SceneDef.h"

#include <QKeyEvent>
#include <QTest>

namespace {

using K = Layer::Kind;

Layer layer(K kind, const QRectF& rect, bool visible = true)
{
    Layer l;
    l.kind = kind;
    l.rect = rect;
    l.visible = visible;
    return l;
}

// A widget size, the output's aspect, and where the picture box must then lie in widget pixels.
struct Geometry
{
    const char* name;
    QSize widget;
    double aspect;
    QRectF picture;
};
const Geometry filling{"16:9 filling 640x360", {640, 360}, 16.0 / 9.0, {0, 0, 640, 360}};
const Geometry pillarboxed{"16:9 pillarboxed in 800x360", {800, 360}, 16.0 / 9.0, {80, 0, 640, 360}};

// The window around the canvas: keys that the canvas leaves alone arrive here.
struct Host : QWidget
{
    QList<int> keys;
    void keyPressEvent(QKeyEvent* event) override
    {
        if (event->key() != Qt::Key_Shift) // QTest presses Shift on its own before the key itself
            keys << event->key();
    }
};

// A shown canvas on a scene of its own, recording its callbacks in order.
struct Bench
{
    Host host;
    Canvas* canvas = new Canvas(&host);
    SceneDef scene;
    QStringList calls;
    QRectF picture;

    Bench(std::vector<Layer> layers, int selected, const Geometry& geometry = filling) : picture(geometry.picture)
    {
        scene.layers = std::move(layers);
        host.setFixedSize(geometry.widget);
        canvas->setGeometry(QRect(QPoint(), geometry.widget));
        canvas->aspect = geometry.aspect;
        canvas->scene = &scene;
        canvas->changed = [this] { calls << "changed"; };
        canvas->selectionChanged = [this] { calls << QStringLiteral("selectionChanged %1").arg(canvas->selected); };
        canvas->activated = [this] { calls << "activated"; };
        host.show();
        canvas->select(selected);
        calls.clear();
    }
    // A point of the output, in widget pixels.
    QPoint at(QPointF f) const
    {
        return (picture.topLeft() + QPointF(f.x() * picture.width(), f.y() * picture.height())).toPoint();
    }
    QRectF rect(int index) const { return scene.layers[std::size_t(index)].rect; }
};

// A layer dragged by `delta` at its `corner` (0 top left, clockwise), or by its middle when that is -1.
struct Drag
{
    const char* name;
    K kind;
    QRectF start;
    int corner;
    QPointF delta;
    QRectF expected;
};

struct Press
{
    bool frontVisible = true;
    int initial = -1; // selected before
    QPointF at;
    Qt::MouseButton button = Qt::LeftButton;
    bool twice = false; // a double click
    int expected = -1;  // selected after
    QStringList calls = {};
    QRectF dragged = {}; // the expected layer after a drag by (0.1, 0.1); null: nothing moves
};

} // namespace

class tst_Canvas : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void drag_data()
    {
        QTest::addColumn<Geometry>("geometry");
        QTest::addColumn<Drag>("drag");
        const QRectF middle(0.25, 0.25, 0.5, 0.5), thin(0.95, 0.4, 0.03, 0.2), wide(0.2, 0.2, 0.4, 0.2);
        const QRectF low(0.2, 0.5, 0.2, 0.2), square(0.1, 0.1, 0.4, 0.4);
        // Steps are multiples of 0.05, whole pixels in every geometry. Pictures keep the proportion they had
        // at the press, the larger size winning; every size is at least 0.03.
        const Drag drags[] = {
            {"moves with the mouse", K::Text, middle, -1, {0.1, 0.05}, {0.35, 0.3, 0.5, 0.5}},
            {"thin layer at the right limit stays", K::Text, thin, -1, {0.1, 0.0}, thin},
            {"thin layer back from the limit", K::Text, thin, -1, {-0.1, 0.0}, {0.85, 0.4, 0.03, 0.2}},
            {"full width no further left", K::Color, {0, 0, 1, 1}, -1, {-1.2, 0.0}, {-0.95, 0, 1, 1}},
            {"full width no further right", K::Color, {0, 0, 1, 1}, -1, {1.5, 0.0}, {0.95, 0, 1, 1}},
            {"no further down", K::Text, low, -1, {0.0, 0.6}, {0.2, 0.95, 0.2, 0.2}},
            {"no further up than its height allows", K::Text, low, -1, {0.0, -0.9}, {0.2, -0.15, 0.2, 0.2}},
            {"text resizes freely", K::Text, middle, 2, {0.1, -0.1}, {0.25, 0.25, 0.6, 0.4}},
            {"colour stretches freely", K::Color, square, 3, {0.1, 0.2}, {0.2, 0.1, 0.3, 0.6}},
            {"verse stretches freely", K::Verse, square, 1, {0.2, 0.1}, {0.1, 0.2, 0.6, 0.3}},
            {"camera keeps its aspect, width leads", K::Camera, middle, 2, {0.1, -0.1}, {0.25, 0.25, 0.6, 0.6}},
            {"camera keeps its aspect, height leads", K::Camera, middle, 2, {-0.1, 0.2}, {0.25, 0.25, 0.7, 0.7}},
            {"wide image from the top left", K::Image, wide, 0, {-0.1, 0.0}, {0.1, 0.15, 0.5, 0.25}},
            {"screen from the top right", K::Screen, {0.1, 0.1, 0.3, 0.3}, 1, {0.2, 0.0}, {0.1, -0.1, 0.5, 0.5}},
            {"video from the bottom left", K::Video, {0.5, 0.2, 0.4, 0.2}, 3, {-0.2, 0.1}, {0.3, 0.2, 0.6, 0.3}},
            {"flat camera: no aspect", K::Camera, {0.2, 0.2, 0.4, 0.0}, 1, {0.1, 0.3}, {0.2, 0.2, 0.5, 0.3}},
            {"thin camera stays finite", K::Camera, {0.2, 0.2, 0.0, 0.4}, 2, {0.3, 0.1}, {0.2, 0.2, 0.3, 0.5}},
            {"text down to the smallest", K::Text, middle, 2, {-0.5, -0.5}, {0.25, 0.25, 0.03, 0.03}},
            {"smallest size after the aspect", K::Camera, wide, 2, {-0.35, -0.2}, {0.2, 0.2, 0.05, 0.03}},
            {"text flips past the fixed corner", K::Text, middle, 2, {-0.7, -0.6}, {0.05, 0.15, 0.2, 0.1}},
            {"camera flips upwards", K::Camera, {0.3, 0.3, 0.2, 0.2}, 3, {0.0, -0.4}, {0.3, 0.1, 0.2, 0.2}},
            {"fixed corner past the limit", K::Text, {0.9, 0.5, 0.1, 0.2}, 0, {0.2, 0.0}, {0.95, 0.5, 0.1, 0.2}},
            {"flip past the left limit", K::Text, {0.0, 0.2, 0.04, 0.2}, 2, {-0.2, 0.0}, {-0.11, 0.2, 0.16, 0.2}},
        };
        const Geometry geometries[] = {filling, pillarboxed,
                                       {"16:9 letterboxed in 640x480", {640, 480}, 16.0 / 9.0, {0, 60, 640, 360}},
                                       {"4:3 pillarboxed in 640x360", {640, 360}, 4.0 / 3.0, {80, 0, 480, 360}}};
        for (const Geometry& g : geometries)
            for (const Drag& d : drags)
                QTest::addRow("%s, %s", d.name, g.name) << g << d;
    }

    void drag()
    {
        QFETCH(Geometry, geometry);
        QFETCH(Drag, drag);
        Bench bench({layer(drag.kind, drag.start)}, 0, geometry);
        QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
        const QRectF& r = drag.start;
        const QPointF corners[] = {r.topLeft(), r.topRight(), r.bottomRight(), r.bottomLeft()};
        const QPoint from = bench.at(drag.corner < 0 ? r.center() : corners[drag.corner]);
        const QPoint to = from + (bench.at(drag.delta) - bench.at({}));
        // The button goes up before any check, so that a failure leaves no button held for the next test.
        QTest::mousePress(bench.canvas, Qt::LeftButton, {}, from);
        QTest::mouseMove(bench.canvas, (from + to) / 2);
        QTest::mouseMove(bench.canvas, to);
        QTest::mouseRelease(bench.canvas, Qt::LeftButton, {}, to);
        QTest::mouseMove(bench.canvas, to + QPoint(40, 30)); // the release ended the drag
        QCOMPARE(bench.rect(0), drag.expected);
        QCOMPARE(bench.canvas->selected, 0);
        QCOMPARE(bench.calls, QStringList({"changed", "changed"}));
    }

    void press_data()
    {
        QTest::addColumn<Press>("press");
        // 0 (0.1, 0.1, 0.5, 0.5) lies under 1 (0.4, 0.4, 0.5, 0.5); 2 reaches into the left side bar; 3 is
        // invisible, over 0's top left.
        const QRectF back(0.2, 0.2, 0.5, 0.5), front(0.5, 0.5, 0.5, 0.5);
        const QStringList select0{"selectionChanged 0"}, select1{"selectionChanged 1"}, clear{"selectionChanged -1"};
        QTest::newRow("front layer wins the overlap")
            << Press{.at = {0.5, 0.5}, .expected = 1, .calls = select1, .dragged = front};
        QTest::newRow("invisible front layer is skipped")
            << Press{.frontVisible = false, .at = {0.5, 0.5}, .expected = 0, .calls = select0, .dragged = back};
        QTest::newRow("invisible layer alone is not hit") << Press{.frontVisible = false, .at = {0.8, 0.8}};
        QTest::newRow("bottom layer, through an invisible one")
            << Press{.initial = 1, .at = {0.2, 0.2}, .expected = 0, .calls = select0, .dragged = back};
        QTest::newRow("selected layer is not selected anew")
            << Press{.initial = 1, .at = {0.5, 0.5}, .expected = 1, .dragged = front};
        QTest::newRow("layer in the side bar is hit there") << Press{
            .at = {-0.0625, 0.8}, .expected = 2, .calls = {"selectionChanged 2"}, .dragged = {-0.1, 0.8, 0.3, 0.2}};
        QTest::newRow("empty side bar") << Press{.initial = 0, .at = {-0.0625, 0.2}, .calls = clear};
        QTest::newRow("empty space clears the selection") << Press{.initial = 0, .at = {0.95, 0.1}, .calls = clear};
        QTest::newRow("empty space, nothing selected") << Press{.at = {0.95, 0.1}};
        QTest::newRow("right button") << Press{.at = {0.5, 0.5}, .button = Qt::RightButton};
        QTest::newRow("middle button, selection kept")
            << Press{.initial = 0, .at = {0.5, 0.5}, .button = Qt::MiddleButton, .expected = 0};
        // Handles come first, within 10 pixels of the selected layer's corner, even under another layer.
        const QPointF corner(0.6, 0.6);
        const auto px = [](int x, int y) { return QPointF(x / 640.0, y / 360.0); };
        const QRectF resized(0.1, 0.1, 0.6, 0.6);
        QTest::newRow("handle") << Press{.initial = 0, .at = corner, .expected = 0, .dragged = resized};
        QTest::newRow("handle, 9.9 px away")
            << Press{.initial = 0, .at = corner + px(7, 7), .expected = 0, .dragged = resized};
        QTest::newRow("handle, 10 px away")
            << Press{.initial = 0, .at = corner + px(-6, -8), .expected = 0, .dragged = resized};
        QTest::newRow("handle out of reach at 11.3 px")
            << Press{.initial = 0, .at = corner + px(8, 8), .expected = 1, .calls = select1, .dragged = front};
        // A double click, with any button, selects and brings up the layer; it starts no drag.
        const QStringList activated{"selectionChanged 1", "activated"};
        QTest::newRow("double click") << Press{.at = {0.5, 0.5}, .twice = true, .expected = 1, .calls = activated};
        QTest::newRow("double click, right button")
            << Press{.at = {0.5, 0.5}, .button = Qt::RightButton, .twice = true, .expected = 1, .calls = activated};
        QTest::newRow("double click on the selected layer")
            << Press{.initial = 1, .at = {0.5, 0.5}, .twice = true, .expected = 1, .calls = activated};
        QTest::newRow("double click through an invisible layer") << Press{
            .initial = 1, .at = {0.2, 0.2}, .twice = true, .expected = 0, .calls = {"selectionChanged 0", "activated"}};
        QTest::newRow("double click on empty space")
            << Press{.initial = 1, .at = {0.95, 0.1}, .twice = true, .expected = 1};
    }

    void press()
    {
        QFETCH(Press, press);
        const std::vector<Layer> layers{
            layer(K::Text, {0.1, 0.1, 0.5, 0.5}), layer(K::Image, {0.4, 0.4, 0.5, 0.5}, press.frontVisible),
            layer(K::Text, {-0.2, 0.7, 0.3, 0.2}), layer(K::Color, {0.05, 0.05, 0.3, 0.3}, false)};
        Bench bench(layers, press.initial, pillarboxed);
        QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
        const QPoint from = bench.at(press.at);
        if (press.twice)
            QTest::mouseDClick(bench.canvas, press.button, {}, from);
        else
            QTest::mousePress(bench.canvas, press.button, {}, from);
        const int selectedAtPress = bench.canvas->selected;
        const QStringList callsAtPress = std::exchange(bench.calls, {});
        QTest::mouseMove(bench.canvas, from + QPoint(64, 36));
        QTest::mouseRelease(bench.canvas, press.button, {}, from + QPoint(64, 36));
        QCOMPARE(selectedAtPress, press.expected);
        QCOMPARE(callsAtPress, press.calls);
        const bool moved = !press.dragged.isNull();
        for (int i = 0; i < 4; ++i)
            QCOMPARE(bench.rect(i), i == press.expected && moved ? press.dragged : layers[std::size_t(i)].rect);
        QCOMPARE(bench.calls, moved ? QStringList{"changed"} : QStringList());
    }

    // Reported every time, even when nothing changed: the window refreshes its layer list on it.
    void select()
    {
        for (const auto& [withScene, index, expected] : {std::tuple{true, 1, 1}, {true, 2, 2}, {true, 3, -1},
                                                         {true, -7, -1}, {false, 0, -1}}) {
            Bench bench({layer(K::Text, {0.1, 0.1, 0.2, 0.2}), layer(K::Text, {0.4, 0.4, 0.2, 0.2}),
                         layer(K::Text, {0.7, 0.7, 0.2, 0.2})}, 1);
            if (!withScene)
                bench.canvas->scene = nullptr;
            bench.canvas->select(index);
            QCOMPARE(bench.canvas->selected, expected);
            QCOMPARE(bench.calls, QStringList{QStringLiteral("selectionChanged %1").arg(expected)});
        }
    }

    void keys_data()
    {
        QTest::addColumn<int>("selected");
        QTest::addColumn<int>("key");
        QTest::addColumn<bool>("shift");
        QTest::addColumn<QRectF>("start");
        QTest::addColumn<QRectF>("expected"); // a null rect: the key goes on to the window
        const QRectF middle(0.5, 0.5, 0.2, 0.2), thin(0.95, 0.4, 0.03, 0.2);
        QTest::newRow("left") << 0 << int(Qt::Key_Left) << false << middle << QRectF(0.495, 0.5, 0.2, 0.2);
        QTest::newRow("right") << 0 << int(Qt::Key_Right) << false << middle << QRectF(0.505, 0.5, 0.2, 0.2);
        QTest::newRow("up") << 0 << int(Qt::Key_Up) << false << middle << QRectF(0.5, 0.495, 0.2, 0.2);
        QTest::newRow("down") << 0 << int(Qt::Key_Down) << false << middle << QRectF(0.5, 0.505, 0.2, 0.2);
        QTest::newRow("shift left") << 0 << int(Qt::Key_Left) << true << middle << QRectF(0.45, 0.5, 0.2, 0.2);
        QTest::newRow("shift down") << 0 << int(Qt::Key_Down) << true << middle << QRectF(0.5, 0.55, 0.2, 0.2);
        QTest::newRow("thin layer at the right limit stays") << 0 << int(Qt::Key_Right) << true << thin << thin;
        QTest::newRow("full width stops at the left limit")
            << 0 << int(Qt::Key_Left) << true << QRectF(-0.92, 0, 1, 1) << QRectF(-0.95, 0, 1, 1);
        QTest::newRow("no selection") << -1 << int(Qt::Key_Left) << false << middle << QRectF();
        QTest::newRow("other key") << 0 << int(Qt::Key_A) << false << middle << QRectF();
    }

    void keys()
    {
        QFETCH(int, selected);
        QFETCH(int, key);
        QFETCH(bool, shift);
        QFETCH(QRectF, start);
        QFETCH(QRectF, expected);
        Bench bench({layer(K::Camera, start)}, selected);
        QVERIFY(QTest::qWaitForWindowExposed(&bench.host));
        QTest::keyClick(bench.canvas, Qt::Key(key), shift ? Qt::ShiftModifier : Qt::NoModifier);
        const bool handled = !expected.isNull();
        QCOMPARE(bench.rect(0), handled ? expected : start);
        QCOMPARE(bench.calls, handled ? QStringList{"changed"} : QStringList());
        QCOMPARE(bench.host.keys, handled ? QList<int>() : QList<int>{key});
    }
};

QTEST_MAIN(tst_Canvas)
#include "tst_canvas.moc"
