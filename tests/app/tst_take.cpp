#include "Canvas.h"
#include "GstSupport.h"
#include "Media.h"
#include "Picture.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>

static QColor bandPixel(const QImage& image) { return image.pixelColor(image.width() / 2, image.height() * 80 / 100); }
static const QColor black(Qt::black);

// Take, off air and the tick, on a real window with the real test pattern as its camera.
class tst_Take : public QObject
{
    Q_OBJECT
    QTemporaryDir files;
    QString videoFile = files.filePath(QStringLiteral("clip.webm"));

private Q_SLOTS:
    void initTestCase()
    {
        prepareStudioTest();
        QVERIFY(runToEnd("videotestsrc num-buffers=45 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                         "vp8enc deadline=1 ! webmmux ! filesink location=" + QFile::encodeName(videoFile)));
    }

    // The hall cuts without the lower third; the stream fades and freezes it; off air acts on the edited bus.
    void takeOffAirAndSources()
    {
        StudioWindow window(false);
        window.overlayField->setText(QStringLiteral("Bienvenidos"));
        window.bandCheck->setChecked(true);
        window.busChosen(1);
        window.scene().layers[0].fill = QColor(200, 0, 0);
        window.take();
        QVERIFY(window.fadeProgress == 1.0 && window.programOverlay.isEmpty());
        QCOMPARE(window.statusLabel->text(), QStringLiteral("Escena enviada a las pantallas de sala."));
        QTRY_COMPARE(centreOf(window.hallMonitor->image), QColor(200, 0, 0));
        QCOMPARE(centreOf(window.programMonitor->image), black);
        window.busChosen(0);
        const QImage& preview = window.canvas->frame;
        QTRY_VERIFY_WITH_TIMEOUT(!preview.isNull() && bandPixel(preview) != centreOf(preview), 10000);
        window.take();
        QCOMPARE(window.fadeProgress, 0.0);
        const std::uint32_t frames = window.camera->frameCount;
        QTRY_VERIFY(window.fadeProgress == 1.0 && window.camera->frameCount > frames + 3); // fade drawn
        const QColor band = bandPixel(window.programMonitor->image);
        QVERIFY(band != black);
        window.overlayField->clear();
        window.bandCheck->setChecked(false);
        window.scene().layers.clear();
        QTRY_COMPARE(centreOf(preview), black);
        QVERIFY(centreOf(window.programMonitor->image) != black);
        QCOMPARE(bandPixel(window.programMonitor->image), band);
        window.busChosen(1);
        window.offAir();
        QVERIFY(window.hallProgram.layers.empty() && !window.program.layers.empty());
        QCOMPARE(window.statusLabel->text(), QStringLiteral("Pantallas de sala en negro."));
        QTRY_COMPARE(centreOf(window.hallMonitor->image), black);
        window.busChosen(0);
        window.offAir();
        QVERIFY(window.program.layers.empty() && window.fadeProgress == 0.0);
        QCOMPARE(window.statusLabel->text(), QStringLiteral("Programa en negro (fuera del aire)."));
        QTRY_COMPARE(centreOf(window.programMonitor->image), black);
        // A file no decoder takes (this program) shows the missing box, a file video restarts.
        window.fadeCheck->setChecked(false);
        window.scene().layers = {Layer::fromJson({{"kind", "color"}, {"fill", "#ffffff"}})};
        window.addVideoLayer(QUrl::fromLocalFile(QCoreApplication::applicationFilePath()).toString());
        window.scene().layers.back().rect = QRectF(0, 0, 1, 1);
        window.take();
        QTRY_VERIFY_WITH_TIMEOUT(window.statusLabel->text().startsWith(QStringLiteral("Fuente sin señal: ")), 10000);
        const QImage& program = window.programMonitor->image; // the box darkens the white below to grey 55
        QTRY_VERIFY(qAbs(centreOf(program).red() - 55) <= 2 && centreOf(program).red() == centreOf(program).blue());
        window.scene().layers.clear();
        window.addVideoLayer(QUrl::fromLocalFile(videoFile).toString());
        const Media* first = window.scene().layers.back().media.get();
        window.take();
        QVERIFY(window.scene().layers.back().media.get() != first);
        QTRY_VERIFY(window.program.layers.back().media->frameCount > 0);
    }
};

QTEST_MAIN(tst_Take)
#include "tst_take.moc"
