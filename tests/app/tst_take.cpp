#include "Canvas.h"
#include "GstTestRun.h"
#include "Media.h"
#include "Picture.h"
#include "PictureCentre.h"
#include "StudioWindow.h"

#include <QCheckBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QTemporaryDir>
#include <QSettings>
#include <QTest>
#include <QUrl>

// Take, off air and the tick, on a real window with the real test pattern as its camera.
class tst_Take : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void previewEditsReachProgramOnlyAtTheTake();
    void takeAndOffAirOnEachBus_data();
    void takeAndOffAirOnEachBus();
    void fileVideoRestartsAtEveryTake();
    void failingSourceIsReportedOnceAndShowsTheMissingBox();
    void addressSchemes_data();
    void addressSchemes();

private:
    static QColor bandPixel(const QImage& image) { return image.pixelColor(image.width() / 2, image.height() * 80 / 100); }
    static Layer videoLayer(StudioWindow& window, const QString& file);
    QTemporaryDir files;
    QString videoFile;
};

void tst_Take::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    gst_init(nullptr, nullptr);
    videoFile = files.filePath(QStringLiteral("clip.webm"));
    QVERIFY(runToEnd("videotestsrc num-buffers=45 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                     "vp8enc deadline=1 ! webmmux ! filesink location=" +
                     QFile::encodeName(videoFile)));
}

Layer tst_Take::videoLayer(StudioWindow& window, const QString& file)
{
    Layer video;
    video.kind = Layer::Kind::Video;
    video.uri = QUrl::fromLocalFile(file).toString();
    video.media = window.openMedia(video.uri);
    return video;
}

void tst_Take::previewEditsReachProgramOnlyAtTheTake()
{
    StudioWindow window(false);
    window.fadeCheck->setChecked(false);
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2, 10000);
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
}

void tst_Take::takeAndOffAirOnEachBus_data()
{
    QTest::addColumn<int>("bus");
    QTest::newRow("off air on the stream") << 0;
    QTest::newRow("off air on the hall") << 1;
}

void tst_Take::takeAndOffAirOnEachBus()
{
    QFETCH(int, bus);

    StudioWindow window(false);
    window.overlayField->setText(QStringLiteral("no llega a la sala"));
    // The hall cuts, fade or not, and takes no lower third.
    window.busChosen(1);
    window.scene().layers[0].fill = QColor(200, 0, 0);
    window.take();
    QCOMPARE(window.fadeProgress, 1.0);
    QVERIFY(window.programOverlay.isEmpty());
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Escena enviada a las pantallas de sala."));
    QTRY_COMPARE(centreOf(window.hallMonitor->image), QColor(200, 0, 0));
    QCOMPARE(centreOf(window.programMonitor->image), QColor(Qt::black));

    window.busChosen(0);
    window.take();
    QCOMPARE(window.fadeProgress, 0.0);
    QTRY_COMPARE(window.fadeProgress, 1.0);

    // Off air acts on the bus being edited only; the stream fades out, the hall cuts.
    window.busChosen(bus);
    window.offAir();
    QCOMPARE(window.program.layers.empty(), bus == 0);
    QCOMPARE(window.hallProgram.layers.empty(), bus == 1);
    QCOMPARE(window.fadeProgress, bus == 0 ? 0.0 : 1.0);
    QCOMPARE(window.statusLabel->text(), bus == 0 ? QStringLiteral("Programa en negro (fuera del aire).")
                                                  : QStringLiteral("Pantallas de sala en negro."));
    QTRY_COMPARE(centreOf((bus == 0 ? window.programMonitor : window.hallMonitor)->image), QColor(Qt::black));
    QTRY_VERIFY(centreOf((bus == 0 ? window.hallMonitor : window.programMonitor)->image) != QColor(Qt::black));
}

void tst_Take::fileVideoRestartsAtEveryTake()
{
    StudioWindow window(false);
    window.addLayer(videoLayer(window, videoFile));
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
    Layer white;
    white.kind = Layer::Kind::Color;
    white.fill = Qt::white;
    // This test's own program is a file that no decoder takes.
    window.scene().layers = {white, videoLayer(window, QCoreApplication::applicationFilePath())};
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

    StudioWindow window(false);
    try {
        QVERIFY(window.openMedia(address.replace(QStringLiteral("CLIP"), videoFile)));
        QVERIFY(accepted);
    } catch (const std::runtime_error& error) {
        QVERIFY(!accepted);
        QCOMPARE(QByteArray(error.what()), QByteArray("URL multimedia no compatible"));
    }
}

QTEST_MAIN(tst_Take)
#include "tst_take.moc"
