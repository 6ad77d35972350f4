#include "Frame.h"

#include <QTest>
#include <stdexcept>

class tst_Frame : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dimensions_data();
    void dimensions();
};

void tst_Frame::dimensions_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<bool>("valid");

    QTest::newRow("smallest") << 1 << 1 << true;
    QTest::newRow("largest") << 8192 << 8 << true;
    QTest::newRow("zero width") << 0 << 10 << false;
    QTest::newRow("too tall") << 10 << 8193 << false;
    QTest::newRow("negative") << -4 << 4 << false;
}

void tst_Frame::dimensions()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(bool, valid);

    if (!valid) {
        try {
            tavrin::Frame frame(width, height);
            QFAIL("expected a refusal");
        } catch (const std::runtime_error& error) {
            QCOMPARE(QByteArray(error.what()), QByteArray("Tamaño de cuadro inválido"));
        }
        return;
    }
    const tavrin::Frame frame(width, height);
    QCOMPARE(frame.pixels.size(), std::size_t(width) * std::size_t(height) * 4);
    // Opaque black: colour bytes zero, alpha full, in every pixel.
    for (std::size_t i = 0; i < frame.pixels.size(); ++i)
        QCOMPARE(int(frame.pixels[i]), i % 4 == 3 ? 255 : 0);
    QVERIFY(tavrin::Frame().empty());
}

QTEST_GUILESS_MAIN(tst_Frame)
#include "tst_frame.moc"
