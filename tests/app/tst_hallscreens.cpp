#include "Canvas.h"
#include "Picture.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QScreen>
#include <QTest>
#include <QTimer>
#include <QWindow>

#include <xcb/xcb.h>
#include <xcb/xcbext.h>

#include <cstdlib>
#include <cstring>
#include <sys/uio.h>

namespace {

// Xvfb has one RandR output, so one QScreen. A studio with a projector looks to Qt like one X
// screen cut into RandR 1.5 monitors side by side; the test cuts Xvfb's root the same way before
// Qt connects. Only when VELMORA_TEST_MONITORS asks for it ("1024x768,800x600"), so that a run on a
// developer's own display never touches it. The connection stays open for the whole run: Xvfb
// resets, and forgets the monitors, when its last client leaves.
class SplitScreen
{
public:
    explicit SplitScreen(const QByteArray& layout);
    ~SplitScreen()
    {
        if (connection)
            xcb_disconnect(connection);
    }
    SplitScreen(const SplitScreen&) = delete;
    SplitScreen& operator=(const SplitScreen&) = delete;

    QString problem; // why the split did not happen, if asked for and refused

private:
    unsigned int send(std::uint8_t minor, const void* body, std::size_t bytes, bool hasReply);
    void* ask(std::uint8_t minor, const void* body, std::size_t bytes); // the reply, to be freed
    bool tell(std::uint8_t minor, const void* body, std::size_t bytes); // false on an error

    xcb_connection_t* connection = nullptr;
};

xcb_extension_t randrExtension{"RANDR", 0};

constexpr std::uint8_t queryVersion = 0;
constexpr std::uint8_t getMonitors = 42;
constexpr std::uint8_t setMonitor = 43;

unsigned int SplitScreen::send(std::uint8_t minor, const void* body, std::size_t bytes, bool hasReply)
{
    // The library fills in the opcodes and the length, and copies the data before it returns;
    // vector[-1] and [-2] are its own.
    std::vector<std::uint8_t> data(4 + bytes);
    std::memcpy(data.data() + 4, body, bytes);
    iovec parts[3] = {};
    parts[2].iov_base = data.data();
    parts[2].iov_len = data.size();
    const xcb_protocol_request_t header{1, &randrExtension, minor, std::uint8_t(hasReply ? 0 : 1)};
    return xcb_send_request(connection, XCB_REQUEST_CHECKED, parts + 2, &header);
}

void* SplitScreen::ask(std::uint8_t minor, const void* body, std::size_t bytes)
{
    xcb_generic_error_t* error = nullptr;
    void* reply = xcb_wait_for_reply(connection, send(minor, body, bytes, true), &error);
    std::free(error);
    return reply;
}

bool SplitScreen::tell(std::uint8_t minor, const void* body, std::size_t bytes)
{
    xcb_generic_error_t* error = xcb_request_check(connection, xcb_void_cookie_t{send(minor, body, bytes, false)});
    std::free(error);
    return !error;
}

SplitScreen::SplitScreen(const QByteArray& layout)
{
    if (layout.isEmpty())
        return;
    connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection)) {
        problem = QStringLiteral("no X display");
        return;
    }
    const xcb_query_extension_reply_t* randr = xcb_get_extension_data(connection, &randrExtension);
    if (!randr || !randr->present) {
        problem = QStringLiteral("no RandR");
        return;
    }
    const std::uint32_t version[2] = {1, 5};
    auto* versionReply = static_cast<std::uint32_t*>(ask(queryVersion, version, sizeof version));
    const bool monitors = versionReply && (versionReply[2] > 1 || versionReply[3] >= 5);
    std::free(versionReply);
    if (!monitors) {
        problem = QStringLiteral("RandR older than 1.5");
        return;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;

    // The first monitor takes over the screen's one output, which retires the automatic monitor
    // that stands for the whole root; the others have no output of their own.
    const std::uint32_t askMonitors[2] = {root, 1};
    auto* listed = static_cast<std::uint8_t*>(ask(getMonitors, askMonitors, sizeof askMonitors));
    std::uint32_t output = 0;
    if (listed) {
        std::uint32_t count = 0;
        std::uint16_t outputs = 0;
        std::memcpy(&count, listed + 12, 4);
        std::memcpy(&outputs, listed + 32 + 6, 2);
        if (count >= 1 && outputs >= 1)
            std::memcpy(&output, listed + 32 + 24, 4);
        std::free(listed);
    }
    if (!output) {
        problem = QStringLiteral("no RandR output to split");
        return;
    }

    std::int16_t x = 0;
    int index = 0;
    for (const QByteArray& size : layout.split(',')) {
        const QList<QByteArray> sides = size.split('x');
        const QByteArray name = "HALL-" + QByteArray::number(index + 1);
        xcb_intern_atom_reply_t* atom = xcb_intern_atom_reply(
            connection, xcb_intern_atom(connection, 0, std::uint16_t(name.size()), name.constData()), nullptr);
        if (!atom || sides.size() != 2) {
            std::free(atom);
            problem = QStringLiteral("bad monitor layout");
            return;
        }
        struct
        {
            std::uint32_t window;
            std::uint32_t name;
            std::uint8_t primary;
            std::uint8_t automatic;
            std::uint16_t outputCount;
            std::int16_t x, y;
            std::uint16_t width, height;
            std::uint32_t widthMm, heightMm;
            std::uint32_t output;
        } monitor{root, atom->atom, std::uint8_t(index == 0), 0, std::uint16_t(index == 0 ? 1 : 0), x, 0,
                  std::uint16_t(sides[0].toInt()), std::uint16_t(sides[1].toInt()), 300, 200, output};
        std::free(atom);
        static_assert(sizeof monitor == 32);
        if (!tell(setMonitor, &monitor, index == 0 ? sizeof monitor : sizeof monitor - 4)) {
            problem = QStringLiteral("the server refused a monitor");
            return;
        }
        x = std::int16_t(x + monitor.width);
        ++index;
    }
}

QColor centreOf(const QImage& image)
{
    return image.isNull() ? QColor() : image.pixelColor(image.rect().center());
}

bool isBlack(const QColor& colour)
{
    return colour.red() < 8 && colour.green() < 8 && colour.blue() < 8;
}

} // namespace

// The full-screen hall window and its button, on a real X server with two monitors.
class tst_HallScreens : public QObject
{
    Q_OBJECT

public:
    explicit tst_HallScreens(QString splitProblem) : splitProblem(std::move(splitProblem)) {}

private Q_SLOTS:
    void initTestCase();
    void comboListsTheScreens();
    void buttonShowsTheWindowOnTheChosenScreen_data();
    void buttonShowsTheWindowOnTheChosenScreen();
    void everyWayOutHidesWithoutDestroying_data();
    void everyWayOutHidesWithoutDestroying();
    void doubleClickOutsideFullScreenKeepsThePicture();
    void blackUntilTheFirstFrameThenTheHallProgram();
    void otherAspectShowsBlackBars();
    void lostScreenHidesAndKeepsTheProgram();
    void emptyComboShowsNothing();
    void closingTheStudioEndsItWithTheHallUp();

private:
    static void showOn(StudioWindow& window, int screen);
    static QStringList screenNames();
    QString splitProblem;
};

void tst_HallScreens::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
    QVERIFY2(splitProblem.isEmpty(), qPrintable(splitProblem));
    QCOMPARE(QGuiApplication::platformName(), QStringLiteral("xcb"));
}

QStringList tst_HallScreens::screenNames()
{
    QStringList names;
    for (const QScreen* each : QGuiApplication::screens())
        names << each->name();
    return names;
}

void tst_HallScreens::showOn(StudioWindow& window, int screen)
{
    window.screenCombo->setCurrentIndex(screen);
    window.hallButton->click();
    QVERIFY(window.hallWindow->isVisible());
    QVERIFY(QTest::qWaitForWindowExposed(window.hallWindow.get()));
}

void tst_HallScreens::comboListsTheScreens()
{
    if (qEnvironmentVariableIsSet("VELMORA_TEST_MONITORS"))
        QCOMPARE(screenNames(), (QStringList{QStringLiteral("HALL-1"), QStringLiteral("HALL-2")}));
    StudioWindow window(false);
    QStringList listed;
    for (int row = 0; row < window.screenCombo->count(); ++row)
        listed << window.screenCombo->itemText(row);
    QCOMPARE(listed, screenNames());
}

void tst_HallScreens::buttonShowsTheWindowOnTheChosenScreen_data()
{
    QTest::addColumn<int>("screen");
    for (int index = 0; index < QGuiApplication::screens().size(); ++index)
        QTest::addRow("%s", qPrintable(QGuiApplication::screens()[index]->name())) << index;
}

void tst_HallScreens::buttonShowsTheWindowOnTheChosenScreen()
{
    QFETCH(int, screen);
    StudioWindow window(false);
    QCOMPARE(window.hallWindow->windowTitle(), QStringLiteral("Velmora · Programa"));
    QCOMPARE(window.hallButton->text(), QStringLiteral("Pantallas de sala en el monitor elegido"));
    QVERIFY(!window.hallWindow->isVisible());

    showOn(window, screen);
    const QRect geometry = QGuiApplication::screens()[screen]->geometry();
    QVERIFY(window.hallWindow->isFullScreen());
    QTRY_COMPARE(window.hallWindow->geometry(), geometry);
    QCOMPARE(window.hallWindow->screen(), QGuiApplication::screens()[screen]);
    QCOMPARE(window.hallWindow->cursor().shape(), Qt::BlankCursor);
    // The keys that hide it must reach it without a click on the projector first.
    QTRY_COMPARE(QApplication::activeWindow(), window.hallWindow.get());
    QCOMPARE(window.hallButton->text(), QStringLiteral("Ocultar pantallas de sala (Esc)"));

    window.hallButton->click();
    QVERIFY(!window.hallWindow->isVisible());
    QCOMPARE(window.hallButton->text(), QStringLiteral("Pantallas de sala en el monitor elegido"));
}

void tst_HallScreens::everyWayOutHidesWithoutDestroying_data()
{
    QTest::addColumn<QString>("way");
    for (const char* way : {"Esc", "F", "double click", "close"})
        QTest::newRow(way) << QString::fromLatin1(way);
}

void tst_HallScreens::everyWayOutHidesWithoutDestroying()
{
    QFETCH(QString, way);
    StudioWindow window(false);
    const QPointer<Picture> hall(window.hallWindow.get());
    for (int round = 0; round < 2; ++round) { // the same window comes back after each way out
        showOn(window, int(QGuiApplication::screens().size()) - 1);
        // Keys go in through the window, as the keyboard's would, so they must find their way to it.
        QWindow* keyboard = hall->windowHandle();
        QTest::keyClick(keyboard, Qt::Key_A); // any other key leaves it up
        QVERIFY(hall->isVisible());
        if (way == QLatin1String("Esc"))
            QTest::keyClick(keyboard, Qt::Key_Escape);
        else if (way == QLatin1String("F"))
            QTest::keyClick(keyboard, Qt::Key_F);
        else if (way == QLatin1String("double click"))
            QTest::mouseDClick(hall, Qt::LeftButton, {}, hall->rect().center());
        else
            QVERIFY(!hall->close()); // what the window manager's close command (Alt+F4) does
        QVERIFY(!hall->isVisible());
        QCOMPARE(window.hallButton->text(), QStringLiteral("Pantallas de sala en el monitor elegido"));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(hall);
        QCOMPARE(window.hallWindow.get(), hall.data());
    }
}

void tst_HallScreens::doubleClickOutsideFullScreenKeepsThePicture()
{
    StudioWindow window(false);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QVERIFY(window.hallMonitor->isVisible());
    QTest::mouseDClick(window.hallMonitor, Qt::LeftButton, {}, window.hallMonitor->rect().center());
    QVERIFY(window.hallMonitor->isVisible());
}

void tst_HallScreens::blackUntilTheFirstFrameThenTheHallProgram()
{
    StudioWindow window(false);
    window.tickTimer.stop(); // hold the first frame back
    QVERIFY(window.hallWindow->image.isNull());
    showOn(window, 0);
    const QImage before = window.hallWindow->grab().toImage();
    QCOMPARE(before.size(), window.hallWindow->size());
    for (const QPoint at : {QPoint(0, 0), before.rect().center(), before.rect().bottomRight()})
        QVERIFY2(isBlack(before.pixelColor(at)), qPrintable(before.pixelColor(at).name()));

    window.tickTimer.start();
    QTRY_VERIFY(!window.hallWindow->image.isNull());
    QCOMPARE(window.hallWindow->image, window.hallMonitor->image);
    // The Hall program starts as the hall's default scene: its background colour fills the middle.
    const QImage after = window.hallWindow->grab().toImage();
    QCOMPARE(centreOf(after), window.hallProgram.layers.front().fill);
}

void tst_HallScreens::otherAspectShowsBlackBars()
{
    StudioWindow window(false);
    showOn(window, 0);
    const QRect screen = QGuiApplication::screens()[0]->geometry();
    QTRY_COMPARE(window.hallWindow->size(), screen.size());
    window.tickTimer.stop();
    // Wider than the screen: bars above and below. Narrower: bars left and right.
    for (const QSize picture : {QSize(screen.width() * 2, screen.height()), QSize(screen.width(), screen.height() * 2)}) {
        QImage red(picture, QImage::Format_RGB32);
        red.fill(Qt::red);
        window.hallWindow->image = red;
        window.hallWindow->update();
        const QImage shown = window.hallWindow->grab().toImage();
        const bool letterbox = picture.width() > screen.width();
        const QPoint bar = letterbox ? QPoint(shown.width() / 2, 2) : QPoint(2, shown.height() / 2);
        const QPoint otherBar =
            letterbox ? QPoint(shown.width() / 2, shown.height() - 3) : QPoint(shown.width() - 3, shown.height() / 2);
        QVERIFY(isBlack(shown.pixelColor(bar)));
        QVERIFY(isBlack(shown.pixelColor(otherBar)));
        QCOMPARE(centreOf(shown), QColor(Qt::red));
    }
}

void tst_HallScreens::lostScreenHidesAndKeepsTheProgram()
{
    StudioWindow window(false);
    window.busChosen(1);
    window.scene().layers.front().fill = QColor(0, 160, 0);
    window.take();
    QTRY_COMPARE(centreOf(window.hallMonitor->image), QColor(0, 160, 0));
    showOn(window, 0);
    window.screenCombo->addItem(QStringLiteral("desenchufada")); // a screen that has since gone

    window.screenRemoved();
    QVERIFY(!window.hallWindow->isVisible());
    QCOMPARE(window.hallButton->text(), QStringLiteral("Pantallas de sala en el monitor elegido"));
    QStringList listed;
    for (int row = 0; row < window.screenCombo->count(); ++row)
        listed << window.screenCombo->itemText(row);
    QCOMPARE(listed, screenNames());
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Pantalla desconectada; Programa y salidas continúan."));
    QCOMPARE(window.hallProgram.layers.size(), window.scene().layers.size());
    QCOMPARE(window.hallProgram.layers.front().fill, QColor(0, 160, 0));
    // The frames go on: a new one still reaches the hidden window and the monitor.
    window.hallWindow->image = QImage();
    QTRY_VERIFY(!window.hallWindow->image.isNull());
    QCOMPARE(centreOf(window.hallWindow->image), QColor(0, 160, 0));
}

void tst_HallScreens::emptyComboShowsNothing()
{
    StudioWindow window(false);
    window.screenCombo->clear();
    QCOMPARE(window.screenCombo->currentIndex(), -1);
    const QString status = window.statusLabel->text();
    bool boxShown = false;
    QTimer watch;
    connect(&watch, &QTimer::timeout, this, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            boxShown = true;
            box->accept();
        }
    });
    watch.start(10);
    window.hallButton->click(); // a warning box would have been shown, and answered, inside the click
    QVERIFY(!boxShown);
    QVERIFY(!window.hallWindow->isVisible());
    QCOMPARE(window.hallButton->text(), QStringLiteral("Pantallas de sala en el monitor elegido"));
    QCOMPARE(window.statusLabel->text(), status);
}

void tst_HallScreens::closingTheStudioEndsItWithTheHallUp()
{
    StudioWindow window(false);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    showOn(window, int(QGuiApplication::screens().size()) - 1);
    // The operator closes the studio while the projector shows the hall: the event loop must end,
    // not go on behind a picture nobody can close.
    QTimer::singleShot(0, &window, [&window] { window.close(); });
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, this, [] { QCoreApplication::exit(7); });
    deadline.start(5000);
    QCOMPARE(QCoreApplication::exec(), 0);
}

int main(int argc, char** argv)
{
    const SplitScreen split(qgetenv("VELMORA_TEST_MONITORS"));
    QApplication app(argc, argv);
    tst_HallScreens test(split.problem);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hallscreens.moc"
