#include "AudioCapture.h"
#include "Canvas.h"
#include "Media.h"
#include "MediaProbe.h"
#include "Output.h"
#include "Picture.h"
#include "RtmpServer.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QSettings>
#include <QTest>
#include <QTimer>
#include <atomic>
#include <stdexcept>

// The outputs as the operator drives them: the real tick feeds a recording and streams to a real
// RTMP server, and what arrived is checked with ffprobe.
class tst_Outputs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void recordingThroughTheTick();
    void streamThroughTheTick();
    void badRowEntryChangesNothing_data();
    void badRowEntryChangesNothing();
    void failingRowLeavesTheRestOnAir();
    void unwritableRecordingIsRefused();
    void languageIsRefusedWhileOutputsRun();
    void closingFinishesTheRecording_data();
    void closingFinishesTheRecording();

private:
    static void goOnAirWithToneAndPattern(StudioWindow& window);
    static QString logText();
    QString folder;
};

void tst_Outputs::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    gst_init(nullptr, nullptr);
    folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QDir().mkpath(folder);
}

QString tst_Outputs::logText()
{
    QFile log(StudioWindow::logPath());
    return log.open(QIODevice::ReadOnly) ? QString::fromUtf8(log.readAll()) : QString();
}

void tst_Outputs::goOnAirWithToneAndPattern(StudioWindow& window)
{
    window.audioCombo->setCurrentIndex(1); // "Señal de prueba (sin altavoces)"
    window.connectSources();
    QVERIFY(window.capture);
    window.fadeCheck->setChecked(false);
    window.take();
    QTRY_VERIFY_WITH_TIMEOUT(window.camera->frameCount > 2 && !window.programAudio.empty(), 10000);
}

void tst_Outputs::recordingThroughTheTick()
{
    StudioWindow window(false);
    goOnAirWithToneAndPattern(window);
    const QString path = folder + QStringLiteral("/program.webm");
    QFile::remove(path);
    window.startRecording(path);
    // Pictures that a busy encoder could not take are dropped at the source on purpose; count what
    // entered, which is what the file must hold.
    std::atomic<int> entered{0};
    const gstptr::Pad sourcePad(gst_element_get_static_pad(window.recording->videoSource, "src"));
    gst_pad_add_probe(
        sourcePad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo*, gpointer counter) {
            ++*static_cast<std::atomic<int>*>(counter);
            return GST_PAD_PROBE_OK;
        },
        &entered, nullptr);
    QVERIFY(!window.formatCombo->isEnabled());
    QCOMPARE(window.recordButton->text(), QStringLiteral("■ Detener grabación"));
    QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 90, 20000);

    window.recordButton->click(); // stop, as the operator does
    QCOMPARE(window.recordButton->text(), QStringLiteral("Finalizando..."));
    const std::uint64_t pushed = window.recording->videoFrames;
    QTRY_VERIFY_WITH_TIMEOUT(!window.recording, 20000);
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Grabación guardada correctamente"));
    QCOMPARE(window.recordButton->text(), QStringLiteral("● Grabar"));
    QVERIFY(window.formatCombo->isEnabled());

    const auto streams = probeStreams(path);
    QVERIFY2(streams.contains(QStringLiteral("vp8")) && streams.contains(QStringLiteral("vorbis")),
             qPrintable(describeStreams(streams)));
    // The duration follows the paced clock; pictures may only be lost to a busy encoder, never gained.
    const double seconds = probeDuration(path);
    QVERIFY2(qAbs(seconds - pushed / 30.0) <= 0.2, qPrintable(QString::number(seconds)));
    if (entered < int(pushed))
        qInfo("dropped by a busy encoder: %d of %d pictures", int(pushed) - entered, int(pushed));
    QVERIFY2(qAbs(streams.value(QStringLiteral("vp8")).frames - entered) <= 2, qPrintable(describeStreams(streams)));
    const QString complaints = playThrough(path);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints));
}

void tst_Outputs::streamThroughTheTick()
{
    RtmpServer server(folder + QStringLiteral("/rtmp"));
    QVERIFY2(server.ok(), qPrintable(server.errorString()));
    StudioWindow window(false);
    goOnAirWithToneAndPattern(window);

    Destination& row = window.destinations[3];
    const QString key = QStringLiteral("tick-stream-key");
    QFile::remove(server.recording(key));
    row.server->setText(QStringLiteral("rtmp://127.0.0.1:%1/app/").arg(server.port()));
    row.key->setText(key);
    row.button->click();
    QCOMPARE(row.button->text(), QStringLiteral("Detener"));
    QCOMPARE(row.status->text(), QStringLiteral("Enviando · confirma recepción en la plataforma"));
    QTRY_VERIFY_WITH_TIMEOUT(row.output && row.output->videoFrames >= 120, 20000);
    row.button->click();
    QCOMPARE(row.button->text(), QStringLiteral("Iniciar"));
    QCOMPARE(row.status->text(), QStringLiteral("Detenido"));
    QTRY_VERIFY_WITH_TIMEOUT(window.retired.empty(), 20000);
    server.stop();

    const auto streams = probeStreams(server.recording(key));
    QVERIFY2(streams.value(QStringLiteral("h264")).rate == QStringLiteral("30/1") &&
                 streams.value(QStringLiteral("h264")).frames >= 100 && streams.value(QStringLiteral("aac")).frames > 0,
             qPrintable(describeStreams(streams)));
    const QString log = logText();
    QVERIFY(log.contains(QStringLiteral("Salida Otro RTMP: servidor=rtmp://127.0.0.1:%1/app/ clave: 15 caracteres, empieza \"tick\"")
                             .arg(server.port())));
    QVERIFY(!log.contains(key));
    QSettings settings;
    for (const QString& setting : settings.allKeys())
        QVERIFY(!settings.value(setting).toString().contains(key));
}

void tst_Outputs::badRowEntryChangesNothing_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("message");

    const QString badServer = QStringLiteral("Servidor RTMP/RTMPS inválido. Separa la clave del servidor.");
    const QString badKey = QStringLiteral("Clave de transmisión inválida");
    QTest::newRow("key in the server") << "rtmp://127.0.0.1/app?key=abc" << "k" << badServer;
    QTest::newRow("user part") << "rtmp://user@127.0.0.1/app" << "k" << badServer;
    QTest::newRow("no host") << "rtmp://" << "k" << badServer;
    QTest::newRow("key with a blank") << "rtmp://127.0.0.1/app" << "ab cd" << badKey;
    QTest::newRow("key with a question mark") << "rtmp://127.0.0.1/app" << "ab?cd" << badKey;
    QTest::newRow("key with a hash") << "rtmp://127.0.0.1/app" << "ab#cd" << badKey;
}

void tst_Outputs::badRowEntryChangesNothing()
{
    QFETCH(QString, server);
    QFETCH(QString, key);
    QFETCH(QString, message);

    StudioWindow window(false);
    Destination& row = window.destinations[3];
    row.server->setText(server);
    row.key->setText(key);
    QTimer::singleShot(0, this, [] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            box->accept();
    });
    row.button->click();
    QCOMPARE(window.statusLabel->text(), message);
    QVERIFY(!row.output);
    QCOMPARE(row.button->text(), QStringLiteral("Iniciar"));
    QCOMPARE(row.server->text(), server);
    QCOMPARE(row.key->text(), key);
    QVERIFY(window.formatCombo->isEnabled());
}

void tst_Outputs::failingRowLeavesTheRestOnAir()
{
    StudioWindow window(false);
    goOnAirWithToneAndPattern(window);
    window.startRecording(folder + QStringLiteral("/beside-a-failing-row.webm"));
    Destination& row = window.destinations[2];
    row.server->setText(QStringLiteral("rtmp://127.0.0.1:%1/app").arg(RtmpServer::freePort()));
    row.key->setText(QStringLiteral("nobody-listens"));
    row.enabled->setChecked(true);
    window.startSelectedDestinations();
    QVERIFY(row.output);

    QTRY_VERIFY_WITH_TIMEOUT(!row.output, 20000);
    QVERIFY2(row.status->text().startsWith(QStringLiteral("Fallo de salida (codigo ")), qPrintable(row.status->text()));
    QCOMPARE(row.button->text(), QStringLiteral("Iniciar"));
    QVERIFY(window.recording && window.recording->running);
    QVERIFY(!window.formatCombo->isEnabled());
    // The picture keeps moving after the failure.
    const std::uint64_t recorded = window.recording->videoFrames;
    QTRY_VERIFY(window.recording->videoFrames > recorded + 15);
}

void tst_Outputs::unwritableRecordingIsRefused()
{
    StudioWindow window(false);
    try {
        window.startRecording(QStringLiteral("/no/such/folder/program.webm"));
        QFAIL("a recording into a missing folder must not start");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QByteArray(error.what()), QByteArray("No se pudo iniciar salida"));
    }
    QVERIFY(!window.recording);
    QCOMPARE(window.recordButton->text(), QStringLiteral("● Grabar"));
    QVERIFY(window.formatCombo->isEnabled());
}

void tst_Outputs::languageIsRefusedWhileOutputsRun()
{
    StudioWindow window(false);
    QSettings settings;
    settings.remove(QStringLiteral("language"));
    window.startRecording(folder + QStringLiteral("/language.webm"));
    window.languageCombo->setCurrentIndex(1);
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Detén las salidas antes de cambiar el idioma."));
    QCOMPARE(window.languageCombo->currentIndex(), 0);
    settings.sync();
    QVERIFY(!settings.contains(QStringLiteral("language")));
}

void tst_Outputs::closingFinishesTheRecording_data()
{
    QTest::addColumn<bool>("confirm");
    QTest::newRow("the operator confirms") << true;
    QTest::newRow("the operator keeps recording") << false;
}

void tst_Outputs::closingFinishesTheRecording()
{
    QFETCH(bool, confirm);

    const QString path = folder + QStringLiteral("/closing.webm");
    QFile::remove(path);
    StudioWindow window(false);
    window.show();
    goOnAirWithToneAndPattern(window);
    window.startRecording(path);
    QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 30, 20000);

    QTimer::singleShot(0, this, [confirm] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget()))
            box->button(confirm ? QMessageBox::Yes : QMessageBox::No)->click();
    });
    QCOMPARE(window.close(), confirm);
    if (!confirm) {
        const std::uint64_t recorded = window.recording->videoFrames;
        QTRY_VERIFY(window.recording->videoFrames > recorded + 10); // tick and recording go on
        return;
    }
    QVERIFY(window.recording->ended);
    const QString complaints = playThrough(path);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints));
    QVERIFY(probeDuration(path) > 0.9);
}

QTEST_MAIN(tst_Outputs)
#include "tst_outputs.moc"
