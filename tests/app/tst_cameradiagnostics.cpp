#include "CameraDiagnostics.h"
#include "Frame.h"

#include <QTest>

class tst_CameraDiagnostics : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void line_data();
    void line();
};

void tst_CameraDiagnostics::line_data()
{
    QTest::addColumn<int>("frameWidth"); // 0: no frame
    QTest::addColumn<QString>("expected");

    QTest::newRow("no frame") << 0
                              << "DIAG frames=90 media=4096 capas=3 latest=0x0 centro=vacio nieve=0 "
                                 "preparado.centro=10,20,30 active=1";
    // 20x10: the corner walk visits x 18 and y 9 only; the byte there is 18 + 9 = 27.
    QTest::newRow("small frame") << 20
                                 << "DIAG frames=90 media=4096 capas=3 latest=20x10 centro=15,50,255 nieve=27 "
                                    "preparado.centro=10,20,30 active=1";
}

void tst_CameraDiagnostics::line()
{
    QFETCH(int, frameWidth);
    QFETCH(QString, expected);

    tavrin::Frame frame;
    if (frameWidth > 0) {
        frame = tavrin::Frame(frameWidth, 10);
        for (int y = 0; y < frame.height; ++y)
            for (int x = 0; x < frame.width; ++x) {
                std::uint8_t* pixel = frame.pixels.data() + (y * frame.width + x) * 4;
                pixel[0] = std::uint8_t(x + y);
                pixel[1] = 50;
                pixel[2] = 255;
            }
    }
    CameraHealth health;
    health.frameCount = 90;
    health.instance = 4096;
    health.layerCount = 3;
    health.latest = &frame;
    health.previewCentre = QColor(10, 20, 30);
    health.active = true;
    QCOMPARE(diagnosticLine(health), expected);
}

QTEST_APPLESS_MAIN(tst_CameraDiagnostics)
#include "tst_cameradiagnostics.moc"
