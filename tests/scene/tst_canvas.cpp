#include "Canvas.h"
#include "SceneDef.h"

#include <QTest>

#include <vector>

// Layers are written out member by member; those left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using K = Layer::Kind;

Layer layer(K kind, const QRectF& rect, bool visible = true)
{
    return {.kind = kind, .visible = visible, .rect = rect};
}

// A widget size, the output's aspect, and where the picture box must then lie in widget pixels.
struct Geometry { QSize widget; double aspect; QRectF picture; };
const Geometry letterboxed{{640, 540}, 4.0 / 3.0, {0, 30, 640, 480}}, pillarboxed{{800, 360}, 16.0 / 9.0, {80, 0, 640, 360}};

// A shown canvas on a scene of its own, recording its callbacks in order.
struct Bench
{
    QWidget host;
    Canvas* canvas = new Canvas(&host);
    SceneDef scene;
    QStringList calls;
    QRectF picture;

    Bench(std::vector<Layer> layers, int selected, const Geometry& geometry)
        : picture(geometry.picture)
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

    // A point of the output, in widget pixels.
    QPoint at(QPointF f) const
    {
        return (picture.topLeft() + QPointF(f.x() * picture.width(), f.y() * picture.height())).toPoint();
    }
    QRectF rect(int index) const { return scene.layers[std::size_t(index)].rect; }
};

// A layer dragged by `delta` at its `corner` (0 top left, clockwise), or by its middle when that is -1.
struct Drag { const char* name; K kind; QRectF start; int corner; QPointF delta; QRectF expected; };

struct Press
{
    bool frontVisible = true;
    int initial = -1; // selected before
    QPointF at;
    Qt::MouseButton button = Qt::LeftButton;
    bool twice = false; // a double click
    int expected = -1;  // selected after
    QStringList calls = {};
    QRectF dragged = {}; // the expected layer after a drag by (0.1, 0.1) or the key; null: nothing moves
    int key = 0;         // a key pressed instead of the mouse
    Qt::KeyboardModifiers modifiers = {};
};

} // namespace

class tst_Canvas : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void drag_data()
    {
        QTest::addColumn<Drag>("drag");
        const QRectF middle(0.25, 0.25, 0.5, 0.5), thin(0.95, 0.4, 0.03, 0.2), wide(0.2, 0.2, 0.4, 0.2);
        // Steps are multiples of 0.05, whole pixels in every geometry. Pictures keep the proportion they had
        // at the press, the larger size winning; every size is at least 0.03.
        const Drag drags[] = {
            {"moves with the mouse", K::Text, middle, -1, {0.1, 0.05}, {0.35, 0.3, 0.5, 0.5}},
            {"no further left nor up", K::Color, {0, 0, 1, 1}, -1, {-1.2, -1.2}, {-0.95, -0.95, 1, 1}},
            {"no further right nor down", K::Text, thin, -1, {0.1, 0.9}, {0.95, 0.95, 0.03, 0.2}},
            {"camera, height leads", K::Camera, middle, 2, {-0.1, 0.2}, {0.25, 0.25, 0.7, 0.7}},
            {"image from the top left", K::Image, wide, 0, {-0.1, 0.0}, {0.1, 0.15, 0.5, 0.25}},
            {"screen from the top right", K::Screen, {0.1, 0.1, 0.3, 0.3}, 1, {0.2, 0.0}, {0.1, -0.1, 0.5, 0.5}},
            {"video from the bottom left", K::Video, {0.5, 0.2, 0.4, 0.2}, 3, {-0.2, 0.1}, {0.3, 0.2, 0.6, 0.3}},
            {"smallest after the aspect", K::Camera, wide, 2, {-0.35, -0.2}, {0.2, 0.2, 0.05, 0.03}},
            {"flips past the fixed corner", K::Text, middle, 2, {-0.7, -0.6}, {0.05, 0.15, 0.2, 0.1}},
            {"flip past the left limit", K::Text, {0.0, 0.2, 0.04, 0.2}, 2, {-0.2, 0.0}, {-0.11, 0.2, 0.16, 0.2}},
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
        // The button goes up before any check: a failure must leave no button held for the next test.
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
        QTest::newRow("right button") << Press{.at = {0.5, 0.5}, .button = Qt::RightButton};
        QTest::newRow("handle, 10 px away") << Press{.initial = 0, .at = corner + QPointF(-6 / 640.0, -8 / 360.0),
                                                     .expected = 0, .dragged = resized};
        QTest::newRow("handle out of reach, 11.3 px")
            << Press{.initial = 0, .at = corner + QPointF(0.0125, 8 / 360.0), .expected = 1, .calls = {"selected 1"},
                     .dragged = front};
        // A double click, with any button, selects and brings up the layer; it starts no drag.
        QTest::newRow("double click") << Press{.at = {0.5, 0.5}, .button = Qt::RightButton, .twice = true,
                                               .expected = 1, .calls = {"selected 1", "activated"}};
        // Arrow keys move the selected layer a little, more with Shift; other keys go on to the window.
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
        QTest::newRow("double click on empty space") << Press{.initial = 1, .at = {0.95, 0.1}, .twice = true,
                                                              .expected = 1};
    }

    void press()
    {
        QFETCH(Press, press);
        const std::vector<Layer> layers{
            layer(K::Text, {0.1, 0.1, 0.5, 0.5}), layer(K::Image, {0.4, 0.4, 0.5, 0.5}, press.frontVisible),
            layer(K::Text, {-0.2, 0.7, 0.3, 0.2}), layer(K::Color, {0.05, 0.05, 0.3, 0.3}, false)};
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
        Bench bench(std::vector<Layer>(3, layer(K::Text, {0.1, 0.1, 0.2, 0.2})), 1, pillarboxed);
        for (const int index : {2, 3, -1})
            bench.canvas->select(index);
        bench.canvas->scene = nullptr;
        bench.canvas->select(0);
        QCOMPARE(bench.calls, QStringList({"selected 2", "selected -1", "selected -1", "selected -1"}));
    }
};

QTEST_MAIN(tst_Canvas)
#include "tst_canvas.moc"
