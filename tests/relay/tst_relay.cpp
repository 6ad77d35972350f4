#include "MediaProbe.h"
#include "Output.h"
#include "RtmpServer.h"
#include "StudioWindow.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QScopeGuard>
#include <QTcpSocket>
#include <QSettings>
#include <QTest>

// The relay of tools/relay as a church runs it: the studio's "Otro RTMP" row sends one stream to the
// nginx that relay.sh configures and starts, and the relay sends it on to two platforms, one of them
// over RTMPS.
class tst_Relay : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void fanOut_data();
    void fanOut();
};

void tst_Relay::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    gst_init(nullptr, nullptr);
}

void tst_Relay::fanOut_data()
{
    QTest::addColumn<bool>("relayKey"); // the studio sends under the relay's key, or another one
    QTest::addColumn<bool>("trusted");
    QTest::newRow("both platforms receive") << true << true;
    // The relay checks the RTMPS platform's certificate: a platform it cannot verify never gets the key.
    QTest::newRow("RTMPS platform of an unknown authority") << true << false;
    QTest::newRow("another key reaches no platform") << false << true;
}

void tst_Relay::fanOut()
{
    QFETCH(bool, relayKey);
    QFETCH(bool, trusted);
    const QString folder =
        QStringLiteral(VELMORA_TEST_OUTPUT "/") + QString::fromUtf8(QTest::currentDataTag());
    QDir(folder).removeRecursively();
    RtmpServer plain(folder + QStringLiteral("/plain"));
    RtmpServer secure(folder + QStringLiteral("/secure"), true);
    QVERIFY2(plain.ok() && secure.ok(), qPrintable(plain.errorString() + secure.errorString()));

    // The destinations as a volunteer writes them. nginx checks a platform's certificate by host name,
    // and the test certificate names localhost.
    const QString churchKey = QStringLiteral("relay-key-of-the-church");
    const QString plainKey = QStringLiteral("plain-platform-key");
    const QString secureKey = QStringLiteral("secure-platform-key");
    QFile destinations(folder + QStringLiteral("/destinations.txt"));
    QVERIFY(destinations.open(QIODevice::WriteOnly));
    destinations.write(
        QStringLiteral("relay %1\n%2\n%3\n")
            .arg(churchKey, plain.url(plainKey), secure.tlsUrl(secureKey, QStringLiteral("localhost")))
            .toUtf8());
    destinations.close();

    const quint16 relayPort = RtmpServer::freePort();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("RELAY_PORT"), QString::number(relayPort));
    environment.insert(QStringLiteral("RELAY_LEG_PORT"), QString::number(RtmpServer::freePort()));
    environment.insert(QStringLiteral("RELAY_FOLDER"), folder + QStringLiteral("/relay"));
    // Unknown: the platform's own certificate stands where its authority should.
    environment.insert(QStringLiteral("RELAY_CA_FILE"),
                       trusted ? secure.caCertificate() : secure.folder() + QStringLiteral("/server.crt"));
    QProcess relay;
    relay.setProcessEnvironment(environment);
    relay.setProcessChannelMode(QProcess::MergedChannels);
    relay.start(QStringLiteral(VELMORA_SOURCE_DIR "/tools/relay/relay.sh"), {destinations.fileName()});
    // nginx's fast shutdown takes its workers along, whatever the outcome here.
    const auto stopRelay = qScopeGuard([&relay] {
        relay.terminate();
        relay.waitForFinished(10000);
    });
    QVERIFY(relay.waitForStarted());
    const auto relayAccepts = [relayPort] {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, relayPort);
        return probe.waitForConnected(100);
    };
    QTRY_VERIFY_WITH_TIMEOUT(relay.state() != QProcess::Running || relayAccepts(), 20000);
    QVERIFY2(relay.state() == QProcess::Running, relay.readAll().constData());
    const auto relayLogSays = [&folder](const char* text) {
        QFile log(folder + QStringLiteral("/relay/error.log"));
        return log.open(QIODevice::ReadOnly) && log.readAll().contains(text);
    };

    // The operator's side: the relay's address and key in the "Otro RTMP" row, and its button.
    StudioWindow window(false);
    Destination& row = window.destinations[3];
    row.server->setText(QStringLiteral("rtmp://127.0.0.1:%1/relay").arg(relayPort));
    row.key->setText(relayKey ? churchKey : QStringLiteral("a-guess-at-the-key"));
    row.button->click();
    const bool plainReached = relayKey;
    const bool secureReached = relayKey && trusted;
    QTRY_VERIFY2_WITH_TIMEOUT(row.output && row.output->videoFrames >= 120 &&
                                  (!plainReached || QFileInfo(plain.recording(plainKey)).size() > 0) &&
                                  (!secureReached || QFileInfo(secure.recording(secureKey)).size() > 0) &&
                                  (trusted || relayLogSays("upstream SSL certificate verify error")),
                              qPrintable(row.status->text() + QLatin1Char(' ') + plain.log() + secure.log()),
                              30000);
    // Both legs held until now, and the studio's stop ends them both.
    QVERIFY(!plain.publishEnded(plainKey) && !secure.publishEnded(secureKey));
    const std::uint64_t pushed = row.output->videoFrames;
    row.button->click();
    QTRY_VERIFY_WITH_TIMEOUT((!plainReached || plain.publishEnded(plainKey)) &&
                                 (!secureReached || secure.publishEnded(secureKey)),
                             20000);
    plain.stop();
    secure.stop();

    // A platform's picture starts at the first key frame it receives, the studio's second (one every
    // 60 frames); of what follows, a busy machine may drop some at the source.
    const auto unlike = [pushed](const QString& file, bool reached) {
        if (!reached)
            return QFileInfo::exists(file) ? file + QStringLiteral(" arrived") : QString();
        const auto streams = probeStreams(file);
        const bool whole = streams.value(QStringLiteral("h264")).frames >= int(pushed - 60) / 2 &&
                           streams.value(QStringLiteral("aac")).frames > 0;
        return whole ? QString() : file + QStringLiteral(": ") + describeStreams(streams);
    };
    for (const QString& failure : {unlike(plain.recording(plainKey), plainReached),
                                   unlike(secure.recording(secureKey), secureReached)})
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    // What the script printed names no key.
    const QByteArray printed = relay.readAll();
    for (const QString& key : {churchKey, plainKey, secureKey})
        QVERIFY2(!printed.contains(key.toUtf8()), printed.constData());
}

QTEST_MAIN(tst_Relay)
#include "tst_relay.moc"
