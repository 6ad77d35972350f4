#include "Picture.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QtTest>
#include <QtWidgets>
#include <sys/uio.h>
#include <xcb/xcb.h>
#include <xcb/xcbext.h>

using namespace Qt::StringLiterals;

namespace {

// Cuts Xvfb's one screen into RandR 1.5 monitors side by side ("1024x768,800x600") before Qt connects,
// as a projector beside the studio's monitor. The first takes the one output, retiring the automatic one.
void splitScreen(xcb_connection_t* connection, const QByteArray& layout)
{
    static xcb_extension_t randrExtension{"RANDR", 0};
    const auto randr = [connection](std::uint8_t minor, std::vector<std::uint32_t> words) {
        words.insert(words.begin(), 0); // xcb fills in the opcodes and the length
        iovec parts[3] = {{}, {}, {words.data(), words.size() * 4}};
        const xcb_protocol_request_t header{1, &randrExtension, minor, std::uint8_t(minor == 43)};
        return xcb_send_request(connection, 0, parts + 2, &header);
    };
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    auto* listed = static_cast<std::uint32_t*>(xcb_wait_for_reply(connection, randr(42, {root, 1}), nullptr));
    // The monitor count is word 3; the first monitor starts at word 8, its output count high in word 9.
    const std::uint32_t output = listed && listed[3] && listed[9] >> 16 ? listed[14] : 0;
    std::free(listed);
    std::uint32_t x = 0, name = XCB_ATOM_PRIMARY; // any atom names a monitor: PRIMARY, then SECONDARY
    for (const QByteArray& size : layout.split(',')) {
        const std::uint32_t width = size.split('x').value(0).toUInt(), height = size.split('x').value(1).toUInt();
        // Name, then primary, automatic and the output count, x and y, width and height, size in mm, outputs.
        std::vector<std::uint32_t> monitor{root, name, x ? 0 : 0x10001u, x, height << 16 | width, 300, 200, output};
        randr(43, x ? std::vector(monitor.begin(), monitor.end() - 1) : monitor);
        x += width;
        ++name;
    }
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr)); // all done
}

bool isBlack(const QImage& image, QPoint at) { return qGray(image.pixel(at)) < 8; }

const QString showHall = u"Pantallas de sala en el monitor elegido"_s;

} // namespace

// The full-screen hall window and its button, on a real X server with two monitors.
class tst_HallScreens : public QObject
{
    Q_OBJECT

    static void showOn(StudioWindow& window, int screen)
    {
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
        QVERIFY(!qEnvironmentVariableIsSet("VELMORA_TEST_MONITORS") || QGuiApplication::screens().size() == 2);
    }

    // Black until the first frame, then the hall's default scene. An unplugged projector hides the window and the
    // combo lists what is left. Each way out hides the window, and the same window comes back on the next show.
    void pictureLostScreenShowAndHide()
    {
        StudioWindow window(false);
        const QPointer<Picture> hall(window.hallWindow.get());
        window.tickTimer.stop(); // hold the first frame back
        showOn(window, 0);
        QTRY_COMPARE(QApplication::activeWindow(), hall.data()); // keys reach it without a click on it first
        QTRY_COMPARE(hall->size(), QGuiApplication::screens()[0]->size());
        const QImage before = hall->grab().toImage();
        QVERIFY(isBlack(before, {0, 0}) && isBlack(before, before.rect().center()));
        window.tickTimer.start();
        QTRY_VERIFY(!hall->image.isNull());
        QCOMPARE(hall->image, window.hallMonitor->image);
        QCOMPARE(centreOf(hall->grab().toImage()), window.hallProgram.layers.front().fill);
        window.screenCombo->addItem(u"desenchufada"_s); // a screen that has since gone
        window.screenRemoved();
        QVERIFY(!hall->isVisible() && window.hallButton->text() == showHall);
        QCOMPARE(window.statusLabel->text(), u"Pantalla desconectada; Programa y salidas continúan."_s);
        QCOMPARE(window.screenCombo->count(), QGuiApplication::screens().size());
        int screen = 0;
        for (const QString way : {"button", "Esc", "double click", "close"}) {
            showOn(window, screen);
            QVERIFY(hall->isFullScreen() && hall->cursor().shape() == Qt::BlankCursor);
            QCOMPARE(window.hallButton->text(), u"Ocultar pantallas de sala (Esc)"_s);
            QTRY_COMPARE(hall->geometry(), QGuiApplication::screens()[screen]->geometry());
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
                QTest::keyClick(keyboard, Qt::Key_Escape);
            QVERIFY(!hall->isVisible() && window.hallButton->text() == showHall);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            QCOMPARE(window.hallWindow.get(), hall.data());
            screen = int(QGuiApplication::screens().size()) - 1;
        }
        window.show();
        showOn(window, screen);
        // Closing the studio with the hall up ends the event loop, not leaves a picture nobody can close.
        QTimer::singleShot(0, &window, [&window] { window.close(); });
        QTimer::singleShot(5000, &window, [] { QCoreApplication::exit(7); });
        QCOMPARE(QCoreApplication::exec(), 0);
    }
};

int main(int argc, char** argv)
{
    // Only when asked; the connection stays open, as Xvfb forgets the monitors when its last client leaves.
    const QByteArray layout = qgetenv("VELMORA_TEST_MONITORS");
    const std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> connection(
        layout.isEmpty() ? nullptr : xcb_connect(nullptr, nullptr), &xcb_disconnect);
    if (connection && !xcb_connection_has_error(connection.get()))
        splitScreen(connection.get(), layout);
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(u"Lorvane"_s);
    QCoreApplication::setApplicationName(u"TavrinStudio"_s);
    tst_HallScreens test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hallscreens.moc"
