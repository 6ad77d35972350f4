#include "Canvas.h"
#include "GstTestRun.h"
#include "Media.h"
#include "Picture.h"
#include "PictureCentre.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>

static QColor bandPixel(const QImage& image) { return image.pixelColor(image.width() / 2, image.height() * 80 / 100); }
static const QColor black(Qt::black);

static Layer videoLayer(StudioWindow& window, const QString& file)
{
    Layer video;
    video.kind = Layer::Kind::Video;
    video.uri = QUrl::fromLocalFile(file).toString();
    video.media = window.openMedia(video.uri);
    return video;
}

// Take, off air and the tick, on a real window with the real test pattern as its camera.
class tst_Take : public QObject
{
    Q_OBJECT
    QTemporaryDir files;
    QString videoFile = files.filePath(QStringLiteral("clip.webm"));

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
        QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
        QSettings().setValue(QStringLiteral("onboarding_complete"), true);
        gst_init(nullptr, nullptr);
        QVERIFY(runToEnd("videotestsrc num-buffers=45 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                         "vp8enc deadline=1 ! webmmux ! filesink location=" + QFile::encodeName(videoFile)));
    }

    // The lower third is frozen at the take: later edits change Preview only.
    void previewEditsReachProgramOnlyAtTheTake()
    {
        StudioWindow window(false);
        window.fadeCheck->setChecked(false);
        QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2, 10000);
        window.overlayField->setText(QStringLiteral("Bienvenidos"));
        window.bandCheck->setChecked(true);
        const QImage& preview = window.canvas->frame;
        QTRY_VERIFY(!preview.isNull() && bandPixel(preview) != centreOf(preview));
        QCOMPARE(bandPixel(window.programMonitor->image), black);
        window.take();
        QTRY_VERIFY(centreOf(window.programMonitor->image) != black);
        const QColor band = bandPixel(window.programMonitor->image);
        window.overlayField->clear();
        window.bandCheck->setChecked(false);
        window.scene().layers.clear();
        QTRY_COMPARE(centreOf(window.canvas->frame), black);
        QVERIFY(centreOf(window.programMonitor->image) != black);
        QCOMPARE(bandPixel(window.programMonitor->image), band);
    }

    void takeAndOffAirOnEachBus_data()
    {
        QTest::addColumn<int>("bus");
        QTest::newRow("stream") << 0;
        QTest::newRow("hall") << 1;
    }
    // The hall cuts and takes no lower third; off air acts on the edited bus: the stream fades, the hall cuts.
    void takeAndOffAirOnEachBus()
    {
        QFETCH(int, bus);
        StudioWindow window(false);
        window.overlayField->setText(QStringLiteral("no llega a la sala"));
        window.busChosen(1);
        window.scene().layers[0].fill = QColor(200, 0, 0);
        window.take();
        QCOMPARE(window.fadeProgress, 1.0);
        QVERIFY(window.programOverlay.isEmpty());
        QCOMPARE(window.statusLabel->text(), QStringLiteral("Escena enviada a las pantallas de sala."));
        QTRY_COMPARE(centreOf(window.hallMonitor->image), QColor(200, 0, 0));
        QCOMPARE(centreOf(window.programMonitor->image), black);
        window.busChosen(0);
        window.take();
        QCOMPARE(window.fadeProgress, 0.0);
        QTRY_COMPARE(window.fadeProgress, 1.0);

        window.busChosen(bus);
        window.offAir();
        QCOMPARE(window.program.layers.empty(), bus == 0);
        QCOMPARE(window.hallProgram.layers.empty(), bus == 1);
        QCOMPARE(window.fadeProgress, bus == 0 ? 0.0 : 1.0);
        QCOMPARE(window.statusLabel->text(), bus == 0 ? QStringLiteral("Programa en negro (fuera del aire).")
                                                      : QStringLiteral("Pantallas de sala en negro."));
        QTRY_COMPARE(centreOf((bus == 0 ? window.programMonitor : window.hallMonitor)->image), black);
        QTRY_VERIFY(centreOf((bus == 0 ? window.hallMonitor : window.programMonitor)->image) != black);
    }

    void fileVideoRestartsAtEveryTake()
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

    // A file no decoder takes (this test's own program) shows the missing box and is reported once.
    void failingSourceIsReportedOnceAndShowsTheMissingBox()
    {
        StudioWindow window(false);
        window.fadeCheck->setChecked(false);
        Layer white;
        white.kind = Layer::Kind::Color;
        white.fill = Qt::white;
        window.scene().layers = {white, videoLayer(window, QCoreApplication::applicationFilePath())};
        window.take();
        QTRY_VERIFY_WITH_TIMEOUT(window.statusLabel->text().startsWith(QStringLiteral("Fuente sin señal: ")), 10000);
        const QColor missing = centreOf(window.programMonitor->image);
        QVERIFY2(qAbs(missing.red() - 55) <= 2 && missing.red() == missing.blue(), qPrintable(missing.name()));
        QVERIFY(window.program.layers.back().media); // the source stays in its layer
        window.notify(QStringLiteral("siguiente"));
        const std::uint32_t seen = window.camera->frameCount;
        QTRY_VERIFY(window.camera->frameCount > seen + 15);
        QCOMPARE(window.statusLabel->text(), QStringLiteral("siguiente"));
    }

    void addressSchemes()
    {
        StudioWindow window(false);
        for (const QString& address : {"FILE://" + videoFile, QStringLiteral("rtsp://127.0.0.1:1/cam")})
            QVERIFY(window.openMedia(address));
        for (const char* address : {"ftp://x/y.mp4", "C:\\x.mp4", "video.mp4"}) {
            try {
                window.openMedia(QString::fromLatin1(address));
                QFAIL(address);
            } catch (const std::runtime_error& error) {
                QCOMPARE(QByteArray(error.what()), QByteArray("URL multimedia no compatible"));
            }
        }
    }
};

QTEST_MAIN(tst_Take)
#include "tst_take.moc"
