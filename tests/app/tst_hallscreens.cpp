#include "Picture.h"
#include "PictureCentre.h"
#include "StudioWindow.h"

#include <QtTest>
#include <QtWidgets>
#include <cstring>
#include <sys/uio.h>
#include <xcb/xcb.h>
#include <xcb/xcbext.h>

using namespace Qt::StringLiterals;

namespace {

xcb_extension_t randrExtension{"RANDR", 0};

// One RandR request; xcb fills in the opcodes and the length. Returns the reply (to be freed) or, given
// `refused` for a request without a reply, whether the server refused it.
void* randr(xcb_connection_t* connection, std::uint8_t minor, const void* body, std::size_t bytes,
            bool* refused = nullptr)
{
    std::vector<std::uint8_t> data(4 + bytes);
    std::memcpy(data.data() + 4, body, bytes);
    iovec parts[3] = {{}, {}, {data.data(), data.size()}};
    const xcb_protocol_request_t header{1, &randrExtension, minor, std::uint8_t(refused ? 1 : 0)};
    const unsigned int sent = xcb_send_request(connection, XCB_REQUEST_CHECKED, parts + 2, &header);
    xcb_generic_error_t* error = refused ? xcb_request_check(connection, xcb_void_cookie_t{sent}) : nullptr;
    void* reply = refused ? nullptr : xcb_wait_for_reply(connection, sent, &error);
    if (refused)
        *refused = error;
    std::free(error);
    return reply;
}

// Xvfb has one RandR output, so Qt sees one screen. A studio with a projector looks like one X screen
// cut into RandR 1.5 monitors side by side ("1024x768,800x600"), so this cuts Xvfb's root before Qt
// connects. The first monitor takes the one output, which retires the root's automatic monitor.
QString splitScreen(xcb_connection_t* connection, const QByteArray& layout)
{
    if (!connection || xcb_connection_has_error(connection))
        return u"no X display"_s;
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const std::uint32_t askMonitors[2] = {root, 1};
    auto* listed = static_cast<std::uint8_t*>(randr(connection, 42, askMonitors, sizeof askMonitors));
    std::uint32_t count = 0, output = 0; // the count of monitors, then the first one's output count and output
    std::uint16_t outputs = 0;
    if (listed && (std::memcpy(&count, listed + 12, 4), std::memcpy(&outputs, listed + 38, 2), count && outputs))
        std::memcpy(&output, listed + 56, 4);
    std::free(listed);
    std::int16_t x = 0, index = 0;
    for (const QByteArray& size : layout.split(',')) {
        const QByteArray name = "HALL-" + QByteArray::number(++index);
        auto* atom = xcb_intern_atom_reply(
            connection, xcb_intern_atom(connection, 0, std::uint16_t(name.size()), name.constData()), nullptr);
        struct
        {
            std::uint32_t window, name;
            std::uint8_t primary, automatic;
            std::uint16_t outputCount;
            std::int16_t x, y;
            std::uint16_t width, height;
            std::uint32_t widthMm, heightMm, output;
        } monitor{root, atom ? atom->atom : 0u, std::uint8_t(index == 1), 0, std::uint16_t(index == 1), x, 0,
                  std::uint16_t(size.split('x').value(0).toUInt()), std::uint16_t(size.split('x').value(1).toUInt()),
                  300, 200, output};
        static_assert(sizeof monitor == 32);
        std::free(atom);
        bool refused = true;
        if (output && monitor.name && monitor.width && monitor.height)
            randr(connection, 43, &monitor, index == 1 ? 32 : 28, &refused);
        if (refused)
            return u"could not make monitor "_s + QString::fromLatin1(size);
        x = std::int16_t(x + monitor.width);
    }
    return {};
}

bool isBlack(const QImage& image, QPoint at)
{
    const QColor colour = image.pixelColor(at);
    return colour.red() < 8 && colour.green() < 8 && colour.blue() < 8;
}

const QString showHall = u"Pantallas de sala en el monitor elegido"_s;
QString splitProblem; // why the screen could not be cut into monitors

} // namespace

// The full-screen hall window and its button, on a real X server with two monitors.
class tst_HallScreens : public QObject
{
    Q_OBJECT

    static void showOn(StudioWindow& window, int screen)
    {
        QCOMPARE(window.screenCombo->count(), QGuiApplication::screens().size());
        QCOMPARE(window.screenCombo->itemText(screen), QGuiApplication::screens()[screen]->name());
        window.screenCombo->setCurrentIndex(screen);
        window.hallButton->click();
        QVERIFY(QTest::qWaitForWindowExposed(window.hallWindow.get()));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QSettings().setValue(u"onboarding_complete"_s, true);
        gst_init(nullptr, nullptr);
        QVERIFY2(splitProblem.isEmpty(), qPrintable(splitProblem));
        QCOMPARE(QGuiApplication::platformName(), u"xcb"_s);
        QVERIFY(!qEnvironmentVariableIsSet("VELMORA_TEST_MONITORS") || QGuiApplication::screens().size() == 2);
    }

    void showAndHide_data()
    {
        QTest::addColumn<int>("screen");
        QTest::addColumn<QString>("way");
        QTest::newRow("first screen, button") << 0 << u"button"_s;
        for (const char* way : {"Esc", "F", "double click", "close"})
            QTest::addRow("last screen, %s", way) << int(QGuiApplication::screens().size()) - 1 << QString(way);
    }

    void showAndHide()
    {
        QFETCH(int, screen);
        QFETCH(QString, way);
        StudioWindow window(false);
        const QPointer<Picture> hall(window.hallWindow.get());
        for (int round = 0; round < 2; ++round) { // the same window comes back after each way out
            showOn(window, screen);
            QVERIFY(hall->isFullScreen() && hall->cursor().shape() == Qt::BlankCursor);
            QTRY_COMPARE(hall->geometry(), QGuiApplication::screens()[screen]->geometry());
            if (round == 0) // the keys that hide it reach it without a click on the projector first
                QTRY_COMPARE(QApplication::activeWindow(), hall.data());
            QCOMPARE(window.hallButton->text(), u"Ocultar pantallas de sala (Esc)"_s);
            QWindow* keyboard = hall->windowHandle(); // keys go in as the keyboard's would
            QTest::keyClick(keyboard, Qt::Key_A);     // any other key leaves it up
            QVERIFY(hall->isVisible());
            if (way == "button"_L1)
                window.hallButton->click();
            else if (way == "double click"_L1)
                QTest::mouseDClick(hall, Qt::LeftButton, {}, hall->rect().center());
            else if (way == "close"_L1)
                QVERIFY(!hall->close()); // the window manager's close command (Alt+F4)
            else
                QTest::keyClick(keyboard, way == "F"_L1 ? Qt::Key_F : Qt::Key_Escape);
            QVERIFY(!hall->isVisible());
            QCOMPARE(window.hallButton->text(), showHall);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            QCOMPARE(window.hallWindow.get(), hall.data());
        }
    }

    void blackUntilTheFirstFrameThenBarsAroundThePicture()
    {
        StudioWindow window(false);
        window.tickTimer.stop(); // hold the first frame back
        showOn(window, 0);
        const QSize screen = QGuiApplication::screens()[0]->size();
        QTRY_COMPARE(window.hallWindow->size(), screen);
        const QImage before = window.hallWindow->grab().toImage();
        QVERIFY(isBlack(before, {0, 0}) && isBlack(before, before.rect().center()));
        // The Hall program is the hall's default scene: its background colour fills the middle.
        window.tickTimer.start();
        QTRY_VERIFY(!window.hallWindow->image.isNull());
        QCOMPARE(window.hallWindow->image, window.hallMonitor->image);
        QCOMPARE(centreOf(window.hallWindow->grab().toImage()), window.hallProgram.layers.front().fill);
        // Wider than the screen: bars above and below. Narrower: bars left and right. Never stretched.
        window.tickTimer.stop();
        const QSize wider(screen.width() * 2, screen.height()), narrower(screen.width(), screen.height() * 2);
        for (const QSize size : {wider, narrower}) {
            QImage red(size, QImage::Format_RGB32);
            red.fill(Qt::red);
            window.hallWindow->image = red;
            const QImage shown = window.hallWindow->grab().toImage();
            const QPoint mid = shown.rect().center(), corner(shown.width() - 3, shown.height() - 3);
            const bool wide = size == wider;
            QVERIFY(isBlack(shown, wide ? QPoint(mid.x(), 2) : QPoint(2, mid.y())));
            QVERIFY(isBlack(shown, wide ? QPoint(mid.x(), corner.y()) : QPoint(corner.x(), mid.y())));
            QCOMPARE(centreOf(shown), QColor(Qt::red));
        }
    }

    // A projector unplugged: the window hides, the combo lists what is left, the show goes on. With no
    // screen left at all, the button shows nothing and says nothing.
    void lostScreenFallsBackAndKeepsTheProgram()
    {
        StudioWindow window(false);
        window.busChosen(1);
        window.scene().layers.front().fill = QColor(0, 160, 0);
        window.take();
        QTRY_COMPARE(centreOf(window.hallMonitor->image), QColor(0, 160, 0));
        showOn(window, 0);
        window.screenCombo->addItem(u"desenchufada"_s); // a screen that has since gone
        window.screenRemoved();
        QVERIFY(!window.hallWindow->isVisible() && window.hallButton->text() == showHall);
        QCOMPARE(window.screenCombo->count(), QGuiApplication::screens().size());
        const QString lost = u"Pantalla desconectada; Programa y salidas continúan."_s;
        QCOMPARE(window.statusLabel->text(), lost);
        window.hallWindow->image = QImage(); // a new frame still reaches the hidden window
        QTRY_COMPARE(centreOf(window.hallWindow->image), QColor(0, 160, 0));
        QTimer watch; // a warning box would run its own loop inside the click: closed, it fails the test, not hangs it
        connect(&watch, &QTimer::timeout, &watch, [] {
            if (QWidget* modal = QApplication::activeModalWidget())
                modal->close();
        });
        watch.start(10);
        window.screenCombo->clear();
        window.hallButton->click();
        QVERIFY(!window.hallWindow->isVisible());
        QCOMPARE(window.statusLabel->text(), lost);
    }

    void closingTheStudioEndsItWithTheHallUp()
    {
        StudioWindow window(false);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        // Only the full-screen hall window hides on a double click, not the monitor inside the studio.
        QTest::mouseDClick(window.hallMonitor, Qt::LeftButton, {}, window.hallMonitor->rect().center());
        QVERIFY(window.hallMonitor->isVisible());
        showOn(window, int(QGuiApplication::screens().size()) - 1);
        // The event loop must end, not go on behind a picture nobody can close.
        QTimer::singleShot(0, &window, [&window] { window.close(); });
        QTimer::singleShot(5000, &window, [] { QCoreApplication::exit(7); });
        QCOMPARE(QCoreApplication::exec(), 0);
    }
};

int main(int argc, char** argv)
{
    // Only when asked, so that a run on a developer's own display never touches it. The connection stays
    // open for the whole run: Xvfb resets, and forgets the monitors, when its last client leaves.
    const QByteArray layout = qgetenv("VELMORA_TEST_MONITORS");
    const std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> connection(
        layout.isEmpty() ? nullptr : xcb_connect(nullptr, nullptr), &xcb_disconnect);
    splitProblem = layout.isEmpty() ? QString() : splitScreen(connection.get(), layout);
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(u"Lorvane"_s);
    QCoreApplication::setApplicationName(u"TavrinStudio"_s);
    tst_HallScreens test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hallscreens.moc"
