#include "Canvas.h"
#include "GstTestRun.h"
#include "Media.h"
#include "Picture.h"
#include "SceneSources.h"
#include "StudioWindow.h"
#include "i18n.h"

#include <QCheckBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

// Take, off air and the tick, on a real window with the real test pattern as its camera.
class tst_Take : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void previewEditsReachProgramOnlyAtTheTake();
    void hallCutsAndIgnoresTheLowerThird();
    void offAirActsOnTheEditedBus_data();
    void offAirActsOnTheEditedBus();
    void fadeRunsItsCourse();
    void takeWithoutScenesTakesTheDefault();
    void fileVideoRestartsAtEveryTake();
    void failingSourceIsReportedOnceAndShowsTheMissingBox();
    void addressSchemes_data();
    void addressSchemes();
    void sharedSourceIsCollectedOnce();

private:
    static QColor centreOf(const QImage& image) { return image.pixelColor(image.width() / 2, image.height() / 2); }
    static QColor bandPixel(const QImage& image) { return image.pixelColor(image.width() / 2, image.height() * 80 / 100); }
    static void waitForCamera(StudioWindow& window);
    QTemporaryDir files;
    QString videoFile;
    QString brokenFile; // a file that is not media: the source fails once it runs
};

void tst_Take::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);

    brokenFile = files.filePath(QStringLiteral("broken.webm"));
    QFile broken(brokenFile);
    QVERIFY(broken.open(QIODevice::WriteOnly));
    broken.write(QByteArray(4096, 'x'));
    broken.close();

    videoFile = files.filePath(QStringLiteral("clip.webm"));
    const QByteArray description = "videotestsrc num-buffers=45 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                                   "vp8enc deadline=1 ! webmmux ! filesink location=" +
                                   QFile::encodeName(videoFile);
    QVERIFY(runToEnd(description));
}

void tst_Take::waitForCamera(StudioWindow& window)
{
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2, 10000);
}

void tst_Take::previewEditsReachProgramOnlyAtTheTake()
{
    StudioWindow window(false);
    window.fadeCheck->setChecked(false);
    waitForCamera(window);
    window.overlayField->setText(QStringLiteral("Bienvenidos"));
    window.bandCheck->setChecked(true);
    QTRY_VERIFY(!window.canvas->frame.isNull() && bandPixel(window.canvas->frame) != centreOf(window.canvas->frame));
    QCOMPARE(centreOf(window.programMonitor->image), QColor(Qt::black));
    QCOMPARE(bandPixel(window.programMonitor->image), QColor(Qt::black));

    window.take();
    QTRY_VERIFY(centreOf(window.programMonitor->image) != QColor(Qt::black));
    const QColor band = bandPixel(window.programMonitor->image);

    // The lower third was frozen at the take: clearing the field changes Preview only.
    window.overlayField->clear();
    window.bandCheck->setChecked(false);
    window.scene().layers.clear();
    QTRY_COMPARE(centreOf(window.canvas->frame), QColor(Qt::black));
    QVERIFY(centreOf(window.programMonitor->image) != QColor(Qt::black));
    QCOMPARE(bandPixel(window.programMonitor->image), band);
    QCOMPARE(window.programOverlay, QStringLiteral("Bienvenidos"));
    QVERIFY(window.programBand);
}

void tst_Take::hallCutsAndIgnoresTheLowerThird()
{
    StudioWindow window(false);
    window.busChosen(1);
    QCOMPARE(window.takeButton->text(), QStringLiteral("A PANTALLAS  →"));
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Editando las escenas de las pantallas de sala."));
    window.scene().layers[0].fill = QColor(200, 0, 0);
    window.overlayField->setText(QStringLiteral("no llega a la sala"));
    window.take();
    QCOMPARE(window.fadeProgress, 1.0);
    QVERIFY(window.programOverlay.isEmpty());
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Escena enviada a las pantallas de sala."));
    QTRY_COMPARE(centreOf(window.hallMonitor->image), QColor(200, 0, 0));
    QCOMPARE(window.hallWindow->image, window.hallMonitor->image);
    QCOMPARE(centreOf(window.programMonitor->image), QColor(Qt::black));
}

void tst_Take::offAirActsOnTheEditedBus_data()
{
    QTest::addColumn<int>("bus");
    QTest::newRow("stream") << 0;
    QTest::newRow("hall") << 1;
}

void tst_Take::offAirActsOnTheEditedBus()
{
    QFETCH(int, bus);

    StudioWindow window(false);
    window.fadeCheck->setChecked(false);
    window.take();
    window.busChosen(1);
    window.take();
    window.busChosen(bus);
    window.offAir();
    QCOMPARE(window.program.layers.empty(), bus == 0);
    QCOMPARE(window.hallProgram.layers.empty(), bus == 1);
    QCOMPARE(window.statusLabel->text(), bus == 0 ? QStringLiteral("Programa en negro (fuera del aire).")
                                                  : QStringLiteral("Pantallas de sala en negro."));
}

void tst_Take::fadeRunsItsCourse()
{
    StudioWindow window(false);
    window.take();
    QCOMPARE(window.fadeProgress, 0.0);
    QVERIFY(!window.fadeFrom.isNull());
    QTRY_COMPARE(window.fadeProgress, 1.0);
    window.offAir();
    QCOMPARE(window.fadeProgress, 0.0);
    QTRY_COMPARE(centreOf(window.programMonitor->image), QColor(Qt::black));
}

void tst_Take::takeWithoutScenesTakesTheDefault()
{
    StudioWindow window(false);
    window.scenes[0].clear();
    window.take();
    QCOMPARE(window.scenes[0].size(), std::size_t(1));
    QCOMPARE(window.program.layers.size(), std::size_t(1));
    QCOMPARE(window.program.layers[0].kind, Layer::Kind::Camera);
}

void tst_Take::fileVideoRestartsAtEveryTake()
{
    StudioWindow window(false);
    Layer video;
    video.kind = Layer::Kind::Video;
    video.uri = QUrl::fromLocalFile(videoFile).toString();
    video.media = window.openMedia(video.uri);
    window.addLayer(video);
    const Media* first = window.scene().layers.back().media.get();

    window.take();
    const Media* second = window.scene().layers.back().media.get();
    QVERIFY(second != first);
    QCOMPARE(window.program.layers.back().media.get(), second);
    window.take();
    QVERIFY(window.scene().layers.back().media.get() != second);
    QTRY_VERIFY(window.program.layers.back().media->frameCount > 0);
    QTRY_VERIFY(window.retired.empty()); // the old pipelines were torn down off the GUI thread and reaped
}

void tst_Take::failingSourceIsReportedOnceAndShowsTheMissingBox()
{
    StudioWindow window(false);
    window.fadeCheck->setChecked(false);
    SceneDef& scene = window.scene();
    scene.layers.clear();
    Layer white;
    white.kind = Layer::Kind::Color;
    white.fill = Qt::white;
    scene.layers.push_back(white);
    Layer broken;
    broken.kind = Layer::Kind::Video;
    broken.uri = QUrl::fromLocalFile(brokenFile).toString();
    broken.media = window.openMedia(broken.uri);
    scene.layers.push_back(broken);
    window.take();

    QTRY_VERIFY_WITH_TIMEOUT(window.statusLabel->text().startsWith(QStringLiteral("Fuente sin señal: ")), 10000);
    const QColor missing = centreOf(window.programMonitor->image);
    QVERIFY2(qAbs(missing.red() - 55) <= 2 && missing.red() == missing.blue(), qPrintable(missing.name()));
    QVERIFY(window.program.layers.back().media); // the source stays in its layer

    // A stopped source is not reported again in the frames that follow.
    window.notify(QStringLiteral("siguiente"));
    const std::uint32_t seen = window.camera->frameCount;
    QTRY_VERIFY(window.camera->frameCount > seen + 15);
    QCOMPARE(window.statusLabel->text(), QStringLiteral("siguiente"));
}

void tst_Take::addressSchemes_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("file") << "file://CLIP" << true;
    QTest::newRow("upper-case scheme") << "FILE://CLIP" << true;
    QTest::newRow("rtsp") << "rtsp://127.0.0.1:1/cam" << true;
    QTest::newRow("ftp") << "ftp://x/y.mp4" << false;
    QTest::newRow("windows path") << "C:\\x.mp4" << false;
    QTest::newRow("no scheme") << "video.mp4" << false;
}

void tst_Take::addressSchemes()
{
    QFETCH(QString, address);
    QFETCH(bool, accepted);

    address.replace(QStringLiteral("CLIP"), videoFile);
    StudioWindow window(false);
    try {
        QVERIFY(window.openMedia(address));
        QVERIFY(accepted);
    } catch (const std::runtime_error& error) {
        QVERIFY(!accepted);
        QCOMPARE(QByteArray(error.what()), QByteArray("URL multimedia no compatible"));
    }
}

void tst_Take::sharedSourceIsCollectedOnce()
{
    auto shared = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    auto other = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    SceneDef first;
    first.layers.resize(3);
    first.layers[0].media = shared;
    first.layers[2].media = shared;
    SceneDef second = first; // a Program holds copies of the same layers
    second.layers[1].media = other;

    std::vector<Media*> sources{other.get()};
    collectSources(first, sources);
    collectSources(second, sources);
    QCOMPARE(sources, (std::vector<Media*>{other.get(), shared.get()}));
}

QTEST_MAIN(tst_Take)
#include "tst_take.moc"
